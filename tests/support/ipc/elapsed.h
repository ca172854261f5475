// SPDX-License-Identifier: Apache-2.0
// Measures elapsed time.
#pragma once

#include <chrono>

namespace oru::io::test {

using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

} // namespace oru::io::test
