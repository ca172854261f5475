// SPDX-License-Identifier: Apache-2.0
// Threads that end inside a session, clocks that are set, servers that end, and forked servers:
// what happens to the session, and to the clients that try to connect in the meantime.

#include "ipc/ipcsession_p.h"
#include "support/ipc/elapsed.h"
#include "support/ipc/ipccalls.h"
#include "support/ipc/ipcfstest.h"
#include "support/ipc/ipcservice.h"
#include "support/ipc/runningserver.h"
#include "support/ipc/sharedobject.h"
#include "support/suite/logcapture.h"
#include "support/system/childprocess.h"
#include "support/system/files.h"

#include <oruio/fsipc.h>
#include <oruio/ipc_server.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <thread>

#include <pthread.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace oru::io {

using namespace ipcwire;
using test::ChildProcess;
using test::Clock;
using test::GatedFS;
using test::IPCFSTest;
using test::MemFS;
using test::RunningServer;
using test::secondsSince;

namespace {

/// How long a call may take that finds the end of its server: twice a look every 250 ms, and room
/// for a busy machine.
constexpr double soon = 3;

/// A client in another process, which tries to connect on request.
class Rival {
public:
    Rival() {
        EXPECT_EQ(pipe(m_requests), 0);
        EXPECT_EQ(pipe(m_results), 0);
        m_process = std::make_unique<ChildProcess>([this] {
            char byte;
            while (::read(m_requests[0], &byte, 1) == 1) {
                IPCFS::Data session;
                const bool isConnected = session.init(nullptr) == 0;
                const char result = isConnected                                  ? 'c'
                                    : session.reason == IPCFS::Unavailable::Busy ? 'b'
                                                                                 : 'n';
                if (::write(m_results[1], &result, 1) != 1)
                    return 1;
            }
            return 0;
        });
    }

    /// \returns 'c' when it was connected for a moment, 'b' when another client is, else 'n'.
    char tryConnect() {
        char result = '?';
        EXPECT_EQ(::write(m_requests[1], "t", 1), 1);
        EXPECT_EQ(::read(m_results[0], &result, 1), 1);
        return result;
    }

private:
    int m_requests[2];
    int m_results[2];
    std::unique_ptr<ChildProcess> m_process;
};

/// A thread that connects, opens a file, and ends on request.
class ConnectingThread {
public:
    explicit ConnectingThread(IPCFS& fs) {
        sem_init(&m_isConnected, 0, 0);
        sem_init(&m_mayEnd, 0, 0);
        m_thread = std::thread([this, &fs] {
            m_tid = static_cast<pid_t>(syscall(SYS_gettid));
            EXPECT_EQ(fs.connect(1, nullptr), 0);
            file = fs.open("/mine", O_RDWR | O_CREAT, 0644);
            sem_post(&m_isConnected);
            sem_wait(&m_mayEnd);
        });
        sem_wait(&m_isConnected);
    }
    ~ConnectingThread() {
        end();
    }

    /// Returns when the kernel has removed the thread.
    void end() {
        if (!m_thread.joinable())
            return;
        sem_post(&m_mayEnd);
        m_thread.join();
        EXPECT_TRUE(
            test::eventually([this] { return syscall(SYS_tgkill, getpid(), m_tid, 0) == -1; }));
    }

    QSharedPointer<File> file;

private:
    std::thread m_thread;
    sem_t m_isConnected;
    sem_t m_mayEnd;
    pid_t m_tid = 0;
};

struct Moment {
    const char* call;
    int count;
};

void PrintTo(const Moment& moment, std::ostream* stream) {
    *stream << moment.call << ' ' << moment.count;
}

} // namespace

// --- The connecting thread ends -----------------------------------------------------------------

class IpcThreadEnd : public IPCFSTest, public ::testing::WithParamInterface<Moment> {
protected:
    Rival rival; // forked before the test has threads
};

TEST_P(IpcThreadEnd, DuringAWriteOfAnotherThread_WriteSucceedsAndOtherClientIsRefused) {
    ConnectingThread connecting(fs);
    ASSERT_TRUE(connecting.file);
    const QByteArray footage(1 << 20, 'm');
    char other = '?';
    test::runAtCall(GetParam().call, GetParam().count, [&] {
        connecting.end();
        other = rival.tryConnect();
    });
    EXPECT_EQ(connecting.file->write(footage.constData(), footage.size()), footage.size());
    EXPECT_EQ(other, 'b');
    EXPECT_EQ(test::contents(dir / "mine"), footage);
    EXPECT_TRUE(fs.isConnected());
    fs.disconnect();
    EXPECT_EQ(rival.tryConnect(), 'c');
}

INSTANTIATE_TEST_SUITE_P(Calls, IpcThreadEnd,
                         ::testing::Values(Moment{"pthread_mutex_clocklock", 1}, // data buffer
                                           Moment{"pthread_mutex_unlock", 1},
                                           Moment{"sem_post", 1})); // request

class IpcTakeover : public IPCFSTest {
protected:
    Rival rival;
};

