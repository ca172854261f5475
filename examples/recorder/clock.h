// SPDX-License-Identifier: Apache-2.0
// The clock of all measurements.
#pragma once

#include <chrono>

using Clock = std::chrono::steady_clock;

inline double toSeconds(Clock::duration time) {
    return std::chrono::duration<double>(time).count();
}

inline double toMilliseconds(Clock::duration time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

/// Megabytes (of 10^6 bytes) per second; 0 when no time has passed.
inline double megabytesPerSecond(long long bytes, Clock::duration time) {
    return time > Clock::duration::zero() ? static_cast<double>(bytes) / 1e6 / toSeconds(time) : 0;
}
