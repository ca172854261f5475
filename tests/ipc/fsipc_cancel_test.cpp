// SPDX-License-Identifier: Apache-2.0
// Threads that are cancelled in the file service between processes.

#include "support/ipc/ipcfstest.h"
#include "support/ipc/ipcservice.h"
#include "support/ipc/runningserver.h"
#include "support/system/cancellablethread.h"

#include <oruio/error.h>
#include <oruio/fsipc.h>
#include <oruio/ipc_server.h>

#include <gtest/gtest.h>

#include <QSemaphore>

#include <cerrno>

#include <pthread.h>

namespace oru::io {

using test::CancellableThread;
using test::eventually;
using test::GatedFS;
using test::MemFS;
using test::RunningServer;

TEST(IPCFSCancel, DuringAnExchange_ActsAfterItAndTheSessionGoesOn) {
    const auto served = QSharedPointer<GatedFS>::create();
    RunningServer running(served);
    IPCFS fs;
    ASSERT_EQ(fs.connect(3, nullptr), 0);
    int result = 1;
    int reason = 0;
    CancellableThread thread([&] {
        struct stat st;
        result = fs.stat("/gate", st);
        reason = errno;
        pthread_testcancel();
    });
    served->awaitEntry();
    thread.cancel();
    served->openGate();
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(thread.wasUnwound());
    EXPECT_EQ(result, -1);
    EXPECT_EQ(reason, ENOENT); // the server's answer
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
    EXPECT_TRUE(fs.isConnected());
}

TEST(IPCFSCancel, DuringAWrite_ReleasesTheDataBuffer) {
    RunningServer running(QSharedPointer<MemFS>::create());
    IPCFS fs;
    ASSERT_EQ(fs.connect(3, nullptr), 0);
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    for (int i = 0; i < 5; ++i) {
        CancellableThread thread([&] {
            pthread_cancel(pthread_self());
            EXPECT_EQ(file->write("abc", 3), 3);
            char bytes[3];
            EXPECT_EQ(file->pread(bytes, 3, 0), 3);
            pthread_testcancel();
        });
        EXPECT_TRUE(thread.join());
    }
    EXPECT_EQ(test::AreaView().area().control.bufferMap, 0U);
    EXPECT_EQ(file->write("abc", 3), 3);
}

TEST(IPCFSCancel, DestructorOfTheClient_EndsTheSession) {
    RunningServer running(QSharedPointer<MemFS>::create());
    CancellableThread thread([&] {
        IPCFS fs;
        ASSERT_EQ(fs.connect(3, nullptr), 0);
        const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
        ASSERT_TRUE(file);
        pthread_cancel(pthread_self());
    });
    EXPECT_FALSE(thread.join()); // it returned before a cancellation point
    IPCFS next;
    EXPECT_EQ(next.connect(1, nullptr), 0);
}

TEST(IPCServerCancel, ThreadOfRun_LeavesNoServerBehind) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer does not see what a cancelled thread unlocks";
#endif
    const auto served = QSharedPointer<MemFS>::create();
    IPCServer server(served);
    CancellableThread thread([&] { server.run(nullptr); });
    ASSERT_TRUE(eventually([&] { return server.state() == 2; }));
    thread.cancel();
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(thread.wasUnwound());
    EXPECT_EQ(server.state(), 0);
    // The block is gone, and the server can run again.
    IPCFS fs;
    EXPECT_EQ(fs.connect(1, nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    RunningServer next(served);
    EXPECT_EQ(fs.connect(3, nullptr), 0);
}

TEST(IPCServerCancel, ThreadOfRunWithARequest_AnswersItFirst) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer does not see what a cancelled thread unlocks";
#endif
    const auto served = QSharedPointer<GatedFS>::create();
    auto server = std::make_unique<IPCServer>(served);
    CancellableThread thread([&] { server->run(nullptr); });
    ASSERT_TRUE(eventually([&] { return server->state() == 2; }));
    IPCFS fs;
    ASSERT_EQ(fs.connect(3, nullptr), 0);
    int result = 1;
    int reason = 0;
    std::thread client([&] {
        struct stat st;
        result = fs.stat("/gate", st);
        reason = errno;
    });
    served->awaitEntry();
    thread.cancel();
    served->openGate();
    client.join();
    EXPECT_EQ(result, -1);
    // The client finds either the answer or the end of the server first.
    EXPECT_TRUE(reason == ENOENT || reason == ENOTCONN) << reason;
    EXPECT_TRUE(thread.join());
    EXPECT_EQ(server->state(), 0);
}

} // namespace oru::io
