// SPDX-License-Identifier: Apache-2.0
// The fuzz targets' input format, their block of memory with checked accesses, and their checks.
//
// An input consists of lines. In a line these bytes are replaced:
//
//     |    a NUL
//     ~    1000 more copies of the byte before it
//
// A target may replace further bytes. The format keeps inputs short enough to be read and written
// by hand.
#pragma once

#include <oruio/fsipc.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ipc/ipcwire_p.h"

namespace oru::io::test {

/// Aborts the process unless `holds`, and prints `what` should have been true.
void require(bool holds, const char* what);

/// The first 64 lines of an input.
std::vector<std::string_view> linesOf(const std::uint8_t* input, std::size_t size);

/// The bytes of `line` after the replacements, up to about twice the size of a text area. The
/// result of `special` for a byte replaces it, unless that is empty.
std::string bytesOf(std::string_view line, const std::function<std::string(char)>& special = {});

/// The service's object in ordinary memory, in the state of a running server: the thread that
/// creates it holds the server mutex. AddressSanitizer reports accesses outside of it, and to the
/// unused bytes between the text areas and the data buffers.
class WatchedBlock {
public:
    WatchedBlock();
    ~WatchedBlock();
    WatchedBlock(const WatchedBlock&) = delete;
    WatchedBlock& operator=(const WatchedBlock&) = delete;

    void* base() const;
    IPCShm* shm() const;
    ipcwire::Area& area() const;

    static constexpr std::size_t size = ipcwire::areaSize + ipcwire::blockOverhead;

private:
    const std::unique_ptr<char[]> m_memory;
};

/// Memory that must not be accessed during the lifetime of this object.
class OffLimits {
public:
    OffLimits(const void* begin, std::size_t size);
    ~OffLimits();
    OffLimits(const OffLimits&) = delete;
    OffLimits& operator=(const OffLimits&) = delete;

private:
    const void* const m_begin;
    const std::size_t m_size;
};

} // namespace oru::io::test
