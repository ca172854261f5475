// SPDX-License-Identifier: Apache-2.0
// The speed targets of the library, each relative to a reference benchmark.
#pragma once

#include <vector>

/// One row of the report. `measured` and `reference` are names of benchmarks.
struct Target {
    enum Kind {
        Ratio,             ///< measured / reference; no limit
        RatioAtMost,       ///< measured / reference must not exceed the limit
        RatioAbove,        ///< measured / reference must exceed the limit
        RatioAtLeast,      ///< measured / reference must reach the limit
        DifferenceAtMost,  ///< measured - reference, in nanoseconds, must not exceed the limit
        SpeedAtLeast,      ///< measured / reference, in bytes per time, must reach the limit
        MemoryAtMost,      ///< measured - reference, in KiB, must not exceed the limit
        MemoryRatioAtMost, ///< measured / reference, in KiB, must not exceed the limit
        Speed,             ///< measured / reference, in bytes per time; no limit
        ProcessorTime,     ///< processor time per GiB, measured / reference; limit 0 is no limit
    };

    const char* what;
    const char* measured;
    const char* reference;
    Kind kind;
    double limit;
};

const std::vector<Target>& targets();
