// A small media recorder: records a generated stream through liboruio and verifies the clip.
#include "destination.h"
#include "failure.h"
#include "options.h"
#include "recorder.h"
#include "stopsignal.h"
#include "summary.h"

#include <QCoreApplication>

#include <cstdio>

namespace {

/// The arguments as UTF-8, whatever the locale: that is how the library takes paths.
QStringList utf8Arguments(int argc, char* argv[]) {
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromUtf8(argv[i]));
    return arguments;
}

void run(const Options& options) {
    stopsignal::install();
    const Destination destination(options.destination, options.keep);
    const Recording recording = record(destination, options);
    // The signal has ended the recording; a further one may end the reading.
    stopsignal::clear();
    const QString name = recording.clip->name();
    const ReadBack back = readBack(destination, name, recording.clip->statistics().bytes);
    printSummary(destination, recording, back);
    if (back.stopped)
        throw Failure{"verification of " + destination.shown(name) + " was interrupted"};
    if (!isVerified(recording, back))
        throw Failure{destination.shown(name) + " reads differently from what was written"};
}

int complain(const QString& message, int status) {
    std::fprintf(stderr, "recorder: %s\n", qUtf8Printable(message));
    return status;
}

} // namespace

int main(int argc, char* argv[]) {
    const QStringList arguments = utf8Arguments(argc, argv);
    const QCoreApplication application(argc, argv);
    try {
        const Options options = parseOptions(arguments);
        if (options.help.isEmpty())
            run(options);
        else
            std::fputs(qUtf8Printable(options.help), stdout);
        return 0;
    } catch (const UsageError& error) {
        return complain(error.message + " (--help explains)", 2);
    } catch (const Failure& failure) {
        return complain(failure.message, 1);
    }
}
