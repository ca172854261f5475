// Latency percentiles in fixed memory, however long the recording.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

/// Counts latencies in buckets whose width grows with the latency: sixteen to each power of two of
/// nanoseconds. A percentile is therefore at most 1/16 too long, and never too short.
class LatencyHistogram {
public:
    void add(std::chrono::nanoseconds latency);

    /// The latency that the share `fraction` (0 to 1) of all stays within; 0 when there are none.
    std::chrono::nanoseconds percentile(double fraction) const;
    std::chrono::nanoseconds max() const;
    uint64_t count() const;

private:
    static constexpr unsigned subBits = 4;
    static constexpr unsigned subBuckets = 1U << subBits;
    // Latencies below subBuckets have a bucket each; then each further bit has subBuckets.
    static constexpr size_t buckets = (64 - subBits + 1) * subBuckets;

    static size_t bucketOf(uint64_t ns);
    static uint64_t lastOf(size_t bucket);

    std::array<uint64_t, buckets> m_counts{};
    uint64_t m_count = 0;
    uint64_t m_max = 0;
};
