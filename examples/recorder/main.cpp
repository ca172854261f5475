// SPDX-License-Identifier: Apache-2.0
// A small media recorder: records a generated stream through liboruio and verifies the clip.
#include "common/failure.h"
#include "common/program.h"
#include "common/stopsignal.h"
#include "destination.h"
#include "options.h"
#include "recorder.h"
#include "summary.h"

#include <cstdio>

namespace {

void recordAndVerify(const Options& options) {
    stopsignal::install();
    Destination destination(options);
    const Recording recording = record(destination, options);
    // This signal ended the recording. Another one may end the verification.
    stopsignal::clear();
    const QString name = recording.clip->name();
    const ReadBack back = readBack(destination, name, recording.clip->statistics().bytes);
    printSummary(destination, recording, back);
    if (back.stopped)
        throw Failure{"verification of " + destination.shown(name) + " was interrupted"};
    if (!isVerified(recording, back))
        throw Failure{destination.shown(name) + " reads differently from what was written"};
    destination.leave();
}

void run(const QStringList& arguments) {
    const Options options = parseOptions(arguments);
    if (options.help.isEmpty())
        recordAndVerify(options);
    else
        std::fputs(qUtf8Printable(options.help), stdout);
}

} // namespace

int main(int argc, char* argv[]) {
    return runProgram("recorder", argc, argv, run);
}
