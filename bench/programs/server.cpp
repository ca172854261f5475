// SPDX-License-Identifier: Apache-2.0
// Serves a directory to the benchmarks until the end of its standard input.
//
//   usage: oruio_bench_server DIRECTORY [DESCRIPTOR CLIP]
//
// If the descriptor of a Floor is given, threads respond on its semaphores and carry out its
// orders, too.
#include "../floor.h"

#include <oruio/ipc_server.h>
#include <oruio/posixfs.h>

#include <QCoreApplication>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace {

using oru::io::IPCServer;

constexpr int serving = 2;

/// A file whose lseek() does nothing: what remains of the request is the exchange.
class IdleFile : public oru::io::PosixFile {
public:
    IdleFile() : PosixFile(-1) {}
    long long lseek(long long, int) override {
        return 0;
    }
};

class BenchFS : public oru::io::PosixFS {
public:
    using PosixFS::PosixFS;
    QSharedPointer<oru::io::File> open(QString path, int flags, int mode) override {
        if (path == idleFilePath)
            return QSharedPointer<IdleFile>::create();
        return PosixFS::open(path, flags, mode);
    }
};

/// Responds to each ping. Never returns: the thread ends with the process.
void respond(PingPong* pingPong) {
    for (;;) {
        if (sem_wait(&pingPong->ping) == 0)
            sem_post(&pingPong->pong);
    }
}

/// Carries out one order on the clip.
void carryOut(Floor& floor, int clip) {
    bool isDone = true;
    switch (floor.order.load(std::memory_order_acquire)) {
    case Floor::Rewind:
        isDone = lseek(clip, 0, SEEK_SET) == 0;
        break;
    case Floor::Read:
        isDone = read(clip, floor.bytes, Floor::size) == Floor::size;
        break;
    case Floor::Write:
        isDone = write(clip, floor.bytes, Floor::size) == Floor::size;
        break;
    default:
        return;
    }
    if (!isDone)
        std::abort();
    floor.order.store(Floor::Idle, std::memory_order_release);
}

/// Carries out orders, after each `begin` until `End`. Never returns.
void carryOutAll(Floor* floor, int clip) {
    for (;;) {
        if (sem_wait(&floor->begin) != 0)
            continue;
        while (floor->order.load(std::memory_order_acquire) != Floor::End)
            carryOut(*floor, clip);
        floor->order.store(Floor::Idle, std::memory_order_release);
    }
}

/// Starts the threads for the Floor. \returns false on failure.
bool startFloor(const QString& descriptor, const QString& path) {
    Floor* const floor = mapFloor(descriptor.toInt());
    const int clip = open(qPrintable(path), O_RDWR);
    if (!floor || clip == -1)
        return false;
    std::thread(respond, &floor->pingPong).detach();
    std::thread(carryOutAll, floor, clip).detach();
    return true;
}

/// Waits until the server serves, or run() has returned. \returns whether it serves.
bool isReady(IPCServer& server, const std::future<int>& running) {
    while (server.state() != serving) {
        if (running.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready)
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char* argv[]) {
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 2)
        return 2;
    if (arguments.size() > 3 && !startFloor(arguments[2], arguments[3]))
        return 1;

    IPCServer server(QSharedPointer<BenchFS>::create(arguments[1]));
    const auto running = std::async(std::launch::async, [&server] {
        const int result = server.run(nullptr);
        if (result != 0)
            std::fprintf(stderr, "cannot serve: %s\n", std::strerror(errno));
        return result;
    });
    if (!isReady(server, running))
        return 1;
    std::puts("ready");
    std::fflush(stdout);
    std::getchar();
    server.terminate();
    return 0;
}
