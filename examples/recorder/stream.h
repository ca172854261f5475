// SPDX-License-Identifier: Apache-2.0
// A stream that replaces a camera: frames of equal size, each with a header.
#pragma once

#include "clock.h"

#include <cstddef>
#include <cstdint>
#include <vector>

/// The start of each frame, in the byte order of the machine.
struct FrameHeader {
    char magic[8];   ///< "ORUFRAME"
    uint64_t number; ///< from 0
    uint64_t timeNs; ///< since the start of the recording
    uint64_t length; ///< of the frame in bytes, header included
};

/// Generates the frames one after the other, in one buffer.
///
/// The payload is random and generated only once, so that it does not slow the recording down.
/// Frames differ in the header and in the frame number at the start of each further 4 KiB page. So
/// a page in the wrong place changes the clip's checksum.
class FrameStream {
public:
    /// Frames of `frameSize` bytes, which must be at least the size of the header.
    explicit FrameStream(size_t frameSize);

    size_t frameSize() const;

    /// \returns the next frame, of which the caller uses only the first `length` bytes. Valid until
    /// the next call.
    const char* next(size_t length, Clock::duration time);

private:
    std::vector<char> m_frame;
    uint64_t m_number = 0;
};
