// What the fuzz targets share: the form of their inputs, the area in memory that is watched, and
// how they complain.
//
// An input is made of lines. In a line every byte stands for itself, except
//
//     |    a NUL
//     ~    the byte before it, a thousand times more
//
// and what a target adds to these. So inputs are short, and can be read and written by hand.
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

/// Ends the process, and with it the fuzzer's run, unless `holds`; `what` says what should.
void require(bool holds, const char* what);

/// The lines of an input. More than a reasonable number are ignored.
std::vector<std::string_view> linesOf(const std::uint8_t* input, std::size_t size);

/// The bytes that `text` stands for. What `special` makes of a byte takes its place, unless that is
/// empty.
std::string bytesOf(std::string_view text, const std::function<std::string(char)>& special = {});

/// The service's object in ordinary memory, as a server that runs has it: the thread that makes it
/// holds the server mutex. Whoever reads or writes outside of it, or between its texts and its
/// buffers, is reported.
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

/// Memory that nobody may touch for as long as this lives.
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
