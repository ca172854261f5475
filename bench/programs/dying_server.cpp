// SPDX-License-Identifier: Apache-2.0
// Prints how long a request takes, in seconds.
//
//   usage: oruio_bench_dying_server answer|die
//
// With "die", the server is killed in the middle of the request.
#include <oruio/fsipc.h>
#include <oruio/ipc_server.h>
#include <oruio/posixfs.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// Takes its time in stat(), so that the client sleeps when the answer comes or the server dies.
class SlowFS : public oru::io::PosixFS {
public:
    explicit SlowFS(bool dies) : PosixFS(QString()), m_dies(dies) {}
    int stat(QString, struct stat&) override {
        constexpr unsigned int pauseUs = 50'000;
        usleep(pauseUs);
        return m_dies ? raise(SIGKILL) : 0;
    }

private:
    const bool m_dies;
};

/// A system has one service: this program has its own. \returns whether it is alone.
bool hasPrivateService() {
    return unshare(CLONE_NEWNS) == 0 &&
           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/dev/shm", "tmpfs", 0, nullptr) == 0;
}

int serve(bool dies) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    return oru::io::IPCServer(QSharedPointer<SlowFS>::create(dies)).run(nullptr);
}

} // namespace

int main(int argc, char* argv[]) {
    const bool dies = argc == 2 && std::strcmp(argv[1], "die") == 0;
    if (!hasPrivateService())
        return 1;
    const pid_t server = fork();
    if (server == 0)
        _exit(serve(dies));
    oru::io::IPCFS client;
    constexpr unsigned int tries = 5;
    if (client.connect(tries, nullptr) != 0)
        return 1;
    struct stat st;
    const auto start = std::chrono::steady_clock::now();
    const int result = client.stat("/", st);
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    if (result != (dies ? -1 : 0) || (dies && errno != ENOTCONN))
        return 1;
    std::printf("%.9f\n", taken.count());
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
    return 0;
}
