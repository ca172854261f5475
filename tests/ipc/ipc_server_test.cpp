// The server: how it begins and ends, what it answers to what, and what it says.

#include "ipc/ipc_server_p.h"
#include "support/doubles/memfs.h"
#include "support/doubles/recordingfs.h"
#include "support/ipc/ipccalls.h"
#include "support/ipc/ipcservice.h"
#include "support/suite/logcapture.h"
#include "support/suite/slots.h"
#include "support/system/childprocess.h"

#include <oruio/error.h>
#include <oruio/fdadapter.h>
#include <oruio/fsipc.h>
#include <oruio/fsswitch.h>
#include <oruio/ipc_server.h>
#include <oruio/posixfs.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

namespace oru::io {

using namespace ipcwire;
using test::ChildProcess;
using test::eventually;
using test::LogCapture;
using test::MemFS;

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// A file system in memory whose stat() takes as long as the test wants.
class GatedFS : public MemFS {
public:
    GatedFS() {
        sem_init(&m_entered, 0, 0);
        sem_init(&m_open, 0, 0);
    }

    int stat(QString path, struct stat& st) override {
        if (path == "/gate") {
            sem_post(&m_entered);
            sem_wait(&m_open);
        }
        return MemFS::stat(std::move(path), st);
    }

    /// Waits until somebody is inside.
    void awaitEntry() {
        sem_wait(&m_entered);
    }
    void letGo() {
        sem_post(&m_open);
    }

private:
    sem_t m_entered;
    sem_t m_open;
};

/// A server on a thread of this process.
class RunningServer {
public:
    explicit RunningServer(const QSharedPointer<FS>& fs)
        : server(std::make_unique<IPCServer>(fs)), m_thread([this] { run(); }) {
        EXPECT_TRUE(eventually([this] { return server->state() == 2; }));
    }
    ~RunningServer() {
        if (server)
            server->terminate();
        join();
    }

    /// The result of run(), once it has returned.
    int join() {
        if (m_thread.joinable())
            m_thread.join();
        return m_result;
    }

    std::unique_ptr<IPCServer> server;

private:
    void run() {
        m_result = server->run(nullptr);
    }

    int m_result = -1000;
    std::thread m_thread;
};

/// Puts requests of its own making into the area.
class RawClient {
public:
    RawClient() {
        EXPECT_TRUE(m_view.isThere());
    }

