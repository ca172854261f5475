// SPDX-License-Identifier: Apache-2.0
#include "medium.h"

#include "clock.h"
#include "common/failure.h"
#include "common/sharestate.h"
#include "common/stopsignal.h"
#include "summary.h"

#include <oruio/error.h>

#include <chrono>
#include <cstdio>
#include <thread>

namespace {

using namespace oru::io;

constexpr std::chrono::seconds patience(30);
constexpr std::chrono::milliseconds interval(100);
/// Longer than the time between the events of a disk and its partitions.
constexpr unsigned int quietMs = 500;

Place& onlyPlace(Places& places, const QString& name, const QString& file) {
    if (places.all().empty())
        throw Failure{"there is no location '" + name + "' in " + file};
    return places.all().front();
}

} // namespace

Medium::Medium(const QString& name, const Options& options)
    : m_isToBeChecked(options.check), m_places(options.locations, name),
      m_place(onlyPlace(m_places, name, options.locations)) {
    StorageLocation& location = *m_place.location;
    if (auto* const local = qobject_cast<SystemLocation*>(&location))
        await(*local);
    liberrno = Ok; // the reason may be in errno
    if (location.mount(nullptr) != 0)
        throw Failure{"cannot mount the medium of " + name + ": " + describeMountFailure(location)};
    m_isMounted = true;
    printRow("mounted", QStringLiteral("%1, on %2").arg(name, m_place.directory));
}

Medium::~Medium() {
    // After a failure it may have been pulled out.
    Properties lazy = {{"lazy", true}};
    if (m_isMounted)
        m_place.location->umount(&lazy);
}

QString Medium::directory() const {
    return m_place.directory;
}

void Medium::await(SystemLocation& location) {
    BDMon& media = *BDMon::instance();
    m_places.follow(media);
    media.start();
    if (location.access() == StorageLocation::None)
        std::fprintf(stderr, "recorder: waiting for a medium\n");
    const auto limit = Clock::now() + patience;
    Arrival arrival;
    while (!arrival.isComplete(location) && Clock::now() < limit && !stopsignal::isRequested()) {
        std::this_thread::sleep_for(interval);
        media.update(quietMs);
    }
    media.stop();
    if (!arrival.isComplete(location))
        throw Failure{QStringLiteral("there is no medium in ") + location.name()};
}

void Medium::unmount() {
    const QString name = m_place.location->name();
    liberrno = Ok; // the reason is in errno
    if (m_place.location->umount(nullptr) != 0)
        throw cannot("unmount the medium of " + name);
    m_isMounted = false;
    printRow("unmounted", name);
    if (m_isToBeChecked)
        check();
}

void Medium::check() {
    auto* const local = qobject_cast<SystemLocation*>(m_place.location.get());
    if (!local)
        return; // only the server can check it
    const int status = local->check();
    if (status != 0)
        throw status < 0
            ? cannot("check the medium")
            : Failure{QStringLiteral("the check of the medium has failed (%1)").arg(status)};
    printRow("checked", QStringLiteral("the file system is sound"));
}