TEST_F(IpcTakeover, ConnectingThreadEndedAndServerLooksForItsClient_SessionContinues) {
    std::thread([this] { EXPECT_EQ(fs.connect(1, nullptr), 0); }).join();
    const test::AreaView view;
    AreaControl& control = view.area().control;
    const pthread_mutex_t before = control.clientMutex;
    sem_post(&control.requestSem); // instead of the 30 s after which it looks
    EXPECT_TRUE(test::eventually([&] {
        int posts = 1;
        sem_getvalue(&control.requestSem, &posts);
        return posts == 0;
    }));
    EXPECT_EQ(fs.stat("/", st), 0);
    EXPECT_EQ(std::memcmp(&before, &control.clientMutex, sizeof before), 0);
    EXPECT_EQ(rival.tryConnect(), 'b');
    fs.disconnect();
    EXPECT_EQ(rival.tryConnect(), 'c');
}

TEST_F(IpcTakeover, ProcessKilledBesideAnotherOfItsThreads_OtherClientConnects) {
    if (!test::hasRobustMutexes())
        GTEST_SKIP() << "the system does not report the death of a mutex owner";
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    ChildProcess client([&] {
        ConnectingThread connecting(fs);
        connecting.end();
        (void)!::write(ready[1], "r", 1);
        for (;;)
            connecting.file->pwrite("busy", 4, 0);
        return 0;
    });
    char byte;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    EXPECT_EQ(rival.tryConnect(), 'b');
    client.signal(SIGKILL);
    EXPECT_EQ(client.wait(), -SIGKILL);
    EXPECT_EQ(rival.tryConnect(), 'c');
}

// --- The server ends ----------------------------------------------------------------------------

