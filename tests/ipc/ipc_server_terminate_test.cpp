// SPDX-License-Identifier: Apache-2.0
// IPCServer: terminating and destroying a server, idle or busy, with or without a session.

#include "ipc/ipcwire_p.h"
#include "support/doubles/memfs.h"
#include "support/ipc/elapsed.h"
#include "support/ipc/ipccalls.h"
#include "support/ipc/ipcservice.h"
#include "support/ipc/runningserver.h"
#include "support/suite/logcapture.h"
#include "support/system/childprocess.h"

#include <oruio/error.h>
#include <oruio/fdadapter.h>
#include <oruio/fsipc.h>
#include <oruio/ipc_server.h>
#include <oruio/posixfs.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace oru::io {

using namespace ipcwire;
using test::Clock;
using test::eventually;
using test::GatedFS;
using test::LogCapture;
using test::MemFS;
using test::RawClient;
using test::RunningServer;
using test::secondsSince;
using test::withoutWaits;

namespace {

/// A server with a request that blocks until openGate().
class IPCServerBusy : public ::testing::Test {
protected:
    IPCServerBusy() {
        client.send("stat /gate");
        fs->awaitEntry();
    }

    QSharedPointer<GatedFS> fs = QSharedPointer<GatedFS>::create();
    RunningServer running{fs};
    RawClient client;
};

} // namespace

TEST(IPCServer, TerminateWhileIdle_LogsAndRemovesTheBlock) {
    RunningServer running(QSharedPointer<MemFS>::create());
    LogCapture log("fsipcsrv=12");
    running.server->terminate();
    EXPECT_EQ(running.join(), 0);
    EXPECT_EQ(
        withoutWaits(log.messages()),
        QStringList({"fsipcsrv 12 Terminate server", "fsipcsrv 12 IPC Server stopping",
                     "fsipcsrv 12 Send response '-1,125,0'", "fsipcsrv 12 IPC Server stopped"}));
    EXPECT_FALSE(test::serviceExists());
}

TEST_F(IPCServerBusy, TerminateDuringARequest_AnswersItFirst) {
    std::thread terminator([&] { running.server->terminate(); });
    EXPECT_TRUE(eventually([&] { return running.server->state() == 3; }));
    fs->openGate();
    // The request gets its own answer.
    EXPECT_EQ(client.receive(), "-1,2,0");
    terminator.join();
    EXPECT_EQ(running.join(), 0);
    EXPECT_FALSE(test::serviceExists());
}

TEST_F(IPCServerBusy, TerminateWithAPendingRequest_AnswersECANCELED) {
    std::thread terminator([&] { running.server->terminate(); });
    EXPECT_TRUE(eventually([&] { return running.server->state() == 3; }));
    // The client has cancelled its first request. The server does not carry out the second one.
    client.send("mkdir 493 /never");
    fs->openGate();
    // The answer to the first request may be overwritten while it is copied.
    QByteArray answer = client.receive();
    if (answer != "-1,125,0")
        answer = client.receive();
    EXPECT_EQ(answer, "-1,125,0");
    terminator.join();
    EXPECT_EQ(running.join(), 0);
    struct stat st;
    EXPECT_EQ(fs->stat("/never", st), -1);
}

TEST(IPCServer, TerminateDuringASession_ClosesItsFiles) {
    RunningServer running(QSharedPointer<MemFS>::create());
    RawClient client;
    EXPECT_EQ(client.ask("connect"), "0,0,0");
    const QByteArray fd = client.ask("open 66 420 /f").split(',').first();
    EXPECT_EQ(client.ask("lseek " + fd + " 0 0"), "0,0,0 0");
    running.server->terminate();
    running.join();
    FDAdapter adapter(QSharedPointer<MemFS>::create());
    EXPECT_EQ(adapter.lseek(fd.toInt(), 0, SEEK_SET), -1);
    EXPECT_EQ(liberrno, NotFound);
}

TEST(IPCServer, TerminateDuringAllocDataBuf_AllocFailsWithEAGAIN) {
    RunningServer running(QSharedPointer<MemFS>::create());
    const test::AreaView view;
    EXPECT_EQ(view.shm()->allocDataBuf(1), 0);
    EXPECT_EQ(view.shm()->allocDataBuf(1), 1);
    const auto start = Clock::now();
    std::thread waiter([&] {
        EXPECT_EQ(view.shm()->allocDataBuf(60), -1);
        EXPECT_EQ(errno, EAGAIN);
    });
    running.server->terminate();
    waiter.join();
    EXPECT_LT(secondsSince(start), 30);
}

