// SPDX-License-Identifier: Apache-2.0
// Threads that are cancelled inside the library, and exceptions that reach it.

#include "support/system/cancellablethread.h"
#include "support/system/files.h"
#include "support/system/tempdir.h"

#include <oruio/error.h>
#include <oruio/fdadapter.h>
#include <oruio/fsswitch.h>
#include <oruio/posixfs.h>

#include <gtest/gtest.h>

#include <QSemaphore>

#include <algorithm>
#include <array>
#include <csignal>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace oru::io {

using test::CancellableThread;
using test::openDescriptors;
using test::TempDir;

namespace {

/// Blocks at a cancellation point in the operation that the test calls.
class BlockingFS : public PosixFS {
public:
    BlockingFS() : PosixFS(QString()) {}

    int stat(QString, struct stat&) override {
        block();
        return 0;
    }
    void sync() override {
        block();
    }

    QSemaphore isBlocked;

private:
    void block() {
        isBlocked.release();
        for (;;)
            pause();
    }
};

/// A pipe, and the path through which its read end can be opened.
class Pipe {
public:
    Pipe() {
        EXPECT_EQ(pipe2(m_ends.data(), O_CLOEXEC), 0);
    }
    ~Pipe() {
        close(m_ends[0]);
        close(m_ends[1]);
    }
    std::string path() const {
        return "/proc/self/fd/" + std::to_string(m_ends[0]);
    }
    void write() const {
        EXPECT_EQ(::write(m_ends[1], "x", 1), 1);
    }

private:
    std::array<int, 2> m_ends = {-1, -1};
};

/// Throws from its operations.
class ThrowingFS : public PosixFS {
public:
    ThrowingFS() : PosixFS(QString()) {}

    int stat(QString, struct stat&) override {
        throw std::runtime_error("of the application");
    }
    QSharedPointer<File> open(QString, int, int) override {
        throw std::bad_alloc();
    }
    void sync() override {
        throw 1;
    }
};

FSSwitch::SPtr switchWith(FS::SPtr fs) {
    auto root = FSSwitch::SPtr::create();
    root->add("/m", std::move(fs));
    return root;
}

} // namespace

TEST(Cancel, ReadOfAnEmptyPipe_UnwindsTheCaller) {
    const Pipe pipe;
    FDAdapter io(PosixFS::SPtr::create(""));
    const int fd = io.open(pipe.path().c_str(), O_RDONLY, 0);
    ASSERT_NE(fd, -1);
    QSemaphore isReading;
    CancellableThread thread([&] {
        char byte = 0;
        isReading.release();
        io.read(fd, &byte, 1);
    });
    isReading.acquire();
    thread.cancel();
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(thread.wasUnwound());
    // The table is not locked, and the file is still open.
    pipe.write();
    char byte = 0;
    EXPECT_EQ(io.read(fd, &byte, 1), 1);
    EXPECT_EQ(io.close(fd), 0);
}

TEST(Cancel, OperationOfAMountedFS_UnwindsTheCallerAndReleasesTheMount) {
    auto fs = QSharedPointer<BlockingFS>::create();
    const auto root = switchWith(fs);
    CancellableThread thread([&] {
        struct stat st;
        root->stat("/m/x", st);
    });
    fs->isBlocked.acquire();
    thread.cancel();
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(thread.wasUnwound());
    // The cancelled call holds no reference any more.
    const QWeakPointer<FS> mounted = root->getFS("/m/x", nullptr).toWeakRef();
    EXPECT_EQ(mounted.toStrongRef(), fs);
    root->remove("/m");
    fs.clear();
    EXPECT_TRUE(mounted.isNull());
}

TEST(Cancel, SyncUnderTheLockOfTheSwitch_LeavesItUnlocked) {
    const auto fs = QSharedPointer<BlockingFS>::create();
    const auto root = switchWith(fs);
    CancellableThread thread([&] { root->sync(); });
    fs->isBlocked.acquire();
    thread.cancel();
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(thread.wasUnwound());
    EXPECT_EQ(root->getFS("/m", nullptr), fs);
}

