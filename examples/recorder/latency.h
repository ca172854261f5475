// SPDX-License-Identifier: Apache-2.0
// Latency percentiles in constant memory.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

/// Counts latencies in buckets: sixteen for each power of two of nanoseconds. So a percentile is at
/// most 1/16 too long, and never too short.
class LatencyHistogram {
public:
    void add(std::chrono::nanoseconds latency);

    /// The latency that the fraction `fraction` (0 to 1) of all does not exceed; 0 if there are
    /// none.
    std::chrono::nanoseconds percentile(double fraction) const;
    std::chrono::nanoseconds max() const;
    uint64_t count() const;

private:
    static constexpr unsigned subBits = 4;
    static constexpr unsigned subBuckets = 1U << subBits;
    // One bucket for each latency below subBuckets, then subBuckets for each further bit.
    static constexpr size_t buckets = (64 - subBits + 1) * subBuckets;

    static size_t bucketOf(uint64_t ns);
    static uint64_t lastOf(size_t bucket);

    std::array<uint64_t, buckets> m_counts{};
    uint64_t m_count = 0;
    uint64_t m_max = 0;
};
