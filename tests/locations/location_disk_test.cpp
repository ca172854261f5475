// Locations of local media on real disks, with the kernel's file systems, a real udevd and the real
// maintenance program.
#include <oruio/error.h>
#include <oruio/fsswitch.h>
#include <oruio/storagelocation.h>

#include "support/doubles/maintenanceprogram.h"
#include "support/suite/logcapture.h"
#include "support/system/childprocess.h"
#include "support/system/disktest.h"
#include "support/system/files.h"
#include "support/system/medialocation.h"
#include "support/system/mounts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <fcntl.h>

namespace oru::io::test {
namespace {

using testing::AnyOf;
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

/// With one slot.
class LocationDisk : public MonitorTest {
protected:
    void SetUp() override {
        MonitorTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        program = std::make_unique<MaintenanceProgram>(realMaintenance);
        ASSERT_EQ(program->problem(), "");
        slot = std::make_unique<MediaLocation>("card", idPath(), directory());
        slot->followMonitor();
        ASSERT_FALSE(start().events);
    }
    void TearDown() override {
        if (slot) {
            EXPECT_EQ(slot->changesTold, 0) << "that is for the owner";
        }
    }

    OpenLocation& location() {
        return slot->location;
    }
    FS& files() {
        return slot->files();
    }
    QString fact(const char* name) {
        return slot->fact(name);
    }
    void insert(const LoopDisk& disk) {
        ASSERT_EQ(disk.problem(), "");
        ASSERT_TRUE(plugIn(disk));
        ASSERT_TRUE(update().events);
    }
    /// The location has no selected partition; `disk` is what it knows of a disk.
    void expectNoneSelected(const QString& disk) {
        EXPECT_EQ(location().access(), StorageLocation::None);
        EXPECT_EQ(fact("present"), "no");
        EXPECT_EQ(fact("disk"), disk);
        EXPECT_EQ(fact("part"), "-");
    }
    void expectSelected(const QString& disk, const QString& part) {
        slot->expectSelected(disk, part);
    }

    const OwnSwitch ownSwitch;
    std::unique_ptr<MaintenanceProgram> program;
    std::unique_ptr<MediaLocation> slot;
};

// --- what is selected ---------------------------------------------------------------------------

TEST_F(LocationDisk, EfiAndTwoDataPartitions_LargerDataPartitionIsSelected) {
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

    // The same when it was there before the monitor.
    ASSERT_EQ(location().umount(nullptr), 0);
    BDMon::instance()->stop();
    slot = std::make_unique<MediaLocation>("card", idPath(), directory());
    slot->followMonitor();
    ASSERT_TRUE(start().events);
    expectSelected(disk.node(), disk.node(3));
}

TEST_F(LocationDisk, TwoOfEqualSize_FirstToArriveIsSelected) {
    const LoopDisk disk(20 * MiB, twoEqualPartitions);
    ASSERT_EQ(disk.problem(), "");
    ASSERT_TRUE(makeExt4(disk.node(1)) && makeExt4(disk.node(2)));
    ASSERT_TRUE(udevd->setIdPath(disk.name(), idPath()));
    // One by one: together they come in any order.
    ASSERT_TRUE(disk.tell("add") && udevd->settle());
    ASSERT_TRUE(disk.tell("add", 2) && udevd->settle());
    ASSERT_TRUE(disk.tell("add", 1));
    const Batch arrived = update();
    ASSERT_TRUE(arrived.events);
    ASSERT_EQ(arrived.events->size(), 3);
    expectSelected(disk.node(), disk.node(2));

    // What is there already is told of in the order of its numbers.
    BDMon::instance()->stop();
    const Batch present = start();
    ASSERT_TRUE(present.events);
    ASSERT_EQ(present.events->size(), 3);
    expectSelected(disk.node(), disk.node(1));
}

TEST_F(LocationDisk, AnyPartitionRemoved_EndsTheSelection) {
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

        // Of those that are left, only what is told of anew is taken.
        const int left = number == 3 ? 2 : 3;
        ASSERT_TRUE(disk.tell("add", left));
        ASSERT_TRUE(update().events);
        expectSelected(disk.node(), disk.node(left));
        ASSERT_TRUE(unplug(disk));
        ASSERT_TRUE(update().events);
        expectNoneSelected("-");
    }
}

TEST_F(LocationDisk, DiskRemoved_LeavesNothingToDo) {
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

TEST_F(LocationDisk, WithoutATable_IsItsOwnPartition) {
    const LoopDisk disk(20 * MiB);
    ASSERT_TRUE(makeExt4(disk.node()));
    insert(disk);
    expectSelected(disk.node(), disk.node());
    EXPECT_EQ(location().check(), 0);
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"fsck", "-t", "ext4", disk.node()}));
    ASSERT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(directoriesOf(disk.node()), QStringList(directory()));
    EXPECT_TRUE(makeFile(files(), "/clip", "film"));
    EXPECT_EQ(location().umount(nullptr), 0);
    ASSERT_TRUE(unplug(disk));
    ASSERT_TRUE(update().events);
    expectNoneSelected("-");
}

