// SPDX-License-Identifier: Apache-2.0
// Kills the client or the server at every call of the C library that it makes.
//
// Client and server run in child processes. After each death, a server and a client must work, and
// no descriptor or data buffer of the dead process may be left open or taken.

#include "support/ipc/elapsed.h"
#include "support/ipc/ipccalls.h"
#include "support/ipc/ipcservice.h"
#include "support/ipc/tracetest.h"
#include "support/system/childprocess.h"
#include "support/system/tempdir.h"

#include <oruio/error.h>
#include <oruio/fsipc.h>
#include <oruio/posixfs.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

namespace oru::io {

using namespace ipcwire;
using test::ChildProcess;
using test::Clock;
using test::secondsSince;
using test::ServerProcess;
using test::TempDir;

namespace {

/// With a sanitizer each case is slow, so that only every seventh point is tested.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int pointStep = 7;
#else
constexpr int pointStep = 1;
#endif

/// A local directory. stat() of "/trap" kills the process. stat() of "/hold" creates "/held" and
/// blocks until "/go" exists.
class TrapFS : public PosixFS {
public:
    explicit TrapFS(const QString& root) : PosixFS(root) {}

    int stat(QString path, struct stat& st) override {
        if (path == "/trap") {
            test::recordDeath();
            ::kill(getpid(), SIGKILL);
        }
        if (path == "/hold") {
            const int result = PosixFS::stat("/held", st);
            if (result == -1)
                close(::open(qPrintable(mountPoint() + "/held"), O_CREAT | O_WRONLY, 0644));
            while (access(qPrintable(mountPoint() + "/go"), F_OK) != 0)
                usleep(1000);
        }
        return PosixFS::stat(path, st);
    }
};

/// Runs a session like that of a recorder. \returns 0, or the number of the step that failed.
int record(IPCFS& fs, const char* name = "/clip") {
    std::vector<char> frame(300'000);
    for (size_t i = 0; i < frame.size(); ++i)
        frame[i] = static_cast<char>(i * 7 + i / 251);
    if (fs.connect(1, nullptr) != 0)
        return 1;
    const auto file = fs.open(name, O_RDWR | O_CREAT | O_TRUNC, 0644);
    const auto directory = fs.opendir("/");
    if (!file || !directory)
        return 2;
    if (file->write(frame.data(), frame.size()) != static_cast<int>(frame.size()))
        return 3;
    std::vector<char> back(frame.size());
    if (file->pread(back.data(), back.size(), 0) != static_cast<int>(back.size()) || back != frame)
        return 4;
    struct stat st;
    if (fs.stat(name, st) != 0 || st.st_size != static_cast<off_t>(frame.size()))
        return 5;
    if (!directory->readdir() || directory->closedir() != 0 || file->close() != 0)
        return 6;
    return fs.disconnect() == 0 ? 0 : 7;
}

/// How long a client waits for a server that has died.
constexpr int deadServerTimeoutMs = 300;

class IpcCrash : public ::testing::Test {
protected:
    void SetUp() override {
        if (!test::hasRobustMutexes())
            GTEST_SKIP() << "the system does not report the death of a mutex owner";
        test::limitSemaphoreWaits(deadServerTimeoutMs);
    }

    /// The steps of all processes follow the protocol, up to each death and after it.
    void TearDown() override {
        if (!IsSkipped())
            trace.expectAccepted();
    }

    std::unique_ptr<ServerProcess> startServer(const std::function<void()>& prepare = {}) {
        const QString root = dir.path();
        test::exemptWaitsFor(0); // of the server itself, too
        auto server = std::make_unique<ServerProcess>(
            [root] { return QSharedPointer<TrapFS>::create(root); }, prepare);
        test::exemptWaitsFor(server->process().pid());
        return server;
    }

    /// A client in a child process that first runs `prepare`.
    std::unique_ptr<ChildProcess> startClient(const std::function<void()>& prepare,
                                              const std::function<int(IPCFS&)>& session) {
        return std::make_unique<ChildProcess>([&] {
            prepare();
            IPCFS fs;
            return session(fs);
        });
    }

    /// A client whose request blocks in the server's file system. Returns once the request blocks.
    std::unique_ptr<ChildProcess> startBlockedClient() {
        auto client = startClient([] {},
                                  [](IPCFS& fs) {
                                      struct stat st;
                                      return fs.connect(1, nullptr) == 0 ? fs.stat("/hold", st) : 1;
                                  });
        const std::string held = qPrintable(dir / "held");
        EXPECT_TRUE(test::eventually([&] { return access(held.c_str(), F_OK) == 0; }));
        return client;
    }

    /// Expects that a client works at once, and that afterwards the server has no descriptor open
    /// and no data buffer taken.
    void expectServiceWorks(ServerProcess& server, int idleDescriptors) {
        // This server is alive. On a busy machine it may take longer than deadServerTimeoutMs.
        test::limitSemaphoreWaits(0);
        const auto start = Clock::now();
        IPCFS fs;
        EXPECT_EQ(record(fs, "/next"), 0) << strerror();
        EXPECT_LT(secondsSince(start), 9);
        test::limitSemaphoreWaits(deadServerTimeoutMs);
        EXPECT_EQ(server.process().descriptors(), idleDescriptors);
        const test::AreaView view;
        ASSERT_TRUE(view.isMapped());
        EXPECT_EQ(requestState(view.area()), Idle);
        EXPECT_EQ(view.area().control.bufferMap, 0U);
        expectValue(view.area().control.bufferSem, 2);
        expectValue(view.area().control.responseSem, 0);
    }

    static void expectValue(sem_t& semaphore, int expected) {
        int value = -1;
        EXPECT_EQ(sem_getvalue(&semaphore, &value), 0);
        EXPECT_EQ(value, expected);
    }

    /// Expects that the server returns 0 and removes its object.
    static void expectCleanEnd(ServerProcess& server) {
        EXPECT_EQ(server.terminate(), 0);
        EXPECT_FALSE(test::serviceExists());
    }

    static void kill(ChildProcess& process) {
        test::recordDeath(process.pid());
        process.signal(SIGKILL);
    }

    TempDir dir;
    test::TraceOfTest trace;
};

} // namespace

// --- The client dies ----------------------------------------------------------------------------

struct ClientDeath {
    const char* name;
    std::function<void()> prepare;
};

std::ostream& operator<<(std::ostream& out, const ClientDeath& death) {
    return out << death.name;
}

class IpcClientDeath : public IpcCrash, public ::testing::WithParamInterface<ClientDeath> {};

TEST_P(IpcClientDeath, ClientKilled_NextClientWorks) {
    const auto server = startServer();
    ASSERT_TRUE(server->awaitReady());
    const int idle = server->process().descriptors();
    const auto client = startClient(GetParam().prepare, [](IPCFS& fs) { return record(fs); });
    ASSERT_EQ(client->wait(), -SIGKILL);
    expectServiceWorks(*server, idle);
    expectCleanEnd(*server);
}

namespace {

/// The calls of sem_post(3) that the client of record() makes, in order.
enum Post {
    Connect = 1,
    Open,
    OpenDir,
    Write,
    Pread,
    FreeBuffer,
    Stat,
    ReadDir,
    CloseDir,
    Close,
    Disconnect
};

std::function<void()> atPost(int count, bool after) {
    return [=] { test::dieAtCall("sem_post", count, after); };
}

} // namespace

INSTANTIATE_TEST_SUITE_P(
    , IpcClientDeath,
    ::testing::Values(ClientDeath{"BeforeThePostOfConnect", atPost(Connect, false)},
                      ClientDeath{"AfterThePostOfConnect", atPost(Connect, true)},
                      ClientDeath{"BeforeThePostOfOpen", atPost(Open, false)},
                      ClientDeath{"AfterThePostOfOpen", atPost(Open, true)},
                      ClientDeath{"HoldingADataBufferBeforeThePost", atPost(Write, false)},
                      ClientDeath{"HoldingADataBufferAfterThePost", atPost(Write, true)},
                      ClientDeath{"HoldingADataBufferForReading", atPost(Pread, true)},
                      ClientDeath{"InsideTearDownBeforeThePost", atPost(Disconnect, false)},
                      ClientDeath{"InsideTearDownAfterThePost", atPost(Disconnect, true)},
                      ClientDeath{"InsideTearDownUnmapping",
                                  [] { test::dieAtCall("munmap", 1, false); }},
                      ClientDeath{"HoldingTheBufferMutex",
                                  [] { test::dieAtCall("pthread_mutex_clocklock", 2, true); }},
                      ClientDeath{"InsideInitHoldingTheBlock",
                                  [] { test::dieAtCall("pthread_mutex_clocklock", 1, true); }},
                      ClientDeath{"InsideInitHoldingTheClientMutex",
                                  [] { test::dieAtCall("pthread_mutex_trylock", 1, true); }}),
    [](const auto& tested) { return tested.param.name; });

TEST_F(IpcCrash, ClientKilledDuringARequest_NextClientWorks) {
    const auto server = startServer();
    ASSERT_TRUE(server->awaitReady());
    const int idle = server->process().descriptors();
    const auto client = startBlockedClient();
    kill(*client);
    ASSERT_EQ(client->wait(), -SIGKILL);
    // The next client connects while the request still blocks, and continues when it is done.
    ChildProcess later([&] {
        const test::AreaView view;
        if (!test::eventually([&] { return isPublished(requestState(view.area())); }))
            return 1;
        return ::close(::open(qPrintable(dir / "go"), O_CREAT | O_WRONLY, 0644));
    });
    expectServiceWorks(*server, idle);
    EXPECT_EQ(later.wait(), 0);
    expectCleanEnd(*server);
}

// The server answers after the death of the client.
TEST_F(IpcCrash, ClientKilledBeforeReadingTheAnswer_NextClientDoesNotReceiveIt) {
    const auto server = startServer();
    ASSERT_TRUE(server->awaitReady());
    const int idle = server->process().descriptors();
    const auto client = startClient([] {},
                                    [](IPCFS& fs) {
                                        struct stat st;
                                        if (fs.connect(1, nullptr) != 0)
                                            return 1;
                                        test::dieAtCall("sem_post", 1, true);
                                        return fs.stat("/missing", st);
                                    });
    ASSERT_EQ(client->wait(), -SIGKILL);
    const test::AreaView view;
    ASSERT_TRUE(test::eventually([&] {
        int answers = 0;
        sem_getvalue(&view.area().control.responseSem, &answers);
        return answers == 1;
    }));
    expectServiceWorks(*server, idle);
    expectCleanEnd(*server);
}

TEST_F(IpcCrash, ClientKilledAtEveryCall_NextClientWorks) {
    const auto server = startServer();
    ASSERT_TRUE(server->awaitReady());
    const int idle = server->process().descriptors();
    int deaths = 0;
    int status = -SIGKILL;
    for (int point = 1; status == -SIGKILL; point += pointStep) {
        ASSERT_LT(point, 1000);
        const auto client =
            startClient([point] { test::dieAtPoint(point); }, [](IPCFS& fs) { return record(fs); });
        status = client->wait();
        ASSERT_TRUE(status == -SIGKILL || status == 0) << status << " at point " << point;
        deaths += status == -SIGKILL;
        SCOPED_TRACE("point " + std::to_string(point));
        expectServiceWorks(*server, idle);
        if (HasFailure())
            break;
    }
    EXPECT_GT(deaths, 40 / pointStep);
    RecordProperty("deaths", deaths);
    expectCleanEnd(*server);
}

// --- The server dies ----------------------------------------------------------------------------

struct ServerDeath {
    const char* name;
    std::function<void()> prepare; ///< runs in the server process, before the server
    bool serves;                   ///< the server begins to serve before it dies
    int failingStep;               ///< of record(): 0 when it succeeds, -1 to run no session
    int otherFailingStep = -1;     ///< a second possible result of record()
};

std::ostream& operator<<(std::ostream& out, const ServerDeath& death) {
    return out << death.name;
}

class IpcServerDeath : public IpcCrash, public ::testing::WithParamInterface<ServerDeath> {};

TEST_P(IpcServerDeath, ServerKilled_NextServerWorks) {
    const auto server = startServer(GetParam().prepare);
    EXPECT_EQ(server->awaitReady(), GetParam().serves);
    IPCFS fs;
    if (GetParam().failingStep >= 0) {
        const auto start = Clock::now();
        const int step = record(fs);
        // After a posted answer, the client finds either the answer or the death first.
        EXPECT_TRUE(step == GetParam().failingStep || step == GetParam().otherFailingStep) << step;
        EXPECT_LT(secondsSince(start), 9);
    }
    EXPECT_EQ(GetParam().failingStep == 0 ? server->terminate() : server->process().wait(),
              -SIGKILL);
    const auto next = startServer();
    ASSERT_TRUE(next->awaitReady());
    const int idle = next->process().descriptors();
    // A client that was connected to the dead server fails once and can connect again.
    if (fs.isConnected()) {
        struct stat st;
        EXPECT_EQ(fs.stat("/", st), -1);
        EXPECT_EQ(errno, ENOTCONN);
    }
    EXPECT_EQ(record(fs), 0);
    expectServiceWorks(*next, idle);
    expectCleanEnd(*next);
}

INSTANTIATE_TEST_SUITE_P(
    , IpcServerDeath,
    ::testing::Values(
        ServerDeath{"InsideInitCreatingTheBlock", [] { test::dieAtCall("ftruncate", 1, true); },
                    false, -1},
        ServerDeath{"InsideInitHoldingTheBlock",
                    [] { test::dieAtCall("pthread_mutex_clocklock", 1, true); }, false, -1},
        ServerDeath{"InsideInitWithHalfOfTheMutexes",
                    [] { test::dieAtCall("pthread_mutex_init", 3, true); }, false, -1},
        ServerDeath{"InsideInitHoldingTheServerMutex",
                    [] { test::dieAtCall("pthread_mutex_clocklock", 2, true); }, false, -1},
        ServerDeath{"InsideInitResettingTheSession", [] { test::dieAtCall("sem_init", 2, true); },
                    false, -1},
        ServerDeath{"BeforeTheResponseToConnect", [] { test::dieAtCall("sem_post", 1, false); },
                    true, 1},
        ServerDeath{"AfterTheResponseToConnect", [] { test::dieAtCall("sem_post", 1, true); }, true,
                    2, 1},
        ServerDeath{"BeforeTheResponseToOpen", [] { test::dieAtCall("sem_post", 2, false); }, true,
                    2},
        ServerDeath{"AfterTheResponseToOpen", [] { test::dieAtCall("sem_post", 2, true); }, true,
                    2},
        // The fourth post releases the data buffer, the fifth posts the answer.
        ServerDeath{"HoldingADataBuffer", [] { test::dieAtCall("sem_post", 4, false); }, true, 3},
        ServerDeath{"AfterFreeingADataBuffer", [] { test::dieAtCall("sem_post", 4, true); }, true,
                    3},
        ServerDeath{"InsideTearDownHoldingTheBlock",
                    [] { test::dieAtCall("shm_unlink", 1, false); }, true, 0},
        ServerDeath{"InsideTearDownWithTheNameGone", [] { test::dieAtCall("shm_unlink", 1, true); },
                    true, 0},
        ServerDeath{"InsideTearDownUnmapping", [] { test::dieAtCall("munmap", 1, false); }, true,
                    0}),
    [](const auto& tested) { return tested.param.name; });

TEST_F(IpcCrash, ServerKilledDuringARequest_CallFailsAndNextServerWorks) {
    const auto server = startServer();
    ASSERT_TRUE(server->awaitReady());
    IPCFS fs;
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    struct stat st;
    EXPECT_EQ(fs.stat("/trap", st), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_FALSE(fs.isConnected());
    EXPECT_EQ(server->process().wait(), -SIGKILL);
    const auto next = startServer();
    ASSERT_TRUE(next->awaitReady());
    const int idle = next->process().descriptors();
    expectServiceWorks(*next, idle);
    expectCleanEnd(*next);
}

TEST_F(IpcCrash, ServerKilledAtEveryCall_NextServerWorks) {
    int deaths = 0;
    int status = -SIGKILL;
    IPCFS fs;
    for (int point = 1; status == -SIGKILL; point += pointStep) {
        ASSERT_LT(point, 1000);
        SCOPED_TRACE("point " + std::to_string(point));
        const auto server = startServer([point] { test::dieAtPoint(point); });
        if (server->awaitReady())
            record(fs);
        status = server->terminate();
        ASSERT_TRUE(status == -SIGKILL || status == 0) << status;
        deaths += status == -SIGKILL;
        const auto next = startServer();
        ASSERT_TRUE(next->awaitReady());
        const int idle = next->process().descriptors();
        struct stat st;
        if (fs.isConnected()) {
            EXPECT_EQ(fs.stat("/", st), -1);
        }
        EXPECT_FALSE(fs.isConnected());
        expectServiceWorks(*next, idle);
        expectCleanEnd(*next);
        if (HasFailure())
            break;
    }
    EXPECT_GT(deaths, 60 / pointStep);
    RecordProperty("deaths", deaths);
}

TEST_F(IpcCrash, BothKilled_NextServerAndClientWork) {
    auto server = startServer();
    ASSERT_TRUE(server->awaitReady());
    const auto client = startBlockedClient();
    kill(server->process());
    kill(*client);
    EXPECT_EQ(client->wait(), -SIGKILL);
    EXPECT_EQ(server->process().wait(), -SIGKILL);
    server = startServer();
    ASSERT_TRUE(server->awaitReady());
    expectServiceWorks(*server, server->process().descriptors());
    expectCleanEnd(*server);
}

} // namespace oru::io
