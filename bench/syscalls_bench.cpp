// SPDX-License-Identifier: Apache-2.0
// The cost that the library adds to a system call.
#include "card.h"

#include <benchmark/benchmark.h>

#include <array>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using benchmark::State;

constexpr unsigned kibi = 1024;
constexpr unsigned mebi = 1024 * kibi;

/// Both sides of a comparison read into the same memory.
char* readBuffer() {
    alignas(4096) static std::array<char, mebi> buffer;
    return buffer.data();
}

void statThroughLibrary(State& state) {
    auto& adapter = Card::instance().adapter();
    const char* const path = Card::instance().clip();
    struct stat st;
    for (auto _ : state) {
        if (adapter.stat(path, &st) != 0)
            state.SkipWithError("stat failed");
    }
}

void statOfSystem(State& state) {
    const char* const path = Card::instance().systemClip();
    struct stat st;
    for (auto _ : state) {
        if (stat(path, &st) != 0)
            state.SkipWithError("stat failed");
    }
}

void openCloseThroughLibrary(State& state) {
    auto& adapter = Card::instance().adapter();
    const char* const path = Card::instance().clip();
    for (auto _ : state) {
        if (adapter.close(adapter.open(path, O_RDONLY, 0)) != 0)
            state.SkipWithError("open or close failed");
    }
}

void openCloseOfSystem(State& state) {
    const char* const path = Card::instance().systemClip();
    for (auto _ : state) {
        if (close(open(path, O_RDONLY)) != 0)
            state.SkipWithError("open or close failed");
    }
}

template <unsigned size>
void preadThroughLibrary(State& state) {
    auto& adapter = Card::instance().adapter();
    const int fd = adapter.open(Card::instance().clip(), O_RDONLY, 0);
    for (auto _ : state) {
        if (adapter.pread(fd, readBuffer(), size, size) != size)
            state.SkipWithError("pread failed");
    }
    adapter.close(fd);
}

template <unsigned size>
void preadOfSystem(State& state) {
    const int fd = open(Card::instance().systemClip(), O_RDONLY);
    for (auto _ : state) {
        if (pread(fd, readBuffer(), size, size) != size)
            state.SkipWithError("pread failed");
    }
    close(fd);
}

BENCHMARK(statThroughLibrary)->Name("stat/oruio");
BENCHMARK(statOfSystem)->Name("stat/system");
BENCHMARK(openCloseThroughLibrary)->Name("open_close/oruio");
BENCHMARK(openCloseOfSystem)->Name("open_close/system");
BENCHMARK(preadThroughLibrary<4 * kibi>)->Name("pread_4k/oruio");
BENCHMARK(preadOfSystem<4 * kibi>)->Name("pread_4k/system");
BENCHMARK(preadThroughLibrary<mebi>)->Name("pread_1m/oruio");
BENCHMARK(preadOfSystem<mebi>)->Name("pread_1m/system");

} // namespace
