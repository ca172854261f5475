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

#include <QDir>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace oru::io {

using namespace ipcwire;
using test::ChildProcess;
using test::IPCFSTest;
using test::IPCFSWithFakeServer;
using test::LogCapture;
using test::mappingsOf;

TEST_F(IPCFSWithFakeServer, ConnectingThreadEnded_SessionContinuesAndOtherClientIsRefused) {
    fs.disconnect();
    std::thread([this] { EXPECT_EQ(fs.connect(1, nullptr), 0); }).join();
    IPCFS other;
    EXPECT_EQ(other.unavailable(), IPCFS::Unavailable::None);
    {
        LogCapture log("fsipc=12");
        EXPECT_EQ(other.connect(1, nullptr), -1);
        EXPECT_EQ(log.messages().last(), "fsipc 12 Existing client detected. Aborting.");
    }
    EXPECT_EQ(other.unavailable(), IPCFS::Unavailable::Busy);
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
    fs.disconnect();
    EXPECT_EQ(requestState(server.area()), Idle);
    EXPECT_EQ(other.connect(1, nullptr), 0);
    EXPECT_EQ(other.unavailable(), IPCFS::Unavailable::None);
}

namespace {

/// The threads of this process that hold the client mutex.
QStringList sessionThreads() {
    QStringList found;
    for (const QString& thread :
         QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        if (test::contents("/proc/self/task/" + thread + "/comm") == "oruio-session\n")
            found.append(thread);
    }
    return found;
}

} // namespace

TEST_F(IPCFSWithFakeServer, Session_HasOneThreadThatBlocksSignals) {
    const QStringList threads = sessionThreads();
    ASSERT_EQ(threads.size(), 1);
    const QByteArray status = test::contents("/proc/self/task/" + threads.first() + "/status");
    const int mask = status.indexOf("SigBlk:\t");
    ASSERT_NE(mask, -1);
    const quint64 blocked = status.mid(mask + 8, 16).toULongLong(nullptr, 16);
    // SIGKILL and SIGSTOP cannot be blocked. An emulator of a CPU leaves its own faults unblocked.
    for (int signal = 1; signal < 32; ++signal) {
        if (signal == SIGKILL || signal == SIGSTOP || signal == SIGBUS || signal == SIGSEGV)
            continue;
        EXPECT_TRUE(blocked & (quint64(1) << (signal - 1))) << strsignal(signal);
    }
    fs.disconnect();
    EXPECT_EQ(sessionThreads(), QStringList());
}

namespace {

// Thread-local data lies on the stack of each thread.
constexpr std::size_t largeSize = 1 << 20;
thread_local char large[largeSize];

} // namespace

TEST_F(IPCFSWithFakeServer, ProgramWithMuchThreadLocalData_Connects) {
    large[largeSize - 1] = 1;
    fs.disconnect();
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(large[largeSize - 1], 1);
}

TEST_F(IPCFSWithFakeServer, NoThreadCanBeCreated_ConnectFails) {
    fs.disconnect();
    LogCapture log("fsipc=12");
    test::failCall("pthread_create", 1, EAGAIN);
    EXPECT_EQ(fs.connect(1, nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(log.messages().last(),
              "fsipc 12 Client lock failed: Resource temporarily unavailable. Aborting.");
    EXPECT_EQ(fs.connect(1, nullptr), 0);
}

namespace {

/// The state of a process's main thread in /proc: Z when it has ended.
char mainThreadState(pid_t process) {
    const QByteArray status = test::contents(QStringLiteral("/proc/%1/stat").arg(process));
    return status.mid(status.lastIndexOf(')') + 2, 1).append('\0').front();
}

} // namespace

TEST_F(IPCFSTest, MainThreadEnded_SessionContinuesAndOtherClientIsRefused) {
    int begin[2];
    int result[2];
    ASSERT_EQ(pipe(begin), 0);
    ASSERT_EQ(pipe(result), 0);
    ChildProcess threads([&] {
        if (fs.connect(1, nullptr) != 0)
            return 1;
        const auto file = openNew("mine");
        std::thread([&] {
            char byte;
            const bool isWritten =
                ::read(begin[0], &byte, 1) == 1 && file->write("mine", 4) == 4 && fs.isConnected();
            _exit(isWritten ? 0 : 2);
        }).detach();
        // Ends the main thread like pthread_exit(3), but does not unwind the stack of the test.
        syscall(SYS_exit, 0);
        return 3;
    });
    ASSERT_TRUE(test::eventually([&] { return mainThreadState(threads.pid()) == 'Z'; }));
    EXPECT_EQ(fs.connect(1, nullptr), -1);
    EXPECT_EQ(fs.unavailable(), IPCFS::Unavailable::Busy);
    ASSERT_EQ(::write(begin[1], "b", 1), 1);
    EXPECT_EQ(threads.wait(), 0);
    EXPECT_EQ(test::contents(dir / "mine"), "mine");
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

TEST_F(IPCFSWithFakeServer, TimeoutOnAnotherThread_AnyThreadReconnects) {
    test::limitSemaphoreWaits(5);
    server.setSilent();
    std::thread([this] { EXPECT_EQ(fs.mkdir("/d", 0755), -1); }).join();
    EXPECT_FALSE(fs.isConnected());
    server.setSilent(false);
    std::thread([this] { EXPECT_EQ(fs.connect(1, nullptr), 0); }).join();
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
    test::limitSemaphoreWaits(0);
}

TEST_F(IPCFSWithFakeServer, DisconnectedByAnotherThread_ReconnectsAndUnmapsTheFormerBlock) {
    std::thread([this] { fs.disconnect(); }).join();
    EXPECT_EQ(mappingsOf(blockName), 1); // the server's
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(mappingsOf(blockName), 2);
    // The list of robust mutexes of no thread refers to memory that is not mapped any more.
    ShmBlock block(blockName, areaSize, 0);
    EXPECT_NE(block.lock(), nullptr);
    EXPECT_EQ(block.unlock(), 0);
}

TEST_F(IPCFSTest, DisconnectedByAnotherThread_ForkedChildCanConnect) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    std::thread([this] { fs.disconnect(); }).join();
    ChildProcess child([&] { return fs.connect(1, nullptr) == 0 ? 0 : 1; });
    EXPECT_EQ(child.wait(), 0);
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
