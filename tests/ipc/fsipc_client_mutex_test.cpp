// SPDX-License-Identifier: Apache-2.0
// IPCFS: the client mutex, threads that end during a session, and forked children.

#include "support/ipc/fakeserver.h"
#include "support/ipc/ipccalls.h"
#include "support/ipc/ipcfstest.h"
#include "support/ipc/ipcservice.h"
#include "support/ipc/sharedobject.h"
#include "support/suite/logcapture.h"
#include "support/system/childprocess.h"
#include "support/system/files.h"

#include <oruio/fsipc.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <memory>
#include <thread>

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace oru::io {

using namespace ipcwire;
using test::ChildProcess;
using test::IPCFSTest;
using test::IPCFSWithFakeServer;
using test::LogCapture;
using test::mappingsOf;

TEST_F(IPCFSWithFakeServer, ConnectingThreadEnded_SessionContinues) {
    if (!test::hasRobustMutexes())
        GTEST_SKIP() << "the system does not report the death of a mutex owner";
    fs.disconnect();
    std::thread([this] { EXPECT_EQ(fs.connect(1, nullptr), 0); }).join();
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
    fs.disconnect();
    EXPECT_EQ(requestState(server.area()), Idle);
    EXPECT_EQ(fs.connect(1, nullptr), 0);
}

TEST_F(IPCFSWithFakeServer, ConnectingThreadEndedAndOtherClientConnected_SessionIsLost) {
    if (!test::hasRobustMutexes())
        GTEST_SKIP() << "the system does not report the death of a mutex owner";
    fs.disconnect();
    std::thread([this] { EXPECT_EQ(fs.connect(1, nullptr), 0); }).join();
    IPCFS other;
    {
        LogCapture log("fsipc=12");
        EXPECT_EQ(other.connect(1, nullptr), 0);
        EXPECT_TRUE(log.messages().contains("fsipc 12 Client crash detected. Continuing."));
        other.disconnect();
    }
    LogCapture log("fsipc=12");
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_FALSE(fs.isConnected());
    EXPECT_EQ(log.messages(), QStringList({"fsipc 12 Session lost. Stopping client"}));
}

namespace {

/// The state of a process's main thread in /proc: Z when it has ended.
char mainThreadState(pid_t process) {
    const QByteArray status = test::contents(QStringLiteral("/proc/%1/stat").arg(process));
    return status.mid(status.lastIndexOf(')') + 2, 1).append('\0').front();
}

} // namespace

/// A client whose connecting thread ends, and a client in another process that connects afterwards.
/// The server gives both the same descriptor number.
class IPCFSReplacedClient : public IPCFSTest {
protected:
    void SetUp() override {
        if (!test::hasRobustMutexes())
            GTEST_SKIP() << "the system does not report the death of a mutex owner";
        IPCFSTest::SetUp();
        ASSERT_EQ(pipe(opened), 0);
        ASSERT_EQ(pipe(commands), 0);
        // The process has no threads yet, so it can fork.
        other = std::make_unique<ChildProcess>([this] {
            char byte;
            IPCFS client;
            if (::read(commands[0], &byte, 1) != 1 || client.connect(1, nullptr) != 0)
                return 1;
            const auto file = client.open("/theirs", O_RDWR | O_CREAT, 0644);
            if (!file || ::write(opened[1], "o", 1) != 1 || ::read(commands[0], &byte, 1) != 1)
                return 2;
            return file->write("theirs", 6) == 6 ? 0 : 3;
        });
    }

    void connectOnAThreadThatEnds() {
        std::thread([this] {
            ASSERT_EQ(fs.connect(1, nullptr), 0);
            mine = openNew("mine");
        }).join();
        ASSERT_TRUE(mine);
    }
    void letOtherOpen() {
        char byte;
        ASSERT_EQ(::write(commands[1], "g", 1), 1);
        ASSERT_EQ(::read(opened[0], &byte, 1), 1);
    }
    void letOtherWrite() {
        ASSERT_EQ(::write(commands[1], "g", 1), 1);
        EXPECT_EQ(other->wait(), 0);
        EXPECT_EQ(test::contents(dir / "theirs"), "theirs");
    }

    int opened[2];
    int commands[2];
    std::unique_ptr<ChildProcess> other;
    QSharedPointer<File> mine;
};

TEST_F(IPCFSReplacedClient, OtherClientLives_WriteFailsAndItsFileIsUnchanged) {
    connectOnAThreadThatEnds();
    letOtherOpen();
    expectNotConnected(mine->write("mine", 4));
    letOtherWrite();
}

TEST_F(IPCFSReplacedClient, OtherClientDied_WriteFailsAndNextConnectSucceeds) {
    connectOnAThreadThatEnds();
    letOtherOpen();
    other->signal(SIGKILL);
    ASSERT_EQ(other->wait(), -SIGKILL);
    expectNotConnected(mine->write("mine", 4));
    EXPECT_EQ(test::contents(dir / "theirs"), "");
    const int descriptors = server.process().descriptors();
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(server.process().descriptors(), descriptors - 1); // that of the dead client is closed
    EXPECT_EQ(fs.stat("/theirs", st), 0);
}

TEST_F(IPCFSReplacedClient, MainThreadIsZombie_WriteFailsAndOtherFileIsUnchanged) {
    int begin[2];
    ASSERT_EQ(pipe(begin), 0);
    ChildProcess threads([&] {
        if (fs.connect(1, nullptr) != 0)
            return 1;
        mine = openNew("mine");
        std::thread([&] {
            char byte;
            const bool isRefused = ::read(begin[0], &byte, 1) == 1 &&
                                   mine->write("mine", 4) == -1 && errno == ENOTCONN &&
                                   !fs.isConnected();
            _exit(isRefused ? 0 : 2);
        }).detach();
        // Ends the main thread like pthread_exit(3), but does not unwind the stack of the test.
        syscall(SYS_exit, 0);
        return 3;
    });
    ASSERT_TRUE(test::eventually([&] { return mainThreadState(threads.pid()) == 'Z'; }));
    letOtherOpen();
    ASSERT_EQ(::write(begin[1], "b", 1), 1);
    EXPECT_EQ(threads.wait(), 0);
    letOtherWrite();
}

TEST_F(IPCFSTest, SessionNumberOverwritten_SessionIsLostAndNextConnectSucceeds) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    ASSERT_TRUE(file);
    test::AreaView().area().sessions += 7;
    EXPECT_EQ(file->write("abc", 3), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_FALSE(fs.isConnected());
    // The client mutex was released before it was unmapped: a robust list that refers to unmapped
    // memory would break the next lock.
    EXPECT_EQ(mappingsOf(blockName), 0);
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
}

TEST_F(IPCFSTest, ForkedChild_FailsWithENOTCONN) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    auto file = openNew("f");
    ASSERT_TRUE(file);
    ChildProcess child([&] {
        const bool isRefused = file->write("child", 5) == -1 && errno == ENOTCONN;
        file.reset();
        fs.disconnect();
        return isRefused && !fs.isConnected() ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(file->write("parent", 6), 6);
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_size, 6);
}

TEST_F(IPCFSTest, ForkedChildOfADeadParent_FailsWithENOTCONN) {
    if (!test::hasRobustMutexes())
        GTEST_SKIP() << "the system does not report the death of a mutex owner";
    int lifeline[2];
    int result[2];
    ASSERT_EQ(pipe(lifeline), 0);
    ASSERT_EQ(pipe(result), 0);
    ChildProcess parent([&] {
        if (fs.connect(1, nullptr) != 0)
            return 1;
        const auto file = openNew("f");
        if (!file || file->write("parent", 6) != 6)
            return 2;
        if (fork() == 0) {
            char byte;
            ::close(lifeline[1]);
            const bool isRefused = ::read(lifeline[0], &byte, 1) == 0 && // the parent is dead
                                   file->write("child", 5) == -1 && errno == ENOTCONN &&
                                   !fs.isConnected();
            (void)!::write(result[1], isRefused ? "y" : "n", 1);
            _exit(0);
        }
        return raise(SIGKILL);
    });
    ::close(lifeline[1]);
    ::close(result[1]);
    EXPECT_EQ(parent.wait(), -SIGKILL);
    char isRefused = '?';
    EXPECT_EQ(::read(result[0], &isRefused, 1), 1);
    EXPECT_EQ(isRefused, 'y');
    EXPECT_EQ(test::contents(dir / "f"), "parent");
    EXPECT_EQ(requestState(test::AreaView().area()), Done);
    EXPECT_EQ(fs.connect(1, nullptr), 0);
}

namespace {

/// Runs `work` in a child process that is number 1 of a new PID namespace. \returns its exit
/// status, or `refused` when the namespace cannot be created.
int runAsPidOne(const std::function<int()>& work, int refused) {
    if (unshare(CLONE_NEWPID) != 0)
        return refused;
    return ChildProcess(work).wait();
}

} // namespace

// The connecting thread still holds the client mutex after another thread has disconnected. The
// child has a thread with the same number, which does not hold it.
TEST_F(IPCFSTest, DisconnectedByAnotherThread_ConnectFailsInAChildWithTheSameTid) {
    if (!test::hasRobustMutexes())
        GTEST_SKIP() << "the system does not report the death of a mutex owner";
    constexpr int noNamespace = 77;
    const auto connectInChild = [] { return IPCFS().connect(1, nullptr) == -1 ? 0 : 3; };
    ChildProcess outer([&] {
        return runAsPidOne(
            [&] {
                if (fs.connect(1, nullptr) != 0)
                    return 1;
                std::thread([this] { fs.disconnect(); }).join();
                return runAsPidOne(connectInChild, 2);
            },
            noNamespace);
    });
    const int status = outer.wait();
    if (status == noNamespace)
        GTEST_SKIP() << "needs root to create a PID namespace";
    EXPECT_EQ(status, 0);
    EXPECT_EQ(fs.connect(1, nullptr), 0);
}

// The session ends on another thread. Only the connecting thread can release the client mutex.
TEST_F(IPCFSWithFakeServer, TimeoutOnAnotherThread_OnlyTheConnectingThreadReconnects) {
    test::limitSemaphoreWaits(100);
    server.setSilent();
    std::thread([this] { EXPECT_EQ(fs.mkdir("/d", 0755), -1); }).join();
    EXPECT_FALSE(fs.isConnected());
    server.setSilent(false);
    std::thread([this] { EXPECT_EQ(fs.connect(1, nullptr), -1); }).join();
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
    test::limitSemaphoreWaits(0);
}

TEST_F(IPCFSWithFakeServer, SessionReplacedBeforeTheAnswer_AnswerIsLeftForTheNewClient) {
    server.setSilent();
    AreaControl& control = server.area().control;
    std::thread other([this, &control] {
        EXPECT_TRUE(test::eventually([this] { return server.request().startsWith("mkdir"); }));
        beginSession(server.area());
        sem_post(&control.responseSem);
    });
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(errno, ENOTCONN);
    other.join();
    EXPECT_FALSE(fs.isConnected());
    int answers = 0;
    EXPECT_EQ(sem_getvalue(&control.responseSem, &answers), 0);
    EXPECT_EQ(answers, 1);
    EXPECT_EQ(requestState(server.area()), Accepted);
    EXPECT_EQ(pthread_mutex_trylock(&control.clientMutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&control.clientMutex), 0);
}

TEST_F(IPCFSWithFakeServer, DisconnectedByAnotherThread_ReconnectsOnceTheConnectingThreadEnded) {
    fs.disconnect();
    sem_t connected;
    sem_t mayEnd;
    sem_init(&connected, 0, 0);
    sem_init(&mayEnd, 0, 0);
    pid_t number = 0;
    std::thread owner([&] {
        number = static_cast<pid_t>(syscall(SYS_gettid));
        EXPECT_EQ(fs.connect(1, nullptr), 0);
        sem_post(&connected);
        sem_wait(&mayEnd);
        // This thread's list of robust mutexes still refers to mapped memory.
        ShmBlock block(blockName, areaSize, 0);
        EXPECT_NE(block.lock(), nullptr);
        EXPECT_EQ(block.unlock(), 0);
    });
    sem_wait(&connected);
    fs.disconnect();
    EXPECT_EQ(fs.connect(1, nullptr), -1); // the connecting thread still holds the client mutex
    EXPECT_EQ(mappingsOf(blockName), 2);   // the server's and that thread's
    sem_post(&mayEnd);
    owner.join();
    if (test::hasRobustMutexes()) {
        // join() may return shortly before the kernel has removed the thread.
        EXPECT_TRUE(
            test::eventually([&] { return syscall(SYS_tgkill, getpid(), number, 0) == -1; }));
        EXPECT_EQ(fs.connect(1, nullptr), 0);
        EXPECT_EQ(mappingsOf(blockName), 2); // the server's and the session's
    }
}

TEST_F(IPCFSWithFakeServer, ClientMutexNotRecoverable_ConnectFails) {
    if (!test::hasRobustMutexes())
        GTEST_SKIP() << "the system does not report the death of a mutex owner";
    fs.disconnect();
    pthread_mutex_t* const mutex = &server.area().control.clientMutex;
    std::thread([=] { pthread_mutex_lock(mutex); }).join();
    EXPECT_EQ(pthread_mutex_trylock(mutex), EOWNERDEAD);
    pthread_mutex_unlock(mutex);
    LogCapture log("fsipc=12");
    EXPECT_EQ(fs.connect(1, nullptr), -1);
    EXPECT_EQ(log.messages().last(),
              "fsipc 12 Client lock failed: State not recoverable. Aborting.");
}

} // namespace oru::io
