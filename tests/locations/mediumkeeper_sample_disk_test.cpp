// SPDX-License-Identifier: Apache-2.0
// The samples at the head of storagelocation.h and mediumkeeper.h, and keepers in threads with an
// event loop.

#include "keptdisk.h"

#include <QCoreApplication>
#include <QDebug>
#include <QThread>

#include <atomic>
#include <functional>

#include <fcntl.h>

namespace oru::io::test {
namespace {

/// Has an event loop, and a tmpfs on /mnt.
class KeeperSample : public MonitorTest {
protected:
    void SetUp() override {
        MonitorTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        ASSERT_EQ(::mount("tmpfs", "/mnt", "tmpfs", 0, nullptr), 0);
    }
    void TearDown() override {
        while (umount2("/mnt/card", MNT_DETACH) == 0)
            continue;
        umount2("/mnt", MNT_DETACH);
    }

    static bool eventuallyInLoop(const std::function<bool()>& condition) {
        return eventually([&] {
            QCoreApplication::processEvents();
            return condition();
        });
    }

    const FreshRootSwitch rootSwitch;
    Properties props = {{"blkDevId", idPath()}};

private:
    int m_argc = 1;
    char m_name[5] = "test";
    char* m_argv[2] = {m_name, nullptr};
    const QCoreApplication m_application{m_argc, m_argv};
};

TEST_F(KeeperSample, OfStorageLocation_CardMountedThroughEveryEvent) {
#include "storagelocation_sample.inc"
    QStringList seen;
    QObject::connect(&card, &StorageLocation::accessChanged,
                     [&](StorageLocation*, StorageLocation::AccessType access) {
                         seen += StorageLocation::straccess(access);
                     });
    const auto isWriteable = [&] { return card.access() == StorageLocation::Write; };
    LoopDisk disk(40 * MiB, twoPartitions);
    ASSERT_TRUE(makeExt4(disk.node(1)) && makeExt4(disk.node(2)));
    ASSERT_TRUE(udevd->setIdPath(disk.name(), idPath()));
    // One by one, as a slow udev reports them.
    for (const int number : {0, 1, 2}) {
        ASSERT_TRUE(disk.sendUevent("add", number) && udevd->settle());
        QCoreApplication::processEvents();
    }
    ASSERT_TRUE(eventuallyInLoop(isWriteable));
    EXPECT_EQ(devicesAt("/mnt/card"), QStringList(disk.node(2)));
    const QSharedPointer<File> clip =
        FSSwitch::rootfs()->open("/mnt/card/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(clip);

    // The "add" of a medium that is mounted, and of its smaller partition.
    ASSERT_TRUE(disk.sendUevent("add", 2) && disk.sendUevent("add", 1) && udevd->settle());
    int batches = 0;
    QObject::connect(BDMon::instance(), &BDMon::notify, &card, [&] { ++batches; });
    ASSERT_TRUE(eventuallyInLoop([&] { return batches > 0; }));
    EXPECT_TRUE(isWriteable());
    EXPECT_EQ(clip->write("film", 4), 4);

    // Removed with a file open, then another one.
    ASSERT_TRUE(disk.pullOut());
    ASSERT_TRUE(eventuallyInLoop([&] { return card.access() == StorageLocation::None; }));
    EXPECT_FALSE(isMountPoint("/mnt/card"));
    udevd->clearIdPath(disk.name());
    const LoopDisk next(20 * MiB, onePartition);
    ASSERT_TRUE(makeExt4(next.node(1)) && plugIn(next));
    ASSERT_TRUE(eventuallyInLoop(isWriteable));
    EXPECT_EQ(devicesAt("/mnt/card"), QStringList(next.node(1)));
    EXPECT_EQ(clip->close(), 0);
    EXPECT_EQ(seen.last(), "Write");
}

TEST_F(KeeperSample, OfMediumKeeper_CardMountedInEventLoop) {
    SystemLocation card("card", FS::SPtr(new PosixFS("/mnt/card")), &props);
    FSSwitch::rootfs()->add("/mnt/card", card.fs());
    const LoopDisk disk(20 * MiB, onePartition);
    ASSERT_TRUE(makeExt4(disk.node(1)) && plugIn(disk) && udevd->settle());
#include "mediumkeeper_sample.inc"
    EXPECT_EQ(keeper.access(), StorageLocation::Write) << "it was present";
    ASSERT_EQ(umount("/mnt/card"), 0);
    QMetaObject::invokeMethod(&keeper, "step", Qt::QueuedConnection);
    EXPECT_TRUE(eventuallyInLoop([] { return isMountPoint("/mnt/card"); }));
}

TEST_F(KeeperSample, PolicyChecksInEventLoop_MountedAfterwards) {
    const MaintenanceProgram program("sleep 0.1; exit 0");
    SystemLocation card("card", FS::SPtr(new PosixFS("/mnt/card")), &props);
    FSSwitch::rootfs()->add("/mnt/card", card.fs());
    MediumPolicy policy;
    policy.check = MediumPolicy::Check::Always;
    MediumKeeper keeper(&card, policy);
    QList<MediumKeeper::State> states;
    QObject::connect(&keeper, &MediumKeeper::stateChanged,
                     [&](MediumKeeper::State state) { states += state; });
    MonitorFollower monitor(0);
    ASSERT_TRUE(monitor.start());
    const LoopDisk disk(20 * MiB, onePartition);
    ASSERT_TRUE(makeExt4(disk.node(1)) && plugIn(disk) && udevd->settle());
    EXPECT_TRUE(eventuallyInLoop([&] { return keeper.access() == StorageLocation::Write; }));
    EXPECT_EQ(states, (QList<MediumKeeper::State>{MediumKeeper::Busy, MediumKeeper::Mounted}));
    EXPECT_EQ(program.calls().size(), 1);
}

TEST_F(KeeperSample, MovedToAThread_ActsThere) {
    SystemLocation card("card", FS::SPtr(new PosixFS("/mnt/card")), &props);
    FSSwitch::rootfs()->add("/mnt/card", card.fs());
    QThread thread;
    auto* const moved = new MediumKeeper(&card);
    moved->moveToThread(&thread);
    std::atomic<int> access = 0;
    QObject::connect(
        moved, &MediumKeeper::accessChanged, moved,
        [&](StorageLocation*, StorageLocation::AccessType now) {
            EXPECT_EQ(QThread::currentThread(), &thread);
            access = now;
        },
        Qt::DirectConnection);
    QObject::connect(&thread, &QThread::finished, moved, &QObject::deleteLater);
    thread.start();
    MonitorFollower monitor(0);
    EXPECT_TRUE(monitor.start());
    LoopDisk disk(20 * MiB, onePartition);
    EXPECT_TRUE(makeExt4(disk.node(1)) && plugIn(disk));
    EXPECT_TRUE(eventuallyInLoop([&] { return access == StorageLocation::Write; }));
    EXPECT_TRUE(disk.pullOut());
    EXPECT_TRUE(eventuallyInLoop([&] { return access == StorageLocation::None; }));
    thread.quit();
    EXPECT_TRUE(thread.wait());
    EXPECT_FALSE(isMountPoint("/mnt/card"));
}

} // namespace
} // namespace oru::io::test
