// SPDX-License-Identifier: Apache-2.0
// The cost of a log message below the threshold.
#include <benchmark/benchmark.h>

#include "core/log_p.h"

namespace oru::io {

ORUIO_LOG_CHANNEL("bench");

namespace {

using benchmark::State;

/// Takes the arguments of the logging function and does nothing. The difference between the two
/// benchmarks is the cost of the decision to drop the message.
__attribute__((noinline, format(printf, 5, 6))) void emptyCall(int, int, const char*, int,
                                                               const char*, ...) {
    asm volatile("");
}

void droppedMessage(State& state) {
    const int threshold = oruLogLevel[LOG_CHAN];
    oruLogLevel[LOG_CHAN] = LogFailure;
    int number = 0;
    for (auto _ : state)
        ORUIO_LOG(LogDebug, "Recording '%s' into descriptor %d", "clip-0001.mov", ++number);
    oruLogLevel[LOG_CHAN] = threshold;
}

void emptyCallInstead(State& state) {
    int number = 0;
    for (auto _ : state)
        emptyCall(LOG_CHAN, LogDebug, __FILE__, __LINE__, "Recording '%s' into descriptor %d",
                  "clip-0001.mov", ++number);
}

BENCHMARK(droppedMessage)->Name("log/dropped");
BENCHMARK(emptyCallInstead)->Name("log/empty_call");

} // namespace
} // namespace oru::io
