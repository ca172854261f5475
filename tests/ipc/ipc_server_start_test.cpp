// SPDX-License-Identifier: Apache-2.0
// IPCServer: starting, replacing the area of an earlier server, and failing to start.

#include "ipc/ipcwire_p.h"
#include "support/doubles/memfs.h"
#include "support/ipc/elapsed.h"
#include "support/ipc/ipccalls.h"
#include "support/ipc/ipcservice.h"
#include "support/ipc/runningserver.h"
#include "support/suite/logcapture.h"
#include "support/suite/slots.h"
#include "support/system/childprocess.h"

#include <oruio/error.h>
#include <oruio/fsipc.h>
#include <oruio/ipc_server.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace oru::io {

using namespace ipcwire;
using test::Clock;
using test::eventually;
using test::LogCapture;
using test::MemFS;
using test::RawClient;
using test::RunningServer;
using test::secondsSince;
using test::withoutAddresses;
using test::withoutWaits;

TEST(IPCServer, RunAndTerminate_ChangeTheState) {
    IPCServer server(QSharedPointer<MemFS>::create());
    EXPECT_EQ(server.state(), 0);
    EXPECT_EQ(server.terminate(), 0);
    int result = -1000;
    std::thread thread([&] { result = server.run(nullptr); });
    EXPECT_TRUE(eventually([&] { return server.state() == 2; }));
    EXPECT_TRUE(test::serviceExists());
    EXPECT_EQ(server.terminate(), 0);
    thread.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(server.state(), 0);
    EXPECT_FALSE(test::serviceExists());
    EXPECT_EQ(server.terminate(), 0);
}

TEST(IPCServer, Ioctl_FailsWithNotImplemented) {
    IPCServer server(QSharedPointer<MemFS>::create());
    QString response = "unchanged";
    liberrno = Ok;
    EXPECT_EQ(server.ioctl("anything", response), -1);
    EXPECT_EQ(liberrno, NotImplemented);
    EXPECT_EQ(response, "unchanged");
}

TEST(IPCServer, NullFS_ServesAnEmptySwitch) {
    LogCapture log("fsipcsrv=12");
    RunningServer running({});
    EXPECT_EQ(log.messages().first(), "fsipcsrv 12 Serving 'FSSwitchFS'");
    EXPECT_EQ(RawClient().ask("stat /"), "-1,0,2");
}

TEST(IPCServer, RunAgain_ServesAgain) {
    IPCServer server(QSharedPointer<MemFS>::create());
    for (int i = 0; i < 20; ++i) {
        int result = -1000;
        std::thread thread([&] { result = server.run(nullptr); });
        EXPECT_TRUE(eventually([&] { return server.state() == 2; }));
        EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
        server.terminate();
        thread.join();
        EXPECT_EQ(result, 0);
        EXPECT_FALSE(test::serviceExists());
    }
}

