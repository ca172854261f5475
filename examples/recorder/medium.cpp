// SPDX-License-Identifier: Apache-2.0
#include "medium.h"

#include "clock.h"
#include "common/failure.h"
#include "common/stopsignal.h"
#include "summary.h"

#include <oruio/error.h>

#include <chrono>
#include <cstdio>
#include <thread>

namespace {

using namespace oru::io;

const Place& onlyPlace(const Places& places, const QString& name, const QString& file) {
    if (places.all().empty())
        throw Failure{"there is no location '" + name + "' in " + file};
    return places.all().front();
}

} // namespace

Medium::Medium(const QString& name, const Options& options)
    : m_isToBeChecked(options.check), m_places(options.locations, name),
      m_place(onlyPlace(m_places, name, options.locations)), m_keeper(m_place.location.get()) {
    await();
    if (m_keeper.state() == MediumKeeper::Failed)
        throw Failure{"cannot mount the medium of " + name + ": " + m_keeper.reason()};
    if (m_keeper.state() != MediumKeeper::Mounted)
        throw Failure{"there is no medium in " + name};
    printRow("mounted", QStringLiteral("%1, on %2").arg(name, m_place.directory));
}

Medium::~Medium() {
    m_keeper.unmount(true); // after a failure it may have been pulled out
}

QString Medium::directory() const {
    return m_place.directory;
}

/// Waits until the medium is mounted or cannot be mounted.
void Medium::await() {
    constexpr std::chrono::seconds patience(30);
    constexpr std::chrono::milliseconds interval(100);
    constexpr unsigned int quietMs = 100;
    BDMon& media = *BDMon::instance();
    media.start();
    m_keeper.step();
    if (m_keeper.state() == MediumKeeper::Absent)
        std::fprintf(stderr, "recorder: waiting for a medium\n");
    const auto limit = Clock::now() + patience;
    while (m_keeper.state() < MediumKeeper::Mounted && Clock::now() < limit &&
           !stopsignal::isRequested()) {
        std::this_thread::sleep_for(interval);
        media.update(quietMs);
        m_keeper.step();
    }
    media.stop();
}

void Medium::unmount() {
    const QString name = m_place.location->name();
    if (m_keeper.unmount() != 0)
        throw cannot("unmount the medium of " + name);
    printRow("unmounted", name);
    if (m_isToBeChecked)
        check();
}

void Medium::check() {
    StorageLocation& location = *m_place.location;
    if (!qobject_cast<SystemLocation*>(&location))
        return; // only the server can check it
    const int status = location.check();
    if (!location.isSuccess(status))
        throw status < 0
            ? cannot("check the medium")
            : Failure{QStringLiteral("the check of the medium has failed (%1)").arg(status)};
    printRow("checked", QStringLiteral("the file system is sound"));
}
