// SPDX-License-Identifier: Apache-2.0
// IPCFS: connecting and disconnecting, and the files and directories of a session.

#include "ipc/fsipc_p.h"
#include "support/ipc/elapsed.h"
#include "support/ipc/ipcfstest.h"
#include "support/ipc/ipcservice.h"
#include "support/ipc/sharedobject.h"
#include "support/suite/logcapture.h"
#include "support/suite/slots.h"
#include "support/system/childprocess.h"

#include <oruio/error.h>
#include <oruio/fsipc.h>

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <unistd.h>

namespace oru::io {

using namespace ipcwire;
using test::ChildProcess;
using test::Clock;
using test::IPCFSTest;
using test::LogCapture;
using test::objectPath;
using test::secondsSince;

TEST_F(IPCFSTest, ConnectAndDisconnect_ChangeTheState) {
    EXPECT_EQ(fs.state(), 0);
    EXPECT_FALSE(fs.isConnected());
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.state(), 1);
    EXPECT_TRUE(fs.isConnected());
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.connect(0, nullptr), 0);
    EXPECT_EQ(fs.stat("/", st), 0);
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_EQ(fs.state(), 0);
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_EQ(server.terminate(), 0);
    EXPECT_FALSE(test::serviceExists());
}

TEST_F(IPCFSTest, ConnectAndDisconnect_LogAtBothEnds) {
    {
        LogCapture log("fsipc=12");
        ASSERT_EQ(fs.connect(1, nullptr), 0);
        EXPECT_EQ(fs.mkdir("/d", 0755), 0);
        fs.disconnect();
        EXPECT_EQ(
            log.messages(),
            QStringList({"fsipc 12 Client connecting", "fsipc 12 Detected Server online",
                         "fsipc 12 Send request 'connect'", "fsipc 12 Got response: '0,0,0'",
                         "fsipc 12 IPC Client Ready", "fsipc 12 Send request 'mkdir 493 /d'",
                         "fsipc 12 Got response: '0,0,0'", "fsipc 12 Send request 'disconnect'"}));
    }
    EXPECT_EQ(server.terminate(), 0);
    QStringList messages = server.messages();
    // Logged by the terminating thread, at any time after the disconnect.
    EXPECT_EQ(messages.removeAll("fsipcsrv 12 Terminate server"), 1);
    EXPECT_EQ(
        messages,
        QStringList({"fsipcsrv 12 Serving 'PosixFS'",        "fsipcsrv 12 IPC Server initializing",
                     "fsipcsrv 12 Create new FSShm: OK",     "fsipcsrv 12 Initialize FSShm",
                     "fsipcsrv 12 FSShm ready for use",      "fsipcsrv 12 Session reset OK",
                     "fsipcsrv 12 IPC Server Ready",         "fsipcsrv 12 Wait for request",
                     "fsipcsrv 12 Process 'connect'",        "fsipcsrv 12 Send response '0,0,0'",
                     "fsipcsrv 12 Client connected OK",      "fsipcsrv 12 Wait for request",
                     "fsipcsrv 12 Process 'mkdir'",          "fsipcsrv 12 Send response '0,0,0'",
                     "fsipcsrv 12 Wait for request",         "fsipcsrv 12 Process 'disconnect'",
                     "fsipcsrv 12 Send response '0,0,0'",    "fsipcsrv 12 Session reset OK",
                     "fsipcsrv 12 Wait for request",         "fsipcsrv 12 IPC Server stopping",
                     "fsipcsrv 12 Send response '-1,125,0'", "fsipcsrv 12 IPC Server stopped"}));
}

TEST_F(IPCFSTest, FilesOpenAtDisconnect_AreClosedByTheServer) {
    const int before = server.process().descriptors();
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    const auto directory = fs.opendir("/");
    ASSERT_TRUE(file);
    ASSERT_TRUE(directory);
    EXPECT_EQ(server.process().descriptors(), before + 2);
    fs.disconnect();
    EXPECT_EQ(server.process().descriptors(), before);
    EXPECT_EQ(server.terminate(), 0);
    EXPECT_TRUE(server.messages().contains("fsipcsrv 12 Close Session. 1 files 1 dirs"));
}

