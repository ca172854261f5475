// SPDX-License-Identifier: Apache-2.0
// MediumKeeper on loop disks, with a real udevd and the real maintenance program.

#include "keptdisk.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>

namespace oru::io::test {
namespace {

using testing::IsEmpty;

// --- arrival and removal ------------------------------------------------------------------------

TEST_F(KeptDisk, PartitionsInLaterBatches_MountedWhenAllHaveArrived) {
    keep();
    const LoopDisk disk(40 * MiB, twoPartitions);
    ASSERT_TRUE(makeExt4(disk.node(1)) && makeExt4(disk.node(2)));
    ASSERT_TRUE(udevd->setIdPath(disk.name(), idPath()));
    ASSERT_TRUE(disk.sendUevent("add"));
    ASSERT_TRUE(update().events);
    EXPECT_EQ(keeper->state(), MediumKeeper::Arriving);
    EXPECT_EQ(keeper->access(), StorageLocation::Presence);
    ASSERT_TRUE(disk.sendUevent("add", 1));
    ASSERT_TRUE(update().events);
    EXPECT_EQ(keeper->state(), MediumKeeper::Arriving) << "a larger partition is still to come";
    EXPECT_FALSE(isMountPoint(directory()));
    ASSERT_TRUE(disk.sendUevent("add", 2));
    ASSERT_TRUE(update().events);
    expectMounted(disk.node(2), StorageLocation::Write);
    EXPECT_EQ(changes, QStringList({"Presence", "Write"}));
}

TEST_F(KeptDisk, PartitionThatUdevNeverReports_MountedAfterArrivalTime) {
    MediumKeeper::Policy policy;
    policy.arrivalMs = 50;
    keep(policy);
    const LoopDisk disk(40 * MiB, twoPartitions);
    ASSERT_TRUE(makeExt4(disk.node(1)));
    ASSERT_TRUE(udevd->setIdPath(disk.name(), idPath()));
    ASSERT_TRUE(disk.sendUevent("add") && disk.sendUevent("add", 1));
    ASSERT_TRUE(update().events);
    EXPECT_TRUE(eventually([&] {
        keeper->step();
        return keeper->access() == StorageLocation::Write;
    }));
    expectMounted(disk.node(1), StorageLocation::Write);
}

TEST_F(KeptDisk, RemovedWhileRecording_UnmountedAndNextCardMounted) {
    keep();
    const auto card = insertCard();
    const QSharedPointer<File> clip = files().open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(clip);
    ASSERT_EQ(clip->write("film", 4), 4);
    ASSERT_TRUE(card->pullOut());
    ASSERT_TRUE(update().events);
    EXPECT_EQ(keeper->access(), StorageLocation::None);
    EXPECT_EQ(keeper->state(), MediumKeeper::Absent);
    EXPECT_FALSE(isMountPoint(directory()));
    udevd->clearIdPath(card->name());

    const auto next = insertCard(); // while the file of the former one is open
    expectMounted(next->node(1), StorageLocation::Write);
    EXPECT_TRUE(makeFile(files(), "/next", "more"));
    EXPECT_EQ(clip->close(), 0);
    EXPECT_EQ(changes, QStringList({"Write", "None", "Write"}));
}

TEST_F(KeptDisk, RemovedAndInsertedInOneBatch_NewMediumMounted) {
    keep();
    const auto card = insertCard();
    const int former = mountId();
    // The former mount keeps its number as long as this file is open.
    const QSharedPointer<File> clip = files().open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(card->sendUevent("remove", 1) && card->sendUevent("remove"));
    ASSERT_TRUE(udevd->settle() && card->sendUevent("add") && card->sendUevent("add", 1));
    ASSERT_TRUE(update().events);
    expectMounted(card->node(1), StorageLocation::Write);
    EXPECT_NE(mountId(), former);
}

TEST_F(KeptDisk, ExchangedUnderItsName_NewMediumMounted) {
    keep();
    const auto card = insertCard();
    ASSERT_EQ(keeper->unmount(), 0);
    ASSERT_TRUE(card->exchange());
    ASSERT_TRUE(plugIn(*card));
    ASSERT_TRUE(update().events);
    expectMounted(card->node(1), StorageLocation::Write);
}

TEST_F(KeptDisk, ReportedAgainWhileRecording_StaysMounted) {
    keep();
    const auto card = insertCard();
    const int mount = mountId();
    const QSharedPointer<File> clip = files().open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(clip);
    for (const int partition : {1, 0}) {
        for (const char* action : {"add", "change"}) {
            ASSERT_TRUE(card->sendUevent(action, partition));
            ASSERT_TRUE(update().events);
            expectMounted(card->node(1), StorageLocation::Write);
        }
    }
    ASSERT_EQ(runTool({"e2label", card->node(1), "RENAMED"}).status, 0);
    ASSERT_TRUE(card->sendUevent("change", 1));
    ASSERT_TRUE(update().events);
    expectMounted(card->node(1), StorageLocation::Write);
    EXPECT_EQ(mountId(), mount);
    EXPECT_EQ(clip->write("film", 4), 4);
    EXPECT_EQ(clip->close(), 0);
    EXPECT_EQ(keeper->unmount(), 0) << std::strerror(errno);
    EXPECT_FALSE(isMountPoint(directory()));
}

TEST_F(KeptDisk, SiblingAddedAndRemoved_StaysMounted) {
    keep();
    const LoopDisk disk(40 * MiB, twoPartitions);
    ASSERT_TRUE(makeExt4(disk.node(2)));
    ASSERT_TRUE(plugIn(disk) && update().events);
    expectMounted(disk.node(2), StorageLocation::Write);
    const int mount = mountId();
    ASSERT_TRUE(makeExt4(disk.node(1)) && disk.sendUevent("change", 1));
    ASSERT_TRUE(update().events);
    ASSERT_TRUE(disk.removePartition(1));
    ASSERT_TRUE(update().events);
    expectMounted(disk.node(2), StorageLocation::Write);
    EXPECT_EQ(mountId(), mount);
}

TEST_F(KeptDisk, MountedBeforeTheProgram_Adopted) {
    keep();
    const LoopDisk card(20 * MiB, onePartition);
    ASSERT_TRUE(makeExt4(card.node(1)) && QDir().mkpath(directory()));
    ASSERT_EQ(::mount(qPrintable(card.node(1)), qPrintable(directory()), "ext4", 0, nullptr), 0);
    const int mount = mountId();
    ASSERT_TRUE(plugIn(card) && update().events);
    expectMounted(card.node(1), StorageLocation::Write);
    EXPECT_EQ(mountId(), mount);
    EXPECT_EQ(keeper->mount(StorageLocation::Read), 0);
    expectMounted(card.node(1), StorageLocation::Read);
    EXPECT_EQ(keeper->unmount(), 0);
    EXPECT_FALSE(isMountPoint(directory()));
}

// --- how it is mounted --------------------------------------------------------------------------

TEST_F(KeptDisk, ReadOnlyCard_MountedReadOnly) {
    keep();
    const LoopDisk card(20 * MiB, onePartition);
    ASSERT_TRUE(makeExt4(card.node(1)));
    ASSERT_TRUE(card.setWriteProtected(true));
    ASSERT_TRUE(plugIn(card) && update().events);
    expectMounted(card.node(1), StorageLocation::Read);
    EXPECT_EQ(changes, QStringList({"Read"}));
}

TEST_F(KeptDisk, PolicyReadOnlyOrByHand_MountedSo) {
    MediumKeeper::Policy policy;
    policy.mount = MediumKeeper::Policy::Mount::ReadOnly;
    keep(policy);
    auto card = insertCard();
    expectMounted(card->node(1), StorageLocation::Read);
    EXPECT_EQ(keeper->mount(StorageLocation::Write), 0) << std::strerror(errno);
    expectMounted(card->node(1), StorageLocation::Write);
    ASSERT_EQ(keeper->unmount(), 0);

    policy.mount = MediumKeeper::Policy::Mount::ByHand;
    keep(policy);
    ASSERT_TRUE(card->sendUevent("remove") && udevd->settle());
    ASSERT_TRUE(card->plugIn() && update().events);
    EXPECT_EQ(keeper->state(), MediumKeeper::Present);
    EXPECT_EQ(keeper->access(), StorageLocation::Presence);
    EXPECT_EQ(keeper->mount(StorageLocation::None), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(keeper->mount(), 0);
    expectMounted(card->node(1), StorageLocation::Write);
}

TEST_F(KeptDisk, MountFails_ReasonKnownAndGoodCardMounted) {
    keep();
    const LoopDisk bad(20 * MiB, onePartition);
    ASSERT_TRUE(makeExt4(bad.node(1)) && plugIn(bad) && udevd->settle());
    QFile node(bad.node(1));
    ASSERT_TRUE(node.open(QFile::WriteOnly) && node.write(QByteArray(65536, '\0')) == 65536);
    node.close();
    ASSERT_TRUE(update().events);
    EXPECT_EQ(keeper->state(), MediumKeeper::Failed);
    EXPECT_EQ(keeper->reason(), std::strerror(EINVAL));
    EXPECT_EQ(keeper->access(), StorageLocation::Presence) << "it is there";
    EXPECT_EQ(keeper->mount(), -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_TRUE(unplug(bad) && update().events);
    EXPECT_EQ(keeper->state(), MediumKeeper::Absent);
    EXPECT_EQ(keeper->reason(), "");
    const auto good = insertCard();
    expectMounted(good->node(1), StorageLocation::Write);
}

TEST_F(KeptDisk, NoFileSystem_FailedUntilItIsMade) {
    keep();
    const LoopDisk card(20 * MiB, onePartition);
    ASSERT_TRUE(plugIn(card) && update().events);
    EXPECT_EQ(keeper->state(), MediumKeeper::Failed);
    EXPECT_EQ(keeper->access(), StorageLocation::Presence);
    ASSERT_TRUE(makeExt4(card.node(1)) && card.sendUevent("change", 1));
    ASSERT_TRUE(update().events);
    expectMounted(card.node(1), StorageLocation::Write);
}

TEST_F(KeptDisk, TypeUnknownToUdev_MountedAsThePolicySays) {
    MediumKeeper::Policy policy;
    policy.unknownType = "ext4";
    keep(policy);
    const LoopDisk card(20 * MiB, onePartition);
    ASSERT_TRUE(plugIn(card) && udevd->settle() && makeExt4(card.node(1)));
    ASSERT_TRUE(update().events);
    expectMounted(card.node(1), StorageLocation::Write);
}

TEST_F(KeptDisk, PolicyAccepts_OtherPartitionsNotSelected) {
    MediumKeeper::Policy policy;
    policy.accepts = [](const BlockDevice& device) { return device.m_partNum == 1; };
    keep(policy);
    const LoopDisk disk(40 * MiB, twoPartitions);
    ASSERT_TRUE(makeExt4(disk.node(1)) && makeExt4(disk.node(2)));
    ASSERT_TRUE(plugIn(disk) && update().events);
    expectMounted(disk.node(1), StorageLocation::Write);
}

// --- unmounting ---------------------------------------------------------------------------------

TEST_F(KeptDisk, MountPointWithBlank_Unmounted) {
    keep({}, "my card");
    const auto card = insertCard();
    EXPECT_EQ(devicesAt(directory("my card")), QStringList(card->node(1)));
    EXPECT_EQ(keeper->unmount(), 0) << std::strerror(errno);
    EXPECT_THAT(devicesAt(directory("my card")), IsEmpty());
    EXPECT_EQ(keeper->access(), StorageLocation::Presence);
    EXPECT_EQ(keeper->mount(), 0);
    ASSERT_TRUE(card->pullOut() && update().events);
    EXPECT_THAT(devicesAt(directory("my card")), IsEmpty());
}

TEST_F(KeptDisk, UnmountWithFileOpen_EBUSYUnlessLazy) {
    keep();
    const auto card = insertCard();
    const QSharedPointer<File> clip = files().open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(clip);
    EXPECT_EQ(keeper->unmount(), -1);
    EXPECT_EQ(errno, EBUSY);
    expectMounted(card->node(1), StorageLocation::Write);
    EXPECT_EQ(keeper->unmount(true), 0);
    EXPECT_EQ(keeper->state(), MediumKeeper::Present);
    ASSERT_TRUE(card->sendUevent("add", 1) && update().events);
    EXPECT_EQ(keeper->state(), MediumKeeper::Present) << "until mount() or another medium";
    EXPECT_EQ(clip->close(), 0);
}

TEST_F(KeptDisk, UnmountedByAnotherProgram_MountedAgain) {
    keep();
    const auto card = insertCard();
    ASSERT_EQ(umount(qPrintable(directory())), 0);
    keeper->step();
    expectMounted(card->node(1), StorageLocation::Write);
}

// --- check and format ---------------------------------------------------------------------------

TEST_F(KeptDisk, CheckWhenDirty_OnlyDirtyCardChecked) {
    MediumKeeper::Policy policy;
    policy.check = MediumKeeper::Policy::Check::WhenDirty;
    keep(policy);
    const auto clean = insertCard();
    expectMounted(clean->node(1), StorageLocation::Write);
    EXPECT_THAT(program->calls(), IsEmpty());
    ASSERT_EQ(keeper->unmount(), 0);
    ASSERT_TRUE(unplug(*clean) && update().events);

    const LoopDisk dirty(20 * MiB, onePartition);
    ASSERT_TRUE(makeExt4(dirty.node(1)) && markErrors(dirty.node(1)));
    ASSERT_TRUE(plugIn(dirty) && update().events);
    EXPECT_EQ(keeper->state(), MediumKeeper::Busy);
    EXPECT_EQ(keeper->unmount(), -1);
    EXPECT_EQ(errno, EBUSY);
    awaitJob();
    EXPECT_EQ(statuses, QList<int>{0});
    EXPECT_EQ(program->calls().size(), 1);
    expectMounted(dirty.node(1), StorageLocation::Write);
}

TEST_F(KeptDisk, CheckFails_NotMountedExceptByHand) {
    program.reset();
    program = std::make_unique<MaintenanceProgram>("exit 41");
    MediumKeeper::Policy policy;
    policy.check = MediumKeeper::Policy::Check::Always;
    keep(policy);
    const LoopDisk card(20 * MiB, onePartition);
    ASSERT_TRUE(makeExt4(card.node(1)) && plugIn(card) && update().events);
    awaitJob();
    EXPECT_EQ(statuses, QList<int>{41});
    EXPECT_EQ(keeper->state(), MediumKeeper::Failed);
    EXPECT_EQ(keeper->reason(), "its check has failed (41)");
    EXPECT_FALSE(isMountPoint(directory()));
    EXPECT_EQ(keeper->mount(), 0);
    expectMounted(card.node(1), StorageLocation::Write);
}

TEST_F(KeptDisk, Format_EventsFollowedAndNewFileSystemMounted) {
    const QString missing = missingToFormat();
    if (!missing.isEmpty())
        GTEST_SKIP() << missing.toStdString() << " is not installed";
    program.reset();
    program = std::make_unique<MaintenanceProgram>("sleep 0.2; exit 0");
    keep();
    const auto card = insertCard();
    EXPECT_EQ(keeper->format(), -1);
    EXPECT_EQ(errno, EBUSY) << "it is mounted";
    ASSERT_EQ(keeper->unmount(), 0);
    ASSERT_EQ(keeper->format(), 0) << std::strerror(errno);
    EXPECT_EQ(keeper->state(), MediumKeeper::Busy);
    EXPECT_TRUE(keeper->job());
    EXPECT_EQ(keeper->check(), -1);
    EXPECT_EQ(errno, EBUSY);
    awaitJob();
    EXPECT_EQ(statuses, QList<int>{0});
    EXPECT_EQ(program->calls(), QList<QStringList>({{"format", card->node()}}));
    EXPECT_EQ(keeper->state(), MediumKeeper::Present);
    EXPECT_EQ(keeper->mount(), 0);
    ASSERT_EQ(keeper->unmount(), 0);
    ASSERT_EQ(keeper->check(), 0);
    awaitJob();
    EXPECT_EQ(program->calls().last().first(), "fsck");
}

TEST_F(KeptDisk, PulledOutDuringFormat_AbsentAndNextCardMounted) {
    program.reset();
    program = std::make_unique<MaintenanceProgram>("sleep 1; exit 5");
    keep();
    const auto card = insertCard();
    ASSERT_EQ(keeper->unmount(), 0);
    ASSERT_EQ(keeper->format(), 0);
    ASSERT_TRUE(unplug(*card) && update().events);
    EXPECT_EQ(keeper->access(), StorageLocation::None);
    awaitJob();
    EXPECT_EQ(statuses, QList<int>{5});
    EXPECT_EQ(keeper->state(), MediumKeeper::Absent);
    EXPECT_EQ(keeper->format(), -1);
    EXPECT_EQ(errno, ENODEV);
    const auto next = insertCard();
    expectMounted(next->node(1), StorageLocation::Write);
}

} // namespace
} // namespace oru::io::test
