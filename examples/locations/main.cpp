// SPDX-License-Identifier: Apache-2.0
// Operates the storage locations of an application: mounts media when they are inserted, records on
// them, unmounts them.
#include "common/failure.h"
#include "common/places.h"
#include "common/program.h"
#include "common/sharestate.h"
#include "common/stopsignal.h"

#include <oruio/error.h>
#include <oruio/fssmb.h>
#include <oruio/fsswitch.h>

#include <QCommandLineParser>

#include <chrono>
#include <cstdio>
#include <thread>

#include <fcntl.h>

namespace {

using namespace oru::io;

const char description[] =
    "Shows the state of each storage location of FILE as it changes, mounts the media that arrive\n"
    "and the shares, and records a short clip to each that is writeable, until Ctrl-C or SIGTERM.\n"
    "\n"
    "Exit status: 0 all unmounted, 1 failure, 2 bad command line.";

void report(const Place& place, const QString& event) {
    std::printf("%s: %s\n", place.location->name(), qUtf8Printable(event));
    std::fflush(stdout);
}

/// Records a short clip. \returns the message for the user.
QString recordClip(const Place& place) {
    constexpr int size = 1 << 20;
    const QByteArray clip(size, 'o');
    const QString path = place.directory + "/locations-clip.oru";
    const auto file = FSSwitch::rootfs()->open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (!file || file->write(clip.constData(), size) != size || file->fsync() != 0 ||
        file->close() != 0)
        return QStringLiteral("cannot record: ") + strerror();
    return QStringLiteral("recorded %1 bytes in %2").arg(size).arg(path);
}

/// Operates one place: mounts, records and unmounts, one step per call, and reports changes.
class PlaceManager {
public:
    explicit PlaceManager(Place& place)
        : m_place(place), m_share(place.location->fs().dynamicCast<Smb2FS>()) {}

    void advance() {
        StorageLocation& location = *m_place.location;
        auto* const local = qobject_cast<SystemLocation*>(&location);
        const auto before = m_access;
        reportAccess();
        if (before >= StorageLocation::Read && m_access <= StorageLocation::Presence) {
            unmount(); // the medium was removed while mounted
            m_arrival = {};
        }
        const bool hasArrived = !local || m_arrival.isComplete(*local);
        if (hasArrived && m_access == (local ? StorageLocation::Presence : StorageLocation::None))
            mountAndRecord();
        else if (m_share && m_access == StorageLocation::Write)
            connectAgain();
    }

    /// Unmounts. \returns false if something is still mounted.
    bool unmount() {
        Properties lazy = {{"lazy", true}};
        const bool isPulledOut = m_access <= StorageLocation::Presence;
        liberrno = Ok; // the reason is in errno
        if (m_place.location->umount(isPulledOut ? &lazy : nullptr) != 0) {
            report(m_place, QStringLiteral("cannot unmount: ") + strerror());
            return false;
        }
        reportAccess();
        return true;
    }

private:
    using Clock = std::chrono::steady_clock;

    /// Whether it is time to ask a server again, which may take as long as its time-out.
    bool isDue() {
        if (Clock::now() < m_nextTry)
            return false;
        m_nextTry = Clock::now() + std::chrono::seconds(5);
        return true;
    }

    /// Mounts a share again whose server was switched off or restarted.
    void connectAgain() {
        if (!isDue() || isUsable(*m_share))
            return;
        report(m_place, "the connection is lost");
        mount();
    }

    /// After a failure a medium is not tried again, because its access() is then None. A server is,
    /// every 5 s.
    void mountAndRecord() {
        if (isDue())
            mount();
    }

    void mount() {
        Properties readOnly = {{"readonly", true}};
        liberrno = Ok; // the reason may be in errno
        if (m_place.location->mount(m_place.location->isWriteProtected() ? &readOnly : nullptr) !=
            0)
            return report(m_place, "cannot mount: " + describeMountFailure(*m_place.location));
        reportAccess();
        if (m_access == StorageLocation::Write)
            report(m_place, recordClip(m_place));
    }

    void reportAccess() {
        const auto access = m_place.location->access();
        if (access != m_access)
            report(m_place, StorageLocation::straccess(access));
        m_access = access;
    }

    Place& m_place;
    const Smb2FS::SPtr m_share; // null for other places
    StorageLocation::AccessType m_access = StorageLocation::None;
    Arrival m_arrival;
    Clock::time_point m_nextTry;
};

void operate(const QString& file) {
    constexpr unsigned int quietMs = 500;
    constexpr std::chrono::milliseconds interval(200);
    stopsignal::install();
    Places places(file);
    std::vector<PlaceManager> managers(places.all().begin(), places.all().end());
    BDMon& media = *BDMon::instance();
    places.follow(media);
    media.start();
    while (!stopsignal::isRequested()) {
        media.update(quietMs);
        for (PlaceManager& manager : managers)
            manager.advance();
        std::this_thread::sleep_for(interval);
    }
    bool isClean = true;
    for (PlaceManager& manager : managers)
        isClean &= manager.unmount();
    media.stop();
    if (!isClean)
        throw Failure{"something is still mounted"};
}

void runCommand(const QStringList& arguments) {
    QCommandLineParser parser;
    parser.setApplicationDescription(description);
    parser.addOption({{"h", "help"}, "Show this help."});
    parser.addPositionalArgument("FILE", "The file that describes the locations.");
    if (!parser.parse(arguments))
        throw UsageError{parser.errorText()};
    if (parser.isSet("help"))
        std::fputs(qUtf8Printable(parser.helpText()), stdout);
    else if (parser.positionalArguments().size() != 1)
        throw UsageError{"there must be one file of locations"};
    else
        operate(parser.positionalArguments().first());
}

} // namespace

int main(int argc, char* argv[]) {
    return runProgram("locations", argc, argv, runCommand);
}
