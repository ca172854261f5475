// SPDX-License-Identifier: Apache-2.0
// Local media locations with the device's hardware and its maintenance program: insertion, use,
// removal and premature removal of cards and sticks.
#include <oruio/error.h>
#include <oruio/fsswitch.h>
#include <oruio/posixfs.h>
#include <oruio/storagelocation.h>

#include "device/hardware.h"
#include "support/suite/logcapture.h"
#include "support/system/disktest.h"
#include "support/system/files.h"
#include "support/system/medialocation.h"
#include "support/system/mounts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <fcntl.h>

namespace oru::io::test {
namespace {

using testing::AnyOf;

class LocationTest : public HardwareTest {
protected:
    void SetUp() override {
        HardwareTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        ASSERT_TRUE(QFileInfo("/usr/local/bin/oruio_sysutils").isExecutable());
    }

    OpenLocation& location() {
        return slot->location;
    }
    FS& files() {
        return slot->files();
    }
    QString field(const char* name) {
        return slot->field(name);
    }
    /// Makes a location for the port or slot that contains this disk.
    void makeLocation(const QString& disk) {
        slot.reset();
        slot = std::make_unique<MediaLocation>("media", Hardware::idPath(disk), directory());
    }
    /// Delivers a batch to the location.
    void process(const Batch& batch) {
        ASSERT_TRUE(batch.events);
        ASSERT_EQ(location().processBDEvents(batch.events), 0);
    }
    void expectSelected(const QString& disk, const QString& part) {
        slot->expectSelected(disk, part);
    }
    void expectNoMedium() {
        EXPECT_EQ(location().access(), StorageLocation::None);
        EXPECT_EQ(field("present"), "no");
        EXPECT_EQ(field("disk"), "-");
        EXPECT_EQ(field("part"), "-");
        EXPECT_FALSE(location().isWriteProtected());
        expectRefused([&] { return location().check(); }, NotFound);
        expectRefused([&] { return location().mkReadOnly(); }, NotFound);
        expectRefused([&] { return location().mkWriteable(); }, NotFound);
    }
    void expectMounted(const QString& node, StorageLocation::AccessType access) {
        EXPECT_EQ(location().access(), access);
        EXPECT_EQ(field("mounted"), "yes");
        EXPECT_EQ(devicesAt(directory()), QStringList(node));
    }
    void expectUnmounted(StorageLocation::AccessType access) {
        EXPECT_EQ(location().umount(nullptr), 0) << std::strerror(errno);
        EXPECT_EQ(location().access(), access);
        EXPECT_EQ(field("mounted"), "no");
        EXPECT_FALSE(isMountPoint(directory()));
    }

    /// Formats the location's disk and expects one partition that can be written.
    void expectFormatted(const QString& disk, const QString& part);

    const FreshRootSwitch rootSwitch;
    std::unique_ptr<MediaLocation> slot;
};

void LocationTest::expectFormatted(const QString& disk, const QString& part) {
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_TRUE(makeFile(files(), "/clip", "footage"));
    expectRefused([&] { return location().format(nullptr); }, NotFound);
    EXPECT_EQ(contents(files(), "/clip"), "footage");
    expectUnmounted(StorageLocation::Presence);

    LogCapture log("libio=12");
    EXPECT_EQ(location().format(nullptr), 0);
    EXPECT_EQ(log.messages(), QStringList({"libio 12 SysCmd: format " + disk,
                                           "libio 12 Run 1 of 1 completed status 0\n"}));
    const QJsonArray partitions =
        QJsonDocument::fromJson(
            outputOf({"sfdisk", "--json", disk}).toUtf8())["partitiontable"]["partitions"]
            .toArray();
    ASSERT_EQ(partitions.size(), 1);
    EXPECT_EQ(partitions[0]["node"].toString(), part);
    EXPECT_EQ(partitions[0]["start"].toInt(), 64 * 1024 / 512);
    EXPECT_EQ(partitions[0]["type"].toString(), "6");
    EXPECT_EQ(Hardware::nodes(disk), QStringList({disk, part}));
    EXPECT_EQ(tagOf(part, "TYPE"), "vfat");
    EXPECT_EQ(runTool({"fsck.vfat", "-n", part}).status, 0);

    process(update());
    expectSelected(disk, part);
    EXPECT_EQ(location().selectedPart()->m_fsType, "vfat");
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    expectMounted(part, StorageLocation::Write);
    EXPECT_FALSE(files().open("/clip", O_RDONLY, 0));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(makeFile(files(), "/new", "footage"));
    expectUnmounted(StorageLocation::Presence);
}

// --- each file system of the card ---------------------------------------------------------------

struct Driver {
    const char* fsType; ///< of the partition
    int partition;
    const char* option; ///< a mount option set by the library
};

void PrintTo(const Driver& driver, std::ostream* out) {
    *out << driver.fsType;
}

/// Delivers only the events of the disk and of one partition: the card's three partitions have the
/// same size and arrive in any order.
class LocationCard : public LocationTest, public testing::WithParamInterface<Driver> {
protected:
    void SetUp() override {
        LocationTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        makeLocation(Hardware::card());
        processPartition(start());
        expectSelected(Hardware::card(), part());
    }

