// SPDX-License-Identifier: Apache-2.0
// Shares used by several threads, and by a thread that signals interrupt.
#include "network/fssmb_fixtures.h"
#include "support/system/cancellablethread.h"

#include <QSemaphore>
#include <QThread>

#include <csignal>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/time.h>

namespace oru::io {
namespace {

using test::CancellableThread;
using test::login;
using test::Smb;
using test::SmbShare;

} // namespace

TEST_F(Smb, TwoSharesEightThreads_EachReadsWhatItWrote) {
    Smb2FS first(20);
    Smb2FS second(20);
    ASSERT_EQ(first.connect(login(server.address())), 0);
    ASSERT_EQ(second.connect(login(server.address(), "rw2")), 0);
    const auto work = [&](Smb2FS& fs, int number) {
        const QString path = "/thread-" + QString::number(number);
        for (int round = 0; round < 10; ++round) {
            const QByteArray content(70'000 + number, char('a' + (number + round) % 26));
            const auto file = fs.open(path, O_RDWR | O_CREAT | O_TRUNC, 0644);
            ASSERT_TRUE(file) << strerror();
            ASSERT_EQ(file->write(content.constData(), content.size()), content.size());
            QByteArray back(content.size(), '\0');
            ASSERT_EQ(file->pread(back.data(), back.size(), 0), back.size()) << strerror();
            ASSERT_EQ(back, content);
            ASSERT_EQ(file->close(), 0);
            struct stat st;
            ASSERT_EQ(fs.stat(path, st), 0);
            ASSERT_EQ(st.st_size, content.size());
            ASSERT_TRUE(fs.opendir("/"));
            ASSERT_EQ(fs.unlink(path), 0) << strerror();
            ASSERT_EQ(fs.stat(path, st), -1);
            ASSERT_EQ(errno, ENOENT);
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&, i] { work(i % 2 ? first : second, i); });
    for (std::thread& thread : threads)
        thread.join();
}

TEST_F(Smb, ConnectFromManyThreads_AllConnect) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 5; ++round) {
                Smb2FS fs(20);
                ASSERT_EQ(fs.connect(login(server.address())), 0)
                    << qPrintable(fs.connectFailure().message);
                struct stat st;
                ASSERT_EQ(fs.stat("/", st), 0);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

TEST_F(SmbShare, ThreadCancelledInAnOperation_CompletesItAndTheShareGoesOn) {
    server.stop();
    QSemaphore isWaiting;
    int result = 1;
    CancellableThread thread([&] {
        struct stat st;
        isWaiting.release();
        result = fs.stat("/", st);
        pthread_testcancel();
    });
    isWaiting.acquire();
    QThread::msleep(50); // likely enough for the request; the test holds without it as well
    thread.cancel();
    server.cont();
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(thread.wasUnwound());
    EXPECT_EQ(result, 0);
    struct stat st;
    EXPECT_EQ(fs.stat("/", st), 0) << strerror();
    EXPECT_TRUE(fs.isConnected());
}

TEST_F(SmbShare, DestructorsOnACancelledThread_CloseTheirHandles) {
    bool isAtEnd = false;
    CancellableThread thread([&] {
        auto file = create("/f");
        auto directory = fs.opendir("/");
        ASSERT_TRUE(file && directory);
        pthread_cancel(pthread_self());
        file.clear();
        directory.clear();
        isAtEnd = true;
        pthread_testcancel();
    });
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(isAtEnd);
    EXPECT_EQ(fs.unlink("/f"), 0) << strerror(); // ETXTBSY while a handle is open
}

namespace {

/// Interrupts the process with SIGALRM every 500 microseconds.
class Interruptions {
public:
    Interruptions() {
        struct sigaction action = {};
        action.sa_handler = [](int) {}; // without SA_RESTART
        sigaction(SIGALRM, &action, &m_before);
        const struct itimerval often = {{0, 500}, {0, 500}};
        setitimer(ITIMER_REAL, &often, nullptr);
    }
    ~Interruptions() {
        const struct itimerval never = {};
        setitimer(ITIMER_REAL, &never, nullptr);
        sigaction(SIGALRM, &m_before, nullptr);
    }

private:
    struct sigaction m_before;
};

} // namespace

TEST_F(SmbShare, InterruptedBySignals_NoCallFails) {
    const Interruptions interruptions;
    const auto file = create("/f");
    ASSERT_TRUE(file);
    QByteArray content(1 << 20, 'i');
    for (int i = 0; i < 32; ++i)
        ASSERT_EQ(file->write(content.constData(), content.size()), content.size()) << strerror();
    EXPECT_EQ(file->lseek(0, SEEK_SET), 0);
    for (int i = 0; i < 32; ++i)
        ASSERT_EQ(file->read(content.data(), content.size()), content.size()) << strerror();
    struct stat st;
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(fs.stat("/f", st), 0) << strerror();
    EXPECT_EQ(fs.connect(login(server.address())), 0);
}

} // namespace oru::io
