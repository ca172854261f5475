// SPDX-License-Identifier: Apache-2.0
// The cost of calls on a share of an SMB server, compared with other clients.
#include "clip.h"
#include "placement.h"
#include "report.h"
#include "share.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <ctime>

#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>

// libsmb2's headers need these first.
#include <smb2/smb2.h>

#include <smb2/libsmb2.h>

namespace {

using benchmark::State;

bool isPlaced(State& state, const Placement& placement) {
    if (!placement.isBound())
        skip(state, "transfers between two processors: there is only one");
    return placement.isBound();
}

bool hasShare(State& state) {
    const std::string& lastError = Share::instance().lastError();
    if (!lastError.empty())
        skip(state, "shares of an SMB server: " + lastError);
    return lastError.empty();
}

void readOfShare(State& state, Placement::Where where) {
    const Placement placement(where);
    if (!isPlaced(state, placement) || !hasShare(state))
        return;
    const auto fs = Share::instance().connect();
    const auto clip = fs ? fs->open(Share::clip, O_RDONLY, 0) : nullptr;
    if (!clip)
        return state.SkipWithError("cannot open the clip");
    moveClip(
        state, [&] { return clip->lseek(0, SEEK_SET); },
        [&] { return clip->read(applicationMemory(), mebi); });
}

void writeOfShare(State& state) {
    const Placement placement(Placement::Together);
    if (!hasShare(state))
        return;
    const auto fs = Share::instance().connect();
    const auto clip = fs ? fs->open(Share::clip, O_WRONLY, 0) : nullptr;
    if (!clip)
        return state.SkipWithError("cannot open the clip");
    moveClip(
        state, [&] { return clip->lseek(0, SEEK_SET); },
        [&] { return clip->write(applicationMemory(), mebi); });
}

void statOfShare(State& state) {
    const Placement placement(Placement::Together);
    if (!hasShare(state))
        return;
    const auto fs = Share::instance().connect();
    const QString path = Share::clip;
    struct stat st;
    for (auto _ : state) {
        if (!fs || fs->stat(path, st) != 0)
            state.SkipWithError("stat failed");
    }
}

std::uint8_t* applicationBytes() {
    return reinterpret_cast<std::uint8_t*>(applicationMemory());
}

/// Reads a piece with one call, which sends one request.
int readPiece(smb2_context* context, smb2fh* clip) {
    return smb2_read(context, clip, applicationBytes(), mebi);
}

/// Writes a piece in requests of the size that the library uses.
int writePiece(smb2_context* context, smb2fh* clip) {
    constexpr unsigned request = 64U << 10;
    for (unsigned done = 0; done < mebi; done += request) {
        if (smb2_write(context, clip, applicationBytes() + done, request) != int{request})
            return -1;
    }
    return mebi;
}

void moveByLibsmb2(State& state, int flags, int (*move)(smb2_context*, smb2fh*)) {
    const Placement placement(Placement::Together);
    if (!hasShare(state))
        return;
    const auto context = Share::instance().connectLibsmb2();
    smb2fh* const clip = context ? smb2_open(context.get(), Share::clip, flags) : nullptr;
    if (!clip)
        return state.SkipWithError("libsmb2 cannot open the clip");
    moveClip(
        state, [&] { return smb2_lseek(context.get(), clip, 0, SEEK_SET, nullptr); },
        [&] { return move(context.get(), clip); });
    smb2_close(context.get(), clip);
}

void statByLibsmb2(State& state) {
    const Placement placement(Placement::Together);
    if (!hasShare(state))
        return;
    const auto context = Share::instance().connectLibsmb2();
    smb2_stat_64 st;
    for (auto _ : state) {
        if (!context || smb2_stat(context.get(), Share::clip, &st) != 0)
            state.SkipWithError("smb2_stat failed");
    }
}

/// The number of entries of a directory: the files, ".", "..".
constexpr int entryCount = Share::takeCount + 2;

/// For a benchmark of listings, which counts its calls in `calls`.
bool hasTakes(State& state, int& calls) {
    if (!hasShare(state))
        return false;
    // Of 100,000 entries, a few suffice for a median.
    constexpr int mostCalls = 5;
    if (++calls > mostCalls) {
        skip(state, "more than five listings: they take long");
        return false;
    }
    const bool isMade = Share::instance().makeTakes();
    if (!isMade)
        state.SkipWithError("cannot make the directory");
    return isMade;
}

double allocatedKibi() {
    return static_cast<double>(mallinfo2().uordblks) / 1024;
}

void listShare(State& state) {
    const Placement placement(Placement::Together);
    static int calls = 0;
    if (!hasTakes(state, calls))
        return;
    const auto fs = Share::instance().connect();
    for (auto _ : state) {
        int entries = 0;
        const auto directory = fs ? fs->opendir(Share::takes) : nullptr;
        while (directory && directory->readdir())
            ++entries;
        if (entries != entryCount)
            state.SkipWithError("entries are missing");
    }
}

void listByLibsmb2(State& state) {
    const Placement placement(Placement::Together);
    static int calls = 0;
    if (!hasTakes(state, calls))
        return;
    const auto context = Share::instance().connectLibsmb2();
    for (auto _ : state) {
        int entries = 0;
        smb2dir* const directory = context ? smb2_opendir(context.get(), Share::takes) : nullptr;
        while (directory && smb2_readdir(context.get(), directory))
            ++entries;
        if (directory)
            smb2_closedir(context.get(), directory);
        if (entries != entryCount)
            state.SkipWithError("entries are missing");
    }
}

void listingOfShare(State& state) {
    static int calls = 0;
    if (!hasTakes(state, calls))
        return;
    const auto fs = Share::instance().connect();
    for (auto _ : state) {
        const double before = allocatedKibi();
        const auto directory = fs ? fs->opendir(Share::takes) : nullptr;
        state.counters[residentCounter] = allocatedKibi() - before;
        if (!directory)
            state.SkipWithError("opendir failed");
    }
}

void listingOfLibsmb2(State& state) {
    static int calls = 0;
    if (!hasTakes(state, calls))
        return;
    const auto context = Share::instance().connectLibsmb2();
    for (auto _ : state) {
        const double before = allocatedKibi();
        smb2dir* const directory = context ? smb2_opendir(context.get(), Share::takes) : nullptr;
        state.counters[residentCounter] = allocatedKibi() - before;
        if (directory)
            smb2_closedir(context.get(), directory);
        else
            state.SkipWithError("smb2_opendir failed");
    }
}

/// Gets the clip as often as the other benchmarks read it. \returns the time that smbclient
/// reports. This covers only the transfers, without starting and connecting, as in the other
/// benchmarks. 0, with an error in `state`, on failure.
double getBySmbclient(State& state) {
    const QString get = QStringLiteral("get %1 /dev/null;").arg(Share::clip);
    const double speed = Share::instance().runSmbclient(state, get.repeated(passesOverClip));
    if (speed == 0)
        return 0;
    constexpr double kibiBytes = double{passesOverClip} * clipSize / 1024;
    return kibiBytes / speed;
}

void readBySmbclient(State& state) {
    const Placement placement(Placement::Apart);
    if (!isPlaced(state, placement) || !hasShare(state))
        return;
    for (auto _ : state)
        state.SetIterationTime(getBySmbclient(state));
    state.SetBytesProcessed(std::int64_t{passesOverClip} * clipSize);
}

// The server does part of the work, so only real time includes it.
//
// The library and libsmb2 alone differ only a little. To make the difference visible, the server
// runs on the same processor: then the measured time contains all work, and no waiting hides a part
// of it.
BENCHMARK_CAPTURE(readOfShare, together, Placement::Together)
    ->Name("read_1m/share")
    ->Apply(clipRounds);
BENCHMARK_CAPTURE(moveByLibsmb2, read, O_RDONLY, readPiece)
    ->Name("read_1m/libsmb2")
    ->Apply(clipRounds);
BENCHMARK(writeOfShare)->Name("write_1m/share")->Apply(clipRounds);
BENCHMARK_CAPTURE(moveByLibsmb2, write, O_WRONLY, writePiece)
    ->Name("write_1m/libsmb2")
    ->Apply(clipRounds);
// Enough that the first request of a new connection, which is slower, does not matter.
constexpr int stats = 300;
BENCHMARK(statOfShare)->Name("stat/share")->UseRealTime()->Iterations(stats);
BENCHMARK(statByLibsmb2)->Name("stat/libsmb2")->UseRealTime()->Iterations(stats);
// Nearly all of the real time is the server's, which varies more than the two clients differ.
BENCHMARK(listShare)->Name("list/share")->Iterations(1);
BENCHMARK(listByLibsmb2)->Name("list/libsmb2")->Iterations(1);
BENCHMARK(listingOfShare)->Name("listing/share")->Iterations(1);
BENCHMARK(listingOfLibsmb2)->Name("listing/libsmb2")->Iterations(1);
// smbclient keeps several requests outstanding, so that it works in parallel with the server. This
// needs two processors.
BENCHMARK_CAPTURE(readOfShare, apart, Placement::Apart)
    ->Name("read_1m/share_apart")
    ->Apply(clipRounds);
BENCHMARK(readBySmbclient)->Name("read_1m/smbclient")->UseManualTime()->Iterations(1);

} // namespace