TEST_F(LocationDisk, WithoutAFileSystem_IsPresentButCannotBeMounted) {
    const LoopDisk disk(20 * MiB, onePartition);
    insert(disk);
    EXPECT_EQ(location().access(), StorageLocation::Presence);
    EXPECT_EQ(fact("part"), "-");
    EXPECT_EQ(fact("selected"), disk.node());
    expectRefused([&] { return location().mount(nullptr); }, NotFound);
    EXPECT_EQ(location().access(), StorageLocation::None);
    EXPECT_FALSE(isMountPoint(directory()));
}

TEST_F(LocationDisk, TwoDisksInOneBatch_EachLocationTakesItsOwn) {
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
    EXPECT_EQ(other.location.facts()["disk"], otherDisk.node());
    EXPECT_EQ(other.location.facts()["part"], otherDisk.node(2));

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
    EXPECT_EQ(other.changesTold, 0);
}

// --- mounting -----------------------------------------------------------------------------------

/// A card with one partition is in the slot.
class LocationCard : public LocationDisk {
protected:
    void SetUp() override {
        LocationDisk::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        card = makeCard();
        insert(*card);
    }

    static std::unique_ptr<LoopDisk> makeCard() {
        auto made = std::make_unique<LoopDisk>(64 * MiB, onePartition);
        EXPECT_TRUE(makeExt4(made->node(1)));
        return made;
    }
    /// "rw" or "ro", and the rest, as the kernel has them; nothing unless it is mounted once.
    QStringList options() const {
        const QList<Mount> mounts = mountsOf(card->node(1));
        return mounts.size() == 1 ? mounts[0].options : QStringList();
    }
    /// The location is mounted so, with all that the kernel has to say of that.
    void expectMounted(StorageLocation::AccessType access, const char* option) {
        EXPECT_EQ(location().access(), access);
        EXPECT_EQ(fact("mounted"), "yes");
        EXPECT_EQ(devicesAt(directory()), QStringList(card->node(1)));
        EXPECT_EQ(options(), QStringList({option, "noexec", "noatime"}));
    }
    void expectNotMounted(StorageLocation::AccessType access) {
        EXPECT_EQ(location().access(), access);
        EXPECT_EQ(fact("mounted"), "no");
        EXPECT_EQ(fact("mountOk"), "no");
        EXPECT_FALSE(isMountPoint(directory()));
        EXPECT_THAT(mountsOf(card->node(1)), IsEmpty());
    }

    Properties readonlyFalse = {{"readonly", false}};
    Properties lazyFalse = {{"lazy", false}};
    std::unique_ptr<LoopDisk> card;
};

TEST_F(LocationCard, Mounted_FilesAreOnTheCard) {
    EXPECT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(fact("mountOk"), "yes");
    expectMounted(StorageLocation::Write, "rw");
    EXPECT_TRUE(makeFile(files(), "/clip", "film"));
    EXPECT_EQ(contents(*FSSwitch::rootfs(), directory() + "/clip"), "film");
    EXPECT_TRUE(makeFile(*FSSwitch::rootfs(), directory() + "/second", "more"));

    EXPECT_EQ(location().umount(nullptr), 0);
    expectNotMounted(StorageLocation::Presence);
    struct stat st;
    EXPECT_EQ(files().stat("/clip", st), -1);
    EXPECT_EQ(errno, ENOENT);

    EXPECT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(contents(files(), "/clip"), "film");
    EXPECT_EQ(contents(files(), "/second"), "more");
}

