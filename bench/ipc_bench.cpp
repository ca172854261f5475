// SPDX-License-Identifier: Apache-2.0
// The cost of calls on a file system in another process.
#include "clip.h"
#include "mirror.h"
#include "placement.h"
#include "report.h"
#include "service.h"

#include <QProcess>
#include <benchmark/benchmark.h>

#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using benchmark::State;

void seekThroughService(State& state, const QString& path) {
    const Placement placement(Placement::Together);
    const auto file = Service::instance().fs().open(path, O_RDONLY, 0);
    for (auto _ : state) {
        if (file->lseek(0, SEEK_SET) != 0)
            state.SkipWithError("lseek failed");
    }
}

/// A request for which the serving process does nothing.
void exchange(State& state) {
    seekThroughService(state, idleFilePath);
}

/// A request for one system call of the serving process.
void lseekThroughService(State& state) {
    seekThroughService(state, Service::instance().clip());
}

void bareExchange(State& state) {
    const Placement placement(Placement::Together);
    PingPong& pingPong = Service::instance().pingPong();
    for (auto _ : state) {
        if (sem_post(&pingPong.ping) != 0 || sem_wait(&pingPong.pong) != 0)
            state.SkipWithError("semaphores failed");
    }
}

void statThroughService(State& state) {
    const Placement placement(Placement::Together);
    auto& fs = Service::instance().fs();
    const QString path = Service::instance().clip();
    struct stat st;
    for (auto _ : state) {
        if (fs.stat(path, st) != 0)
            state.SkipWithError("stat failed");
    }
}

bool hasMirror(State& state) {
    const std::string& lastError = Mirror::instance().lastError();
    if (!lastError.empty())
        skip(state, "comparison with a FUSE pass-through: " + lastError);
    return lastError.empty();
}

void statThroughMirror(State& state) {
    const Placement placement(Placement::Together);
    if (!hasMirror(state))
        return;
    const std::string path = Mirror::instance().clip();
    struct stat st;
    for (auto _ : state) {
        if (stat(path.c_str(), &st) != 0)
            state.SkipWithError("stat failed");
    }
}

void openCloseThroughService(State& state) {
    const Placement placement(Placement::Together);
    auto& fs = Service::instance().fs();
    const QString path = Service::instance().clip();
    for (auto _ : state) {
        const auto clip = fs.open(path, O_RDONLY, 0);
        if (!clip || clip->close() != 0)
            state.SkipWithError("open or close failed");
    }
}

void openCloseThroughMirror(State& state) {
    const Placement placement(Placement::Together);
    if (!hasMirror(state))
        return;
    const std::string path = Mirror::instance().clip();
    for (auto _ : state) {
        if (close(open(path.c_str(), O_RDONLY)) != 0)
            state.SkipWithError("open or close failed");
    }
}

/// The memory that replaces the service's data buffer in the comparison.
char* intermediateMemory() {
    static Piece piece;
    return piece.bytes.data();
}

void readThroughService(State& state, Placement::Where where) {
    const Placement placement(where);
    if (!placement.isBound())
        return skip(state, "transfers between two processors: there is only one");
    const auto clip = Service::instance().fs().open(Service::instance().clip(), O_RDONLY, 0);
    moveClip(
        state, [&] { return clip->lseek(0, SEEK_SET); },
        [&] { return clip->read(applicationMemory(), mebi); });
}

void writeThroughService(State& state, Placement::Where where) {
    const Placement placement(where);
    if (!placement.isBound())
        return skip(state, "transfers between two processors: there is only one");
    const auto clip = Service::instance().fs().open(Service::instance().clip(), O_WRONLY, 0);
    moveClip(
        state, [&] { return clip->lseek(0, SEEK_SET); },
        [&] { return clip->write(applicationMemory(), mebi); });
}

/// Transfers the clip through the Floor: `before` and `after` are the client's part of a piece.
template <class Before, class After>
void transferThroughFloor(State& state, Floor::Order order, Before before, After after) {
    const Placement placement(Placement::Apart);
    if (!placement.isBound())
        return skip(state, "transfers between two processors: there is only one");
    Floor& floor = Service::instance().floor();
    sem_post(&floor.begin);
    moveClip(
        state,
        [&] {
            floor.carryOut(Floor::Rewind);
            return 0;
        },
        [&] {
            before(floor);
            floor.carryOut(order);
            after(floor);
            return mebi;
        });
    floor.carryOut(Floor::End);
}

