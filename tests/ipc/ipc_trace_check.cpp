// SPDX-License-Identifier: Apache-2.0
// Checks a record of the file service's steps: ipc_trace_check FILE
//
// Exit status 0: accepted. 1: refused; the refused event and the rule are printed. 2: usage.

#include "support/ipc/tracechecker.h"
#include "support/ipc/tracerecorder.h"

#include <cstdio>
#include <cstring>

using namespace oru::io::test;

int main(int argc, char** argv) {
    if (argc != 2 && !(argc == 3 && std::strcmp(argv[1], "--list") == 0)) {
        fprintf(stderr, "usage: ipc_trace_check [--list] FILE\n");
        return 2;
    }
    const Trace trace = readTrace(argv[argc - 1]);
    if (argc == 3) {
        for (const TraceEvent& event : trace.events)
            printf("%s\n", describe(event).c_str());
    }
    const Verdict verdict = checkTrace(trace);
    printf("%zu events%s, %zu holes: %s\n", trace.events.size(),
           trace.isComplete ? "" : " (the file was full)", trace.holes,
           verdict.isAccepted() ? "accepted" : verdict.message.c_str());
    return verdict.isAccepted() ? 0 : 1;
}