TEST_F(LocationCard, MountedAgain_IsTheSameMountWithOtherOptions) {
    EXPECT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(location().mount(&readonlyFalse), 0); // that it is there counts
    expectMounted(StorageLocation::Read, "ro");
    EXPECT_EQ(location().mount(nullptr), 0);
    expectMounted(StorageLocation::Write, "rw");
}

TEST_F(LocationCard, MkReadOnlyAndBack_OnlyTheMediumIsMadeWriteable) {
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_TRUE(makeFile(files(), "/clip", "film"));
    EXPECT_EQ(location().mkReadOnly(), 0);
    expectMounted(StorageLocation::Read, "ro");
    EXPECT_EQ(contents(files(), "/clip"), "film");
    EXPECT_FALSE(files().open("/second", O_RDWR | O_CREAT, 0644));
    EXPECT_EQ(errno, EROFS);

    EXPECT_EQ(location().mkWriteable(), 0);
    expectMounted(StorageLocation::Read, "rw"); // what access() tells stays
    EXPECT_TRUE(makeFile(files(), "/second", "more"));
    EXPECT_EQ(location().mkReadOnly(), 0); // for the location it is
    expectMounted(StorageLocation::Read, "rw");

    EXPECT_EQ(location().mount(nullptr), 0);
    expectMounted(StorageLocation::Write, "rw");
    EXPECT_EQ(location().mkWriteable(), 0);
    EXPECT_EQ(location().mkReadOnly(), 0);
    expectMounted(StorageLocation::Read, "ro");
}

TEST_F(LocationCard, MkReadOnlyOfWhatIsNotMounted_MountsIt) {
    EXPECT_EQ(location().mkReadOnly(), 0);
    expectMounted(StorageLocation::Read, "ro");
    EXPECT_EQ(location().umount(nullptr), 0);
    expectNotMounted(StorageLocation::Presence);
}

TEST_F(LocationCard, MkWriteableOfWhatIsNotMounted_LocationDoesNotNotice) {
    EXPECT_EQ(location().mkWriteable(), 0);
    EXPECT_EQ(options(), QStringList({"rw", "noexec", "noatime"}));
    EXPECT_EQ(location().access(), StorageLocation::Presence);
    EXPECT_EQ(fact("mounted"), "no");
    EXPECT_EQ(fact("mountOk"), "no");
    EXPECT_EQ(location().umount(nullptr), 0); // of nothing
    EXPECT_EQ(devicesAt(directory()), QStringList(card->node(1)));
}

TEST_F(LocationCard, MkReadOnlyWhileAFileIsWritten_FailsAndIsStillMounted) {
    ASSERT_EQ(location().mount(nullptr), 0);
    const QSharedPointer<File> file = files().open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    expectRefused([&] { return location().mkReadOnly(); }, NotFound);
    expectMounted(StorageLocation::None, "rw");
    EXPECT_EQ(fact("mountOk"), "no");
    EXPECT_EQ(file->write("film", 4), 4);
    EXPECT_EQ(file->close(), 0);
    EXPECT_EQ(location().umount(nullptr), 0);
    expectNotMounted(StorageLocation::None);
}

TEST_F(LocationCard, MountPointOfTheCaller_HasToBeGivenToUmountAsWell) {
    Properties elsewhere = {{"mountPoint", directory("else/where")}};
    EXPECT_EQ(location().mount(&elsewhere), 0);
    EXPECT_EQ(location().access(), StorageLocation::Write);
    EXPECT_EQ(directoriesOf(card->node(1)), QStringList(directory("else/where")));
    EXPECT_EQ(location().umount(&elsewhere), 0);
    expectNotMounted(StorageLocation::Presence);
}

