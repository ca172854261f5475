// SPDX-License-Identifier: Apache-2.0
// Local media locations on loop disks: selection of the partition, mount and umount.

#include "locationdisk.h"

#include <cerrno>
#include <functional>
#include <vector>

#include <fcntl.h>

namespace oru::io::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// The EFI system partition is the largest one.
constexpr char efiAndTwoPartitions[] =
    "label: gpt\n"
    "start=1MiB, size=16MiB, type=C12A7328-F81F-11D2-BA4B-00A0C93EC93B\n"
    "start=17MiB, size=8MiB, type=linux\n"
    "start=25MiB, size=10MiB, type=linux\n";
constexpr char twoEqualPartitions[] = "label: gpt\n"
                                      "start=1MiB, size=8MiB, type=linux\n"
                                      "start=9MiB, size=8MiB, type=linux\n";

// --- selection ----------------------------------------------------------------------------------

TEST_F(LocationDisk, EfiAndTwoDataPartitions_LargerDataPartitionSelected) {
    const LoopDisk disk(40 * MiB, efiAndTwoPartitions);
    ASSERT_EQ(disk.problem(), "");
    for (const int number : {1, 2, 3})
        ASSERT_TRUE(makeExt4(disk.node(number)));
    LogCapture log("stg=11");
    insert(disk);
    expectSelected(disk.node(), disk.node(3));
    EXPECT_EQ(log.messages().filter("EFI"),
              QStringList("stg 11 card skipping EFI system partition\n"));
    EXPECT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(devicesAt(directory()), QStringList(disk.node(3)));

    // The same for a disk that is present when the monitor starts.
    ASSERT_EQ(location().umount(nullptr), 0);
    BDMon::instance()->stop();
    slot = std::make_unique<MediaLocation>("card", idPath(), directory());
    slot->followMonitor();
    ASSERT_TRUE(start().events);
    expectSelected(disk.node(), disk.node(3));
}

TEST_F(LocationDisk, TwoEqualPartitions_FirstAddedSelected) {
    const LoopDisk disk(20 * MiB, twoEqualPartitions);
    ASSERT_EQ(disk.problem(), "");
    ASSERT_TRUE(makeExt4(disk.node(1)) && makeExt4(disk.node(2)));
    ASSERT_TRUE(udevd->setIdPath(disk.name(), idPath()));
    // One by one: events sent together arrive in any order.
    ASSERT_TRUE(disk.sendUevent("add") && udevd->settle());
    ASSERT_TRUE(disk.sendUevent("add", 2) && udevd->settle());
    ASSERT_TRUE(disk.sendUevent("add", 1));
    const Batch arrived = update();
    ASSERT_TRUE(arrived.events);
    ASSERT_EQ(arrived.events->size(), 3);
    expectSelected(disk.node(), disk.node(2));

    // start() reports the partitions in the order of their numbers.
    BDMon::instance()->stop();
    const Batch present = start();
    ASSERT_TRUE(present.events);
    ASSERT_EQ(present.events->size(), 3);
    expectSelected(disk.node(), disk.node(1));
}

TEST_F(LocationDisk, AnyPartitionRemoved_SelectionCleared) {
    for (const int number : {1, 2, 3}) {
        SCOPED_TRACE(number);
        const LoopDisk disk(40 * MiB, efiAndTwoPartitions);
        ASSERT_EQ(disk.problem(), "");
        for (const int each : {1, 2, 3})
            ASSERT_TRUE(makeExt4(disk.node(each)));
        insert(disk);
        expectSelected(disk.node(), disk.node(3));
        ASSERT_TRUE(disk.removePartition(number));
        ASSERT_TRUE(update().events);
        expectNoneSelected(disk.node());
        expectRefused([&] { return location().mount(nullptr); }, NotFound);
        EXPECT_EQ(location().access(), StorageLocation::None);
        EXPECT_FALSE(isMountPoint(directory()));

        // A remaining partition is selected only after another "add" event.
        const int left = number == 3 ? 2 : 3;
        ASSERT_TRUE(disk.sendUevent("add", left));
        ASSERT_TRUE(update().events);
        expectSelected(disk.node(), disk.node(left));
        ASSERT_TRUE(unplug(disk));
        ASSERT_TRUE(update().events);
        expectNoneSelected("-");
    }
}

TEST_F(LocationDisk, DiskRemoved_OperationsFailWithNotFound) {
    const LoopDisk disk(20 * MiB, onePartition);
    ASSERT_TRUE(makeExt4(disk.node(1)));
    insert(disk);
    expectSelected(disk.node(), disk.node(1));
    ASSERT_TRUE(unplug(disk));
    ASSERT_TRUE(update().events);
    expectNoneSelected("-");
    for (const auto& call : std::vector<std::function<int()>>{
             [&] { return location().mount(nullptr); }, [&] { return location().mkReadOnly(); },
             [&] { return location().mkWriteable(); }, [&] { return location().check(); },
             [&] { return location().format(nullptr); }})
        expectRefused(call, NotFound);
    EXPECT_EQ(location().umount(nullptr), 0);
    EXPECT_THAT(program->calls(), IsEmpty());
    expectNoneSelected("-");
}