TEST_F(IPCServerBusy, TerminateTimesOut_LogsAndReturnsZero) {
    LogCapture log("fsipcsrv=12");
    test::failCall("pthread_mutex_clocklock", 2, ETIMEDOUT); // the first call locks the block
    EXPECT_EQ(running.server->terminate(), 0);
    EXPECT_EQ(log.messages(), QStringList({"fsipcsrv 12 Terminate server",
                                           "fsipcsrv 12 NOTICE: Server still active."}));
    EXPECT_NEAR(test::lastMutexTimeoutSeconds(), 10, 0.2);
    fs->openGate();
    EXPECT_EQ(running.join(), 0);
}

TEST(IPCServer, LockOfBlockTimesOut_LogsAndStops) {
    RunningServer running(QSharedPointer<MemFS>::create());
    LogCapture log("fsipcsrv=12");
    test::failCall("pthread_mutex_clocklock", 1, ETIMEDOUT);
    EXPECT_EQ(running.server->terminate(), 0);
    EXPECT_EQ(withoutWaits(log.messages()).first(), "fsipcsrv 12 Failed to get ShmBlock lock");
    EXPECT_EQ(running.join(), 0);
    EXPECT_FALSE(test::serviceExists());
}

namespace {

/// A file whose close() takes 300 ms.
class SlowFile : public PosixFile {
public:
    SlowFile() : PosixFile(-1) {}

    int close() override {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        return 0;
    }
};

class SlowFS : public MemFS {
public:
    QSharedPointer<File> open(QString, int, int) override {
        return QSharedPointer<SlowFile>::create();
    }
};

} // namespace

// The client waits for the server and the server for the client, but neither holds a lock that the
// other one needs.
TEST(IPCServer, DisconnectDuringTerminate_DoesNotDeadlock) {
    RunningServer running(QSharedPointer<SlowFS>::create());
    IPCFS client;
    ASSERT_EQ(client.connect(1, nullptr), 0);
    const auto file = client.open("/f", O_RDWR, 0);
    ASSERT_TRUE(file);
    const auto start = Clock::now();
    std::thread terminator([&] { running.server->terminate(); });
    EXPECT_TRUE(eventually([&] { return running.server->state() == 3; }));
    client.disconnect();
    terminator.join();
    EXPECT_EQ(running.join(), 0);
    EXPECT_LT(secondsSince(start), 9);
    EXPECT_FALSE(test::serviceExists());
}

TEST(IPCServer, DestroyedWhileServing_WaitsForRun) {
    for (int i = 0; i < 20; ++i) {
        auto server = std::make_unique<IPCServer>(QSharedPointer<MemFS>::create());
        std::atomic<bool> hasReturned{false};
        std::thread thread([&hasReturned, raw = server.get()] {
            raw->run(nullptr);
            hasReturned = true;
        });
        // The delay varies, so that the server is destroyed at different stages of its start.
        std::this_thread::sleep_for(std::chrono::milliseconds(i));
        while (server->state() == 0)
            std::this_thread::yield();
        server.reset();
        thread.join();
        EXPECT_TRUE(hasReturned);
        EXPECT_FALSE(test::serviceExists());
    }
}

TEST_F(IPCServerBusy, DestroyedDuringARequest_WaitsForIt) {
    LogCapture log("fsipcsrv=12");
    std::thread opener([&] {
        EXPECT_TRUE(
            eventually([&] { return log.messages().contains("fsipcsrv 12 Terminate server"); }));
        fs->openGate();
    });
    running.server.reset();
    opener.join();
    EXPECT_EQ(running.join(), 0);
    EXPECT_FALSE(test::serviceExists());
}

TEST(IPCServer, BlockInvalidatedByTheClient_StopsAndRemovesIt) {
    RunningServer running(QSharedPointer<MemFS>::create());
    ShmBlock block(blockName, areaSize, 0);
    static_cast<BlockHeader*>(block.base())->magic = 0;
    running.server.reset();
    EXPECT_EQ(running.join(), 0);
    EXPECT_FALSE(test::serviceExists());
}

} // namespace oru::io
