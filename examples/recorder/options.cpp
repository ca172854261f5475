// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include "common/failure.h"

#include <QCommandLineParser>

#include <limits>

namespace {

constexpr double lowestRate = 0.1;
constexpr double highestRate = 10'000;
constexpr double longestSeconds = 1e6;
constexpr qint64 defaultBytes = 256LL << 20;
const QString defaultLocations = QStringLiteral("/etc/oruio/locations.ini");

const char description[] =
    "Records a generated stream of frames as one clip, reads it back and verifies it.\n"
    "Ctrl-C ends the recording early; the clip is complete up to that point.\n"
    "\n"
    "The password for a share is taken from the environment variable ORUIO_SMB_PASSWORD, or asked\n"
    "for on the terminal. Without a USER the session is anonymous.\n"
    "\n"
    "Exit status: 0 recorded and verified, 1 failure, 2 bad command line.";

void declareOptions(QCommandLineParser& parser) {
    parser.setApplicationDescription(description);
    parser.addOptions({
        {{"h", "help"}, "Show this help."},
        {"to",
         "Where the clip goes: a local directory; ipc, the directory that the file_server of this "
         "system "
         "exports; or smb://[[DOMAIN;]USER@]HOST[:PORT]/SHARE[/DIRECTORY...], a share on the "
         "network, where a missing directory is made; or location:NAME, a storage location, whose "
         "medium is awaited, mounted and unmounted again. (A local directory of such a name is "
         "./ipc, ./smb:... or ./location:...) Default: a temporary directory, removed at the end.",
         "DEST"},
        {"locations", "The file that describes the storage locations. Default: " + defaultLocations,
         "FILE", defaultLocations},
        {"check", "Check the file system of a location's medium when the clip is on it."},
        {"report-syncs",
         "Print a line for each fsync, and at the end: how many bytes are safe, and their "
         "checksum."},
        {"keep", "Keep the temporary directory. What goes to an explicit --to is always kept."},
        {"name",
         "File name of the clip. Default: the next free clip-NNNN.oru. An existing file is "
         "never overwritten.",
         "NAME"},
        {"rate",
         "Bit rate in Mbit/s, in 25 frames per second; or max, the default: as fast as "
         "the storage takes it, in frames of 1 MiB.",
         "MBITS"},
        {"seconds", "End after this time.", "N"},
        {"size",
         "End after this many bytes; K, M and G mean powers of 1024. Default: 256M if "
         "there is no --seconds. With both, whichever is reached first.",
         "BYTES"},
    });
}

[[noreturn]] void reject(const char* option, const QString& value, const QString& expected) {
    throw UsageError{QStringLiteral("--%1 must be %2, not '%3'").arg(option, expected, value)};
}

double parseNumber(const char* option, const QString& value, double lowest, double highest) {
    bool ok = false;
    const double number = value.toDouble(&ok);
    // This form of the condition also rejects a NaN.
    if (!ok || !(number >= lowest && number <= highest))
        reject(option, value, QStringLiteral("a number from %1 to %2").arg(lowest).arg(highest));
    return number;
}

qint64 parseSize(const QString& value) {
    const QString units = QStringLiteral("KMG");
    const int unit = value.isEmpty() ? -1 : units.indexOf(value.back().toUpper());
    const int shift = (unit + 1) * 10;
    bool ok = false;
    const qint64 count = value.left(value.size() - (shift ? 1 : 0)).toLongLong(&ok);
    if (!ok || count <= 0 || count > (std::numeric_limits<qint64>::max() >> shift))
        reject("size", value, "a number of bytes such as 500000, 64K, 256M or 2G");
    return count << shift;
}

QString parseName(const QString& value) {
    if (value.isEmpty() || value == "." || value == ".." || value.contains('/'))
        reject("name", value, "a file name without a directory");
    return value;
}

QString parseDestination(const QString& value) {
    if (value.isEmpty())
        reject("to", value, "a directory, ipc, smb://... or location:...");
    return value;
}

Clock::duration parseSeconds(const QString& value) {
    const std::chrono::duration<double> time(parseNumber("seconds", value, 0.01, longestSeconds));
    return std::chrono::duration_cast<Clock::duration>(time);
}

Options readValues(const QCommandLineParser& parser) {
    Options options;
    options.keep = parser.isSet("keep");
    options.locations = parser.value("locations");
    options.reportSyncs = parser.isSet("report-syncs");
    options.check = parser.isSet("check");
    if (parser.isSet("to"))
        options.destination = parseDestination(parser.value("to"));
    if (parser.isSet("name"))
        options.name = parseName(parser.value("name"));
    if (parser.isSet("rate") && parser.value("rate") != "max")
        options.megabitsPerSecond =
            parseNumber("rate", parser.value("rate"), lowestRate, highestRate);
    if (parser.isSet("seconds"))
        options.maxTime = parseSeconds(parser.value("seconds"));
    if (parser.isSet("size"))
        options.maxBytes = parseSize(parser.value("size"));
    else if (!options.maxTime)
        options.maxBytes = defaultBytes;
    return options;
}

} // namespace

Options parseOptions(const QStringList& arguments) {
    QCommandLineParser parser;
    declareOptions(parser);
    if (!parser.parse(arguments))
        throw UsageError{parser.errorText()};
    if (parser.isSet("help")) {
        Options options;
        options.help = parser.helpText();
        return options;
    }
    // The message does not repeat the argument: it may be a URL with a password.
    if (!parser.positionalArguments().isEmpty())
        throw UsageError{"unexpected argument (is --to missing in front of it?)"};
    return readValues(parser);
}