TEST_F(LocationDisk, NoPartitionTable_DiskSelected) {
    const LoopDisk disk(20 * MiB);
    ASSERT_TRUE(makeExt4(disk.node()));
    insert(disk);
    expectSelected(disk.node(), disk.node());
    EXPECT_EQ(location().check(), 0);
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"fsck", "-t", "ext4", disk.node()}));
    ASSERT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(directoriesOf(disk.node()), QStringList(directory()));
    EXPECT_TRUE(makeFile(files(), "/clip", "footage"));
    EXPECT_EQ(location().umount(nullptr), 0);
    ASSERT_TRUE(unplug(disk));
    ASSERT_TRUE(update().events);
    expectNoneSelected("-");
}

TEST_F(LocationDisk, NoFileSystem_PresentButCannotBeMounted) {
    const LoopDisk disk(20 * MiB, onePartition);
    insert(disk);
    EXPECT_EQ(location().access(), StorageLocation::Presence);
    EXPECT_EQ(field("part"), "-");
    EXPECT_EQ(field("selected"), disk.node());
    expectRefused([&] { return location().mount(nullptr); }, NotFound);
    EXPECT_EQ(location().access(), StorageLocation::None);
    EXPECT_FALSE(isMountPoint(directory()));
}

TEST_F(LocationDisk, TwoDisksInOneBatch_EachLocationUsesItsOwn) {
    MediaLocation other("other", idPath(2), directory("other"));
    other.followMonitor();
    const LoopDisk disk(20 * MiB, onePartition);
    const LoopDisk otherDisk(40 * MiB, twoPartitions);
    ASSERT_EQ(disk.problem() + otherDisk.problem(), "");
    ASSERT_TRUE(makeExt4(disk.node(1)) && makeExt4(otherDisk.node(1)) &&
                makeExt4(otherDisk.node(2)));
    ASSERT_TRUE(plugIn(otherDisk, idPath(2)));
    ASSERT_TRUE(plugIn(disk));
    const Batch batch = update();
    ASSERT_TRUE(batch.events);
    ASSERT_EQ(batch.events->size(), 5);
    expectSelected(disk.node(), disk.node(1));
    EXPECT_EQ(other.location.access(), StorageLocation::Presence);
    EXPECT_EQ(other.location.state()["disk"], otherDisk.node());
    EXPECT_EQ(other.location.state()["part"], otherDisk.node(2));

    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_EQ(other.location.mount(nullptr), 0);
    EXPECT_EQ(directoriesOf(disk.node(1)), QStringList(directory()));
    EXPECT_EQ(directoriesOf(otherDisk.node(2)), QStringList(directory("other")));
    const auto root = FSSwitch::rootfs();
    EXPECT_TRUE(makeFile(*root, directory() + "/clip", "one"));
    EXPECT_TRUE(makeFile(*root, directory("other") + "/clip", "other"));
    EXPECT_EQ(contents(files(), "/clip"), "one");
    EXPECT_EQ(contents(*other.fs, "/clip"), "other");

    ASSERT_EQ(location().umount(nullptr), 0);
    ASSERT_TRUE(unplug(disk));
    ASSERT_TRUE(update().events);
    expectNoneSelected("-");
    EXPECT_EQ(other.location.access(), StorageLocation::Write);
    EXPECT_EQ(other.location.umount(nullptr), 0);
    EXPECT_EQ(other.accessChanges, 0);
}

// --- mounting -----------------------------------------------------------------------------------

TEST_F(LocationCard, Mounted_FilesOnCard) {
    EXPECT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(field("mountOk"), "yes");
    expectMounted(StorageLocation::Write, "rw");
    EXPECT_TRUE(makeFile(files(), "/clip", "footage"));
    EXPECT_EQ(contents(*FSSwitch::rootfs(), directory() + "/clip"), "footage");
    EXPECT_TRUE(makeFile(*FSSwitch::rootfs(), directory() + "/second", "more"));

    EXPECT_EQ(location().umount(nullptr), 0);
    expectNotMounted(StorageLocation::Presence);
    struct stat st;
    EXPECT_EQ(files().stat("/clip", st), -1);
    EXPECT_EQ(errno, ENOENT);

    EXPECT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(contents(files(), "/clip"), "footage");
    EXPECT_EQ(contents(files(), "/second"), "more");
}

TEST_F(LocationCard, MountedAgain_SameMountWithOtherOptions) {
    EXPECT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(location().mount(&readonlyFalse), 0); // the value is ignored
    expectMounted(StorageLocation::Read, "ro");
    EXPECT_EQ(location().mount(nullptr), 0);
    expectMounted(StorageLocation::Write, "rw");
}

