// SPDX-License-Identifier: Apache-2.0
// The check of a server's frames. An input is what the server sends. The first byte sets the state
// of the connection: 1 connected, 2 answers in order.

#include "fuzz/support.h"
#include "network/smb2frames_p.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace {

using oru::io::Smb2Frames;
using oru::io::test::require;

/// Checks the frame at `data`, of which `size` bytes have arrived. \returns 0 or the errno of a
/// refusal; EAGAIN when more bytes are needed.
int check(Smb2Frames& frames, const std::uint8_t* data, std::size_t size) {
    std::unique_ptr<std::uint8_t[]> arrived;
    std::size_t available = 0;
    for (;;) {
        const std::size_t needed = Smb2Frames::neededOf(arrived.get(), available);
        if (needed == 0)
            return ECONNRESET;
        if (needed > size)
            return EAGAIN;
        if (needed <= available)
            return frames.check(arrived.get());
        // Of exactly this size, so that AddressSanitizer sees each access outside.
        arrived.reset(new std::uint8_t[needed]);
        std::copy_n(data, needed, arrived.get());
        available = needed;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    Smb2Frames frames;
    if (data[0] & 1)
        frames.setConnected();
    frames.setOrdered((data[0] & 2) != 0);
    ++data;
    --size;
    while (size > 0) {
        const int result = check(frames, data, size);
        require(result == 0 || result == EAGAIN || result == ECONNRESET || result == EPERM ||
                    result == EPROTO,
                "a frame passes or is refused");
        if (result != 0)
            return 0;
        const std::size_t frame =
            4 + (std::size_t{data[1]} << 16 | std::size_t{data[2]} << 8 | data[3]);
        const std::size_t read = std::min(frame, size);
        data += read;
        size -= read;
    }
    return 0;
}
