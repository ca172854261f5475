// The stream that stands in for a camera: frames of one size, each with a header.
#pragma once

#include "clock.h"

#include <cstddef>
#include <cstdint>
#include <vector>

/// What each frame begins with, in the byte order of the machine.
struct FrameHeader {
    char magic[8];   ///< "ORUFRAME"
    uint64_t number; ///< from 0
    uint64_t timeNs; ///< since the start of the recording
    uint64_t length; ///< of the frame in bytes, header included
};

/// Makes the frames one after the other, in one buffer.
///
/// The payload is random, and made only once: making it must not slow the recording down. What
/// tells the frames apart is the header and, at the start of each further 4 KiB page, the frame's
/// number, so that a page that ends up in the wrong place changes the clip's checksum.
class FrameStream {
public:
    /// Frames of `frameSize` bytes, which must be at least the size of the header.
    explicit FrameStream(size_t frameSize);

    size_t frameSize() const;

    /// The next frame, of which only the first `length` bytes will be used. Valid until the next
    /// call.
    const char* next(size_t length, Clock::duration time);

private:
    std::vector<char> m_frame;
    uint64_t m_number = 0;
};
