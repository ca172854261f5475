// What the library promises about its speed, each promise against something measured beside it.
#pragma once

#include <vector>

/// One row of the report. The benchmarks are named as in Benchmark::Name().
struct Target {
    enum Kind {
        RatioAtMost,      ///< measured / reference must not exceed the limit
        RatioAbove,       ///< measured / reference must exceed the limit
        RatioAtLeast,     ///< measured / reference must reach the limit
        DifferenceAtMost, ///< measured - reference, in nanoseconds, must not exceed the limit
        SpeedAtLeast,     ///< measured / reference, in bytes per time, must reach the limit
        MemoryAtMost,     ///< measured - reference, in KiB, must not exceed the limit
        ProcessorTime,    ///< processor time per data moved, shown beside the other's; no limit
    };

    const char* what;
    const char* measured;
    const char* reference;
    Kind kind;
    double limit;
};

const std::vector<Target>& targets();
