// A clip, which benchmarks read and write from its beginning to its end.
#pragma once

#include <benchmark/benchmark.h>

#include <array>

constexpr unsigned mebi = 1U << 20;
constexpr int clipSize = 64 << 20;
constexpr int piecesOfClip = clipSize / mebi;

struct alignas(4096) Piece {
    std::array<char, mebi> bytes;
};

/// What an application reads into and writes from.
inline char* applicationMemory() {
    static Piece piece;
    return piece.bytes.data();
}

/// Calls `rewind` before every beginning of the clip and `move` for each of its pieces.
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

/// How often a benchmark plays the clip. All of it, so that both sides of a comparison find equally
/// much in the processor's caches.
constexpr int lapsOfClip = 2;
inline void clipRounds(benchmark::internal::Benchmark* clip) {
    clip->UseRealTime()->Iterations(lapsOfClip * piecesOfClip);
}
