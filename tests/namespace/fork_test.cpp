// SPDX-License-Identifier: Apache-2.0
// The tables in a child of fork(2), whose parent's other threads were using them.

#include "support/system/isolation.h"
#include "support/system/tempdir.h"

#include <oruio/fdadapter.h>
#include <oruio/fsswitch.h>
#include <oruio/posixfs.h>

#include <gtest/gtest.h>

#include <QSemaphore>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace oru::io {

using test::TempDir;

namespace {

/// Runs `work` in a child. \returns its exit status; 128 and more when a signal killed it, which
/// SIGALRM does after `seconds`.
int inChild(const std::function<int()>& work, unsigned int seconds = 20) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(seconds);
        _exit(work());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

#if defined(__SANITIZE_ADDRESS__)
constexpr bool isAddressSanitized = true;
#else
constexpr bool isAddressSanitized = false;
#endif

/// For tests that fork while other threads allocate memory.
#define SKIP_WHERE_FORK_BESIDE_THREADS_HANGS()                                                     \
    do {                                                                                           \
        if (isAddressSanitized)                                                                    \
            GTEST_SKIP() << "the sanitizer's allocator may stay locked in the forked child";       \
        if (test::isEmulated())                                                                    \
            GTEST_SKIP() << "the emulator's own mutex may stay locked in the forked child";        \
    } while (false)

/// sync() blocks until the test lets it go on.
class SlowSync : public PosixFS {
public:
    SlowSync() : PosixFS(QString()) {}

    void sync() override {
        isSyncing.release();
        mayReturn.acquire();
    }

    QSemaphore isSyncing;
    QSemaphore mayReturn;
};

} // namespace

TEST(Fork, WhileThreadsOpenAndClose_ChildCanOpenAndClose) {
    SKIP_WHERE_FORK_BESIDE_THREADS_HANGS();
    const TempDir dir;
    const auto root = FSSwitch::SPtr::create();
    root->add("/", PosixFS::SPtr::create(dir.path()));
    FDAdapter io(root);
    std::atomic<bool> isOver{false};
    const auto openAndClose = [&] {
        const int fd = io.open("/f", O_RDWR | O_CREAT, 0600);
        struct stat st;
        const bool isGood = fd != -1 && io.fstat(fd, &st) == 0 && io.close(fd) == 0;
        void* const handle = io.opendir("/");
        return isGood && io.closedir(handle) == 0;
    };
    const auto loop = [&] {
        while (!isOver)
            EXPECT_TRUE(openAndClose());
    };
    std::thread first(loop);
    std::thread second(loop);
    for (int i = 0; i < 100 && !::testing::Test::HasFailure(); ++i)
        EXPECT_EQ(inChild([&] { return openAndClose() ? 0 : 1; }), 0) << "child " << i;
    isOver = true;
    first.join();
    second.join();
}

TEST(Fork, DescriptorOfTheParent_IsOpenInTheChild) {
    const TempDir dir;
    FDAdapter io(PosixFS::SPtr::create(dir.path()));
    const int fd = io.open("/f", O_RDWR | O_CREAT, 0600);
    EXPECT_EQ(inChild([&] { return io.write(fd, "abc", 3) == 3 && io.close(fd) == 0 ? 0 : 1; }), 0);
    char bytes[4] = {};
    EXPECT_EQ(io.pread(fd, bytes, 3, 0), 3);
    EXPECT_STREQ(bytes, "abc");
    EXPECT_EQ(io.close(fd), 0);
}

TEST(Fork, WhileAThreadSyncs_DoesNotWaitAndTheChildsSwitchWorks) {
    const auto fs = QSharedPointer<SlowSync>::create();
    const auto root = FSSwitch::SPtr::create();
    root->add("/s", fs);
    std::thread syncing([&] { root->sync(); });
    fs->isSyncing.acquire();
    EXPECT_EQ(inChild([&] {
                  if (root->getFS("/s/x", nullptr) != fs)
                      return 1;
                  root->add("/t", fs);
                  root->remove("/s");
                  return root->getFS("/s", nullptr) ? 2 : 0;
              }),
              0);
    fs->mayReturn.release();
    syncing.join();
    EXPECT_EQ(root->getFS("/s", nullptr), fs);
}

TEST(Fork, InsideSync_DoesNotDeadlock) {
    struct ForkingSync : PosixFS {
        ForkingSync() : PosixFS(QString()) {}
        void sync() override {
            status = inChild([] { return 5; });
        }
        int status = -1;
    };
    const auto fs = QSharedPointer<ForkingSync>::create();
    const auto root = FSSwitch::SPtr::create();
    root->add("/s", fs);
    root->sync();
    EXPECT_EQ(fs->status, 5);
}

// The child returns from sync(), too. Until then it holds the lock of the table.
TEST(Fork, InsideSync_ChildHoldsTheTableUntilItReturns) {
    struct ForkingSync : PosixFS {
        ForkingSync() : PosixFS(QString()) {}
        void sync() override {
            child = fork();
            if (child != 0)
                return;
            lookup = std::thread([this] {
                root->getFS("/s", nullptr);
                hasLookedUp = true;
            });
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            wasLocked = !hasLookedUp;
        }
        pid_t child = -1;
        FSSwitch* root = nullptr;
        std::thread lookup;
        std::atomic<bool> hasLookedUp{false};
        bool wasLocked = false;
    };
    const auto fs = QSharedPointer<ForkingSync>::create();
    const auto root = FSSwitch::SPtr::create();
    fs->root = root.data();
    root->add("/s", fs);
    root->sync();
    if (fs->child == 0) {
        fs->lookup.join();
        _exit(fs->wasLocked ? 5 : 6);
    }
    int status = 0;
    ASSERT_EQ(waitpid(fs->child, &status, 0), fs->child);
    EXPECT_EQ(WEXITSTATUS(status), 5);
}

TEST(Fork, WhileAThreadCreatesTheRootSwitch_DoesNotDeadlock) {
    SKIP_WHERE_FORK_BESIDE_THREADS_HANGS();
    FSSwitch::SPtr before = FSSwitch::rootfs();
    std::atomic<bool> isOver{false};
    std::thread creating([&] {
        while (!isOver) {
            FSSwitch::SPtr none;
            FSSwitch::setRootfs(none);
            EXPECT_TRUE(FSSwitch::rootfs());
        }
    });
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(inChild([] { return FSSwitch::rootfs() ? 0 : 1; }), 0);
    isOver = true;
    creating.join();
    FSSwitch::setRootfs(before);
}

TEST(Fork, RootSwitchAndAdapterOfTheParent_WorkInTheChild) {
    SKIP_WHERE_FORK_BESIDE_THREADS_HANGS();
    FSSwitch::rootfs()->add("/fork", PosixFS::SPtr::create("/tmp"));
    FDAdapter* const io = FDAdapter::rootfs();
    std::atomic<bool> isOver{false};
    std::thread looking([&] {
        while (!isOver)
            FSSwitch::rootfs()->getFS("/fork", nullptr);
    });
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(inChild([&] {
                      struct stat st;
                      return FDAdapter::rootfs() == io && io->stat("/fork", &st) == 0 ? 0 : 1;
                  }),
                  0);
    }
    isOver = true;
    looking.join();
    FSSwitch::rootfs()->remove("/fork");
}

} // namespace oru::io
