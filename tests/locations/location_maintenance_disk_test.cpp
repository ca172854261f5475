// SPDX-License-Identifier: Apache-2.0
// Local media locations on loop disks: check, format and write protection.

#include "locationdisk.h"

#include <QDir>
#include <QFile>

#include <cerrno>

#include <fcntl.h>

namespace oru::io::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(LocationCard, CheckSoundCard_FindsNothing) {
    EXPECT_EQ(location().check(), 0);
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"fsck", "-t", "ext4", card->node(1)}));
    EXPECT_EQ(location().access(), StorageLocation::Presence);
}

TEST_F(LocationCard, CheckDamagedCard_Repaired) {
    ASSERT_TRUE(makeDamagedExt4(card->node(1), directory("source")) && markErrors(card->node(1)));
    EXPECT_EQ(location().check(), 0);
    EXPECT_EQ(program->calls().size(), 1);
    EXPECT_TRUE(isSoundExt4(card->node(1)));
    ASSERT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(contents(files(), "/file"), "precious");
    struct stat st;
    EXPECT_EQ(files().stat("/lost", st), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(LocationCard, CheckWhileMounted_FailsAfterAllRetries) {
    ASSERT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(location().check(), inUse);
    EXPECT_EQ(program->calls().size(), FSCK_RETRIES);
    expectMounted(StorageLocation::Write, "rw");
}

TEST_F(LocationCard, FormatWhileMounted_FailsWithoutProgramRun) {
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

TEST_F(LocationCard, Formatted_NewPartitionSelected) {
    const QString tool = missingToFormat();
    if (!tool.isEmpty())
        GTEST_SKIP() << tool.toStdString() << " is not installed";
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_EQ(location().umount(nullptr), 0);
    EXPECT_EQ(location().format(nullptr), 0);
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"format", card->node()}));
    expectFormatted(*card);

    // The monitor reports "remove" and "add" for the partition.
    ASSERT_TRUE(update().events);
    expectSelected(card->node(), card->node(1));
    EXPECT_EQ(location().selectedPart()->m_fsType, "vfat");
}

// The disk is larger than its new partition, and no event says that the disk's file system is gone.
TEST_F(LocationDisk, FormattedWithoutTable_DiskSelectedUntilPluggedInAgain) {
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

    ASSERT_TRUE(disk.sendUevent("remove", 1) && disk.sendUevent("remove"));
    ASSERT_TRUE(plugIn(disk));
    ASSERT_TRUE(update().events);
    expectSelected(disk.node(), disk.node(1));
    EXPECT_EQ(location().selectedPart()->m_fsType, "vfat");
}

TEST_F(LocationCard, OtherCardPluggedIn_Selected) {
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

// The location reads the write protection of SD cards only.
TEST_F(LocationCard, ReadOnlyDisk_MountsOnlyReadOnly) {
    ASSERT_TRUE(card->setWriteProtected(true));
    EXPECT_FALSE(location().isWriteProtected());
    expectRefused([&] { return location().mount(nullptr); }, NotFound);
    expectNotMounted(StorageLocation::None);

    EXPECT_EQ(location().mkReadOnly(), 0);
    expectMounted(StorageLocation::Read, "ro");
    EXPECT_FALSE(files().open("/clip", O_RDWR | O_CREAT, 0644));
    EXPECT_EQ(errno, EROFS);
    // mount(2) fails, which sets no code of the library.
    expectRefused([&] { return location().mkWriteable(); }, Ok);
    expectMounted(StorageLocation::Read, "ro");

    ASSERT_EQ(location().umount(nullptr), 0);
    EXPECT_EQ(location().format(nullptr), isProtected);
    EXPECT_EQ(tagOf(card->node(1), "TYPE"), "ext4");
}

/// Has the location of an SD card reader, which reports the write-protection switch.
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
            EXPECT_EQ(reader->accessChanges, 0);
        }
        LocationDisk::TearDown();
    }

    /// Copies the events and replaces DEVPATH by a path named like that of a card, which has a link
    /// to the file "ro" of the loop disk.
    BDMon::EventListSPtr asCard(const QList<BDMon::Event>& events) const {
        auto result = BDMon::EventListSPtr::create();
        for (const BDMon::Event& event : events) {
            Properties props = event.dev->m_props;
            const QString path = directory("mmcblk0") + '/' + QString::number(event.dev->m_partNum);
            QDir().mkpath(path);
            QFile::link("/sys" + event.dev->m_devPath + "/ro", path + "/ro");
            props[UDEV_DEVPATH] = "/.." + path;
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

TEST_F(LocationSdCard, SwitchOn_WritingOperationsFail) {
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

TEST_F(LocationSdCard, SwitchTurnedOff_WritableOncePluggedInAgain) {
    ASSERT_TRUE(card->setWriteProtected(true));
    insertCard();
    OpenLocation& sd = reader->location;
    ASSERT_TRUE(sd.isWriteProtected());
    ASSERT_TRUE(card->setWriteProtected(false));
    EXPECT_TRUE(sd.isWriteProtected()) << "read when the card was added";

    ASSERT_TRUE(card->sendUevent("remove", 1) && card->sendUevent("remove"));
    const Batch batch = update();
    ASSERT_TRUE(batch.events);
    ASSERT_EQ(sd.processBDEvents(asCard(*batch.events)), 0);
    EXPECT_FALSE(sd.isWriteProtected());
    insertCard();
    EXPECT_FALSE(sd.isWriteProtected());
    EXPECT_TRUE(sd.m_writeProtected) << "stays set after one protected medium";
    EXPECT_EQ(sd.mount(nullptr), 0);
    EXPECT_EQ(sd.access(), StorageLocation::Write);
    EXPECT_TRUE(makeFile(*reader->fs, "/clip", "film"));
}

} // namespace
} // namespace oru::io::test
