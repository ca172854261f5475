// SPDX-License-Identifier: Apache-2.0
// Stresses the file service between processes:
//
//   ipc_stress [--seconds N] [--seed N] [--clients N] [--kill-server] [--delay N]
//              [--check] [--trace FILE] [--events N]
//
// A server, clients whose threads end at random during a session, and one innocent client, which
// connects, writes, reads back and disconnects. Clients are killed or stopped for a moment; with
// --kill-server the server is killed or terminated, and started again. The innocent client may fail
// to connect because another client is connected. Each other failure counts, unless the server has
// ended.
//
// With --delay about one step in N is delayed, so that the processes meet in more orders.
//
// With --check the steps are recorded and checked. With --trace the record is kept. The file has
// room for 4 million steps, or those of --events. Later steps are not recorded.
//
// Exit status 0: no failure. 1: failures, which are printed. 2: usage. 77: skipped.

#include "support/ipc/ipccalls.h"
#include "support/ipc/ipcservice.h"
#include "support/ipc/tracechecker.h"
#include "support/ipc/tracerecorder.h"
#include "support/system/tempdir.h"

#include <oruio/fsipc.h>
#include <oruio/ipc_server.h>
#include <oruio/posixfs.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <getopt.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace oru::io;
using Clock = std::chrono::steady_clock;
using ipcwire::Step;

namespace {

struct Options {
    double seconds = 5;
    unsigned int seed = 1;
    int clients = 2;
    bool killsServer = false;
    unsigned int delayedSteps = 0;
    bool checks = false;
    std::string trace;
    std::uint64_t events = 4U << 20;
};

/// What the processes share.
struct Shared {
    std::atomic<bool> clientsEnd{false};
    std::atomic<bool> serverEnds{false};
    std::atomic<bool> isServing{false};
    std::atomic<int> serverEndings{0};
    std::atomic<int> innocentSessions{0};
    std::atomic<int> interrupted{0}; // innocent sessions that the end of the server ended
    std::atomic<int> busy{0};        // attempts of the innocent client
    std::atomic<int> failures{0};
};
Shared* shared = nullptr;

using Random = std::minstd_rand;

unsigned int upTo(Random& random, unsigned int most) {
    return static_cast<unsigned int>(random() % (most + 1));
}

void sleepMs(unsigned int ms) {
    usleep(ms * 1000);
}

__attribute__((format(printf, 1, 2))) void fail(const char* format, ...) {
    ++shared->failures;
    char message[300];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
    fprintf(stderr, "FAILURE: %s\n", message);
}

pid_t startProcess(const std::function<int()>& work) {
    std::fflush(nullptr);
    const pid_t process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(work());
    }
    return process;
}

// --- The server ---------------------------------------------------------------------------------

int serve(const QString& directory) {
    IPCServer server(PosixFS::SPtr::create(directory));
    std::atomic<bool> hasEnded{false};
    std::thread watcher([&] {
        while (server.state() != 2 && !hasEnded)
            sleepMs(1);
        shared->isServing = !hasEnded;
        while (!shared->serverEnds && !hasEnded)
            sleepMs(5);
        server.terminate();
    });
    const int result = server.run(nullptr);
    hasEnded = true;
    watcher.join();
    return result == 0 ? 0 : 1;
}

// --- Clients ------------------------------------------------------------------------------------

/// A client whose threads use one session. Each thread makes some calls and ends.
class Client {
public:
    Client(int number, unsigned int seed)
        : m_name("/client" + std::to_string(number)), m_byte(static_cast<char>('a' + number)),
          m_random(seed) {}

    int run() {
        constexpr unsigned int threads = 3;
        std::vector<std::thread> running;
        while (!shared->clientsEnd) {
            running.emplace_back([this, calls = 1 + upTo(m_random, 40)] { makeCalls(calls); });
            if (running.size() == threads) {
                running.front().join();
                running.erase(running.begin());
            }
        }
        for (std::thread& thread : running)
            thread.join();
        m_file.reset();
        m_fs.disconnect();
        return 0;
    }

private:
    void makeCalls(unsigned int calls) {
        Random random(calls * 7919 + static_cast<unsigned int>(getpid()));
        for (unsigned int i = 0; i < calls && !shared->clientsEnd; ++i) {
            const std::lock_guard lock(m_mutex);
            if (!m_fs.isConnected()) {
                m_file.reset();
                m_fs.connect(1, nullptr);
            } else if (upTo(random, 60) == 0) {
                m_file.reset();
                m_fs.disconnect();
            } else {
                call(random);
            }
        }
    }

    void call(Random& random) {
        struct stat st;
        if (!m_file) {
            m_file = m_fs.open(m_name.c_str(), O_RDWR | O_CREAT, 0644);
            return;
        }
        switch (upTo(random, 5)) {
        case 0:
            m_fs.stat(m_name.c_str(), st);
            break;
        case 1:
            if (const auto directory = m_fs.opendir("/"))
                directory->readdir();
            break;
        case 2:
        case 3:
            write(random);
            break;
        default:
            readBack(random);
        }
    }