TEST_F(LocationCard, UmountWhileAFileIsOpen_EBUSYUnlessLazy) {
    ASSERT_EQ(location().mount(nullptr), 0);
    const QSharedPointer<File> file = files().open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    EXPECT_EQ(location().umount(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    expectMounted(StorageLocation::Write, "rw");
    EXPECT_EQ(fact("mountOk"), "yes");

    EXPECT_EQ(location().umount(&lazyFalse), 0); // that it is there counts
    expectNotMounted(StorageLocation::Presence);
    EXPECT_EQ(file->write("still", 5), 5);
    EXPECT_EQ(file->fsync(), 0);
    EXPECT_EQ(file->close(), 0);
    ASSERT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(contents(files(), "/clip"), "still");
}

TEST_F(LocationCard, DisableWhileMounted_IsRefused) {
    EXPECT_EQ(location().enable(), 0);
    for (Properties* how : {static_cast<Properties*>(nullptr), &readonlyFalse}) {
        ASSERT_EQ(location().mount(how), 0);
        LogCapture log("stg=9");
        expectRefused([&] { return location().disable(); }, Ok);
        EXPECT_THAT(log.messages(),
                    ElementsAre(QString("stg 9 card: disable of mounted media fails\n")));
        EXPECT_EQ(fact("enabled"), "yes");
        EXPECT_TRUE(isMountPoint(directory()));
    }
    ASSERT_EQ(location().umount(nullptr), 0);
    EXPECT_EQ(location().disable(), 0);
    EXPECT_EQ(fact("enabled"), "no");
}

// --- maintenance --------------------------------------------------------------------------------

TEST_F(LocationCard, CheckOfASoundCard_FindsNothing) {
    EXPECT_EQ(location().check(), 0);
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"fsck", "-t", "ext4", card->node(1)}));
    EXPECT_EQ(location().access(), StorageLocation::Presence);
}

TEST_F(LocationCard, CheckOfADamagedCard_RepairsIt) {
    ASSERT_TRUE(makeDamagedExt4(card->node(1), directory("source")) && noteErrors(card->node(1)));
    EXPECT_EQ(location().check(), 0);
    EXPECT_EQ(program->calls().size(), 1);
    EXPECT_TRUE(isSoundExt4(card->node(1)));
    ASSERT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(contents(files(), "/file"), "precious");
    struct stat st;
    EXPECT_EQ(files().stat("/lost", st), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(LocationCard, CheckWhileMounted_IsTriedAndFails) {
    ASSERT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(location().check(), inUse);
    EXPECT_EQ(program->calls().size(), FSCK_RETRIES);
    expectMounted(StorageLocation::Write, "rw");
}

TEST_F(LocationCard, FormatWhileMounted_IsRefusedWithoutTheProgram) {
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_TRUE(makeFile(files(), "/clip", "film"));
    LogCapture log("stg=11");
    expectRefused([&] { return location().format(nullptr); }, NotFound);
    EXPECT_THAT(log.messages(),
                ElementsAre(QString("stg 11 mounted: T blkdev: %1\n").arg(card->node()),
                            QString("stg 9 card:Format request while device is mounted fails\n")));
    EXPECT_THAT(program->calls(), IsEmpty());
    expectMounted(StorageLocation::Write, "rw");
    EXPECT_EQ(contents(files(), "/clip"), "film");
}

TEST_F(LocationCard, Formatted_NewPartitionIsSelected) {
    const QString tool = missingToFormat();
    if (!tool.isEmpty())
        GTEST_SKIP() << tool.toStdString() << " is not installed";
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_EQ(location().umount(nullptr), 0);
    EXPECT_EQ(location().format(nullptr), 0);
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"format", card->node()}));
    expectFormatted(*card);

    // The partition was removed and added.
    ASSERT_TRUE(update().events);
    expectSelected(card->node(), card->node(1));
    EXPECT_EQ(location().selectedPart()->m_fsType, "vfat");
}

