// SPDX-License-Identifier: Apache-2.0
#include "stream.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace {

constexpr size_t pageSize = 4096;

} // namespace

FrameStream::FrameStream(size_t frameSize) : m_frame(frameSize) {
    std::mt19937 generator; // constant seed: every run records the same data
    for (size_t at = 0; at < frameSize; at += sizeof(uint32_t)) {
        const auto word = static_cast<uint32_t>(generator());
        std::memcpy(&m_frame[at], &word, std::min(sizeof word, frameSize - at));
    }
}

size_t FrameStream::frameSize() const {
    return m_frame.size();
}

const char* FrameStream::next(size_t length, Clock::duration time) {
    const auto timeNs = std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
    FrameHeader header{{}, m_number, static_cast<uint64_t>(timeNs), length};
    std::memcpy(header.magic, "ORUFRAME", sizeof header.magic);
    std::memcpy(m_frame.data(), &header, sizeof header);
    for (size_t at = pageSize; at + sizeof m_number <= length; at += pageSize)
        std::memcpy(&m_frame[at], &m_number, sizeof m_number);
    ++m_number;
    return m_frame.data();
}
