// SPDX-License-Identifier: Apache-2.0
// Defects that the code does not have, and the rules that refuse their records. A defect is made by
// a client of the test that breaks the protocol, or by an action that changes the area at a step.

#include "ipc/ipctrace_p.h"
#include "support/ipc/ipccalls.h"
#include "support/ipc/ipcservice.h"
#include "support/ipc/runningserver.h"
#include "support/ipc/tracetest.h"
#include "support/system/childprocess.h"

#include <oruio/fsipc.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>

#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

namespace oru::io {

using namespace ipcwire;
using test::checkTrace;
using test::ChildProcess;
using test::GatedFS;
using test::runAtStep;
using test::RunningServer;
using test::Trace;
using test::TraceOfTest;
using test::Verdict;

namespace {

/// A client of an earlier release: the thread that connects holds the client mutex itself. Each
/// part of the protocol is a call, so that a test can leave it out.
class EarlierClient {
public:
    /// A mutex that is locked must not be unmapped.
    ~EarlierClient() {
        pthread_mutex_unlock(&area().control.clientMutex);
        m_block->unlock();
    }

    Area& area() {
        return areaOf(shmAt(m_block->base()));
    }

    void lock() {
        ASSERT_TRUE(m_block->lock());
        const int error = pthread_mutex_trylock(&area().control.clientMutex);
        ASSERT_TRUE(error == 0 || error == EOWNERDEAD) << error;
        if (error == EOWNERDEAD)
            pthread_mutex_consistent(&area().control.clientMutex);
        trace(Step::LockClientMutex, area(), error);
        countSession(area());
        cancel(area());
        trace(Step::Settled, area(), requestState(area()));
    }
    void send(const char* request) {
        publish(area(), request, std::strlen(request) + 1);
        trace(Step::Post, area());
        sem_post(&area().control.requestSem);
    }
    void receive() {
        ASSERT_EQ(waitFor(area().control.responseSem, 10'000), 0);
        trace(Step::TakeResponse, area());
    }
    void connect() {
        lock();
        send(op::connect);
        receive();
        setDone(area());
        m_block->unlock();
    }

private:
    QSharedPointer<ShmBlock> m_block = QSharedPointer<ShmBlock>::create(blockName, areaSize, 0U);
};

class IpcTraceMutant : public ::testing::Test {
protected:
    void SetUp() override {
#if defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "the sanitizer refuses the defects before the checker can";
#endif
    }
    void expectRefused(const char* rule) {
        const Trace recorded = record.read();
        const Verdict verdict = checkTrace(recorded);
        EXPECT_EQ(verdict.rule, rule) << verdict.message << '\n'
                                      << TraceOfTest::stepsBefore(recorded, verdict.index);
    }
    Area& area() {
        return view.area();
    }

    TraceOfTest record{1U << 14};
    QSharedPointer<GatedFS> files = QSharedPointer<GatedFS>::create();
    RunningServer server{files};
    test::AreaView view;
    struct stat st;
};

} // namespace

TEST_F(IpcTraceMutant, None_Accepted) {
    {
        IPCFS fs;
        ASSERT_EQ(fs.connect(1, nullptr), 0);
        const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
        ASSERT_EQ(file->write("bytes", 5), 5);
    }
    server.server->terminate();
    server.join();
    record.expectAccepted();
}

TEST_F(IpcTraceMutant, ConnectingThreadHoldsTheClientMutexAndEnds_RefusedByDeaths) {
    if (!test::hasRobustMutexes())
        GTEST_SKIP() << "the system does not report the death of a mutex owner";
    EarlierClient client;
    std::thread([&] { client.connect(); }).join();
    IPCFS other;
    EXPECT_EQ(other.connect(1, nullptr), 0);
    expectRefused("Deaths");
}

TEST_F(IpcTraceMutant, DoneIsMissing_RefusedByOrder) {
    EarlierClient client;
    client.connect();
    client.send("mkdir 493 /d");
    client.receive();
    client.send("rmdir /d");
    client.receive();
    expectRefused("Order");
}

TEST_F(IpcTraceMutant, ResponsePostedTwice_RefusedBySemaphore) {
    IPCFS fs;
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    runAtStep(Step::Respond, 1, [this] { sem_post(&area().control.responseSem); });
    ASSERT_EQ(fs.mkdir("/d", 0755), 0);
    fs.stat("/gate", st); // takes the second response to mkdir()
    files->openGate();
    expectRefused("Semaphore");
}

TEST_F(IpcTraceMutant, ResponseSemaphoreNotInitialised_RefusedBySemaphore) {
    IPCFS fs;
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    sem_t isTaken;
    sem_init(&isTaken, 0, 0);
    // The post of the last session is left. The server answers "connect" after the client took it.
    runAtStep(Step::SemaphoresInitialised, 1, [&] {
        sem_post(&area().control.responseSem);
        runAtStep(Step::TakeResponse, 1, [&] { sem_post(&isTaken); });
        runAtStep(Step::Copied, 1, [&] { sem_wait(&isTaken); });
    });
    fs.disconnect();
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    expectRefused("Semaphore");
}

TEST_F(IpcTraceMutant, ExecutedAfterItsCancel_RefusedByState) {
    IPCFS fs;
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    sem_t isCancelled;
    sem_init(&isCancelled, 0, 0);
    // The server has copied the request, and the client finds it published nevertheless.
    runAtStep(Step::Copied, 1, [&] {
        runAtStep(Step::GiveUp, 1, [&] {
            __atomic_store_n(&area().request[0], 'm', __ATOMIC_RELEASE);
            runAtStep(Step::Cancel, 1, [&] { sem_post(&isCancelled); });
        });
        sem_wait(&isCancelled);
    });
    test::limitSemaphoreWaits(1);
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    test::limitSemaphoreWaits(0);
    EXPECT_TRUE(test::eventually([&] { return files->stat("/d", st) == 0; }));
    expectRefused("State");
}

TEST_F(IpcTraceMutant, RequestOverwrittenWhileItIsCopied_RefusedByWholeRequest) {
    IPCFS fs;
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    runAtStep(Step::Accept, 1, [this] { std::strcpy(area().request + 1, "mdir /d"); });
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    expectRefused("WholeRequest");
}

TEST_F(IpcTraceMutant, BufferFreedTwice_RefusedByBufferOnce) {
    IPCFS fs;
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    runAtStep(Step::Respond, 1, [this] { view.shm()->freeDataBuf(0); });
    EXPECT_EQ(file->write("bytes", 5), 5);
    expectRefused("BufferOnce");
}

TEST_F(IpcTraceMutant, BufferOfAnotherRequestFreed_RefusedByBufferOnce) {
    IPCFS fs;
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    // The server frees the buffer that the client has just reserved.
    runAtStep(Step::FillBuffer, 1, [this] { view.shm()->freeDataBuf(0); });
    EXPECT_EQ(file->write("bytes", 5), 5);
    expectRefused("BufferOnce");
}

TEST_F(IpcTraceMutant, IdleBeforeTheSemaphoresAreInitialised_RefusedByOrder) {
    IPCFS fs;
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    runAtStep(Step::BeginReset, 1, [this] { setIdle(area()); });
    fs.disconnect();
    expectRefused("Order");
}

TEST_F(IpcTraceMutant, ClientDoesNotWaitForTheEndOfTheLastSession_RefusedByState) {
    if (!test::hasRobustMutexes())
        GTEST_SKIP() << "the system does not report the death of a mutex owner";
    sem_t hasSettled;
    sem_init(&hasSettled, 0, 0);
    runAtStep(Step::BeginReset, 1, [&] { sem_wait(&hasSettled); });
    ChildProcess last([] {
        IPCFS fs;
        if (fs.connect(1, nullptr) == 0)
            test::dieAtCall("sem_post", 1, true);
        return fs.disconnect();
    });
    ASSERT_EQ(last.wait(), -SIGKILL);
    EXPECT_TRUE(test::eventually([this] { return requestState(area()) == Ending; }));
    EarlierClient next;
    next.lock();
    sem_post(&hasSettled);
    expectRefused("State");
}

TEST_F(IpcTraceMutant, NoDisconnectForThePredecessor_RefusedByOwnFiles) {
    if (!test::hasRobustMutexes())
        GTEST_SKIP() << "the system does not report the death of a mutex owner";
    ChildProcess predecessor([] {
        IPCFS fs;
        if (fs.connect(1, nullptr) == 0)
            test::recordDeath();
        return ::kill(getpid(), SIGKILL);
    });
    ASSERT_EQ(predecessor.wait(), -SIGKILL);
    EarlierClient client;
    client.lock();
    setDone(client.area());
    client.send(op::connect);
    client.receive();
    expectRefused("OwnFiles");
}

TEST_F(IpcTraceMutant, RequestOfAProcessWithoutTheClientMutex_RefusedByOneClient) {
    IPCFS fs;
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    ChildProcess other([] {
        EarlierClient client;
        client.send("mkdir 493 /d");
        client.receive();
        setDone(client.area());
        return 0;
    });
    EXPECT_EQ(other.wait(), 0);
    expectRefused("OneClient");
}

TEST_F(IpcTraceMutant, SecondServerInTheSameArea_RefusedByOneServer) {
    ChildProcess second([this] {
        ShmBlock block(blockName, areaSize, 0U);
        block.lock();
        trace(Step::LockServerMutex, area(), LockToServe);
        return block.unlock();
    });
    EXPECT_EQ(second.wait(), 0);
    expectRefused("OneServer");
}

TEST_F(IpcTraceMutant, BlockRemovedWhileTheServerRuns_RefusedByOneServer) {
    ShmBlock block(blockName, areaSize, 0U);
    ASSERT_TRUE(block.lock());
    EXPECT_TRUE(block.remove());
    block.unlock();
    expectRefused("OneServer");
}

TEST_F(IpcTraceMutant, SemaphoresInitialisedDuringARequest_RefusedByNoWaiter) {
    IPCFS fs;
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    runAtStep(Step::Respond, 1, [this] { trace(Step::BeginReset, area()); });
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
    expectRefused("NoWaiter");
}

} // namespace oru::io
