// SPDX-License-Identifier: Apache-2.0
#include "latency.h"

#include <algorithm>
#include <cmath>

size_t LatencyHistogram::bucketOf(uint64_t ns) {
    if (ns < subBuckets)
        return ns;
    const unsigned highestBit = 63U - static_cast<unsigned>(__builtin_clzll(ns));
    const unsigned shift = highestBit - subBits;
    return shift * subBuckets + (ns >> shift);
}

uint64_t LatencyHistogram::lastOf(size_t bucket) {
    if (bucket < subBuckets)
        return bucket;
    const auto shift = bucket / subBuckets - 1;
    const uint64_t top = bucket - shift * subBuckets;
    return ((top + 1) << shift) - 1;
}

void LatencyHistogram::add(std::chrono::nanoseconds latency) {
    const auto ns = static_cast<uint64_t>(std::max<int64_t>(latency.count(), 0));
    ++m_counts.at(bucketOf(ns));
    ++m_count;
    m_max = std::max(m_max, ns);
}

std::chrono::nanoseconds LatencyHistogram::percentile(double fraction) const {
    const auto wanted = static_cast<uint64_t>(std::ceil(fraction * static_cast<double>(m_count)));
    uint64_t seen = 0;
    for (size_t bucket = 0; bucket < buckets; ++bucket) {
        seen += m_counts.at(bucket);
        if (seen > 0 && seen >= wanted)
            return std::chrono::nanoseconds(std::min(lastOf(bucket), m_max));
    }
    return max();
}

std::chrono::nanoseconds LatencyHistogram::max() const {
    return std::chrono::nanoseconds(m_max);
}

uint64_t LatencyHistogram::count() const {
    return m_count;
}
