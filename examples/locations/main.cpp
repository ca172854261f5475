// SPDX-License-Identifier: Apache-2.0
// Operates the storage locations of an application: mounts media when they are inserted, records on
// them, unmounts them.
#include "common/failure.h"
#include "common/places.h"
#include "common/program.h"
#include "common/stopsignal.h"

#include <oruio/error.h>
#include <oruio/fsswitch.h>
#include <oruio/mediumkeeper.h>

#include <QCommandLineParser>

#include <chrono>
#include <cstdio>
#include <memory>
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

/// Keeps a place mounted, records on it, and reports changes.
std::unique_ptr<MediumKeeper> keep(const Place& place) {
    auto keeper = std::make_unique<MediumKeeper>(place.location.get());
    QObject::connect(keeper.get(), &MediumKeeper::accessChanged,
                     [&place](StorageLocation*, StorageLocation::AccessType access) {
                         report(place, StorageLocation::straccess(access));
                         if (access == StorageLocation::Write)
                             report(place, recordClip(place));
                     });
    QObject::connect(keeper.get(), &MediumKeeper::stateChanged, [&place, kept = keeper.get()] {
        if (kept->state() == MediumKeeper::Failed)
            report(place, kept->reason());
    });
    return keeper;
}

void operate(const QString& file) {
    constexpr unsigned int quietMs = 100;
    constexpr std::chrono::milliseconds interval(100);
    stopsignal::install();
    const Places places(file);
    std::vector<std::unique_ptr<MediumKeeper>> keepers;
    for (const Place& place : places.all())
        keepers.push_back(keep(place));
    BDMon::instance()->start();
    while (!stopsignal::isRequested()) {
        BDMon::instance()->update(quietMs);
        for (const auto& keeper : keepers)
            keeper->step();
        std::this_thread::sleep_for(interval);
    }
    BDMon::instance()->stop();
    bool isClean = true;
    for (const auto& keeper : keepers)
        isClean &= keeper->unmount() == 0;
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
