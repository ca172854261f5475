// SPDX-License-Identifier: Apache-2.0
// Prints the disks and cards that are present, then those that are added, removed and changed.
#include "common/failure.h"
#include "common/program.h"
#include "common/stopsignal.h"

#include <oruio/bdmon.h>

#include <QCommandLineParser>
#include <QLocale>

#include <chrono>
#include <cstdio>
#include <thread>

namespace {

using oru::io::BDMon;
using oru::io::BlockDevice;

const char description[] = "Prints the block devices that are there, then those that come, go and "
                           "change, in batches, until\n"
                           "Ctrl-C or SIGTERM.\n"
                           "\n"
                           "Exit status: 0 orderly end, 1 failure, 2 bad command line.";

/// The size in bytes. udev reports partitions in units of 512 bytes.
quint64 sizeOf(const BlockDevice& device) {
    return device.m_partNum == 0 ? device.capacity() : device.m_totalBlocks * 512;
}

/// For example: partition 1, vfat "CLIPS", 7.9 GB, write protected.
QString descriptionOf(const BlockDevice& device) {
    QStringList parts;
    if (device.m_partNum == 0)
        parts += device.m_partTableType.isEmpty() ? "disk" : device.m_partTableType + " disk";
    else
        parts += QStringLiteral("partition %1").arg(device.m_partNum);
    if (device.isMountable())
        parts += QStringLiteral("%1 \"%2\"").arg(device.m_fsType, device.m_fsLabel);
    parts += QLocale::c().formattedDataSize(static_cast<qint64>(sizeOf(device)), 1,
                                            QLocale::DataSizeSIFormat);
    if (device.m_writeProtected)
        parts += "write protected";
    return parts.join(", ");
}

void print(const BDMon::EventListSPtr& events, const BDMon::EventListByDeviceSPtr& byDevice) {
    std::printf("%d events of %d disks\n", events->size(), byDevice->size());
    for (const BDMon::Event& event : *events) {
        const BlockDevice& device = *event.dev;
        std::printf("%4d %-7s %-15s %s (%s)\n", event.seq, qUtf8Printable(event.action),
                    qUtf8Printable(device.m_devName), qUtf8Printable(descriptionOf(device)),
                    qUtf8Printable(device.m_idPath));
    }
    std::fflush(stdout);
}

void monitor(unsigned int quietMs) {
    constexpr std::chrono::milliseconds interval(200);
    stopsignal::install();
    BDMon* const media = BDMon::instance();
    QObject::connect(media, &BDMon::notify, print);
    media->start();
    while (!stopsignal::isRequested()) {
        media->update(quietMs);
        std::this_thread::sleep_for(interval);
    }
    media->stop();
}

void runCommand(const QStringList& arguments) {
    QCommandLineParser parser;
    parser.setApplicationDescription(description);
    parser.addOption({{"h", "help"}, "Show this help."});
    parser.addOption({"quiet", "A batch ends when nothing has happened for so long (default: 500).",
                      "ms", "500"});
    if (!parser.parse(arguments))
        throw UsageError{parser.errorText()};
    bool isNumber = false;
    const unsigned int quietMs = parser.value("quiet").toUInt(&isNumber);
    if (parser.isSet("help"))
        std::fputs(qUtf8Printable(parser.helpText()), stdout);
    else if (!parser.positionalArguments().isEmpty())
        throw UsageError{"unexpected argument: " + parser.positionalArguments().first()};
    else if (!isNumber)
        throw UsageError{"--quiet: not a number of milliseconds: " + parser.value("quiet")};
    else
        monitor(quietMs);
}

} // namespace

int main(int argc, char* argv[]) {
    return runProgram("media_monitor", argc, argv, runCommand);
}
