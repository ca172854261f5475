// SPDX-License-Identifier: Apache-2.0
// IPCFS: a server that ends, is killed, or is stopped during a session.

#include "support/ipc/elapsed.h"
#include "support/ipc/ipccalls.h"
#include "support/ipc/ipcfstest.h"
#include "support/ipc/ipcservice.h"
#include "support/suite/logcapture.h"
#include "support/system/childprocess.h"

#include <oruio/fsipc.h>

#include <QFileInfo>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace oru::io {

using namespace ipcwire;
using test::Clock;
using test::IPCFSTest;
using test::LogCapture;
using test::secondsSince;
using test::ServerProcess;

TEST_F(IPCFSTest, ServerTerminated_NextCallFailsWithENOTCONN) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(server.terminate(), 0);
    LogCapture log("fsipc=12");
    expectNotConnected(fs.mkdir("/d", 0755));
    EXPECT_EQ(log.messages(), QStringList({"fsipc 12 Send request 'mkdir 493 /d'",
                                           "fsipc 12 Server offline. Stopping client"}));
    expectNotConnected(fs.mkdir("/d", 0755));
    EXPECT_EQ(log.messages(), QStringList());
    EXPECT_FALSE(QFileInfo::exists(dir / "d"));
}

TEST_F(IPCFSTest, ServerKilled_NextCallFailsWithENOTCONN) {
    if (!test::hasRobustMutexes())
        GTEST_SKIP() << "the system does not report the death of a mutex owner";
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    server.process().signal(SIGKILL);
    ASSERT_EQ(server.process().wait(), -SIGKILL);
    LogCapture log("fsipc=12");
    char byte = 0;
    expectNotConnected(file->write(&byte, 1));
    const QStringList messages = log.messages();
    ASSERT_EQ(messages.size(), 3);
    EXPECT_EQ(messages[1], "fsipc 12 Server crashed.");
    EXPECT_EQ(messages[2], "fsipc 12 Server offline. Stopping client");
    // The area is still there, but no server owns it.
    EXPECT_EQ(fs.connect(1, nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(log.messages(),
              QStringList({"fsipc 12 Client connecting", "fsipc 12 Send request 'connect'",
                           "fsipc 12 Server offline. Stopping client",
                           "fsipc 12 No response from server"}));
    ServerProcess next(dir.path());
    ASSERT_TRUE(next.awaitReady());
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.stat("/f", st), 0);
}

TEST_F(IPCFSTest, ServerKilledAndRestarted_OldSessionFailsWithENOTCONN) {
    if (!test::hasRobustMutexes())
        GTEST_SKIP() << "the system does not report the death of a mutex owner";
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    server.process().signal(SIGKILL);
    ASSERT_EQ(server.process().wait(), -SIGKILL);
    ServerProcess next(dir.path());
    ASSERT_TRUE(test::eventually([] {
        const test::AreaView view;
        return view.isMapped() && isOwned(view.area()) && requestState(view.area()) == Idle;
    }));
    char byte = 0;
    expectNotConnected(file->write(&byte, 1));
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.stat("/f", st), 0);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(next.terminate(), 0);
    EXPECT_TRUE(next.messages().contains("fsipcsrv 12 Server crash detected. Resetting."));
    EXPECT_FALSE(test::serviceExists());
}

TEST_F(IPCFSTest, ServerKilledWithoutAClient_ConnectFailsWithENOTCONN) {
    if (!test::hasRobustMutexes())
        GTEST_SKIP() << "the system does not report the death of a mutex owner";
    server.process().signal(SIGKILL);
    ASSERT_EQ(server.process().wait(), -SIGKILL);
    LogCapture log("fsipc=12");
    EXPECT_EQ(fs.connect(1, nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(log.messages(), QStringList({"fsipc 12 Client connecting",
                                           "fsipc 12 Server not online: Owner died"}));
}

TEST_F(IPCFSTest, ServerStoppedForElevenSeconds_RequestIsCancelledAndNextSessionWorks) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    auto file = openNew("f");
    server.process().signal(SIGSTOP);
    const auto start = Clock::now();
    LogCapture log("fsipc=12");
    expectNotConnected(fs.mkdir("/cancelled", 0755));
    EXPECT_GE(secondsSince(start), 9.9);
    EXPECT_LT(secondsSince(start), 15);
    EXPECT_EQ(log.messages(), QStringList({"fsipc 12 Send request 'mkdir 493 /cancelled'",
                                           "fsipc 12 Response wait error: Connection timed out. "
                                           "Disconnecting."}));
    std::this_thread::sleep_until(start + std::chrono::seconds(11));
    server.process().signal(SIGCONT);
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    // Each answer belongs to its request.
    for (int i = 1; i <= 100; ++i) {
        const QString name = QStringLiteral("/link%1").arg(i);
        QString target;
        ASSERT_EQ(fs.symlink(QStringLiteral("target%1").arg(i), name), 0);
        const QString expected = QStringLiteral("target%1").arg(i);
        ASSERT_EQ(fs.readlink(name, target), 0);
        ASSERT_EQ(target, expected);
    }
    // The server has not carried out the cancelled request.
    EXPECT_FALSE(QFileInfo::exists(dir / "cancelled"));
    file.reset();
    EXPECT_EQ(server.terminate(), 0);
    EXPECT_TRUE(server.messages().contains("fsipcsrv 12 Close Session. 1 files 0 dirs"));
}

TEST_F(IPCFSTest, LateAnswer_IsNotTakenForAnotherRequest) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    test::limitSemaphoreWaits(5);
    const auto holder = openNew("f");
    const auto waiter = fs.open("/f", O_RDWR, 0);
    ASSERT_EQ(holder->flock(LOCK_EX), 0);
    // The server blocks in flock(2) until this process unlocks the file.
    const int fd = ::open(qPrintable(dir / "f"), O_RDWR);
    ASSERT_EQ(holder->flock(LOCK_UN), 0);
    ASSERT_EQ(::flock(fd, LOCK_EX), 0);
    expectNotConnected(waiter->flock(LOCK_EX));
    // The next client requests the end of this session before the server continues.
    std::thread later([fd] {
        const test::AreaView view;
        EXPECT_TRUE(test::eventually([&] { return isPublished(requestState(view.area())); }));
        ::flock(fd, LOCK_UN);
    });
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(fs.stat(QStringLiteral("/missing%1").arg(i), st), -1);
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(fs.stat("/f", st), 0);
    }
    later.join();
    ::close(fd);
    test::limitSemaphoreWaits(0);
}

} // namespace oru::io
