// SPDX-License-Identifier: Apache-2.0
// The decoder of listings of a share. An input is the buffer of an answer.

#include "fuzz/support.h"
#include "network/smb2listing_p.h"

#include <QString>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

namespace {

using oru::io::Smb2Listing;
using oru::io::test::require;

bool isName(const char* name) {
    const std::size_t size = std::strlen(name);
    return size > 0 && size <= Smb2Listing::longestName && std::strchr(name, '/') == nullptr;
}

/// Whether a name that was not cut is valid UTF-8.
bool isUtf8(const char* name) {
    const bool isCut = std::strlen(name) == Smb2Listing::longestName;
    const QByteArray bytes = QByteArray("x") + name; // Qt removes a byte order mark at the start
    return isCut || QString::fromUtf8(bytes).toUtf8() == bytes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Of exactly this size, so that AddressSanitizer sees each access outside.
    const std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[size]);
    std::copy_n(data, size, buffer.get());
    Smb2Listing listing;
    const int result = listing.append(buffer.get(), size);
    require(result == 0 || result == -EBADMSG, "a buffer is a listing or malformed");
    require(listing.append(buffer.get(), size) == result, "the result is the same again");

    constexpr std::size_t shortestRecord = 82;
    std::size_t entries = 0;
    Smb2Listing::Entry entry = {};
    while (listing.next(entry)) {
        require(isName(entry.name), "an entry has a name of a file");
        require(isUtf8(entry.name), "a name is valid UTF-8");
        ++entries;
    }
    require(!listing.next(entry), "no entry follows the last one");
    require((entries == 0) == (result != 0), "only a listing has entries");
    require(entries % 2 == 0 && entries <= 2 * (size / shortestRecord),
            "each record is one entry of each listing");
    return 0;
}
