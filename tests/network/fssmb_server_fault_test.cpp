// SPDX-License-Identifier: Apache-2.0
// Shares of an SMB server that is killed or stopped, and the SIGPIPE of a broken connection.
#include "network/fssmb_fixtures.h"
#include "network/shareoperations.h"
#include "support/system/childprocess.h"

#include <QElapsedTimer>
#include <QFileInfo>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/uio.h>

namespace {

std::atomic<bool> pipeIsBroken = false;

} // namespace

// This definition precedes the one of the C library, for libsmb2 as well.

extern "C" Q_DECL_EXPORT ssize_t writev(int fd, const struct iovec* parts, int count) {
    using Function = ssize_t(int, const struct iovec*, int);
    static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "writev"));
    if (!pipeIsBroken.exchange(false))
        return real(fd, parts, count);
    // Like the kernel: SIGPIPE for the thread, and EPIPE.
    pthread_kill(pthread_self(), SIGPIPE);
    errno = EPIPE;
    return -1;
}

namespace oru::io {
namespace {

using test::expectGuarded;
using test::FaultProxy;
using test::login;
using test::Share;
using test::timeLimitMs;
using test::timeoutSeconds;
using Fault = FaultProxy::Fault;
using SmbServerFault = test::Smb;

} // namespace

TEST_F(SmbServerFault, ServerKilledAndRestarted_ConnectsAgain) {
    Share share(server.address(), "d", 10);
    ASSERT_TRUE(share.file);
    server.kill();
    EXPECT_EQ(share.file->write("x", 1), -1);
    EXPECT_EQ(errno, ECONNRESET);
    expectGuarded(share);
    EXPECT_EQ(share.fs.connect(login(server.address())), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    ASSERT_TRUE(server.restart());
    EXPECT_TRUE(test::connectEventually(share.fs, server.address())) << strerror();
    const auto file = share.fs.open(share.at("file"), O_RDONLY, 0);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->readAll(10'000), share.content);
}

TEST_F(SmbServerFault, ServerKilledWhileWriting_ReportedBytesReachedIt) {
    Share share(server.address(), "d", 10);
    ASSERT_TRUE(share.file);
    std::atomic<qint64> written = 0;
    std::thread recorder([&] {
        const QByteArray block(1 << 20, 'r');
        while (share.file->write(block.constData(), block.size()) == block.size())
            written += block.size();
        EXPECT_EQ(errno, ECONNRESET);
    });
    QElapsedTimer timer;
    timer.start();
    while (written < (8 << 20) && timer.elapsed() < 60'000)
        std::this_thread::yield();
    server.kill();
    recorder.join();
    // Every byte that was reported as written is on the server.
    EXPECT_GE(QFileInfo(server.directory("rw") + "/d/file").size(), written);
}

TEST_F(SmbServerFault, ServerStoppedAndContinued_TimesOutAndConnectsAgain) {
    Share share(server.address(), "d", timeoutSeconds);
    ASSERT_TRUE(share.file);
    server.stop();
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(share.file->write("x", 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_LT(timer.elapsed(), timeLimitMs);
    timer.start();
    EXPECT_EQ(share.fs.connect(login(server.address())), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_LT(timer.elapsed(), timeLimitMs);
    server.cont();
    EXPECT_TRUE(test::connectEventually(share.fs, server.address())) << strerror();
    EXPECT_TRUE(share.fs.isConnected());
}

// Threads that wait for the lock of the share fail with the errno of the lock holder.
TEST_F(SmbServerFault, ThreadsWaitForLock_AllTimeOut) {
    Share share(server.address(), "d", timeoutSeconds);
    ASSERT_TRUE(share.file);
    const auto closed = share.fs.open(share.at("other"), O_RDONLY, 0);
    ASSERT_TRUE(closed);
    server.stop();
    const std::vector<std::function<long long()>> calls = {
        [&] {
            struct stat st;
            return share.fs.stat("/", st);
        },
        [&] { return share.fs.open(share.at("file"), O_RDONLY, 0) ? 0 : -1; },
        [&] { return share.fs.rename(share.at("file"), share.at("g")); },
        [&] {
            struct stat st;
            return share.file->fstat(st);
        },
        [&] { return share.file->write("x", 1); },
        [&] { return closed->close(); },
    };
    std::atomic<int> timedOut = 0;
    QElapsedTimer timer;
    timer.start();
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        struct stat st;
        EXPECT_EQ(share.fs.stat("/", st), -1); // holds the lock
    });
    for (const auto& call : calls) {
        threads.emplace_back([&] {
            errno = 0;
            EXPECT_EQ(call(), -1);
            timedOut += errno == ETIMEDOUT;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(timedOut, static_cast<int>(calls.size()));
    EXPECT_LT(timer.elapsed(), timeLimitMs);
    server.cont();
}

namespace {

bool isPending(int signal) {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, signal) == 1;
}

} // namespace

// The fatal error is checked before the lock is taken.
TEST_F(SmbServerFault, FatalErrorWhileThreadWaits_OtherThreadsFailAtOnce) {
    FaultProxy proxy(server.port());
    Share share(proxy.address(), "d", timeoutSeconds);
    ASSERT_TRUE(share.file);
    proxy.on({FaultProxy::Request, FaultProxy::Create}, Fault::freeze());
    QElapsedTimer timer;
    timer.start();
    std::thread waiting([&] {
        struct stat st;
        EXPECT_EQ(share.fs.stat("/", st), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
        EXPECT_GE(timer.elapsed(), timeoutSeconds * 1000 - 100);
    });
    // The thread holds the lock until its request times out.
    EXPECT_TRUE(test::eventually([&] { return proxy.armed() == 0; }));
    set_errno(&share.fs, -ECONNRESET, nullptr, "read", "f");
    expectGuarded(share);
    EXPECT_LT(timer.elapsed(), timeoutSeconds * 1000 - 100);
    waiting.join();
}

TEST_F(SmbServerFault, BrokenPipe_RaisesNoSIGPIPE) {
    Share share(server.address(), "d", 10);
    ASSERT_TRUE(share.file);
    pipeIsBroken = true;
    EXPECT_EQ(share.file->write("x", 1), -1); // SIGPIPE would end the test
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_FALSE(pipeIsBroken);
    EXPECT_FALSE(isPending(SIGPIPE));
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);
}

TEST_F(SmbServerFault, BrokenPipeWhileSIGPIPEIsPending_SignalStaysPending) {
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    {
        Share share(server.address(), "d", 10);
        ASSERT_TRUE(share.file);
        pipeIsBroken = true;
        EXPECT_EQ(share.file->write("x", 1), -1);
        EXPECT_FALSE(isPending(SIGPIPE));
    }
    {
        Share share(server.address(), "e", 10);
        pthread_kill(pthread_self(), SIGPIPE);
        pipeIsBroken = true;
        EXPECT_EQ(share.file->write("x", 1), -1);
        EXPECT_TRUE(isPending(SIGPIPE));
    }
    const struct timespec now = {};
    EXPECT_EQ(sigtimedwait(&pipe, nullptr, &now), SIGPIPE);
    pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
}

} // namespace oru::io
