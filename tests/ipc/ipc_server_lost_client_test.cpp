// SPDX-License-Identifier: Apache-2.0
// IPCServer: a client that dies during a session.

#include "support/doubles/memfs.h"
#include "support/ipc/ipccalls.h"
#include "support/ipc/ipcservice.h"
#include "support/ipc/runningserver.h"
#include "support/suite/logcapture.h"
#include "support/system/childprocess.h"

#include <oruio/fsipc.h>

#include <gtest/gtest.h>

#include <csignal>
#include <memory>

#include <fcntl.h>
#include <unistd.h>

namespace oru::io {

using test::ChildProcess;
using test::eventually;
using test::LogCapture;
using test::MemFS;
using test::RunningServer;

namespace {

/// The messages of one channel.
QStringList messagesOf(const char* channel, const QStringList& messages) {
    QStringList found;
    for (const QString& message : messages) {
        if (message.section(' ', 0, 0) == channel)
            found += message;
    }
    return found;
}

} // namespace

class IPCServerCrash : public ::testing::Test {
protected:
    void SetUp() override {
        if (!test::hasRobustMutexes())
            GTEST_SKIP() << "the system does not report the death of a mutex owner";
    }

    /// A client that opens a file and then waits to be killed. It is forked here, before the
    /// server's thread starts, and connects once there is a server.
    std::unique_ptr<ChildProcess> startClient() {
        int opened[2];
        EXPECT_EQ(pipe(opened), 0);
        auto child = std::make_unique<ChildProcess>([&] {
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

TEST_F(IPCServerCrash, ClientKilled_PollEndsItsSession) {
    const auto child = startClient();
    test::limitSemaphoreWaits(100);
    LogCapture log("fsipcsrv=12,fsipc=12");
    QStringList messages;
    const auto awaitMessage = [&](const char* message) {
        return eventually([&] {
            messages += log.messages();
            return messages.contains(message);
        });
    };
    RunningServer running(QSharedPointer<MemFS>::create());
    awaitConnected();
    EXPECT_TRUE(awaitMessage("fsipcsrv 12 Poll for active client"));
    EXPECT_NEAR(test::lastSemaphoreTimeoutSeconds(), 30, 0.2);
    child->signal(SIGKILL);
    EXPECT_TRUE(awaitMessage("fsipcsrv 12 Client crashed. Terminating session."));
    EXPECT_FALSE(messages.contains("fsipcsrv 12 Close Session. 1 files 0 dirs"));
    IPCFS next;
    EXPECT_EQ(next.connect(1, nullptr), 0);
    EXPECT_FALSE(messages.contains("fsipc 12 Client crash detected. Continuing."));
    EXPECT_TRUE(awaitMessage("fsipcsrv 12 Close Session. 1 files 0 dirs"));
    struct stat st;
    EXPECT_EQ(next.stat("/f", st), 0);
    test::limitSemaphoreWaits(0);
}

TEST_F(IPCServerCrash, NewClientBeforeThePoll_EndsTheSessionOfTheDeadOne) {
    const auto child = startClient();
    test::limitSemaphoreWaits(50);
    RunningServer running(QSharedPointer<MemFS>::create());
    awaitConnected();
    // The server now waits 30 s before it polls for its client again.
    EXPECT_TRUE(eventually(test::isLastWaitLimited));
    test::limitSemaphoreWaits(0);
    EXPECT_TRUE(eventually([] { return !test::isLastWaitLimited(); }));
    child->signal(SIGKILL);
    ASSERT_EQ(child->wait(), -SIGKILL);
    LogCapture log("fsipcsrv=12,fsipc=12");
    IPCFS next;
    EXPECT_EQ(next.connect(1, nullptr), 0);
    const QStringList messages = log.messages();
    EXPECT_EQ(messagesOf("fsipc", messages),
              QStringList({"fsipc 12 Client connecting", "fsipc 12 Detected Server online",
                           "fsipc 12 Client crash detected. Continuing.",
                           "fsipc 12 Send request 'disconnect'", "fsipc 12 Send request 'connect'",
                           "fsipc 12 Got response: '0,0,0'", "fsipc 12 IPC Client Ready"}));
    EXPECT_TRUE(messages.contains("fsipcsrv 12 Close Session. 1 files 0 dirs"));
}

} // namespace oru::io