TEST_F(LocationCard, MkReadOnlyThenMkWriteable_AccessStaysRead) {
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_TRUE(makeFile(files(), "/clip", "footage"));
    EXPECT_EQ(location().mkReadOnly(), 0);
    expectMounted(StorageLocation::Read, "ro");
    EXPECT_EQ(contents(files(), "/clip"), "footage");
    EXPECT_FALSE(files().open("/second", O_RDWR | O_CREAT, 0644));
    EXPECT_EQ(errno, EROFS);

    EXPECT_EQ(location().mkWriteable(), 0);
    expectMounted(StorageLocation::Read, "rw"); // access() does not change
    EXPECT_TRUE(makeFile(files(), "/second", "more"));
    EXPECT_EQ(location().mkReadOnly(), 0); // access() is Read already: nothing to do
    expectMounted(StorageLocation::Read, "rw");

    EXPECT_EQ(location().mount(nullptr), 0);
    expectMounted(StorageLocation::Write, "rw");
    EXPECT_EQ(location().mkWriteable(), 0);
    EXPECT_EQ(location().mkReadOnly(), 0);
    expectMounted(StorageLocation::Read, "ro");
}

TEST_F(LocationCard, MkReadOnlyNotMounted_MountsReadOnly) {
    EXPECT_EQ(location().mkReadOnly(), 0);
    expectMounted(StorageLocation::Read, "ro");
    EXPECT_EQ(location().umount(nullptr), 0);
    expectNotMounted(StorageLocation::Presence);
}

TEST_F(LocationCard, MkWriteableNotMounted_LocationStateUnchanged) {
    EXPECT_EQ(location().mkWriteable(), 0);
    EXPECT_EQ(options(), QStringList({"rw", "noexec", "noatime"}));
    EXPECT_EQ(location().access(), StorageLocation::Presence);
    EXPECT_EQ(field("mounted"), "no");
    EXPECT_EQ(field("mountOk"), "no");
    EXPECT_EQ(location().umount(nullptr), 0); // not mounted by mount(): nothing to do
    EXPECT_EQ(devicesAt(directory()), QStringList(card->node(1)));
}

TEST_F(LocationCard, MkReadOnlyWithFileOpenForWriting_FailsAndStaysMounted) {
    ASSERT_EQ(location().mount(nullptr), 0);
    const QSharedPointer<File> file = files().open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    expectRefused([&] { return location().mkReadOnly(); }, NotFound);
    expectMounted(StorageLocation::None, "rw");
    EXPECT_EQ(field("mountOk"), "no");
    EXPECT_EQ(file->write("footage", 4), 4);
    EXPECT_EQ(file->close(), 0);
    EXPECT_EQ(location().umount(nullptr), 0);
    expectNotMounted(StorageLocation::None);
}

TEST_F(LocationCard, CallersMountPoint_NeededByUmountToo) {
    Properties elsewhere = {{"mountPoint", directory("else/where")}};
    EXPECT_EQ(location().mount(&elsewhere), 0);
    EXPECT_EQ(location().access(), StorageLocation::Write);
    EXPECT_EQ(directoriesOf(card->node(1)), QStringList(directory("else/where")));
    EXPECT_EQ(location().umount(&elsewhere), 0);
    expectNotMounted(StorageLocation::Presence);
}

TEST_F(LocationCard, UmountWithFileOpen_EBUSYUnlessLazy) {
    ASSERT_EQ(location().mount(nullptr), 0);
    const QSharedPointer<File> file = files().open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    EXPECT_EQ(location().umount(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    expectMounted(StorageLocation::Write, "rw");
    EXPECT_EQ(field("mountOk"), "yes");

    EXPECT_EQ(location().umount(&lazyFalse), 0); // the value is ignored
    expectNotMounted(StorageLocation::Presence);
    EXPECT_EQ(file->write("still", 5), 5);
    EXPECT_EQ(file->fsync(), 0);
    EXPECT_EQ(file->close(), 0);
    ASSERT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(contents(files(), "/clip"), "still");
}

TEST_F(LocationCard, DisableWhileMounted_Fails) {
    EXPECT_EQ(location().enable(), 0);
    for (Properties* how : {static_cast<Properties*>(nullptr), &readonlyFalse}) {
        ASSERT_EQ(location().mount(how), 0);
        LogCapture log("stg=9");
        expectRefused([&] { return location().disable(); }, Ok);
        EXPECT_THAT(log.messages(),
                    ElementsAre(QString("stg 9 card: disable of mounted media fails\n")));
        EXPECT_EQ(field("enabled"), "yes");
        EXPECT_TRUE(isMountPoint(directory()));
    }
    ASSERT_EQ(location().umount(nullptr), 0);
    EXPECT_EQ(location().disable(), 0);
    EXPECT_EQ(field("enabled"), "no");
}

} // namespace
} // namespace oru::io::test