    void write(Random& random) {
        const unsigned int size = sizeOf(random);
        m_bytes.assign(size, m_byte);
        m_file->pwrite(m_bytes.data(), size, 0);
    }

    void readBack(Random& random) {
        const unsigned int size = sizeOf(random);
        m_bytes.assign(size, m_byte);
        const int count = m_file->pread(m_bytes.data(), size, 0);
        for (int i = 0; i < count; ++i) {
            if (m_bytes[static_cast<std::size_t>(i)] != m_byte)
                return fail("%s has foreign bytes", m_name.c_str());
        }
    }

    static unsigned int sizeOf(Random& random) {
        return upTo(random, 9) == 0 ? 1 + upTo(random, (1U << 20) - 1) : 1 + upTo(random, 4095);
    }

    const std::string m_name;
    const char m_byte;
    Random m_random;
    std::mutex m_mutex; // callers of an IPCFS take turns
    IPCFS m_fs;
    QSharedPointer<File> m_file;
    std::vector<char> m_bytes;
};

/// Does nothing unusual.
class Innocent {
public:
    int run() {
        for (unsigned int round = 1; !shared->clientsEnd; ++round) {
            m_endings = shared->serverEndings;
            m_wasServing = shared->isServing;
            m_bytes.assign(1U << 20, static_cast<char>(round * 31));
            for (std::size_t i = 0; i < m_bytes.size(); i += 4096)
                std::memcpy(&m_bytes[i], &round, sizeof round);
            if (session())
                ++shared->innocentSessions;
            m_fs.disconnect();
            sleepMs(1);
        }
        return 0;
    }

private:
    bool session() {
        if (m_fs.connect(1, nullptr) != 0) {
            if (m_fs.unavailable() == IPCFS::Unavailable::Busy)
                ++shared->busy;
            else
                failed("connect");
            return false;
        }
        const auto file = m_fs.open("/innocent", O_RDWR | O_CREAT | O_TRUNC, 0644);
        if (!file)
            return failed("open");
        const int size = static_cast<int>(m_bytes.size());
        if (file->write(m_bytes.data(), m_bytes.size()) != size)
            return failed("write");
        std::vector<char> back(m_bytes.size());
        if (file->pread(back.data(), back.size(), 0) != size)
            return failed("read");
        if (back != m_bytes) {
            fail("the innocent client has read other bytes than it wrote");
            return false;
        }
        return file->close() == 0 || failed("close");
    }

    /// A call has failed. \returns false.
    bool failed(const char* call) {
        const int error = errno;
        const bool hasServerEnded =
            m_endings != shared->serverEndings || !m_wasServing || !shared->isServing;
        if (hasServerEnded)
            ++shared->interrupted;
        else
            fail("%s of the innocent client: %s, reason %d", call, std::strerror(error),
                 static_cast<int>(m_fs.unavailable()));
        return false;
    }

    IPCFS m_fs;
    std::vector<char> m_bytes;
    int m_endings = 0;
    bool m_wasServing = false;
};

// --- The course of a run ------------------------------------------------------------------------

class Stress {
public:
    explicit Stress(const Options& options) : m_options(options), m_random(options.seed) {}

    void run() {
        startServer();
        m_innocent = startProcess([] { return Innocent().run(); });
        for (int i = 0; i < m_options.clients; ++i)
            m_clients.push_back(startClient(i));
        const auto end = Clock::now() + std::chrono::duration<double>(m_options.seconds);
        while (Clock::now() < end) {
            sleepMs(1 + upTo(m_random, 30));
            disturb();
        }
        shared->clientsEnd = true;
        for (const pid_t client : m_clients)
            expectEnd(client, "a client");
        expectEnd(m_innocent, "the innocent client");
        shared->serverEnds = true;
        expectEnd(m_server, "the server");
    }

    void print() const {
        const auto all = [](Step step) {
            return test::tracedSteps(step, false) + test::tracedSteps(step, true);
        };
        const auto takeovers = test::tracedSteps(Step::LockClientMutex, true) +
                               test::tracedSteps(Step::ClientMutexRemade, true);
        printf("sessions %llu (innocent %d, interrupted %d, busy %d), requests %llu, steps %llu, "
               "takeovers %llu, clients killed %d, stopped %d, servers killed %d, terminated %d, "
               "failures %d\n",
               static_cast<unsigned long long>(all(Step::CountSession)),
               shared->innocentSessions.load(), shared->interrupted.load(), shared->busy.load(),
               static_cast<unsigned long long>(all(Step::Publish)),
               static_cast<unsigned long long>(test::tracedSteps()),
               static_cast<unsigned long long>(takeovers), m_kills, m_stops,
               shared->serverEndings - m_terminations, m_terminations, shared->failures.load());
    }

private:
    void startServer() {
        const QString directory = m_directory.path();
        m_server = startProcess([directory] { return serve(directory); });
        constexpr int timeoutMs = 10'000;
        for (int ms = 0; !shared->isServing && ms < timeoutMs; ++ms) {
            // It does not start while a client holds a mutex of the old area.
            if (waitpid(m_server, nullptr, WNOHANG) == m_server)
                m_server = startProcess([directory] { return serve(directory); });
            sleepMs(1);
        }
        if (!shared->isServing)
            fail("no server starts");
    }