void readThroughFloor(State& state) {
    transferThroughFloor(
        state, Floor::Read, [](Floor&) {},
        [](Floor& floor) {
            std::memcpy(applicationMemory(), floor.bytes, mebi);
            benchmark::ClobberMemory();
        });
}

void writeThroughFloor(State& state) {
    transferThroughFloor(
        state, Floor::Write,
        [](Floor& floor) {
            std::memcpy(floor.bytes, applicationMemory(), mebi);
            benchmark::ClobberMemory();
        },
        [](Floor&) {});
}

void readAndCopy(State& state) {
    const Placement placement(Placement::Together);
    const int fd = open(Service::instance().systemClip().c_str(), O_RDONLY);
    off_t position = 0;
    moveClip(
        state, [&] { return position = 0; },
        [&] {
            const ssize_t count = pread(fd, intermediateMemory(), mebi, position);
            position += mebi;
            std::memcpy(applicationMemory(), intermediateMemory(), mebi);
            benchmark::ClobberMemory();
            return count;
        });
    close(fd);
}

void copyAndWrite(State& state) {
    const Placement placement(Placement::Together);
    const int fd = open(Service::instance().systemClip().c_str(), O_WRONLY);
    off_t position = 0;
    moveClip(
        state, [&] { return position = 0; },
        [&] {
            std::memcpy(intermediateMemory(), applicationMemory(), mebi);
            benchmark::ClobberMemory();
            const ssize_t count = pwrite(fd, intermediateMemory(), mebi, position);
            position += mebi;
            return count;
        });
    close(fd);
}

/// How long a request takes whose server answers, or is killed in the middle of it.
void endOfRequest(State& state, const char* what) {
    for (auto _ : state) {
        QProcess program;
        program.start(ORUIO_BENCH_DYING_SERVER, {what});
        bool isNumber = program.waitForFinished() && program.exitCode() == 0;
        const double seconds = isNumber ? program.readAllStandardOutput().toDouble(&isNumber) : 0;
        if (!isNumber)
            state.SkipWithError("the program with the dying server failed");
        state.SetIterationTime(seconds);
    }
}

// Another process does part of the work, so only real time includes it.
BENCHMARK(exchange)->Name("exchange/ipc")->UseRealTime();
BENCHMARK(lseekThroughService)->Name("lseek/ipc")->UseRealTime();
BENCHMARK(bareExchange)->Name("exchange/semaphores")->UseRealTime();
BENCHMARK(statThroughService)->Name("stat/ipc")->UseRealTime();
BENCHMARK(statThroughMirror)->Name("stat/bindfs")->UseRealTime();
BENCHMARK(openCloseThroughService)->Name("open_close/ipc")->UseRealTime();
BENCHMARK(openCloseThroughMirror)->Name("open_close/bindfs")->UseRealTime();

BENCHMARK_CAPTURE(readThroughService, together, Placement::Together)
    ->Name("read_1m/ipc_together")
    ->Apply(clipRounds);
BENCHMARK(readAndCopy)->Name("read_1m/copied")->Apply(clipRounds);
BENCHMARK_CAPTURE(readThroughService, apart, Placement::Apart)
    ->Name("read_1m/ipc_apart")
    ->Apply(clipRounds);
BENCHMARK(readThroughFloor)->Name("read_1m/floor")->Apply(clipRounds);
BENCHMARK_CAPTURE(writeThroughService, together, Placement::Together)
    ->Name("write_1m/ipc_together")
    ->Apply(clipRounds);
BENCHMARK(copyAndWrite)->Name("write_1m/copied")->Apply(clipRounds);
BENCHMARK_CAPTURE(writeThroughService, apart, Placement::Apart)
    ->Name("write_1m/ipc_apart")
    ->Apply(clipRounds);
BENCHMARK(writeThroughFloor)->Name("write_1m/floor")->Apply(clipRounds);

BENCHMARK_CAPTURE(endOfRequest, answered, "answer")
    ->Name("end_of_request/answered")
    ->UseManualTime()
    ->Iterations(1);
BENCHMARK_CAPTURE(endOfRequest, killed, "die")
    ->Name("end_of_request/server_killed")
    ->UseManualTime()
    ->Iterations(1);

} // namespace