TEST(Cancel, DestructorThatClosesAFile_ClosesIt) {
    const TempDir dir;
    PosixFS fs(dir.path());
    const int before = openDescriptors();
    bool isReleased = false;
    CancellableThread thread([&] {
        auto file = fs.open("/f", O_WRONLY | O_CREAT, 0600);
        auto directory = fs.opendir("/");
        EXPECT_EQ(openDescriptors(), before + 2);
        pthread_cancel(pthread_self());
        // Their destructors call close(2), which is a cancellation point.
        file.clear();
        directory.clear();
        isReleased = true;
        pthread_testcancel();
    });
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(thread.wasUnwound());
    EXPECT_TRUE(isReleased);
    EXPECT_EQ(openDescriptors(), before);
}

TEST(Cancel, CloseByACancelledThread_ClosesTheDescriptor) {
    const TempDir dir;
    FDAdapter io(PosixFS::SPtr::create(dir.path()));
    const int before = openDescriptors();
    bool isClosed = false;
    CancellableThread thread([&] {
        void* const handle = io.opendir("/");
        const int fd = io.open("/f", O_WRONLY | O_CREAT, 0600);
        pthread_cancel(pthread_self());
        EXPECT_EQ(io.close(fd), 0);
        EXPECT_EQ(io.closedir(handle), 0);
        isClosed = true;
        pthread_testcancel();
    });
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(isClosed);
    EXPECT_EQ(openDescriptors(), before);
}

namespace {

/// Records the stack of the thread that calls stat().
class TracingFS : public PosixFS {
public:
    TracingFS() : PosixFS(QString()) {}

    int stat(QString, struct stat&) override {
        frames.resize(64);
        frames.resize(backtrace(frames.data(), static_cast<int>(frames.size())));
        return 0;
    }

    std::vector<void*> frames;
};

} // namespace

TEST(Backtrace, InAMountedFS_ReachesTheThreadsStart) {
    const auto fs = QSharedPointer<TracingFS>::create();
    const auto root = switchWith(fs);
    std::vector<void*> outer(64);
    outer.resize(backtrace(outer.data(), static_cast<int>(outer.size())));
    struct stat st;
    ASSERT_EQ(root->stat("/m/x", st), 0);
    // From the caller of this function on, the two stacks are the same. Under a sanitizer, its own
    // backtrace(3) is the first frame and this function the second.
    constexpr int inner = 2;
    ASSERT_GT(outer.size(), 2U + inner);
    ASSERT_GT(fs->frames.size(), outer.size());
    EXPECT_TRUE(std::equal(outer.rbegin(), outer.rend() - inner, fs->frames.rbegin()));
}

using ExceptionDeathTest = ::testing::Test;

TEST(ExceptionDeathTest, ThrownByAMountedFS_EndsTheProcess) {
    const auto root = switchWith(QSharedPointer<ThrowingFS>::create());
    struct stat st;
    EXPECT_EXIT(
        {
            try {
                root->stat("/m/x", st);
            } catch (...) {
            }
        },
        ::testing::KilledBySignal(SIGABRT), "of the application");
}

TEST(ExceptionDeathTest, ThrownBelowAnAdapter_EndsTheProcess) {
    FDAdapter io(QSharedPointer<ThrowingFS>::create());
    EXPECT_EXIT(
        {
            try {
                io.open("/x", O_RDONLY, 0);
            } catch (...) {
            }
        },
        ::testing::KilledBySignal(SIGABRT), "bad_alloc");
}

TEST(ExceptionDeathTest, ThrownInSync_EndsTheProcess) {
    const auto root = switchWith(QSharedPointer<ThrowingFS>::create());
    EXPECT_EXIT(
        {
            try {
                root->sync();
            } catch (...) {
            }
        },
        ::testing::KilledBySignal(SIGABRT), "");
}

} // namespace oru::io