// It is larger than its new partition, and nobody tells the location what it is now.
TEST_F(LocationDisk, FormattedWithoutATable_DiskStaysSelectedUntilItIsPluggedInAgain) {
    const QString tool = missingToFormat();
    if (!tool.isEmpty())
        GTEST_SKIP() << tool.toStdString() << " is not installed";
    const LoopDisk disk(64 * MiB);
    ASSERT_TRUE(makeExt4(disk.node()));
    insert(disk);
    EXPECT_EQ(location().format(nullptr), 0);
    expectFormatted(disk);
    ASSERT_TRUE(update().events);
    expectSelected(disk.node(), disk.node());
    expectRefused([&] { return location().mount(nullptr); }, NotFound);

    ASSERT_TRUE(disk.tell("remove", 1) && disk.tell("remove"));
    ASSERT_TRUE(plugIn(disk));
    ASSERT_TRUE(update().events);
    expectSelected(disk.node(), disk.node(1));
    EXPECT_EQ(location().selectedPart()->m_fsType, "vfat");
}

TEST_F(LocationCard, UnplugAndPlugIn_BeginsAnew) {
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_TRUE(makeFile(files(), "/clip", "film"));
    ASSERT_EQ(location().umount(nullptr), 0);
    ASSERT_TRUE(unplug(*card));
    ASSERT_TRUE(update().events);
    expectNotMounted(StorageLocation::None);
    card = makeCard();
    insert(*card);
    expectSelected(card->node(), card->node(1));
    ASSERT_EQ(location().mount(nullptr), 0);
    struct stat st;
    EXPECT_EQ(files().stat("/clip", st), -1);
    EXPECT_EQ(errno, ENOENT);
}

// --- write protection ---------------------------------------------------------------------------

// Only SD cards have a switch that the location knows of.
TEST_F(LocationCard, DiskThatCannotBeWritten_IsOnlyMountedReadOnly) {
    ASSERT_TRUE(card->setWriteProtected(true));
    EXPECT_FALSE(location().isWriteProtected());
    expectRefused([&] { return location().mount(nullptr); }, NotFound);
    expectNotMounted(StorageLocation::None);

    EXPECT_EQ(location().mkReadOnly(), 0);
    expectMounted(StorageLocation::Read, "ro");
    EXPECT_FALSE(files().open("/clip", O_RDWR | O_CREAT, 0644));
    EXPECT_EQ(errno, EROFS);
    expectRefused([&] { return location().mkWriteable(); }, Ok); // the device's failure
    expectMounted(StorageLocation::Read, "ro");

    ASSERT_EQ(location().umount(nullptr), 0);
    EXPECT_EQ(location().format(nullptr), isProtected);
    EXPECT_EQ(tagOf(card->node(1), "TYPE"), "ext4");
}

/// The slot of a reader for SD cards: it tells of the state of their switch.
class LocationSdCard : public LocationDisk {
protected:
    void SetUp() override {
        LocationDisk::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        card = std::make_unique<LoopDisk>(20 * MiB, onePartition);
        ASSERT_EQ(card->problem(), "");
        ASSERT_TRUE(makeExt4(card->node(1)));
        reader = std::make_unique<MediaLocation>("sd", idPath(2), directory("sd"));
    }
    void TearDown() override {
        if (reader) {
            EXPECT_EQ(reader->changesTold, 0);
        }
        LocationDisk::TearDown();
    }

    /// What udev tells of the disk, with a place in /sys such as that of a card, from which one
    /// gets to the real switch.
    BDMon::EventListSPtr asCard(const QList<BDMon::Event>& events) const {
        auto result = BDMon::EventListSPtr::create();
        for (const BDMon::Event& event : events) {
            Properties props = event.dev->m_props;
            const QString place =
                directory("mmcblk0") + '/' + QString::number(event.dev->m_partNum);
            QDir().mkpath(place);
            QFile::link("/sys" + event.dev->m_devPath + "/ro", place + "/ro");
            props[UDEV_DEVPATH] = "/.." + place;
            result->append(BDMon::Event(event.seq, event.action, new LinuxBD(props)));
        }
        return result;
    }
    void insertCard() {
        ASSERT_TRUE(plugIn(*card, idPath(2)));
        const Batch batch = update();
        ASSERT_TRUE(batch.events);
        ASSERT_EQ(reader->location.processBDEvents(asCard(*batch.events)), 0);
        ASSERT_EQ(reader->location.access(), StorageLocation::Presence);
    }

    std::unique_ptr<LoopDisk> card;
    std::unique_ptr<MediaLocation> reader;
};