    /// The answer's text. With `size`, so many bytes of it.
    QByteArray ask(const QByteArray& request, int size = -1) {
        send(request);
        return receive(size);
    }
    void send(const QByteArray& request) {
        publish(area(), request.constData(), request.size() + 1);
        sem_post(&area().control.requestSem);
    }
    QByteArray receive(int size = -1) {
        struct timespec deadline;
        IPCShm::setTimeout(&deadline, 20'000);
        if (waitFor(area().control.responseSem, &deadline) != 0)
            return "no answer";
        Text response;
        copyResponse(area(), response);
        setDone(area());
        return size < 0 ? QByteArray(response.bytes) : QByteArray(response.bytes, size);
    }
    Area& area() {
        return m_view.area();
    }

private:
    test::AreaView m_view;
};

/// A server that is inside the file system, until the test lets it go.
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

/// Those of one channel.
QStringList only(const char* channel, const QStringList& messages) {
    QStringList found;
    for (const QString& message : messages) {
        if (message.section(' ', 0, 0) == channel)
            found += message;
    }
    return found;
}

/// Without the one that a server says before each request: it serves before it has said the first,
/// so a capture that begins then may or may not hold that.
QStringList withoutWaits(QStringList messages) {
    messages.removeAll("fsipcsrv 12 Wait for request");
    return messages;
}

QStringList withoutAddresses(QStringList messages) {
    for (QString& message : messages) {
        if (message.contains("Existing Shm. Data 0x"))
            message = "Existing Shm";
    }
    return messages;
}

} // namespace

// --- Beginning and end
// ------------------------------------------------------------------------------

TEST(IPCServer, RunAndTerminate_States) {
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

TEST(IPCServer, Ioctl_NotImplemented) {
    IPCServer server(QSharedPointer<MemFS>::create());
    QString response = "as it was";
    liberrno = Ok;
    EXPECT_EQ(server.ioctl("anything", response), -1);
    EXPECT_EQ(liberrno, NotImplemented);
    EXPECT_EQ(response, "as it was");
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

TEST(IPCServer, SecondServer_RefusedAndTheFirstGoesOn) {
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
    EXPECT_NEAR(test::lastLockSeconds(), 0.1, 0.01); // the server mutex is tried for 100 ms
    EXPECT_TRUE(test::serviceExists());
    EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
}

TEST(IPCServer, RunWhileRunning_Refused) {
    RunningServer running(QSharedPointer<MemFS>::create());
    errno = 0;
    EXPECT_EQ(running.server->run(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(running.server->state(), 2);
    EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
}

TEST(IPCServer, ServersAtOnce_OneServes) {
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

TEST(IPCServer, CompetingServer_LeftAlone) {
    std::unique_ptr<ShmBlock> competitor;
    // Looking for an object takes 20 attempts; then comes the one that would create it.
    test::atCall("shm_open", 21, [&] {
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

TEST(IPCServer, AreaLeftBehindUnlocked_TakenOver) {
    ShmBlock left(blockName, areaSize, ShmBlock::Create);
    const Area& area = test::leaveBehind(left);
    LogCapture log("fsipcsrv=12");
    {
        RunningServer running(QSharedPointer<MemFS>::create());
        EXPECT_FALSE(left.isValid());
        EXPECT_FALSE(isOwned(area));
        EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
    }
    const QStringList messages = log.messages();
    EXPECT_TRUE(messages.contains("fsipcsrv 12 Server crash detected. Resetting."));
    EXPECT_TRUE(messages.contains("fsipcsrv 12 IPC Server Ready"));
    EXPECT_FALSE(test::serviceExists());
}

// To a client of the old one that looks at its mutex, whoever holds that is a server.
TEST(IPCServer, DeadServersMutex_FreeBeforeAnythingIsSaid) {
    ShmBlock left(blockName, areaSize, ShmBlock::Create);
    test::leaveBehind(left);
    LogCapture log("fsipcsrv=12");
    QStringList saidBefore;
    test::atCall("pthread_mutex_unlock", 1, [&] { saidBefore = log.messages(); });
    RunningServer running(QSharedPointer<MemFS>::create());
    EXPECT_EQ(withoutAddresses(saidBefore).last(), "Existing Shm");
    EXPECT_EQ(log.messages().first(), "fsipcsrv 12 Server crash detected. Resetting.");
}

TEST(IPCServer, PredecessorCannotBeRemoved_RefusedAndItStays) {
    const ShmBlock left(blockName, areaSize, ShmBlock::Create);
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
    EXPECT_TRUE(left.isValid());
    EXPECT_TRUE(test::serviceExists());
    RunningServer next(QSharedPointer<MemFS>::create());
    EXPECT_FALSE(left.isValid());
    EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
}

TEST(IPCServer, NoDescriptorToLookAtThePredecessor_ReplacedAllTheSame) {
    const ShmBlock left(blockName, areaSize, ShmBlock::Create);
    test::failCall("shm_open", 2, EMFILE); // the first one finds it
    RunningServer running(QSharedPointer<MemFS>::create());
    // The server has an object of its own.
    EXPECT_FALSE(left.isValid());
    EXPECT_FALSE(isOwned(areaOf(shmAt(left.base()))));
    EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
}

TEST(IPCServer, BlockCannotBeRemovedAtTheEnd_TriedAgain) {
    for (const char* call : {"shm_open", "shm_unlink"}) {
        RunningServer running(QSharedPointer<MemFS>::create());
        const test::AreaView view;
        test::failCall(call, 1, EMFILE);
        running.server->terminate();
        EXPECT_EQ(running.join(), 0);
        EXPECT_FALSE(view.isThere()) << call;
        EXPECT_FALSE(test::serviceExists()) << call;
    }
}

TEST(IPCServer, AreaOfNobody_Replaced) {
    const ShmBlock left(blockName, areaSize, ShmBlock::Create);
    {
        RunningServer running(QSharedPointer<MemFS>::create());
        EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
    }
    EXPECT_FALSE(test::serviceExists());
}

TEST(IPCServer, ObjectOfAnotherSize_Replaced) {
    const ShmBlock left(blockName, 100, ShmBlock::Create);
    {
        RunningServer running(QSharedPointer<MemFS>::create());
        EXPECT_EQ(RawClient().ask("sync"), "0,0,0");
    }
    EXPECT_FALSE(test::serviceExists());
}

TEST(IPCServer, BlockCannotBeMade_SaysSo) {
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

TEST(IPCServer, ObjectCannotBeMade_TellsWhy) {
    IPCServer server(QSharedPointer<MemFS>::create());
    // Looking for one takes 20 attempts, both for a predecessor's and for its own.
    test::failCall("shm_open", 41, EACCES);
    EXPECT_EQ(server.run(nullptr), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_FALSE(test::serviceExists());
}

TEST(IPCServer, NewBlockStaysLocked_SaysSo) {
    IPCServer server(QSharedPointer<MemFS>::create());
    LogCapture log("fsipcsrv=12");
    test::failCall("pthread_mutex_timedlock", 1, ETIMEDOUT);
    errno = 0;
    EXPECT_EQ(server.run(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(
        log.messages(),
        QStringList({"fsipcsrv 12 IPC Server initializing", "fsipcsrv 12 Create new FSShm: OK",
                     "fsipcsrv 12 Invalid shmblock", "fsipcsrv 12 IPC Server init failed",
                     "fsipcsrv 12 IPC Server stopped"}));
    EXPECT_NEAR(test::lastLockSeconds(), 10, 0.2);
    shm_unlink("/_blk_fsipc");
}

struct InitFailure {
    const char* call;
    int count;
    const char* message;
};

class IPCServerInit : public ::testing::TestWithParam<InitFailure> {};

TEST_P(IPCServerInit, CallFails_SaysSoAndLeavesNothing) {
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

// The first ones initialise the block's own mutex, or lock it.
INSTANTIATE_TEST_SUITE_P(
    , IPCServerInit,
    ::testing::Values(
        InitFailure{"pthread_mutexattr_init", 2, "Failed to init mutex attrs"},
        InitFailure{"pthread_mutexattr_setrobust", 2, "Failed to set mutex attribute properties"},
        InitFailure{"pthread_mutexattr_setpshared", 2, "Failed to set mutex attribute properties"},
        InitFailure{"pthread_mutex_init", 2, "Failed to init mutexes"},
        InitFailure{"pthread_mutex_init", 3, "Failed to init mutexes"},
        InitFailure{"pthread_mutex_init", 4, "Failed to init mutexes"},
        InitFailure{"pthread_mutex_timedlock", 2, "Unable to lock this shm"}),
    [](const auto& tested) {
        return std::string(tested.param.call) + std::to_string(tested.param.count);
    });

TEST(IPCServer, InitFailsAndSoDoesCleaningUp_TellsTheFirstReason) {
    IPCServer server(QSharedPointer<MemFS>::create());
    test::failCall("pthread_mutex_init", 2, EAGAIN);
    test::atCall("shm_unlink", 1, [] { ::unlink("/dev/shm/_blk_fsipc"); });
    EXPECT_EQ(server.run(nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(test::serviceExists());
}

TEST(IPCServer, FirstResetFails_TornDownAsAtANormalEnd) {
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

TEST(IPCServer, LaterResetFails_OnlySaysSo) {
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

// --- Terminating
// --------------------------------------------------------------------------------------

TEST(IPCServer, TerminatedWhileIdle_Messages) {
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

TEST_F(IPCServerBusy, TerminatedWhileBusy_EndsAfterTheRequest) {
    std::thread terminator([&] { running.server->terminate(); });
    EXPECT_TRUE(eventually([&] { return running.server->state() == 3; }));
    fs->letGo();
    // The request under way has its own answer.
    EXPECT_EQ(client.receive(), "-1,2,0");
    terminator.join();
    EXPECT_EQ(running.join(), 0);
    EXPECT_FALSE(test::serviceExists());
}

TEST_F(IPCServerBusy, TerminatedWhileAClientWaits_CanceledByTheNextAnswer) {
    std::thread terminator([&] { running.server->terminate(); });
    EXPECT_TRUE(eventually([&] { return running.server->state() == 3; }));
    // A client that had given its first request up, and whose next one nobody will carry out.
    client.send("mkdir 493 /never");
    fs->letGo();
    QByteArray answer = client.receive();
    if (answer == "-1,2,0")
        answer = client.receive();
    EXPECT_EQ(answer, "-1,125,0");
    terminator.join();
    EXPECT_EQ(running.join(), 0);
    struct stat st;
    EXPECT_EQ(fs->stat("/never", st), -1);
}

TEST(IPCServer, TerminatedWithASessionOpen_EverythingClosed) {
    RunningServer running(QSharedPointer<MemFS>::create());
    RawClient client;
    EXPECT_EQ(client.ask("connect"), "0,0,0");
    const QByteArray fd = client.ask("open 66 420 /f").split(',').first();
    EXPECT_EQ(client.ask("lseek " + fd + " 0 0"), "0,0,0 0");
    running.server->terminate();
    running.join();
    FDAdapter bystander(QSharedPointer<MemFS>::create());
    EXPECT_EQ(bystander.lseek(fd.toInt(), 0, SEEK_SET), -1);
    EXPECT_EQ(liberrno, NotFound);
}

TEST(IPCServer, TerminatedWhileAClientWaitsForABuffer_ItWaitsNoLonger) {
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

TEST_F(IPCServerBusy, StillActiveAfterTheTimeout_SaysSo) {
    LogCapture log("fsipcsrv=12");
    test::failCall("pthread_mutex_timedlock", 2, ETIMEDOUT); // the first one locks the block
    EXPECT_EQ(running.server->terminate(), 0);
    EXPECT_EQ(log.messages(), QStringList({"fsipcsrv 12 Terminate server",
                                           "fsipcsrv 12 NOTICE: Server still active."}));
    EXPECT_NEAR(test::lastLockSeconds(), 10, 0.2);
    fs->letGo();
    EXPECT_EQ(running.join(), 0);
}

TEST(IPCServer, BlockCannotBeLocked_SaysSoAndEndsAllTheSame) {
    RunningServer running(QSharedPointer<MemFS>::create());
    LogCapture log("fsipcsrv=12");
    test::failCall("pthread_mutex_timedlock", 1, ETIMEDOUT);
    EXPECT_EQ(running.server->terminate(), 0);
    EXPECT_EQ(withoutWaits(log.messages()).first(), "fsipcsrv 12 Failed to get ShmBlock lock");
    EXPECT_EQ(running.join(), 0);
    EXPECT_FALSE(test::serviceExists());
}

namespace {

/// A file that takes its time to close.
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

// Each waits for the other, but not for a lock that the other holds.
TEST(IPCServer, BothEndsStopAtOnce_NeitherWaits) {
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

TEST(IPCServer, DestroyedWhileServing_RunHasReturned) {
    for (int i = 0; i < 20; ++i) {
        auto server = std::make_unique<IPCServer>(QSharedPointer<MemFS>::create());
        std::atomic<bool> hasReturned{false};
        std::thread thread([&hasReturned, raw = server.get()] {
            raw->run(nullptr);
            hasReturned = true;
        });
        // At every stage of beginning.
        std::this_thread::sleep_for(std::chrono::milliseconds(i));
        while (server->state() == 0)
            std::this_thread::yield();
        server.reset();
        thread.join();
        EXPECT_TRUE(hasReturned);
        EXPECT_FALSE(test::serviceExists());
    }
}

TEST_F(IPCServerBusy, DestroyedWhileBusy_WaitsForTheFileSystem) {
    LogCapture log("fsipcsrv=12");
    std::thread opener([&] {
        EXPECT_TRUE(
            eventually([&] { return log.messages().contains("fsipcsrv 12 Terminate server"); }));
        fs->letGo();
    });
    running.server.reset();
    opener.join();
    EXPECT_EQ(running.join(), 0);
    EXPECT_FALSE(test::serviceExists());
}

TEST(IPCServer, BlockMadeInvalidByTheClient_EndsAllTheSame) {
    RunningServer running(QSharedPointer<MemFS>::create());
    ShmBlock block(blockName, areaSize, 0);
    static_cast<BlockHeader*>(block.base())->magic = 0;
    running.server.reset();
    EXPECT_EQ(running.join(), 0);
    EXPECT_FALSE(test::serviceExists());
}

// --- Requests
// -------------------------------------------------------------------------------------------

class IPCServerRequests : public ::testing::Test {
protected:
    IPCServerRequests() {
        EXPECT_EQ(client.ask("connect"), "0,0,0");
        fd = client.ask("open 66 420 /f").split(',').first();
        dir = client.ask("opendir /").split(' ').value(1);
    }

    /// With FD and DIR replaced.
    QByteArray ask(QByteArray request) {
        return client.ask(request.replace("FD", fd).replace("DIR", dir));
    }

    QSharedPointer<GatedFS> fs = QSharedPointer<GatedFS>::create();
    RunningServer running{fs};
    RawClient client;
    QByteArray fd;
    QByteArray dir;
};

TEST_F(IPCServerRequests, UnknownName_EOPNOTSUPP) {
    LogCapture log("fsipcsrv=12");
    EXPECT_EQ(ask("format /dev/sda"), "-1,95,0");
    EXPECT_TRUE(log.messages().contains("fsipcsrv 12 Request not supported 'format'"));
    EXPECT_EQ(ask("Stat /"), "-1,95,0");
    EXPECT_EQ(ask("statx /"), "-1,95,0");
    EXPECT_EQ(ask(" stat /"), "-1,95,0");
    EXPECT_EQ(ask("\xff\xfe"), "-1,95,0");
    EXPECT_EQ(ask(QByteArray(8000, 'x')), "-1,95,0");
    EXPECT_EQ(ask("sync"), "0,0,0");
}

TEST_F(IPCServerRequests, MissingOrBadArguments_EINVAL) {
    for (const char* name :
         {"mkdir",     "rmdir",    "statfs", "stat",   "lstat",    "link",      "symlink",
          "unlink",    "readlink", "rename", "chmod",  "truncate", "opendir",   "open",
          "read",      "write",    "pread",  "pwrite", "lseek",    "ftruncate", "fsync",
          "fdatasync", "fstat",    "fcntl",  "flock",  "fchmod",   "close"})
        EXPECT_EQ(ask(name), "-1,22,0") << name;
    for (const char* request :
         {"mkdir /d",     "mkdir x /d",     "mkdir 493",       "mkdir 99999999999 /d",
          "chmod 420/f",  "truncate -1 /f", "truncate /f",     "link /f",
          "rename /f",    "symlink /f",     "open 66 /f",      "open 66 420",
          "open x 0 /f",  "read FD 0",      "read FD x 1",     "read FD 0 -1",
          "write FD 0",   "pread FD 0 1",   "pwrite FD 0 1 x", "lseek FD 0",
          "lseek FD x 0", "ftruncate FD",   "ftruncate FD x",  "fsync x",
          "fstat x",      "fcntl FD",       "fcntl FD 3",      "fcntl FD 13",
          "flock FD",     "flock FD x",     "fchmod FD",       "close x",
          "close "})
        EXPECT_EQ(ask(request), "-1,22,0") << request;
}

TEST_F(IPCServerRequests, DescriptorNeverHandedOut_EINVAL) {
    for (const char* other : {"0", "1", "2", "-1", "999999", "2147483647"}) {
        const QByteArray bad = other;
        EXPECT_EQ(ask("read " + bad + " 0 1"), "-1,22,2 0 -1");
        EXPECT_EQ(ask("write " + bad + " 0 1"), "-1,22,2 -1");
        EXPECT_EQ(ask("pread " + bad + " 0 1 0"), "-1,22,2 -1");
        EXPECT_EQ(ask("pwrite " + bad + " 0 1 0"), "-1,22,2 -1");
        EXPECT_EQ(ask("lseek " + bad + " 0 0"), "-1,22,2 -1");
        for (const QByteArray& request :
             {"ftruncate " + bad + " 0", "fsync " + bad, "fdatasync " + bad, "fstat " + bad,
              "fstat " + bad + " 3 0", "fcntl " + bad + " 3 0", "flock " + bad + " 1",
              "fchmod " + bad + " 1", "close " + bad})
            EXPECT_EQ(ask(request), "-1,22,2") << request.constData();
    }
    EXPECT_EQ(ask("close FD"), "0,0,0");
    EXPECT_EQ(ask("close FD"), "-1,22,2");
    EXPECT_EQ(ask("lseek FD 0 0"), "-1,22,2 -1");
}

TEST_F(IPCServerRequests, DescriptorOfTheServersOwn_IsNoneOfTheClients) {
    FDAdapter own(fs);
    const int ownFd = own.open("/secret", O_RDWR | O_CREAT, 0600);
    ASSERT_GE(ownFd, 0);
    EXPECT_EQ(ask("read " + QByteArray::number(ownFd) + " 0 1"), "-1,22,2 0 -1");
    EXPECT_EQ(ask("close " + QByteArray::number(ownFd)), "-1,22,2");
    EXPECT_EQ(own.close(ownFd), 0);
}

TEST_F(IPCServerRequests, HandleNeverHandedOut_EINVAL) {
    for (const char* request :
         {"readdir", "readdir 0x1", "readdir (nil)", "readdir x", "readdir 1234", "rewinddir 0x1",
          "closedir 0x1", "closedir", "rewinddir", "readdir 0xffffffffffffffffff"})
        EXPECT_EQ(ask(request), "-1,22,2") << request;
    EXPECT_EQ(ask("rewinddir DIR"), "0,0,0");
    EXPECT_EQ(ask("closedir DIR"), "0,0,0");
    EXPECT_EQ(ask("closedir DIR"), "-1,22,2");
    EXPECT_EQ(ask("readdir DIR"), "-1,22,2");
}

TEST_F(IPCServerRequests, BufferOrCountOutside_EINVAL) {
    for (const char* index : {"2", "-1", "1000000", "2147483647", "-2147483648"}) {
        const QByteArray bad = index;
        EXPECT_EQ(ask("read FD " + bad + " 1"), "-1,22,0 " + bad + " -1");
        EXPECT_EQ(ask("write FD " + bad + " 1"), "-1,22,0 -1");
        EXPECT_EQ(ask("pread FD " + bad + " 1 0"), "-1,22,0 -1");
        EXPECT_EQ(ask("pwrite FD " + bad + " 1 0"), "-1,22,0 -1");
    }
    EXPECT_EQ(ask("read FD 0 1048577"), "-1,22,0 0 -1");
    EXPECT_EQ(ask("write FD 0 1048577"), "-1,22,0 -1");
    EXPECT_EQ(ask("pread FD 0 4294967295 0"), "-1,22,0 -1");
    EXPECT_EQ(ask("pwrite FD 0 4294967296 0"), sizeof(void*) == 4 ? "-1,22,0" : "-1,22,0 -1");
    EXPECT_EQ(ask("write FD 1 1048576"), "0,0,0 1048576");
}

TEST_F(IPCServerRequests, Write_ReleasesTheBufferAlsoWhenItFails) {
    for (const char* request : {"write FD 0 1", "write 5 0 1", "write FD 0 1048577",
                                "pwrite FD 0 1 0", "pwrite 5 0 1 0"}) {
        IPCShm* const shm = reinterpret_cast<IPCShm*>(&client.area());
        ASSERT_EQ(shm->allocDataBuf(1), 0) << request;
        ask(request);
        EXPECT_EQ(client.area().control.bufferMap, 0U) << request;
    }
    // The client releases what it reads into.
    IPCShm* const shm = reinterpret_cast<IPCShm*>(&client.area());
    ASSERT_EQ(shm->allocDataBuf(1), 0);
    EXPECT_EQ(ask("pread FD 0 1 0"), "0,0,0 1");
    EXPECT_EQ(client.area().control.bufferMap, 1U);
}

TEST_F(IPCServerRequests, Transfers_ThroughTheDataBuffers) {
    std::memcpy(client.area().buffers[1], "footage", 7);
    EXPECT_EQ(ask("write FD 1 7"), "0,0,0 7");
    EXPECT_EQ(ask("lseek FD 0 0"), "0,0,0 0");
    EXPECT_EQ(ask("read FD 0 100"), "0,0,0 0 7");
    EXPECT_EQ(std::memcmp(client.area().buffers[0], "footage", 7), 0);
    EXPECT_EQ(ask("pread FD 1 3 4"), "0,0,0 3");
    EXPECT_EQ(std::memcmp(client.area().buffers[1], "age", 3), 0);
    EXPECT_EQ(ask("read FD 0 0"), "0,0,0 0 0");
}

TEST_F(IPCServerRequests, SecondText_BehindTheNulOfTheFirst) {
    EXPECT_EQ(ask(QByteArray("symlink target\0/l", 17)), "0,0,0");
    EXPECT_EQ(ask("readlink /l"), "6,0,0 target");
    EXPECT_EQ(ask(QByteArray("rename /l\0/m", 12)), "0,0,0");
    EXPECT_EQ(ask(QByteArray("link /f\0/g", 10)), "0,0,0");
    EXPECT_EQ(ask("readlink /f"), "-1,22,0 ");
    // Without one, there is none: not the one of the request before.
    EXPECT_EQ(ask("rename /m"), "-1,22,0");
    EXPECT_EQ(ask("readlink /m"), "6,0,0 target");
}

TEST_F(IPCServerRequests, AreaWithoutANul_StaysInside) {
    for (const char* name : {"stat ", "link ", "rename ", "open 66 420 ", "bogus"}) {
        const QByteArray whole = QByteArray(name).leftJustified(8704, 'p');
        std::memcpy(client.area().request + 1, whole.constData() + 1, whole.size() - 1);
        client.area().response[0] = 'r';
        __atomic_store_n(&client.area().request[0], whole[0], __ATOMIC_SEQ_CST);
        sem_post(&client.area().control.requestSem);
        EXPECT_TRUE(client.receive().startsWith("-1,")) << name;
    }
    EXPECT_EQ(ask("sync"), "0,0,0");
}

TEST_F(IPCServerRequests, TokenWithoutARequest_NoAnswer) {
    for (int i = 0; i < 5; ++i)
        sem_post(&client.area().control.requestSem);
    EXPECT_EQ(ask("sync"), "0,0,0");
    int answers = -1;
    sem_getvalue(&client.area().control.responseSem, &answers);
    EXPECT_EQ(answers, 0);
}

TEST_F(IPCServerRequests, Fcntl_LocksIntegersAndTheRest) {
    EXPECT_EQ(ask("fcntl FD 99 0"), "-1,95,0");
    EXPECT_EQ(ask("fcntl FD 5 0"), "-1,95,0");
    EXPECT_EQ(ask("fcntl FD 1030"), "-1,22,0");
    struct flock lock = {};
    QByteArray request = "fcntl FD 13";
    request.replace("FD", fd).append('\0').append(reinterpret_cast<const char*>(&lock),
                                                  sizeof lock);
    // The file system in memory has no locks, and says so.
    EXPECT_EQ(client.ask(request), "-1,0,1");
    EXPECT_EQ(ask("fcntl FD 3 0"), "2,0,0"); // its flags
}

TEST_F(IPCServerRequests, Fstat_WithMoreArgumentsWithoutARecord) {
    LogCapture log("fsipcsrv=12");
    EXPECT_EQ(ask("fstat FD 3 0"), "0,0,0");
    EXPECT_EQ(ask("fstat FD"), "0,0,0");
    const QStringList messages = log.messages();
    EXPECT_TRUE(messages.contains("fsipcsrv 12 Send response '0,0,0'"));
    EXPECT_TRUE(messages.contains(
        QStringLiteral("fsipcsrv 12 Send BufResponse 0,0,0 + %1 bytes").arg(sizeof(struct stat))));
}

TEST_F(IPCServerRequests, Records_BehindTheHeadersNul) {
    QByteArray answer = client.ask("stat /f", 6 + sizeof(struct stat));
    struct stat st;
    std::memcpy(&st, answer.constData() + 6, sizeof st);
    EXPECT_EQ(st.st_mode & 0777, 0644U);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    const QByteArray entry = client.ask("readdir " + dir, 6 + sizeof(struct dirent));
    struct dirent record;
    std::memcpy(&record, entry.constData() + 6, sizeof record);
    EXPECT_STREQ(record.d_name, ".");
    EXPECT_EQ(client.ask("statfs /", 5), "0,0,0");
}

TEST_F(IPCServerRequests, NoDirectory_NullHandle) {
    EXPECT_EQ(ask("opendir /missing"), "-1,2,0 (nil)");
}

TEST_F(IPCServerRequests, LongestLinkText_ComesWhole) {
    const QByteArray target(4096, 't');
    EXPECT_EQ(ask("symlink " + target + QByteArray("\0/l", 3)), "0,0,0");
    EXPECT_EQ(ask("readlink /l"), "4096,0,0 " + target);
    EXPECT_EQ(ask("symlink " + target + QByteArray("t\0/m", 4)), "0,0,0");
    EXPECT_EQ(ask("readlink /m"), "4096,0,0 " + target);
}

TEST_F(IPCServerRequests, EndOfDirectory_ErrnoMinusOne) {
    EXPECT_EQ(ask("readdir DIR"), "0,0,0");
    EXPECT_EQ(ask("readdir DIR"), "0,0,0");
    EXPECT_EQ(ask("readdir DIR"), "0,0,0");
    EXPECT_EQ(ask("readdir DIR"), "-1,-1,0");
    EXPECT_EQ(ask("rewinddir DIR"), "0,0,0");
    EXPECT_EQ(ask("readdir DIR"), "0,0,0");
}

TEST_F(IPCServerRequests, ReasonOfOneRequest_NotThatOfTheNext) {
    EXPECT_EQ(ask("stat /missing"), "-1,2,0");
    EXPECT_EQ(ask("read 5 0 1"), "-1,22,2 0 -1");
    EXPECT_EQ(ask("sync"), "0,0,0");
    EXPECT_EQ(ask("stat /missing"), "-1,2,0");
}

TEST_F(IPCServerRequests, Disconnect_ClosesAndMakesAllAsNew) {
    IPCShm* const shm = reinterpret_cast<IPCShm*>(&client.area());
    ASSERT_EQ(shm->allocDataBuf(1), 0);
    LogCapture log("fsipcsrv=12");
    client.send("disconnect");
    ASSERT_TRUE(eventually([&] { return requestState(client.area()) == Idle; }));
    int value = -1;
    sem_getvalue(&client.area().control.responseSem, &value);
    EXPECT_EQ(value, 0);
    sem_getvalue(&client.area().control.bufferSem, &value);
    EXPECT_EQ(value, 2);
    EXPECT_EQ(client.area().control.bufferMap, 0U);
    EXPECT_TRUE(log.messages().contains("fsipcsrv 12 Close Session. 1 files 1 dirs"));
    EXPECT_EQ(ask("lseek FD 0 0"), "-1,22,2 -1");
    EXPECT_EQ(ask("readdir DIR"), "-1,22,2");
}

// --- Without a thread
// -----------------------------------------------------------------------------------

/// The private parts of a server over an area in ordinary memory.
class IPCServerData : public ::testing::Test {
protected:
    IPCServerData() {
        SharedMutexAttributes().makeMutex(area->control.bufferMutex);
        data.shm = reinterpret_cast<IPCShm*>(area.get());
        EXPECT_EQ(data.resetSession(), 0);
        std::strcpy(data.request.bytes, "readlink");
    }

    std::unique_ptr<Area> area = std::make_unique<Area>();
    QSharedPointer<test::RecordingFS> fs = QSharedPointer<test::RecordingFS>::create();
    IPCServer::Data data{fs};
};

TEST_F(IPCServerData, ResponseTooLong_ReplacedByE2BIG) {
    LogCapture log("fsipcsrv=12");
    errno = ENOENT;
    liberrno = NotFound;
    const std::string longest(8704 - 1 - 6, 'x');
    errno = 0;
    EXPECT_EQ(data.sendResponse(data.shm, 0, "%s", longest.c_str()), 0);
    EXPECT_EQ(std::string(area->response), "0,0,2 " + longest);
    EXPECT_EQ(data.sendResponse(data.shm, 0, "%s", (longest + "x").c_str()), -1);
    EXPECT_STREQ(area->response, "-1,7,2 Server Error");
    EXPECT_TRUE(log.messages().contains("fsipcsrv 12 Response 'readlink' exceeds max 8704"));
}

TEST_F(IPCServerData, RecordTooLong_ReplacedByE2BIG) {
    LogCapture log("fsipcsrv=12");
    const std::vector<char> record(8704, 'r');
    errno = 0;
    liberrno = Ok;
    EXPECT_EQ(data.sendBufResponse(data.shm, 0, record.data(), 8704 - 6), 0);
    EXPECT_STREQ(area->response, "0,0,0");
    EXPECT_EQ(area->response[8703], 'r');
    area->unused[0] = 'u';
    EXPECT_EQ(data.sendBufResponse(data.shm, 0, record.data(), 8704 - 5), -1);
    EXPECT_STREQ(area->response, "-1,7,0 Server Error");
    EXPECT_EQ(area->unused[0], 'u');
    EXPECT_TRUE(log.messages().contains("fsipcsrv 12 Response 'readlink' exceeds max 8704"));
}

TEST_F(IPCServerData, Syncs_EachAsItself) {
    const auto process = [this](const QByteArray& request) {
        std::strcpy(data.request.bytes, request.constData());
        data.process();
        return fs->take();
    };
    EXPECT_EQ(process("open 2 0 /f"), QStringList("open /f 2 0"));
    ASSERT_EQ(data.files.size(), 1);
    const QByteArray fd = QByteArray::number(data.files.first());
    EXPECT_EQ(process("sync"), QStringList("sync"));
    EXPECT_EQ(process("fsync " + fd), QStringList("fsync"));
    EXPECT_EQ(process("fdatasync " + fd), QStringList("fdatasync"));
}

TEST_F(IPCServerData, Handlers_ForEveryOperation) {
    EXPECT_EQ(
        data.handlers.keys(),
        QStringList({"chmod",     "close",     "closedir", "connect", "disconnect", "fchmod",
                     "fcntl",     "fdatasync", "flock",    "fstat",   "fsync",      "ftruncate",
                     "link",      "lseek",     "lstat",    "mkdir",   "open",       "opendir",
                     "pread",     "pwrite",    "read",     "readdir", "readlink",   "rename",
                     "rewinddir", "rmdir",     "stat",     "statfs",  "symlink",    "sync",
                     "truncate",  "unlink",    "write"}));
}

// --- Clients that die
// -----------------------------------------------------------------------------------

class IPCServerCrash : public ::testing::Test {
protected:
    void SetUp() override {
        if (!test::ownerDeathIsSeen())
            GTEST_SKIP() << "the death of a mutex's owner is not seen here";
    }

    /// A client that opens a file and then waits for its death.
    std::unique_ptr<ChildProcess> connectedClient() {
        int opened[2];
        EXPECT_EQ(pipe(opened), 0);
        auto child = std::make_unique<ChildProcess>([&] {
            // Started before this process had threads, so before the server.
            IPCFS fs;
            while (fs.connect(1, nullptr) != 0) {
            }
            const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
            (void)!::write(opened[1], "o", 1);
            pause();
            return 0;
        });
        ::close(opened[1]);
        m_opened = opened[0];
        return child;
    }
    void awaitConnected() {
        char opened;
        ASSERT_EQ(::read(m_opened, &opened, 1), 1);
    }

    int m_opened = -1;
};

TEST_F(IPCServerCrash, ClientKilled_FoundByThePollAndClosedWithTheNext) {
    const auto child = connectedClient();
    test::shortenWaits(100);
    LogCapture log("fsipcsrv=12,fsipc=12");
    QStringList messages;
    const auto says = [&](const char* text) {
        return eventually([&] {
            messages += log.messages();
            return messages.contains(text);
        });
    };
    RunningServer running(QSharedPointer<MemFS>::create());
    awaitConnected();
    EXPECT_TRUE(says("fsipcsrv 12 Poll for active client"));
    EXPECT_NEAR(test::lastWaitSeconds(), 30, 0.2);
    child->signal(SIGKILL);
    EXPECT_TRUE(says("fsipcsrv 12 Client crashed. Terminating session."));
    EXPECT_FALSE(messages.contains("fsipcsrv 12 Close Session. 1 files 0 dirs"));
    IPCFS next;
    EXPECT_EQ(next.connect(1, nullptr), 0);
    EXPECT_FALSE(messages.contains("fsipc 12 Client crash detected. Continuing."));
    EXPECT_TRUE(says("fsipcsrv 12 Close Session. 1 files 0 dirs"));
    struct stat st;
    EXPECT_EQ(next.stat("/f", st), 0);
    test::shortenWaits(0);
}

TEST_F(IPCServerCrash, NewClientBeforeThePoll_Inherits) {
    const auto child = connectedClient();
    test::shortenWaits(50);
    RunningServer running(QSharedPointer<MemFS>::create());
    awaitConnected();
    // The server has looked for its client for the last time, and waits for half a minute.
    EXPECT_TRUE(eventually(test::isLastWaitShortened));
    test::shortenWaits(0);
    EXPECT_TRUE(eventually([] { return !test::isLastWaitShortened(); }));
    child->signal(SIGKILL);
    ASSERT_EQ(child->wait(), -SIGKILL);
    LogCapture log("fsipcsrv=12,fsipc=12");
    IPCFS next;
    EXPECT_EQ(next.connect(1, nullptr), 0);
    const QStringList messages = log.messages();
    EXPECT_EQ(only("fsipc", messages),
              QStringList({"fsipc 12 Client connecting", "fsipc 12 Detected Server online",
                           "fsipc 12 Client crash detected. Continuing.",
                           "fsipc 12 Send request 'disconnect'", "fsipc 12 Send request 'connect'",
                           "fsipc 12 Got response: '0,0,0'", "fsipc 12 IPC Client Ready"}));
    EXPECT_TRUE(messages.contains("fsipcsrv 12 Close Session. 1 files 0 dirs"));
}

TEST(IPCServerSlots, InOrder) {
    using test::slotOf;
    int slot = 0;
    EXPECT_EQ(slotOf(&IPCServer::ioctl), slot++);
    EXPECT_EQ(slotOf(&IPCServer::run), slot++);
    EXPECT_EQ(slotOf(&IPCServer::state), slot++);
    EXPECT_EQ(slotOf(&IPCServer::terminate), slot++);
}

} // namespace oru::io
