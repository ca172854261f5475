// Serves a directory to the benchmarks, until its standard input ends.
//
//   usage: oruio_bench_server DIRECTORY [DESCRIPTOR]
//
// With the descriptor of a PingPong, a thread plays that, too.
#include "../ping_pong.h"

#include <oruio/ipc_server.h>
#include <oruio/posixfs.h>

#include <QCoreApplication>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <thread>

namespace {

using oru::io::IPCServer;

constexpr int serving = 2;

/// Never returns: the thread ends with the process.
void play(PingPong* game) {
    for (;;) {
        if (sem_wait(&game->ping) == 0)
            sem_post(&game->pong);
    }
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
    if (arguments.size() > 2) {
        PingPong* const game = mapPingPong(arguments[2].toInt());
        if (!game)
            return 1;
        std::thread(play, game).detach();
    }

    IPCServer server(oru::io::PosixFS::SPtr::create(arguments[1]));
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
