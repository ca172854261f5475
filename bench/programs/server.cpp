// SPDX-License-Identifier: Apache-2.0
// Serves a directory to the benchmarks until the end of its standard input.
//
//   usage: oruio_bench_server DIRECTORY [DESCRIPTOR]
//
// If the descriptor of a PingPong is given, a thread responds on that too.
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

/// Responds to each ping. Never returns: the thread ends with the process.
void respond(PingPong* pingPong) {
    for (;;) {
        if (sem_wait(&pingPong->ping) == 0)
            sem_post(&pingPong->pong);
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
        PingPong* const pingPong = mapPingPong(arguments[2].toInt());
        if (!pingPong)
            return 1;
        std::thread(respond, pingPong).detach();
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
