// SPDX-License-Identifier: Apache-2.0
// The root switch and its adapter while the process exits.

#include "support/system/tempdir.h"

#include <oruio/fdadapter.h>
#include <oruio/fsswitch.h>
#include <oruio/posixfs.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace oru::io {

using test::TempDir;

namespace {

/// A static object of an application, made before the first use of the root adapter and so
/// destroyed after the static objects that that use made. It closes its clip in its destructor.
class Recorder {
public:
    ~Recorder() {
        if (m_fd == -1)
            return;
        FDAdapter* const io = FDAdapter::rootfs();
        struct stat st;
        const bool works = io->write(m_fd, "end", 3) == 3 && io->close(m_fd) == 0 &&
                           io->stat("/", &st) == 0 && io->type() == "FSSwitchFS" &&
                           FSSwitch::rootfs()->stat("/", st) == 0;
        _exit(works ? 42 : 1);
    }
    void record(const QString& directory) {
        FSSwitch::rootfs()->add("/", PosixFS::SPtr::create(directory));
        m_fd = FDAdapter::rootfs()->open("/clip", O_WRONLY | O_CREAT, 0600);
    }

private:
    int m_fd = -1;
};

Recorder recorder;

/// Gives detached threads some time while the process exits.
struct SlowDestructor {
    ~SlowDestructor() {
        if (isSlow)
            usleep(20'000);
    }
    bool isSlow = false;
};

SlowDestructor slowDestructor;

/// Its destructor ends the process with an exit status of its own.
class EndingFS : public PosixFS {
public:
    EndingFS() : PosixFS(QString()) {}
    ~EndingFS() override {
        _exit(43);
    }
};

} // namespace

using RootfsExitDeathTest = ::testing::Test;

TEST(RootfsExitDeathTest, StaticObjectThatClosesItsClip_CanUseTheRootAdapter) {
    const TempDir dir;
    EXPECT_EXIT(
        {
            recorder.record(dir.path());
            std::exit(0);
        },
        ::testing::ExitedWithCode(42), "");
}

TEST(RootfsExitDeathTest, DetachedThreadsThatRecord_DoNotCrash) {
    const TempDir dir;
    for (int i = 0; i < 10; ++i) {
        EXPECT_EXIT(
            {
                FSSwitch::rootfs()->add("/", PosixFS::SPtr::create(dir.path()));
                slowDestructor.isSlow = true;
                for (int thread = 0; thread < 2; ++thread) {
                    std::thread([] {
                        const char frame[512] = {};
                        for (;;) {
                            FDAdapter* const io = FDAdapter::rootfs();
                            const int fd = io->open("/clip", O_WRONLY | O_CREAT, 0600);
                            io->write(fd, frame, sizeof frame);
                            io->close(fd);
                            FSSwitch::rootfs()->getFS("/", nullptr);
                        }
                    }).detach();
                }
                usleep(5000);
                std::exit(0);
            },
            ::testing::ExitedWithCode(0), "");
    }
}

TEST(RootfsExitDeathTest, MountedFileSystem_IsDestroyedAtExit) {
    EXPECT_EXIT(
        {
            FSSwitch::rootfs()->add("/", QSharedPointer<EndingFS>::create());
            FDAdapter::rootfs();
            std::exit(0);
        },
        ::testing::ExitedWithCode(43), "");
}

TEST(RootAdapter, FirstUseByManyThreads_IsOneAdapter) {
    FDAdapter* adapters[8] = {};
    std::thread threads[8];
    for (int i = 0; i < 8; ++i)
        threads[i] = std::thread([&adapters, i] { adapters[i] = FDAdapter::rootfs(); });
    for (std::thread& thread : threads)
        thread.join();
    for (FDAdapter* const adapter : adapters)
        EXPECT_EQ(adapter, FDAdapter::rootfs());
}

} // namespace oru::io