    pid_t startClient(int number) {
        const unsigned int seed = m_random();
        return startProcess([=] { return Client(number, seed).run(); });
    }

    void disturb() {
        const unsigned int choice = upTo(m_random, 19);
        const auto number =
            static_cast<int>(upTo(m_random, static_cast<unsigned int>(m_options.clients - 1)));
        pid_t& client = m_clients[static_cast<std::size_t>(number)];
        if (choice == 0 && m_options.killsServer) {
            shared->isServing = false;
            ++shared->serverEndings;
            endServer();
            startServer();
        } else if (choice < 12) {
            kill(client);
            client = startClient(number);
            ++m_kills;
        } else {
            ::kill(client, SIGSTOP);
            sleepMs(upTo(m_random, 30));
            ::kill(client, SIGCONT);
            ++m_stops;
        }
    }

    void endServer() {
        if (upTo(m_random, 1) == 0) {
            kill(m_server);
            return;
        }
        shared->serverEnds = true;
        expectEnd(m_server, "the server");
        shared->serverEnds = false;
        ++m_terminations;
    }

    static void kill(pid_t process) {
        test::recordDeath(process);
        ::kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
    }

    static void expectEnd(pid_t process, const char* name) {
        constexpr int timeoutMs = 60'000;
        int status = 0;
        for (int ms = 0; ms < timeoutMs; ++ms) {
            if (waitpid(process, &status, WNOHANG) == process) {
                if (status != 0)
                    fail("%s has ended with status 0x%x", name, static_cast<unsigned>(status));
                return;
            }
            sleepMs(1);
        }
        fail("%s does not end", name);
        kill(process);
    }

    const Options m_options;
    Random m_random;
    test::TempDir m_directory;
    pid_t m_server = 0;
    pid_t m_innocent = 0;
    std::vector<pid_t> m_clients;
    int m_kills = 0;
    int m_stops = 0;
    int m_terminations = 0;
};

bool readOptions(int argc, char** argv, Options& options) {
    const struct option known[] = {
        {"seconds", required_argument, nullptr, 's'},
        {"seed", required_argument, nullptr, 'r'},
        {"clients", required_argument, nullptr, 'c'},
        {"kill-server", no_argument, nullptr, 'k'},
        {"trace", required_argument, nullptr, 't'},
        {"events", required_argument, nullptr, 'e'},
        {"check", no_argument, nullptr, 'v'},
        {"delay", required_argument, nullptr, 'd'},
        {nullptr, 0, nullptr, 0},
    };
    for (int option; (option = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        switch (option) {
        case 's':
            options.seconds = std::atof(optarg);
            break;
        case 'r':
            options.seed = static_cast<unsigned int>(std::strtoul(optarg, nullptr, 10));
            break;
        case 'c':
            options.clients = std::atoi(optarg);
            break;
        case 'k':
            options.killsServer = true;
            break;
        case 'd':
            options.delayedSteps = static_cast<unsigned int>(std::strtoul(optarg, nullptr, 10));
            break;
        case 'v':
            options.checks = true;
            break;
        case 't':
            options.checks = true;
            options.trace = optarg;
            break;
        case 'e':
            options.events = std::strtoull(optarg, nullptr, 10);
            break;
        default:
            return false;
        }
    }
    return optind == argc && options.clients > 0 && options.events > 0;
}

/// Prints the verdict on the record.
void checkRecord(const std::string& path) {
    const auto start = Clock::now();
    const test::Trace trace = test::readTrace(path);
    const test::Verdict verdict = test::checkTrace(trace);
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    printf("record: %zu steps%s, %zu holes, checked in %.1f s: %s\n", trace.events.size(),
           trace.isComplete ? "" : " (the file was full)", trace.holes, elapsed.count(),
           verdict.isAccepted() ? "accepted" : verdict.message.c_str());
    if (!verdict.isAccepted())
        fail("the record is refused by the rule %s", verdict.rule.c_str());
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (!readOptions(argc, argv, options)) {
        fprintf(
            stderr,
            "usage: ipc_stress [--seconds N] [--seed N] [--clients N] [--kill-server] [--delay N] "
            "[--check] [--trace FILE] [--events N]\n");
        return 2;
    }
    if (!test::hasRobustMutexes()) {
        printf("SKIP: the system does not report the death of a mutex owner\n");
        return 77;
    }
    const test::TempDir directory;
    if (options.trace.empty())
        options.trace = qPrintable(directory / "trace");
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED || !test::enterPrivateSharedMemory() ||
        !test::startTrace(options.trace, options.checks ? options.events : 0)) {
        perror("ipc_stress");
        return 1;
    }
    shared = new (memory) Shared;
    test::delaySteps(options.delayedSteps);
    test::limitSleeps(1); // connect() pauses for a second after it has failed
    {
        Stress stress(options);
        stress.run();
        stress.print();
    }
    if (options.checks)
        checkRecord(options.trace);
    return shared->failures == 0 ? 0 : 1;
}
