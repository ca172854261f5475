// SPDX-License-Identifier: Apache-2.0
#include "fuzz/support.h"

#include "ipc/ipcsync_p.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <sanitizer/asan_interface.h>

namespace oru::io::test {

using namespace ipcwire;

namespace {

constexpr std::size_t maxLines = 64;
constexpr std::size_t repetitions = 1000;
/// Enough to overflow a text area.
constexpr std::size_t maxBytes = 2 * textSize;

} // namespace

void require(bool holds, const char* what) {
    if (holds)
        return;
    std::fprintf(stderr, "Check failed: %s\n", what);
    std::abort();
}

std::vector<std::string_view> linesOf(const std::uint8_t* input, std::size_t size) {
    std::string_view rest(reinterpret_cast<const char*>(input), size);
    std::vector<std::string_view> lines;
    while (!rest.empty() && lines.size() < maxLines) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        lines.push_back(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return lines;
}

std::string bytesOf(std::string_view line, const std::function<std::string(char)>& special) {
    std::string bytes;
    for (const char byte : line) {
        const std::string replaced = special ? special(byte) : std::string();
        if (!replaced.empty())
            bytes += replaced;
        else if (byte == '|')
            bytes += '\0';
        else if (byte == '~' && !bytes.empty())
            bytes.append(repetitions, bytes.back());
        else
            bytes += byte;
        if (bytes.size() > maxBytes)
            break;
    }
    return bytes;
}

// Unlike a vector, new char[] leaves the memory uninitialised. Only the first bytes of the text
// areas matter.
WatchedBlock::WatchedBlock() : m_memory(new char[size]) {
    const SharedMutexAttributes attributes;
    auto& header = *new (base()) BlockHeader;
    header.magic = magic;
    header.size = size;
    attributes.makeMutex(header.mutex);

    AreaControl& control = area().control;
    for (pthread_mutex_t* mutex :
         {&control.clientMutex, &control.serverMutex, &control.bufferMutex})
        attributes.makeMutex(*mutex);
    pthread_mutex_lock(&control.serverMutex);
    setOwned(area(), true);
    ASAN_POISON_MEMORY_REGION(area().unused, sizeof area().unused);
}

WatchedBlock::~WatchedBlock() {
    ASAN_UNPOISON_MEMORY_REGION(area().unused, sizeof area().unused);
    pthread_mutex_unlock(&area().control.serverMutex);
}

void* WatchedBlock::base() const {
    return m_memory.get();
}

IPCShm* WatchedBlock::shm() const {
    return shmAt(base());
}

Area& WatchedBlock::area() const {
    return areaOf(shm());
}

OffLimits::OffLimits(const void* begin, std::size_t size) : m_begin(begin), m_size(size) {
    ASAN_POISON_MEMORY_REGION(m_begin, m_size);
}

OffLimits::~OffLimits() {
    ASAN_UNPOISON_MEMORY_REGION(m_begin, m_size);
}

} // namespace oru::io::test