TEST_F(IpcTakeover, ServerKilledAndAnotherProcessLooksForIt_CallFailsSoon) {
    if (!test::hasRobustMutexes())
        GTEST_SKIP() << "the system does not report the death of a mutex owner";
    int locked[2];
    int begin[2];
    ASSERT_EQ(pipe(locked), 0);
    ASSERT_EQ(pipe(begin), 0);
    // It is suspended while it holds the server mutex for a look.
    ChildProcess prober([&] {
        char byte;
        if (::read(begin[0], &byte, 1) != 1)
            return 1;
        const test::AreaView view;
        pthread_mutex_t& serverMutex = view.area().control.serverMutex;
        if (tryLockShared(serverMutex) != 0)
            return 2;
        (void)!::write(locked[1], "l", 1);
        usleep(300'000);
        return pthread_mutex_unlock(&serverMutex);
    });
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    server.process().signal(SIGKILL);
    server.process().wait();
    ASSERT_EQ(::write(begin[1], "b", 1), 1);
    char byte;
    ASSERT_EQ(::read(locked[0], &byte, 1), 1);
    const auto start = Clock::now();
    expectNotConnected(fs.stat("/", st));
    EXPECT_LT(secondsSince(start), soon);
    EXPECT_EQ(fs.unavailable(), IPCFS::Unavailable::NoServer);
    EXPECT_EQ(prober.wait(), 0);
}

// A client of the dead server holds the server mutex for a moment, as it looks for the server. Its
// response has been posted.
TEST(IpcServerEnd, AreaWithoutServer_ConnectFailsAndTakesNoResponseOfAnotherClient) {
    ShmBlock block(blockName, areaSize, ShmBlock::Create | ShmBlock::RemoveAtClose);
    Area& area = test::makeOrphanedArea(block);
    setOwned(area, false);
    std::strcpy(area.response, "0,0,0");
    constexpr int shared = 1;
    ASSERT_EQ(sem_init(&area.control.responseSem, shared, 1), 0);
    ASSERT_EQ(pthread_mutex_lock(&area.control.serverMutex), 0);
    IPCFS::Data session;
    EXPECT_EQ(session.init(nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(session.reason, IPCFS::Unavailable::NoServer);
    int responses = 0;
    EXPECT_EQ(sem_getvalue(&area.control.responseSem, &responses), 0);
    EXPECT_EQ(responses, 1);
    EXPECT_EQ(pthread_mutex_unlock(&area.control.serverMutex), 0);
}

TEST(IpcServerEnd, KilledDuringARequest_CallFailsSoon) {
    if (!test::hasRobustMutexes())
        GTEST_SKIP() << "the system does not report the death of a mutex owner";
    test::ServerProcess server([] { return QSharedPointer<GatedFS>::create(); });
    ASSERT_TRUE(server.awaitReady());
    IPCFS fs;
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    auto killed = Clock::now();
    std::thread killer([&] {
        const test::AreaView view;
        EXPECT_TRUE(test::eventually([&] { return requestState(view.area()) == Accepted; }));
        usleep(50'000); // the client waits
        killed = Clock::now();
        server.process().signal(SIGKILL);
    });
    struct stat st;
    EXPECT_EQ(fs.stat("/gate", st), -1);
    EXPECT_EQ(errno, ENOTCONN);
    killer.join();
    EXPECT_LT(secondsSince(killed), soon);
    EXPECT_EQ(fs.unavailable(), IPCFS::Unavailable::NoServer);
}

// --- The clock is set ---------------------------------------------------------------------------

class IpcClock : public ::testing::TestWithParam<long long> {
protected:
    ~IpcClock() override {
        test::setClock(0, -1);
    }
};

TEST_P(IpcClock, SetDuringASession_RequestsAreAnswered) {
    RunningServer running{QSharedPointer<MemFS>::create()};
    IPCFS fs;
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    test::setClock(GetParam(), 0);
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    for (int i = 0; i < 20; ++i) {
        usleep(1000); // longer than a wait that only polls
        EXPECT_EQ(file->pwrite("footage", 7, 0), 7);
    }
    EXPECT_TRUE(fs.isConnected());
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_EQ(fs.connect(1, nullptr), 0);
}

TEST_P(IpcClock, SetWhileNoBufferIsFree_ReservationFailsAfterItsTime) {
    RunningServer running{QSharedPointer<MemFS>::create()};
    const test::AreaView view;
    EXPECT_EQ(view.shm()->allocDataBuf(1), 0);
    EXPECT_EQ(view.shm()->allocDataBuf(1), 1);
    test::setClock(GetParam(), 0);
    const auto start = Clock::now();
    EXPECT_EQ(view.shm()->allocDataBuf(1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GT(secondsSince(start), 0.9);
    EXPECT_LT(secondsSince(start), soon);
}

INSTANTIATE_TEST_SUITE_P(Seconds, IpcClock,
                         ::testing::Values(1,               // in 1970
                                           2'000'000'000)); // in 2033

// --- The server's file system -------------------------------------------------------------------

namespace {

/// Leaves errno behind, as a backend may on success.
class CarelessFS : public MemFS {
public:
    int mkdir(QString path, int mode) override {
        const int result = MemFS::mkdir(path, mode);
        errno = ENOTCONN;
        return result;
    }
};

} // namespace

TEST(IpcServerErrno, ENOTCONNAfterSuccess_SessionContinues) {
    RunningServer running{QSharedPointer<CarelessFS>::create()};
    IPCFS fs;
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
    EXPECT_TRUE(fs.isConnected());
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_FALSE(fs.isConnected());
}

// --- fork(2) in the process of the server -------------------------------------------------------

TEST(IpcServerFork, ChildTerminatesAndDestroysItsCopy_ServiceContinues) {
    RunningServer running{QSharedPointer<MemFS>::create()};
    IPCFS fs;
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    ChildProcess child([&] {
        const auto start = Clock::now();
        if (running.server->terminate() != 0)
            return 1;
        if (running.server->run(nullptr) != -1 || errno != EBUSY)
            return 2;
        running.server.reset();
        return secondsSince(start) < soon ? 0 : 3;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(test::serviceExists());
    const test::AreaView view;
    int buffers = 0;
    sem_getvalue(&view.area().control.bufferSem, &buffers);
    EXPECT_EQ(buffers, dataBuffers);
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
}

TEST(IpcServerFork, BeforeRun_ChildCanServe) {
    IPCServer server(QSharedPointer<MemFS>::create());
    ChildProcess child([&] {
        std::thread service([&] { server.run(nullptr); });
        const bool isServing = test::eventually([&] { return server.state() == 2; });
        server.terminate();
        service.join();
        return isServing ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
}

// --- Why there is no session --------------------------------------------------------------------

TEST(IpcUnavailable, NoServer_IsReported) {
    IPCFS fs;
    EXPECT_EQ(fs.connect(1, nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(fs.unavailable(), IPCFS::Unavailable::NoServer);
}

TEST(IpcUnavailable, ServerStoppedInOrder_IsNoServer) {
    IPCFS fs;
    {
        RunningServer running{QSharedPointer<MemFS>::create()};
        ASSERT_EQ(fs.connect(1, nullptr), 0);
    }
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(fs.unavailable(), IPCFS::Unavailable::NoServer);
    EXPECT_EQ(fs.connect(1, nullptr), -1);
    EXPECT_EQ(fs.unavailable(), IPCFS::Unavailable::NoServer);
}

TEST(IpcUnavailable, ServerOfAnotherAbi_IsReported) {
    constexpr std::size_t sizeOffsets[] = {28, 48, 56};
    ShmBlock block(blockName, areaSize, ShmBlock::Create | ShmBlock::RemoveAtClose);
    ASSERT_TRUE(block.isValid());
    auto* const header = static_cast<char*>(block.base());
    std::uint32_t size = 0;
    std::memcpy(&size, header + offsetof(BlockHeader, size), sizeof size);
    for (const std::size_t offset : sizeOffsets) {
        if (offset == offsetof(BlockHeader, size))
            continue;
        std::memset(header + sizeof(std::uint32_t), 0, 64);
        std::memcpy(header + offset, &size, sizeof size);
        IPCFS::Data session;
        EXPECT_EQ(session.init(nullptr), -1);
        EXPECT_EQ(errno, ENOTCONN);
        EXPECT_EQ(session.reason, IPCFS::Unavailable::OtherAbi) << offset;
    }
}

} // namespace oru::io
