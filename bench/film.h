// A film, which benchmarks read and write from its beginning to its end.
#pragma once

#include <benchmark/benchmark.h>

#include <array>

constexpr unsigned mebi = 1U << 20;
constexpr int filmSize = 64 << 20;
constexpr int piecesOfFilm = filmSize / mebi;

struct alignas(4096) Piece {
    std::array<char, mebi> bytes;
};

/// What an application reads into and writes from.
inline char* applicationMemory() {
    static Piece piece;
    return piece.bytes.data();
}

/// Calls `rewind` before every beginning of the film and `move` for each of its pieces.
template <class Rewind, class Move>
void moveFilm(benchmark::State& state, Rewind rewind, Move move) {
    int piece = 0;
    for (auto _ : state) {
        if (piece == 0 && rewind() != 0)
            state.SkipWithError("lseek failed");
        piece = (piece + 1) % piecesOfFilm;
        if (move() != mebi)
            state.SkipWithError("a piece was not moved");
    }
    state.SetBytesProcessed(state.iterations() * mebi);
}

/// How often a benchmark plays the film. All of it, so that both sides of a comparison find equally
/// much in the processor's caches.
constexpr int lapsOfFilm = 2;
inline void filmRounds(benchmark::internal::Benchmark* film) {
    film->UseRealTime()->Iterations(lapsOfFilm * piecesOfFilm);
}