TEST_F(LocationSdCard, SwitchIsOn_NothingThatWritesIsDone) {
    ASSERT_TRUE(card->setWriteProtected(true));
    insertCard();
    OpenLocation& sd = reader->location;
    EXPECT_TRUE(sd.isWriteProtected());
    EXPECT_TRUE(sd.m_writeProtected);
    expectRefused([&] { return sd.mount(nullptr); }, NotFound);
    EXPECT_EQ(sd.access(), StorageLocation::None);

    EXPECT_EQ(sd.mkReadOnly(), 0);
    EXPECT_EQ(sd.access(), StorageLocation::Read);
    const QList<Mount> mounts = mountsOf(card->node(1));
    ASSERT_EQ(mounts.size(), 1);
    EXPECT_EQ(mounts[0].options, QStringList({"ro", "noexec", "noatime"}));
    LogCapture log("stg=9");
    expectRefused([&] { return sd.mkWriteable(); }, NotImplemented);
    EXPECT_EQ(log.messages().filter("stg "),
              QStringList("stg 9 sd: is write protected; cannot make writable\n"));
    EXPECT_EQ(mountsOf(card->node(1))[0].options, mounts[0].options);
    EXPECT_EQ(sd.access(), StorageLocation::Read);
    expectRefused([&] { return sd.format(nullptr); }, NotFound); // mounted

    ASSERT_EQ(sd.umount(nullptr), 0);
    log.messages();
    expectRefused([&] { return sd.format(nullptr); }, NotImplemented);
    EXPECT_EQ(log.messages().filter("stg "),
              QStringList("stg 9 sd: is write protected; cannot format\n"));
    EXPECT_THAT(program->calls(), IsEmpty());
    EXPECT_EQ(tagOf(card->node(1), "TYPE"), "ext4");
}

TEST_F(LocationSdCard, SwitchTurnedOff_CanBeWrittenWhenItIsPluggedInAgain) {
    ASSERT_TRUE(card->setWriteProtected(true));
    insertCard();
    OpenLocation& sd = reader->location;
    ASSERT_TRUE(sd.isWriteProtected());
    ASSERT_TRUE(card->setWriteProtected(false));
    EXPECT_TRUE(sd.isWriteProtected()) << "as it was when it came";

    ASSERT_TRUE(card->tell("remove", 1) && card->tell("remove"));
    const Batch batch = update();
    ASSERT_TRUE(batch.events);
    ASSERT_EQ(sd.processBDEvents(asCard(*batch.events)), 0);
    EXPECT_FALSE(sd.isWriteProtected());
    insertCard();
    EXPECT_FALSE(sd.isWriteProtected());
    EXPECT_TRUE(sd.m_writeProtected) << "one of its media was";
    EXPECT_EQ(sd.mount(nullptr), 0);
    EXPECT_EQ(sd.access(), StorageLocation::Write);
    EXPECT_TRUE(makeFile(*reader->fs, "/clip", "film"));
}

// --- pulled out ---------------------------------------------------------------------------------

/// What writing fails with: the latter once the kernel has given the file system up.
const auto gaveUp = AnyOf(EIO, EROFS);

/// The card is mounted and will be pulled out.
class LocationPulledOut : public LocationCard {
protected:
    void SetUp() override {
        LocationCard::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        ASSERT_EQ(location().mount(nullptr), 0);
        ASSERT_TRUE(makeFile(files(), "/clip", "film"));
    }

    /// Has the location know.
    void learn() {
        ASSERT_TRUE(update().events);
        expectNoneSelected("-");
        EXPECT_EQ(fact("mounted"), "yes") << "for the owner to unmount";
        EXPECT_EQ(devicesAt(directory()), QStringList(card->node(1)));
        udevd->clearIdPath(card->name());
    }
    /// The next one works.
    void expectNextCardWorks() {
        const std::unique_ptr<LoopDisk> next = makeCard();
        insert(*next);
        expectSelected(next->node(), next->node(1));
        ASSERT_EQ(location().mount(nullptr), 0);
        EXPECT_EQ(location().access(), StorageLocation::Write);
        EXPECT_EQ(directoriesOf(next->node(1)), QStringList(directory()));
        EXPECT_FALSE(files().open("/clip", O_RDONLY, 0));
        EXPECT_EQ(errno, ENOENT);
        EXPECT_TRUE(makeFile(files(), "/next", "more"));
        EXPECT_EQ(contents(files(), "/next"), "more");
        EXPECT_EQ(location().umount(nullptr), 0);
        EXPECT_EQ(location().access(), StorageLocation::Presence);
        EXPECT_FALSE(isMountPoint(directory()));
    }
};

