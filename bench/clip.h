// SPDX-License-Identifier: Apache-2.0
// A clip that benchmarks read and write sequentially.
#pragma once

#include <benchmark/benchmark.h>

#include <array>

constexpr unsigned mebi = 1U << 20;
constexpr int clipSize = 64 << 20;
constexpr int piecesOfClip = clipSize / mebi;

struct alignas(4096) Piece {
    std::array<char, mebi> bytes;
};

/// The memory of the application: destination of reads, source of writes.
inline char* applicationMemory() {
    static Piece piece;
    return piece.bytes.data();
}

/// Calls `rewind` before each pass over the clip and `move` for each of its pieces.
template <class Rewind, class Move>
void moveClip(benchmark::State& state, Rewind rewind, Move move) {
    int piece = 0;
    for (auto _ : state) {
        if (piece == 0 && rewind() != 0)
            state.SkipWithError("lseek failed");
        piece = (piece + 1) % piecesOfClip;
        if (move() != mebi)
            state.SkipWithError("a piece was not moved");
    }
    state.SetBytesProcessed(state.iterations() * mebi);
}

/// The number of passes over the clip in a benchmark. Only whole passes, so that both sides of a
/// comparison find the same amount of data in the processor's caches.
constexpr int passesOverClip = 2;
inline void clipRounds(benchmark::internal::Benchmark* clip) {
    clip->UseRealTime()->Iterations(passesOverClip * piecesOfClip);
}
