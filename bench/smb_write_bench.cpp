// SPDX-License-Identifier: Apache-2.0
// Writes to a share over lines of different lengths, compared with other clients.
#include "clip.h"
#include "placement.h"
#include "report.h"
#include "share.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <ctime>
#include <vector>

#include <fcntl.h>

// libsmb2's headers need these first.
#include <smb2/smb2.h>

#include <smb2/libsmb2.h>

namespace {

using benchmark::State;

/// All clients write this file, which is empty when they begin.
constexpr char copyName[] = "copy.mov";
constexpr int copyFlags = O_WRONLY | O_CREAT | O_TRUNC;

bool canRun(State& state, const Placement& placement) {
    const std::string& lastError = Share::instance().lastError();
    if (!lastError.empty())
        skip(state, "shares of an SMB server: " + lastError);
    else if (!placement.isBound())
        skip(state, "transfers between two processors: there is only one");
    return lastError.empty() && placement.isBound();
}

void writeOfShare(State& state, int roundTripMs, Placement::Where where, int size) {
    const Placement placement(where);
    if (!canRun(state, placement))
        return;
    const auto fs = Share::instance().connect(roundTripMs);
    const auto copy = fs ? fs->open(copyName, copyFlags, 0644) : nullptr;
    if (!copy)
        return state.SkipWithError("cannot open the copy");
    const std::vector<char> bytes(static_cast<std::size_t>(size), 'c');
    for (auto _ : state) {
        if (copy->write(bytes.data(), static_cast<unsigned>(size)) != size)
            state.SkipWithError("write failed");
    }
    state.SetBytesProcessed(state.iterations() * size);
}

/// Writes in requests of the size that the library uses, each after the answer to the previous one.
void writeByLibsmb2(State& state, int roundTripMs) {
    const Placement placement(Placement::Together);
    if (!canRun(state, placement))
        return;
    const auto context = Share::instance().connectLibsmb2(roundTripMs);
    smb2fh* const copy = context ? smb2_open(context.get(), copyName, copyFlags) : nullptr;
    if (!copy)
        return state.SkipWithError("libsmb2 cannot open the copy");
    constexpr int request = 64 << 10;
    const std::vector<std::uint8_t> bytes(mebi, 'c');
    for (auto _ : state) {
        for (unsigned done = 0; done < mebi; done += request) {
            if (smb2_write(context.get(), copy, bytes.data() + done, request) != request)
                state.SkipWithError("smb2_write failed");
        }
    }
    state.SetBytesProcessed(state.iterations() * mebi);
    smb2_close(context.get(), copy);
}

/// \returns the time of the transfer that smbclient reports. 0, with an error in `state`, on
/// failure.
double putBySmbclient(State& state, int roundTripMs) {
    const QString put = QStringLiteral("put \"%1\" %2").arg(Share::instance().clipFile(), copyName);
    const double speed = Share::instance().runSmbclient(state, put, roundTripMs);
    return speed == 0 ? 0 : clipSize / 1024.0 / speed;
}

void writeBySmbclient(State& state, int roundTripMs, Placement::Where where) {
    const Placement placement(where);
    if (!canRun(state, placement))
        return;
    for (auto _ : state)
        state.SetIterationTime(putBySmbclient(state, roundTripMs));
    state.SetBytesProcessed(clipSize);
}

// Enough that the first requests of a new connection, which are slower, do not matter.
constexpr int copyPieces = clipSize / static_cast<int>(mebi);
constexpr int largeWrite = 8 << 20;
// libsmb2 alone writes 9 MiB/s at 5 ms.
constexpr int slowPieces = 8;

void wholeCopy(benchmark::internal::Benchmark* copy) {
    copy->UseRealTime()->Iterations(copyPieces);
}
void slowCopy(benchmark::internal::Benchmark* copy) {
    copy->UseRealTime()->Iterations(slowPieces);
}
void copyInLargeWrites(benchmark::internal::Benchmark* copy) {
    copy->UseRealTime()->Iterations(clipSize / largeWrite);
}
void oneCopy(benchmark::internal::Benchmark* copy) {
    copy->UseManualTime()->Iterations(1);
}

BENCHMARK_CAPTURE(writeOfShare, 1ms, 1, Placement::Together, mebi)
    ->Name("write_1m/share_1ms")
    ->Apply(wholeCopy);
BENCHMARK_CAPTURE(writeOfShare, 5ms, 5, Placement::Together, mebi)
    ->Name("write_1m/share_5ms")
    ->Apply(wholeCopy);
BENCHMARK_CAPTURE(writeOfShare, large_5ms, 5, Placement::Together, largeWrite)
    ->Name("write_8m/share_5ms")
    ->Apply(copyInLargeWrites);
BENCHMARK_CAPTURE(writeOfShare, apart, 0, Placement::Apart, mebi)
    ->Name("write_1m/share_apart")
    ->Apply(wholeCopy);
BENCHMARK_CAPTURE(writeByLibsmb2, 1ms, 1)->Name("write_1m/libsmb2_1ms")->Apply(slowCopy);
BENCHMARK_CAPTURE(writeByLibsmb2, 5ms, 5)->Name("write_1m/libsmb2_5ms")->Apply(slowCopy);
BENCHMARK_CAPTURE(writeBySmbclient, apart, 0, Placement::Apart)
    ->Name("put/smbclient_apart")
    ->Apply(oneCopy);
BENCHMARK_CAPTURE(writeBySmbclient, 1ms, 1, Placement::Together)
    ->Name("put/smbclient_1ms")
    ->Apply(oneCopy);
BENCHMARK_CAPTURE(writeBySmbclient, 5ms, 5, Placement::Together)
    ->Name("put/smbclient_5ms")
    ->Apply(oneCopy);

} // namespace
