// SPDX-License-Identifier: Apache-2.0
// Kills the client or the server at every step of the protocol: before and after the step, and
// between a step and its record.

#include "support/ipc/ipccalls.h"
#include "support/ipc/ipcservice.h"
#include "support/ipc/tracetest.h"
#include "support/system/childprocess.h"
#include "support/system/tempdir.h"

#include <oruio/error.h>
#include <oruio/fsipc.h>
#include <oruio/posixfs.h>

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>

namespace oru::io {

using test::ChildProcess;
using test::ServerProcess;
using test::TempDir;
using test::TraceOfTest;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int pointStep = 7; // each death is slow there
#else
constexpr int pointStep = 1;
#endif
/// How long a client waits for a server that has died.
constexpr int deadServerTimeoutMs = 20;

/// A session with a write, a read and a failure. \returns 0, or the number of the step that failed.
int useService(IPCFS& fs) {
    char bytes[100] = "bytes";
    struct stat st;
    if (fs.connect(1, nullptr) != 0)
        return 1;
    const auto file = fs.open("/clip", O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (!file || file->write(bytes, sizeof bytes) != sizeof bytes)
        return 2;
    if (file->pread(bytes, sizeof bytes, 0) != sizeof bytes || fs.stat("/missing", st) != -1)
        return 3;
    if (!fs.isConnected() || file->close() != 0)
        return 4;
    return fs.disconnect();
}

class IpcTraceDeath : public ::testing::Test {
protected:
    void SetUp() override {
        if (!test::hasRobustMutexes())
            GTEST_SKIP() << "the system does not report the death of a mutex owner";
        test::limitSemaphoreWaits(deadServerTimeoutMs);
        test::limitSleeps(1);
    }

    /// A server that dies at a point; 0: it does not.
    std::unique_ptr<ServerProcess> startServer(int point = 0) {
        const QString root = dir.path();
        test::exemptWaitsFor(0);
        auto server =
            std::make_unique<ServerProcess>([root] { return PosixFS::SPtr::create(root); },
                                            [point] { test::dieAtTracePoint(point); });
        test::exemptWaitsFor(server->process().pid());
        return server;
    }

    void expectServiceWorks() {
        test::limitSemaphoreWaits(0);
        IPCFS fs;
        EXPECT_EQ(useService(fs), 0) << strerror();
        test::limitSemaphoreWaits(deadServerTimeoutMs);
    }

    TempDir dir;
    TraceOfTest trace;
};

} // namespace

TEST_F(IpcTraceDeath, ClientKilledAtEveryStep_NextClientWorksAndRecordIsAccepted) {
    const auto server = startServer();
    ASSERT_TRUE(server->awaitReady());
    int deaths = 0;
    int status = -SIGKILL;
    for (int point = 1; status == -SIGKILL && !HasFailure(); point += pointStep) {
        SCOPED_TRACE("point " + std::to_string(point));
        ChildProcess client([point] {
            test::dieAtTracePoint(point);
            IPCFS fs;
            return useService(fs);
        });
        status = client.wait();
        ASSERT_TRUE(status == -SIGKILL || status == 0) << status;
        deaths += status == -SIGKILL;
        expectServiceWorks();
    }
    EXPECT_GT(deaths, 100 / pointStep);
    RecordProperty("deaths", deaths);
    EXPECT_EQ(server->terminate(), 0);
    trace.expectAccepted();
}

TEST_F(IpcTraceDeath, ServerKilledAtEveryStep_NextServerWorksAndRecordIsAccepted) {
    int deaths = 0;
    int status = -SIGKILL;
    for (int point = 1; status == -SIGKILL && !HasFailure(); point += pointStep) {
        SCOPED_TRACE("point " + std::to_string(point));
        {
            const auto server = startServer(point);
            IPCFS fs;
            if (server->awaitReady())
                useService(fs);
            status = server->terminate();
        }
        ASSERT_TRUE(status == -SIGKILL || status == 0) << status;
        deaths += status == -SIGKILL;
        const auto next = startServer();
        ASSERT_TRUE(next->awaitReady());
        expectServiceWorks();
        EXPECT_EQ(next->terminate(), 0);
    }
    EXPECT_GT(deaths, 100 / pointStep);
    RecordProperty("deaths", deaths);
    trace.expectAccepted();
}

} // namespace oru::io