TEST_F(IPCFSTest, FileOfAnEarlierSession_FailsWithEBADF) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto oldFile = openNew("old");
    const auto oldDirectory = fs.opendir("/");
    ASSERT_TRUE(oldFile);
    fs.disconnect();
    char byte = 'x';
    expectNotConnected(oldFile->write(&byte, 1));
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    // The server gives it the same descriptor number as the old one.
    const auto newFile = openNew("new");
    ASSERT_TRUE(newFile);
    liberrno = LibraryFailure;
    EXPECT_EQ(oldFile->write(&byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(oldFile->close(), -1);
    errno = 0;
    EXPECT_EQ(oldDirectory->readdir(), nullptr);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(oldDirectory->rewinddir(), 0);
    EXPECT_EQ(oldDirectory->closedir(), 0);
    EXPECT_EQ(newFile->fstat(st), 0);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(newFile->close(), 0);
}

TEST_F(IPCFSTest, FileThatOutlivesTheFS_FailsWithENOTCONN) {
    auto client = std::make_unique<IPCFS>();
    ASSERT_EQ(client->connect(1, nullptr), 0);
    const auto file = client->open("/f", O_RDWR | O_CREAT, 0644);
    const auto directory = client->opendir("/");
    client.reset();
    char byte = 'x';
    expectNotConnected(file->write(&byte, 1));
    expectNotConnected(file->close());
    EXPECT_EQ(directory->readdir(), nullptr);
    EXPECT_EQ(errno, ENOTCONN);
    expectNotConnected(directory->closedir());
}

TEST_F(IPCFSTest, NotConnected_EveryOperationFailsWithENOTCONN) {
    struct statfs sfs;
    char buf[16];
    QString text;
    expectNotConnected(fs.stat("/", st));
    expectNotConnected(fs.lstat("/", st));
    expectNotConnected(fs.statfs("/", sfs));
    expectNotConnected(fs.link("/a", "/b"));
    expectNotConnected(fs.symlink("/a", "/b"));
    expectNotConnected(fs.unlink("/a"));
    expectNotConnected(fs.mkdir("/a", 0755));
    expectNotConnected(fs.rmdir("/a"));
    expectNotConnected(fs.rename("/a", "/b"));
    expectNotConnected(fs.readlink("/a", buf, sizeof buf));
    expectNotConnected(fs.readlink("/a", text));
    expectNotConnected(fs.truncate("/a", 1));
    expectNotConnected(fs.chmod("/a", 0644));
    expectNotConnected(fs.open("/a", O_RDWR | O_CREAT, 0644) ? 0 : -1);
    expectNotConnected(fs.opendir("/") ? 0 : -1);
    errno = 0;
    fs.sync();
    expectNotConnected(-1);
    EXPECT_TRUE(QDir(dir.path()).isEmpty());
}

TEST_F(IPCFSTest, SecondClient_ConnectFailsWithENOTCONN) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    LogCapture log("fsipc=12");
    IPCFS second;
    EXPECT_EQ(second.connect(1, nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(log.messages(),
              QStringList({"fsipc 12 Client connecting", "fsipc 12 Detected Server online",
                           "fsipc 12 Existing client detected. Aborting."}));
    EXPECT_EQ(fs.stat("/", st), 0);
    fs.disconnect();
    EXPECT_EQ(second.connect(1, nullptr), 0);
    EXPECT_EQ(second.stat("/", st), 0);
}

// --- Many sessions -------------------------------------------------------------------------------

// After a lost post, a session takes a second or longer.
constexpr double maxSessionSeconds = 0.9;

TEST_F(IPCFSTest, ThousandSessions_EachTakesLessThanASecond) {
    for (int i = 0; i < 1000; ++i) {
        const auto start = Clock::now();
        ASSERT_EQ(fs.connect(1, nullptr), 0) << i;
        ASSERT_EQ(fs.stat("/", st), 0) << i;
        fs.disconnect();
        ASSERT_LT(secondsSince(start), maxSessionSeconds) << i;
    }
}

TEST_F(IPCFSTest, ThousandSessionsOfTwoProcessesInTurn_EachTakesLessThanASecond) {
    int toChild[2];
    int toParent[2];
    ASSERT_EQ(pipe(toChild), 0);
    ASSERT_EQ(pipe(toParent), 0);
    const auto runSessions = [](int in, int out) {
        IPCFS client;
        struct stat seen;
        char turn;
        for (int i = 0; i < 500; ++i) {
            if (::read(in, &turn, 1) != 1)
                return i + 1;
            const auto start = Clock::now();
            if (client.connect(1, nullptr) != 0 || client.stat("/", seen) != 0 ||
                client.disconnect() != 0 || secondsSince(start) >= maxSessionSeconds ||
                ::write(out, &turn, 1) != 1)
                return i + 1;
        }
        return 0;
    };
    ChildProcess child([&] { return runSessions(toChild[0], toParent[1]) ? 1 : 0; });
    ASSERT_EQ(::write(toParent[1], "x", 1), 1);
    EXPECT_EQ(runSessions(toParent[0], toChild[1]), 0);
    EXPECT_EQ(child.wait(), 0);
}

// Both processes connect at the same time. The one that is refused tries again.
TEST_F(IPCFSTest, TwoProcessesAtOnce_EachReceivesItsOwnAnswers) {
    const auto runSessions = [](const char* name) {
        IPCFS::Data session;
        for (int sessions = 0; sessions < 100;) {
            // One attempt, without the pause of one second in connect().
            if (session.init(nullptr) != 0)
                continue;
            const char* answer = nullptr;
            const int length = session.call(&answer, op::readlink, "/%s", name);
            if (length != static_cast<int>(std::strlen(name)) || std::strcmp(answer, name) != 0)
                return 1;
            session.end();
            ++sessions;
        }
        return 0;
    };
    ASSERT_EQ(symlink("one", qPrintable(dir / "one")), 0);
    ASSERT_EQ(symlink("twotwo", qPrintable(dir / "twotwo")), 0);
    ChildProcess one([&] { return runSessions("one"); });
    ChildProcess two([&] { return runSessions("twotwo"); });
    EXPECT_EQ(one.wait(60), 0);
    EXPECT_EQ(two.wait(60), 0);
}

// --- Without a server ----------------------------------------------------------------------------

TEST(IPCFSWithoutServer, Connect_TriesOncePerSecond) {
    // A server that an earlier test killed has left its object.
    QFile::remove(objectPath(blockName));
    IPCFS fs;
    LogCapture log("fsipc=12");
    auto start = Clock::now();
    errno = 0;
    EXPECT_EQ(fs.connect(0, nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_LT(secondsSince(start), 0.9);
    EXPECT_EQ(log.messages(), QStringList());
    start = Clock::now();
    EXPECT_EQ(fs.connect(3, nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_GE(secondsSince(start), 3);
    EXPECT_LT(secondsSince(start), 7);
    EXPECT_EQ(log.messages(),
              QStringList({"fsipc 12 Client connecting", "fsipc 12 No IPC Server found.",
                           "fsipc 12 Client connecting", "fsipc 12 No IPC Server found.",
                           "fsipc 12 Client connecting", "fsipc 12 No IPC Server found."}));
    EXPECT_FALSE(test::serviceExists());
}

TEST(IPCFSWithoutServer, OrphanedArea_ConnectFailsWithENOTCONN) {
    ShmBlock block(blockName, areaSize, ShmBlock::Create | ShmBlock::RemoveAtClose);
    test::makeOrphanedArea(block);
    IPCFS fs;
    LogCapture log("fsipc=12");
    EXPECT_EQ(fs.connect(1, nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(log.messages(), QStringList({"fsipc 12 Client connecting",
                                           "fsipc 12 Server not online: shm unlocked"}));
}

TEST(IPCFSSlots, OwnFunctions_FollowThoseOfFS) {
    using test::slotOf;
    int slot = 27;
    EXPECT_EQ(slotOf(&IPCFS::connect), slot++);
    EXPECT_EQ(slotOf(&IPCFS::disconnect), slot++);
    EXPECT_EQ(slotOf(&IPCFS::isConnected), slot++);
    EXPECT_EQ(slotOf(&IPCFS::state), slot++);
    EXPECT_EQ(slotOf(&IPCFS::Data::File::isValid), 16 + 2);
    EXPECT_EQ(slotOf(&IPCFS::Data::Dir::isValid), 5 + 2);
}

} // namespace oru::io