TEST(IPCServer, SecondServer_FailsWithEBUSYAndTheFirstContinues) {
    RunningServer running(QSharedPointer<MemFS>::create());
    LogCapture log("fsipcsrv=12");
    IPCServer second(QSharedPointer<MemFS>::create());
    const auto start = Clock::now();
    errno = 0;
    EXPECT_EQ(second.run(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_LT(secondsSince(start), 3);
    EXPECT_EQ(second.state(), 0);
    EXPECT_EQ(
        withoutWaits(withoutAddresses(log.messages())),
        QStringList({"fsipcsrv 12 Serving 'MemFS'", "fsipcsrv 12 IPC Server initializing",
                     "Existing Shm", "fsipcsrv 12 Existing active server detected. Aborting",
                     "fsipcsrv 12 IPC Server init failed", "fsipcsrv 12 IPC Server stopped"}));
    EXPECT_NEAR(test::lastMutexTimeoutSeconds(), 0.1, 0.01); // for the server mutex
    EXPECT_TRUE(test::serviceExists());
    EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
}

TEST(IPCServer, RunWhileRunning_FailsWithEBUSY) {
    RunningServer running(QSharedPointer<MemFS>::create());
    errno = 0;
    EXPECT_EQ(running.server->run(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(running.server->state(), 2);
    EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
}

TEST(IPCServer, ConcurrentServers_OneServes) {
    for (int round = 0; round < 10; ++round) {
        std::vector<std::unique_ptr<IPCServer>> servers;
        std::vector<std::thread> threads;
        std::atomic<int> refused{0};
        for (int i = 0; i < 4; ++i) {
            servers.push_back(std::make_unique<IPCServer>(QSharedPointer<MemFS>::create()));
            threads.emplace_back([&refused, server = servers.back().get()] {
                if (server->run(nullptr) == -1)
                    ++refused;
            });
        }
        EXPECT_TRUE(eventually([&] { return refused == 3; }));
        EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
        for (auto& server : servers)
            server->terminate();
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(refused, 3);
        EXPECT_FALSE(test::serviceExists());
    }
}

TEST(IPCServer, CompetingServer_RunFailsWithEBUSYAndItsAreaStays) {
    std::unique_ptr<ShmBlock> competitor;
    // The first 20 calls try to open an existing object. The next one would create it.
    test::runAtCall("shm_open", 21, [&] {
        competitor = std::make_unique<ShmBlock>(blockName, areaSize, ShmBlock::Create);
        setOwned(areaOf(shmAt(competitor->base())), true);
    });
    IPCServer server(QSharedPointer<MemFS>::create());
    LogCapture log("fsipcsrv=12");
    EXPECT_EQ(server.run(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(
        log.messages(),
        QStringList({"fsipcsrv 12 IPC Server initializing", "fsipcsrv 12 Create new FSShm: OK",
                     "fsipcsrv 12 Competing server detected. Aborting.",
                     "fsipcsrv 12 IPC Server init failed", "fsipcsrv 12 IPC Server stopped"}));
    EXPECT_TRUE(competitor->isValid());
    EXPECT_TRUE(test::serviceExists());
    competitor->remove();
}

TEST(IPCServer, OrphanedArea_IsReplaced) {
    ShmBlock old(blockName, areaSize, ShmBlock::Create);
    const Area& area = test::makeOrphanedArea(old);
    LogCapture log("fsipcsrv=12");
    {
        RunningServer running(QSharedPointer<MemFS>::create());
        EXPECT_FALSE(old.isValid());
        EXPECT_FALSE(isOwned(area));
        EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
    }
    const QStringList messages = log.messages();
    EXPECT_TRUE(messages.contains("fsipcsrv 12 Server crash detected. Resetting."));
    EXPECT_TRUE(messages.contains("fsipcsrv 12 IPC Server Ready"));
    EXPECT_FALSE(test::serviceExists());
}

// A client of the old server takes any holder of the server mutex for a live server.
TEST(IPCServer, OrphanedArea_MutexIsReleasedBeforeTheCrashIsLogged) {
    ShmBlock old(blockName, areaSize, ShmBlock::Create);
    test::makeOrphanedArea(old);
    LogCapture log("fsipcsrv=12");
    QStringList loggedBefore;
    test::runAtCall("pthread_mutex_unlock", 1, [&] { loggedBefore = log.messages(); });
    RunningServer running(QSharedPointer<MemFS>::create());
    EXPECT_EQ(withoutAddresses(loggedBefore).last(), "Existing Shm");
    EXPECT_EQ(log.messages().first(), "fsipcsrv 12 Server crash detected. Resetting.");
}

TEST(IPCServer, UnlinkOfPredecessorFails_RunFailsAndAreaStays) {
    const ShmBlock old(blockName, areaSize, ShmBlock::Create);
    IPCServer server(QSharedPointer<MemFS>::create());
    LogCapture log("fsipcsrv=12");
    test::failCall("shm_unlink", 1, EPERM);
    errno = 0;
    EXPECT_EQ(server.run(nullptr), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(withoutAddresses(log.messages()),
              QStringList({"fsipcsrv 12 IPC Server initializing", "Existing Shm",
                           "fsipcsrv 12 Invalid shmblock", "fsipcsrv 12 IPC Server init failed",
                           "fsipcsrv 12 IPC Server stopped"}));
    EXPECT_TRUE(old.isValid());
    EXPECT_TRUE(test::serviceExists());
    RunningServer next(QSharedPointer<MemFS>::create());
    EXPECT_FALSE(old.isValid());
    EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
}

TEST(IPCServer, NoFreeDescriptor_PredecessorIsReplaced) {
    const ShmBlock old(blockName, areaSize, ShmBlock::Create);
    test::failCall("shm_open", 2, EMFILE); // the first call opens the area
    RunningServer running(QSharedPointer<MemFS>::create());
    // The server has created a new object.
    EXPECT_FALSE(old.isValid());
    EXPECT_FALSE(isOwned(areaOf(shmAt(old.base()))));
    EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
}

TEST(IPCServer, RemovingTheBlockFails_IsTriedAgain) {
    for (const char* call : {"shm_open", "shm_unlink"}) {
        RunningServer running(QSharedPointer<MemFS>::create());
        const test::AreaView view;
        test::failCall(call, 1, EMFILE);
        running.server->terminate();
        EXPECT_EQ(running.join(), 0);
        EXPECT_FALSE(view.isMapped()) << call;
        EXPECT_FALSE(test::serviceExists()) << call;
    }
}

TEST(IPCServer, AreaWithoutOwner_IsReplaced) {
    const ShmBlock old(blockName, areaSize, ShmBlock::Create);
    {
        RunningServer running(QSharedPointer<MemFS>::create());
        EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
    }
    EXPECT_FALSE(test::serviceExists());
}

TEST(IPCServer, ObjectOfAnotherSize_IsReplaced) {
    const ShmBlock old(blockName, 100, ShmBlock::Create);
    {
        RunningServer running(QSharedPointer<MemFS>::create());
        EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
    }
    EXPECT_FALSE(test::serviceExists());
}

TEST(IPCServer, MappingFails_RunFailsWithENOMEM) {
    IPCServer server(QSharedPointer<MemFS>::create());
    LogCapture log("fsipcsrv=12");
    test::failCall("mmap", 1, ENOMEM);
    errno = 0;
    EXPECT_EQ(server.run(nullptr), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(
        log.messages(),
        QStringList({"fsipcsrv 12 IPC Server initializing", "fsipcsrv 12 Create new FSShm: failed",
                     "fsipcsrv 12 Invalid shmblock", "fsipcsrv 12 IPC Server init failed",
                     "fsipcsrv 12 IPC Server stopped"}));
    shm_unlink("/_blk_fsipc");
}

TEST(IPCServer, ShmOpenFails_RunFailsWithEACCES) {
    IPCServer server(QSharedPointer<MemFS>::create());
    // 20 calls try to open an earlier server's object, and 20 more the server's own.
    test::failCall("shm_open", 41, EACCES);
    EXPECT_EQ(server.run(nullptr), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_FALSE(test::serviceExists());
}

TEST(IPCServer, LockOfNewBlockTimesOut_RunFailsWithEBUSY) {
    IPCServer server(QSharedPointer<MemFS>::create());
    LogCapture log("fsipcsrv=12");
    test::failCall("pthread_mutex_clocklock", 1, ETIMEDOUT);
    errno = 0;
    EXPECT_EQ(server.run(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(
        log.messages(),
        QStringList({"fsipcsrv 12 IPC Server initializing", "fsipcsrv 12 Create new FSShm: OK",
                     "fsipcsrv 12 Invalid shmblock", "fsipcsrv 12 IPC Server init failed",
                     "fsipcsrv 12 IPC Server stopped"}));
    EXPECT_NEAR(test::lastMutexTimeoutSeconds(), 10, 0.2);
    shm_unlink("/_blk_fsipc");
}

struct InitFailure {
    const char* call;
    int count;
    const char* message;
};

class IPCServerInit : public ::testing::TestWithParam<InitFailure> {};

TEST_P(IPCServerInit, CallFails_RunFailsAndRemovesTheBlock) {
    IPCServer server(QSharedPointer<MemFS>::create());
    LogCapture log("fsipcsrv=12");
    test::failCall(GetParam().call, GetParam().count, EAGAIN);
    errno = 0;
    EXPECT_EQ(server.run(nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(server.state(), 0);
    EXPECT_EQ(
        log.messages(),
        QStringList({"fsipcsrv 12 IPC Server initializing", "fsipcsrv 12 Create new FSShm: OK",
                     "fsipcsrv 12 Initialize FSShm",
                     QStringLiteral("fsipcsrv 12 %1: Resource temporarily unavailable")
                         .arg(GetParam().message),
                     "fsipcsrv 12 IPC Server init failed", "fsipcsrv 12 IPC Server stopped"}));
    EXPECT_FALSE(test::serviceExists());
    RunningServer next(QSharedPointer<MemFS>::create());
    EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
}

// The first call of each function initialises or locks the mutex of the block.
INSTANTIATE_TEST_SUITE_P(
    , IPCServerInit,
    ::testing::Values(
        InitFailure{"pthread_mutexattr_init", 2, "Failed to init mutex attrs"},
        InitFailure{"pthread_mutexattr_setrobust", 2, "Failed to set mutex attribute properties"},
        InitFailure{"pthread_mutexattr_setpshared", 2, "Failed to set mutex attribute properties"},
        InitFailure{"pthread_mutex_init", 2, "Failed to init mutexes"},
        InitFailure{"pthread_mutex_init", 3, "Failed to init mutexes"},
        InitFailure{"pthread_mutex_init", 4, "Failed to init mutexes"},
        InitFailure{"pthread_mutex_clocklock", 2, "Unable to lock this shm"}),
    [](const auto& tested) {
        return std::string(tested.param.call) + std::to_string(tested.param.count);
    });

TEST(IPCServer, InitAndCleanupFail_ErrnoIsThatOfInit) {
    IPCServer server(QSharedPointer<MemFS>::create());
    test::failCall("pthread_mutex_init", 2, EAGAIN);
    test::runAtCall("shm_unlink", 1, [] { ::unlink("/dev/shm/_blk_fsipc"); });
    EXPECT_EQ(server.run(nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(test::serviceExists());
}

TEST(IPCServer, FirstResetFails_RunReturnsZeroAndRemovesTheBlock) {
    IPCServer server(QSharedPointer<MemFS>::create());
    LogCapture log("fsipcsrv=12");
    test::failCall("sem_init", 2, ENOSYS);
    EXPECT_EQ(server.run(nullptr), 0);
    EXPECT_EQ(
        log.messages(),
        QStringList({"fsipcsrv 12 IPC Server initializing", "fsipcsrv 12 Create new FSShm: OK",
                     "fsipcsrv 12 Initialize FSShm", "fsipcsrv 12 FSShm ready for use",
                     "fsipcsrv 12 FATAL: Unable to reinitialize semaphores",
                     "fsipcsrv 12 Session reset Failed", "fsipcsrv 12 IPC Server init failed",
                     "fsipcsrv 12 IPC Server stopped"}));
    EXPECT_EQ(server.state(), 0);
    EXPECT_FALSE(test::serviceExists());
}

TEST(IPCServer, LaterResetFails_LogsAndKeepsServing) {
    RunningServer running(QSharedPointer<MemFS>::create());
    RawClient client;
    EXPECT_EQ(client.ask("connect"), "0,0,0");
    LogCapture log("fsipcsrv=12");
    test::failCall("sem_init", 1, ENOSYS);
    client.send("disconnect");
    EXPECT_TRUE(eventually([&] { return requestState(client.area()) == Idle; }));
    EXPECT_TRUE(eventually([&] {
        static QStringList messages;
        messages += log.messages();
        return messages.contains("fsipcsrv 12 FATAL: Unable to reinitialize semaphores") &&
               messages.contains("fsipcsrv 12 Session reset Failed");
    }));
    EXPECT_EQ(running.server->state(), 2);
}

TEST(IPCServerSlots, Functions_KeepTheirOrder) {
    using test::slotOf;
    int slot = 0;
    EXPECT_EQ(slotOf(&IPCServer::ioctl), slot++);
    EXPECT_EQ(slotOf(&IPCServer::run), slot++);
    EXPECT_EQ(slotOf(&IPCServer::state), slot++);
    EXPECT_EQ(slotOf(&IPCServer::terminate), slot++);
}

} // namespace oru::io