    static QString part() {
        return Hardware::card(GetParam().partition);
    }
    void processPartition(const Batch& batch) {
        ASSERT_TRUE(batch.events);
        auto events = BDMon::EventListSPtr::create();
        for (const BDMon::Event& event : *batch.events) {
            if (event.dev->m_partNum == 0 || event.dev->m_devName == part())
                events->append(event);
        }
        process({events, nullptr});
    }
    void insert(bool isProtected = false) {
        ASSERT_TRUE(Hardware::insertCard(isProtected));
        processPartition(update());
        expectSelected(Hardware::card(), part());
    }
    void eject() {
        ASSERT_TRUE(Hardware::ejectCard());
        processPartition(update());
        expectNoMedium();
    }
    /// Checks and mounts the card, and expects this file on it.
    void expectSound(const QString& path, const QByteArray& bytes) {
        EXPECT_EQ(location().check(), 0);
        ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
        expectMounted(part(), StorageLocation::Write);
        EXPECT_EQ(contents(files(), path), bytes);
        EXPECT_TRUE(makeFile(files(), "/next", "more"));
        expectUnmounted(StorageLocation::Presence);
    }
};

TEST_P(LocationCard, InsertedMountedWrittenEjected_FilesStayOnCard) {
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    expectMounted(part(), StorageLocation::Write);
    const Mount mount = mountsOf(part()).value(0);
    EXPECT_EQ(mount.type, GetParam().fsType);
    EXPECT_EQ(mount.options, QStringList({"rw", "noexec", "noatime"}));
    EXPECT_TRUE(mount.filesystemOptions.contains(GetParam().option))
        << mount.filesystemOptions.join(',').toStdString();
    EXPECT_TRUE(makeFile(files(), QString::fromUtf8("/Über.mov"), "footage"));
    EXPECT_EQ(contents(*FSSwitch::rootfs(), directory() + QString::fromUtf8("/Über.mov")),
              "footage");
    expectUnmounted(StorageLocation::Presence);
    eject();
    expectRefused([&] { return location().mount(nullptr); }, NotFound);
    expectRefused([&] { return location().format(nullptr); }, NotFound);

    insert();
    ASSERT_EQ(location().mkReadOnly(), 0);
    expectMounted(part(), StorageLocation::Read);
    EXPECT_EQ(mountsOf(part()).value(0).options, QStringList({"ro", "noexec", "noatime"}));
    EXPECT_EQ(contents(files(), QString::fromUtf8("/Über.mov")), "footage");
    EXPECT_FALSE(files().open("/second", O_RDWR | O_CREAT, 0644));
    EXPECT_EQ(errno, EROFS);

    // Changes the options of the same mount.
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    expectMounted(part(), StorageLocation::Write);
    EXPECT_EQ(files().unlink(QString::fromUtf8("/Über.mov")), 0);
    expectUnmounted(StorageLocation::Presence);
}

TEST_P(LocationCard, CheckSoundCard_FindsNothing) {
    LogCapture log("libio=12");
    EXPECT_EQ(location().check(), 0);
    EXPECT_EQ(log.messages(),
              QStringList({QString("libio 12 SysCmd: fsck -t %1 %2").arg(GetParam().fsType, part()),
                           "libio 12 Run 1 of 3 completed status 0\n"}));
}

// --- premature removal --------------------------------------------------------------------------

TEST_P(LocationCard, PulledWhileReading_ReadFailsAndNextCardWorks) {
    const QByteArray footage(4 * MiB, 'f');
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_TRUE(makeFile(files(), "/take", footage));
    ASSERT_TRUE(makeFile(files(), "/clip", "short"));
    expectUnmounted(StorageLocation::Presence); // empties the page cache
    ASSERT_EQ(location().mount(nullptr), 0);
    const QSharedPointer<File> file = files().open("/take", O_RDONLY, 0);
    ASSERT_TRUE(file);
    char byte = 0;
    EXPECT_EQ(file->pread(&byte, 1, 0), 1);
    EXPECT_EQ(byte, 'f');

    ASSERT_TRUE(Hardware::ejectCard());
    expectMounted(part(), StorageLocation::Write); // the removal has not been delivered
    EXPECT_EQ(file->pread(&byte, 1, footage.size() - 1), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(file->close(), 0);
    EXPECT_FALSE(makeFile(files(), "/late", "late"));
    EXPECT_THAT(errno, AnyOf(EIO, EROFS));
    processPartition(update());
    expectMounted(part(), StorageLocation::None); // the application must unmount it
    expectUnmounted(StorageLocation::None);
    expectNoMedium();

    insert();
    expectSound("/clip", "short");
}

TEST_P(LocationCard, PulledWhileRecording_SyncedDataOnCard) {
    constexpr int blockSize = 16384;
    constexpr int limit = 1024; // in blocks: the recording then starts over at offset 0
    ASSERT_EQ(location().mount(nullptr), 0);
    const QSharedPointer<File> clip =
        FSSwitch::rootfs()->open(directory() + "/clip", O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_TRUE(clip);
    std::atomic<int> blocks = 0;
    std::atomic<int> reason = 0;
    std::thread recorder([&] {
        const auto isRecorded = [&] {
            const int number = blocks % limit;
            const QByteArray block(blockSize, char('a' + number % 26));
            // A write may be short; then the write of the rest fails.
            for (int done = 0; done < blockSize;) {
                const int count = clip->pwrite(block.constData() + done, blockSize - done,
                                               off_t(number) * blockSize + done);
                if (count <= 0)
                    return false;
                done += count;
            }
            return clip->fdatasync() == 0;
        };
        while (isRecorded())
            ++blocks;
        reason = errno;
    });
    EXPECT_TRUE(eventually([&] { return blocks >= 8 || reason != 0; }, 120));
    EXPECT_TRUE(Hardware::ejectCard());
    recorder.join();
    EXPECT_THAT(reason.load(), AnyOf(EIO, EROFS));
    EXPECT_GE(blocks, 8);

    processPartition(update());
    expectMounted(part(), StorageLocation::None);
    EXPECT_EQ(location().umount(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    expectMounted(part(), StorageLocation::None);
    clip->close();
    expectUnmounted(StorageLocation::None);

    insert();
    EXPECT_EQ(location().check(), 0);
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    const QSharedPointer<File> recorded = files().open("/clip", O_RDONLY, 0);
    ASSERT_TRUE(recorded);
    for (int number = 0; number < qMin<int>(blocks, limit); ++number) {
        QByteArray block(blockSize, '?');
        ASSERT_EQ(recorded->pread(block.data(), blockSize, off_t(number) * blockSize), blockSize)
            << number << " of " << blocks;
        ASSERT_EQ(block, QByteArray(blockSize, char('a' + number % 26))) << number;
    }
    EXPECT_EQ(recorded->close(), 0);
    EXPECT_EQ(files().unlink("/clip"), 0);
    expectUnmounted(StorageLocation::Presence);
}

TEST_P(LocationCard, PulledAndInsertedAgain_MountableAfterUnmount) {
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_TRUE(makeFile(files(), "/clip", "footage"));
    ASSERT_TRUE(Hardware::ejectCard());
    ASSERT_TRUE(Hardware::insertCard());
    processPartition(update()); // removal and insertion in one batch
    expectSelected(Hardware::card(), part());
    expectMounted(part(), StorageLocation::Presence); // the previous mount
    expectUnmounted(StorageLocation::Presence);
    expectSound("/clip", "footage");
}

TEST_P(LocationCard, PulledAndUnmountedLazily_NextCardWorksWithFileOpen) {
    ASSERT_EQ(location().mount(nullptr), 0);
    const QSharedPointer<File> clip = files().open("/clip", O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_TRUE(clip);
    ASSERT_EQ(clip->write("footage", 7), 7);
    ASSERT_EQ(clip->fsync(), 0);
    ASSERT_TRUE(Hardware::ejectCard());
    processPartition(update());
    Properties lazy = {{"lazy", true}};
    EXPECT_EQ(location().umount(&lazy), 0) << std::strerror(errno);
    EXPECT_FALSE(isMountPoint(directory()));
    expectNoMedium();
    clip->pwrite("late", 4, 0); // at best to the page cache
    EXPECT_EQ(clip->fsync(), -1);
    EXPECT_THAT(errno, AnyOf(EIO, EROFS));
    clip->close();
    insert();
    expectSound("/clip", "footage");
}

// --- write protection ---------------------------------------------------------------------------

TEST_P(LocationCard, WriteProtected_WritingOperationsFail) {
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_TRUE(makeFile(files(), "/clip", "footage"));
    expectUnmounted(StorageLocation::Presence);
    eject();
    EXPECT_FALSE(location().m_writeProtected);
    insert(true);
    EXPECT_TRUE(location().isWriteProtected());
    EXPECT_TRUE(location().m_writeProtected);
    expectRefused([&] { return location().mount(nullptr); }, NotFound);
    EXPECT_EQ(location().access(), StorageLocation::None);
    EXPECT_FALSE(isMountPoint(directory()));

    ASSERT_EQ(location().mkReadOnly(), 0) << std::strerror(errno);
    expectMounted(part(), StorageLocation::Read);
    EXPECT_EQ(mountsOf(part()).value(0).options, QStringList({"ro", "noexec", "noatime"}));
    EXPECT_EQ(contents(files(), "/clip"), "footage");
    EXPECT_FALSE(files().open("/second", O_RDWR | O_CREAT, 0644));
    EXPECT_EQ(errno, EROFS);
    LogCapture log("stg=9");
    expectRefused([&] { return location().mkWriteable(); }, NotImplemented);
    EXPECT_EQ(log.messages(),
              QStringList("stg 9 media: is write protected; cannot make writable\n"));
    expectMounted(part(), StorageLocation::Read);
    EXPECT_EQ(mountsOf(part()).value(0).options, QStringList({"ro", "noexec", "noatime"}));
    expectRefused([&] { return location().format(nullptr); }, NotFound); // it is mounted
    expectUnmounted(StorageLocation::Presence);

    log.messages();
    expectRefused([&] { return location().mkWriteable(); }, NotImplemented);
    expectRefused([&] { return location().format(nullptr); }, NotImplemented);
    EXPECT_EQ(log.messages(),
              QStringList({"stg 9 media: is write protected; cannot make writable\n",
                           "stg 9 media: is write protected; cannot format\n"}));
    EXPECT_EQ(tagOf(part(), "TYPE"), GetParam().fsType);
    Properties readonly = {{"readonly", true}};
    ASSERT_EQ(location().mount(&readonly), 0);
    expectMounted(part(), StorageLocation::Read);
    EXPECT_EQ(contents(files(), "/clip"), "footage");
    expectUnmounted(StorageLocation::Presence);

    eject();
    insert();
    EXPECT_FALSE(location().isWriteProtected());
    EXPECT_TRUE(location().m_writeProtected) << "stays set after one protected medium";
    ASSERT_EQ(location().mount(nullptr), 0);
    expectMounted(part(), StorageLocation::Write);
    EXPECT_TRUE(makeFile(files(), "/clip", "more"));
    expectUnmounted(StorageLocation::Presence);
}

INSTANTIATE_TEST_SUITE_P(FileSystems, LocationCard,
                         testing::Values(Driver{"vfat", 1, "usefree"},
                                         Driver{"exfat", 2, "iocharset=utf8"},
                                         Driver{"ext4", 3, "rw"}),
                         [](const testing::TestParamInfo<Driver>& param) {
                             return std::string(param.param.fsType);
                         });

// --- the whole card -----------------------------------------------------------------------------

TEST_F(LocationTest, ThreeEqualPartitions_FirstAddedSelected) {
    makeLocation(Hardware::card());
    process(start());
    expectSelected(Hardware::card(), Hardware::card(1)); // reported in their order
    ASSERT_TRUE(Hardware::ejectCard());
    process(update());
    expectNoMedium();

    ASSERT_TRUE(Hardware::insertCard());
    const Batch batch = update();
    process(batch);
    ASSERT_EQ(batch.events->size(), 4);
    expectSelected(Hardware::card(), batch.events->at(1).dev->m_devName);
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    EXPECT_TRUE(makeFile(files(), "/clip", "footage"));
    expectUnmounted(StorageLocation::Presence);
}

// The kernel cannot mount the ext4 of the next card while the old mount holds the same device name
// (EEXIST). The application must unmount first: after the attempt, the location forgets its mount.
TEST_F(LocationTest, NextExt4CardMountedBeforeUnmount_Fails) {
    makeLocation(Hardware::card());
    const auto processExt4 = [&](const Batch& batch) {
        ASSERT_TRUE(batch.events);
        auto events = BDMon::EventListSPtr::create();
        for (const BDMon::Event& event : *batch.events) {
            if (event.dev->m_partNum == 0 || event.dev->m_partNum == 3)
                events->append(event);
        }
        process({events, nullptr});
    };
    processExt4(start());
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_TRUE(Hardware::ejectCard());
    ASSERT_TRUE(Hardware::insertCard());
    processExt4(update());
    expectSelected(Hardware::card(), Hardware::card(3));
    expectRefused([&] { return location().mount(nullptr); }, NotFound);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(location().access(), StorageLocation::None);
    EXPECT_EQ(location().umount(nullptr), 0);
    EXPECT_EQ(devicesAt(directory()), QStringList(Hardware::card(3)));

    EXPECT_EQ(location().selectedPart()->umount(nullptr), 0);
    EXPECT_FALSE(isMountPoint(directory()));
    EXPECT_EQ(location().check(), 0);
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    expectMounted(Hardware::card(3), StorageLocation::Write);
    expectUnmounted(StorageLocation::Presence);
}

TEST_F(LocationTest, CardFormatted_NewPartitionWorksAndNextCardUnchanged) {
    ASSERT_TRUE(Hardware::copyCard("spare"));
    ASSERT_TRUE(Hardware::ejectCard());
    ASSERT_TRUE(Hardware::insertCopy("spare"));
    makeLocation(Hardware::card());
    process(start());
    expectFormatted(Hardware::card(), Hardware::card(1));

    ASSERT_TRUE(Hardware::ejectCard());
    process(update());
    expectNoMedium();
    ASSERT_TRUE(Hardware::insertCard());
    process(update());
    EXPECT_EQ(Hardware::nodes(Hardware::card()).size(), 4);
    ASSERT_TRUE(location().selectedPart());
    EXPECT_EQ(location().selectedPart()->capacity(), 64 * MiB);
    EXPECT_THAT(location().selectedPart()->m_fsLabel.toStdString(),
                AnyOf("SDVFAT", "SDEXFAT", "SDEXT4"));
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    EXPECT_FALSE(files().open("/new", O_RDONLY, 0));
    EXPECT_EQ(errno, ENOENT);
    expectUnmounted(StorageLocation::Presence);
    QFile::remove(Hardware::copyOfCard("spare"));
}

// --- sticks -------------------------------------------------------------------------------------

class LocationStick : public LocationTest {
protected:
    /// Plugs in a stick and makes a location for it.
    void plugIn(const char* stick) {
        ASSERT_TRUE(Hardware::plug(stick));
        makeLocation(Hardware::stick(stick));
        BDMon::instance()->stop();
        process(start());
    }
    void SetUp() override {
        LocationTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        ASSERT_TRUE(Hardware::unplug("vfat"));
    }
};

TEST_F(LocationStick, EfiPartition_NeverSelected) {
    ASSERT_TRUE(start().events); // the stick is added later
    LogCapture log("stg=11");
    ASSERT_TRUE(Hardware::plug("efi"));
    makeLocation(Hardware::stick("efi"));
    process(update());
    const QStringList skipped = {"stg 11 media skipping EFI system partition\n"};
    EXPECT_EQ(log.messages().filter("EFI"), skipped);
    expectSelected(Hardware::stick("efi"), Hardware::stick("efi", 2));
    EXPECT_EQ(location().selectedPart()->m_fsLabel, "EFIDATA");

    // The same for a stick that is present when the monitor starts.
    BDMon::instance()->stop();
    makeLocation(Hardware::stick("efi"));
    process(start());
    EXPECT_EQ(log.messages().filter("EFI"), skipped);
    expectSelected(Hardware::stick("efi"), Hardware::stick("efi", 2));

    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    expectMounted(Hardware::stick("efi", 2), StorageLocation::Write);
    EXPECT_TRUE(makeFile(files(), "/clip", "footage"));
    expectUnmounted(StorageLocation::Presence);
    EXPECT_EQ(location().check(), 0);
    ASSERT_TRUE(Hardware::unplug("efi"));
    process(update());
    expectNoMedium();
}

TEST_F(LocationStick, ExfatInGpt_FilesStayOnStick) {
    plugIn("exfat");
    const QString part = Hardware::stick("exfat", 1);
    expectSelected(Hardware::stick("exfat"), part);
    EXPECT_FALSE(location().isWriteProtected());
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    expectMounted(part, StorageLocation::Write);
    EXPECT_EQ(mountsOf(part).value(0).type, "exfat");
    EXPECT_TRUE(makeFile(files(), "/clip", "footage"));
    expectUnmounted(StorageLocation::Presence);
    ASSERT_TRUE(Hardware::unplug("exfat"));
    process(update());
    expectNoMedium();

    plugIn("exfat");
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    EXPECT_EQ(contents(files(), "/clip"), "footage");
    expectUnmounted(StorageLocation::Presence);
}

TEST_F(LocationStick, PulledWhileMounted_CheckClearsDirtyBit) {
    plugIn("vfat");
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_TRUE(makeFile(files(), "/clip", "footage"));
    ASSERT_TRUE(Hardware::unplug("vfat"));
    EXPECT_FALSE(makeFile(files(), "/late", "late"));
    EXPECT_THAT(errno, AnyOf(EIO, EROFS));
    process(update());
    expectUnmounted(StorageLocation::None);
    expectNoMedium();

    plugIn("vfat");
    const QString part = Hardware::stick("vfat", 1);
    EXPECT_EQ(runTool({"fsck.vfat", "-n", part}).status, 1) << "the dirty bit is set";
    EXPECT_EQ(location().check(), 0);
    EXPECT_EQ(runTool({"fsck.vfat", "-n", part}).status, 0);
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    EXPECT_EQ(contents(files(), "/clip"), "footage");
    expectUnmounted(StorageLocation::Presence);
}

TEST_F(LocationStick, DamagedExt4_CheckRepairs) {
    ASSERT_TRUE(Hardware::makeStick("spare", 32 * MiB, "label: gpt\nstart=1MiB, type=linux\n"));
    ASSERT_TRUE(Hardware::plug("spare"));
    const QString part = Hardware::stick("spare", 1);
    ASSERT_TRUE(makeDamagedExt4(part, directory("source")) && markErrors(part));
    ASSERT_TRUE(Hardware::settle());
    makeLocation(Hardware::stick("spare"));
    process(start());
    expectSelected(Hardware::stick("spare"), part);
    EXPECT_EQ(location().check(), 0);
    EXPECT_TRUE(isSoundExt4(part));
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    EXPECT_EQ(contents(files(), "/file"), "precious");
    struct stat st;
    EXPECT_EQ(files().stat("/lost", st), -1);
    EXPECT_EQ(errno, ENOENT);
    expectUnmounted(StorageLocation::Presence);
}

TEST_F(LocationStick, Formatted_NewPartitionSelectedAndWorks) {
    ASSERT_TRUE(Hardware::makeStick("spare", 64 * MiB, twoPartitions));
    ASSERT_TRUE(Hardware::plug("spare"));
    const QString disk = Hardware::stick("spare");
    const QString part = Hardware::stick("spare", 1);
    ASSERT_EQ(runTool({"mkfs.ext4", "-q", "-L", "OLD", part}).status, 0);
    ASSERT_TRUE(Hardware::settle());
    makeLocation(disk);
    process(start());
    expectSelected(disk, part);
    expectFormatted(disk, part);

    ASSERT_TRUE(Hardware::unplug("spare"));
    process(update());
    expectNoMedium();
    plugIn("spare");
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    EXPECT_EQ(contents(files(), "/new"), "footage");
    expectUnmounted(StorageLocation::Presence);
}

TEST_F(LocationStick, ReadOnlyStick_MountsOnlyReadOnly) {
    ASSERT_TRUE(start().events);
    ASSERT_TRUE(Hardware::plug("exfat", true));
    makeLocation(Hardware::stick("exfat"));
    process(update());
    EXPECT_FALSE(location().isWriteProtected()); // sticks have no switch
    expectRefused([&] { return location().mount(nullptr); }, NotFound);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(location().access(), StorageLocation::None);
    EXPECT_FALSE(isMountPoint(directory()));
    ASSERT_EQ(location().mkReadOnly(), 0) << std::strerror(errno);
    expectMounted(Hardware::stick("exfat", 1), StorageLocation::Read);
    EXPECT_FALSE(files().open("/clip", O_RDWR | O_CREAT, 0644));
    EXPECT_EQ(errno, EROFS);
    expectUnmounted(StorageLocation::Presence);
    EXPECT_NE(location().format(nullptr), 0);
}

} // namespace
} // namespace oru::io::test