TEST_F(LocationPulledOut, WhileReading_ReadingFailsAndTheRestWorks) {
    // Of what was written just now, the kernel has a copy.
    ASSERT_EQ(location().umount(nullptr), 0);
    ASSERT_EQ(location().mount(nullptr), 0);
    const QSharedPointer<File> clip = files().open("/clip", O_RDONLY, 0);
    ASSERT_TRUE(clip);
    ASSERT_TRUE(card->pullOut());
    EXPECT_EQ(location().access(), StorageLocation::Write) << "nobody has told it";
    char byte;
    EXPECT_EQ(clip->read(&byte, 1), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(clip->close(), 0);
    learn();
    EXPECT_EQ(location().umount(nullptr), 0) << std::strerror(errno);
    expectNotMounted(StorageLocation::None);
    EXPECT_TRUE(eventually([&] { return !card->isAttached(); }));
    expectNextCardWorks();
}

TEST_F(LocationPulledOut, WhileRecording_RecordingFailsAndTheRestWorks) {
    const QSharedPointer<File> clip =
        FSSwitch::rootfs()->open(directory() + "/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(clip);
    std::atomic<int> blocks = 0;
    std::atomic<int> reason = 0;
    std::thread recorder([&] {
        const QByteArray block(64 * 1024, 'x');
        const auto isRecorded = [&] {
            const int place = blocks % 16 * block.size(); // however long it takes
            return clip->pwrite(block.constData(), block.size(), place) == block.size() &&
                   clip->fdatasync() == 0;
        };
        while (isRecorded())
            ++blocks;
        reason = errno;
    });
    EXPECT_TRUE(eventually([&] { return blocks > 4; }, 60));
    EXPECT_TRUE(card->pullOut());
    recorder.join();
    EXPECT_THAT(reason.load(), gaveUp);

    learn();
    EXPECT_EQ(location().umount(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(fact("mounted"), "yes");
    EXPECT_EQ(clip->close(), 0);
    EXPECT_EQ(location().umount(nullptr), 0) << std::strerror(errno);
    expectNotMounted(StorageLocation::None);
    expectNextCardWorks();
}

TEST_F(LocationPulledOut, UnmountedLazilyWhileAFileIsOpen_NextCardWorksBesideIt) {
    const QSharedPointer<File> clip = files().open("/clip", O_RDWR, 0);
    ASSERT_TRUE(clip);
    ASSERT_TRUE(card->pullOut());
    learn();
    EXPECT_EQ(location().umount(&lazyFalse), 0) << std::strerror(errno);
    expectNotMounted(StorageLocation::None);
    EXPECT_TRUE(card->isAttached()) << "the file holds it";
    expectNextCardWorks();
    EXPECT_FALSE(clip->pwrite("late", 4, 0) == 4 && clip->fdatasync() == 0);
    EXPECT_THAT(errno, gaveUp);
    EXPECT_EQ(clip->close(), 0);
    EXPECT_TRUE(eventually([&] { return !card->isAttached(); }));
}

TEST_F(LocationPulledOut, NextCardMountedBeforeTheUnmount_BothGo) {
    ASSERT_TRUE(card->pullOut());
    learn();
    const std::unique_ptr<LoopDisk> next = makeCard();
    insert(*next);
    expectSelected(next->node(), next->node(1));
    EXPECT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(devicesAt(directory()), QStringList({card->node(1), next->node(1)}));
    EXPECT_TRUE(makeFile(files(), "/next", "more"));
    EXPECT_EQ(location().umount(nullptr), 0);
    expectNotMounted(StorageLocation::Presence);
    EXPECT_EQ(fact("part"), next->node(1));
}

} // namespace
} // namespace oru::io::test
