// Locations of local media with the device's hardware: from the moment that a card or stick comes
// to when it goes, and when it goes too early. The maintenance program is the device's own.
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
    QString fact(const char* name) {
        return slot->fact(name);
    }
    /// Makes a location of the port, or the slot, that has this disk now.
    void makeLocation(const QString& disk) {
        slot.reset();
        slot = std::make_unique<MediaLocation>("media", Hardware::idPath(disk), directory());
    }
    /// Has the location know of a batch.
    void take(const Batch& batch) {
        ASSERT_TRUE(batch.events);
        ASSERT_EQ(location().processBDEvents(batch.events), 0);
    }
    void expectSelected(const QString& disk, const QString& part) {
        slot->expectSelected(disk, part);
    }
    void expectNothingThere() {
        EXPECT_EQ(location().access(), StorageLocation::None);
        EXPECT_EQ(fact("present"), "no");
        EXPECT_EQ(fact("disk"), "-");
        EXPECT_EQ(fact("part"), "-");
        EXPECT_FALSE(location().isWriteProtected());
        expectRefused([&] { return location().check(); }, NotFound);
        expectRefused([&] { return location().mkReadOnly(); }, NotFound);
        expectRefused([&] { return location().mkWriteable(); }, NotFound);
    }
    void expectMounted(const QString& node, StorageLocation::AccessType access) {
        EXPECT_EQ(location().access(), access);
        EXPECT_EQ(fact("mounted"), "yes");
        EXPECT_EQ(devicesAt(directory()), QStringList(node));
    }
    void expectUnmounted(StorageLocation::AccessType access) {
        EXPECT_EQ(location().umount(nullptr), 0) << std::strerror(errno);
        EXPECT_EQ(location().access(), access);
        EXPECT_EQ(fact("mounted"), "no");
        EXPECT_FALSE(isMountPoint(directory()));
    }

    /// Formats the location's disk, which gets one partition, and records to that.
    void expectFormatted(const QString& disk, const QString& part);

    const OwnSwitch ownSwitch;
    std::unique_ptr<MediaLocation> slot;
};

void LocationTest::expectFormatted(const QString& disk, const QString& part) {
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_TRUE(makeFile(files(), "/clip", "film"));
    expectRefused([&] { return location().format(nullptr); }, NotFound);
    EXPECT_EQ(contents(files(), "/clip"), "film");
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

    take(update());
    expectSelected(disk, part);
    EXPECT_EQ(location().selectedPart()->m_fsType, "vfat");
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    expectMounted(part, StorageLocation::Write);
    EXPECT_FALSE(files().open("/clip", O_RDONLY, 0));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(makeFile(files(), "/new", "film"));
    expectUnmounted(StorageLocation::Presence);
}

// --- the card, by each of its file systems ------------------------------------------------------

struct Driver {
    const char* fsType; ///< of the partition
    int partition;
    const char* option; ///< one that the driver has from the library
};

void PrintTo(const Driver& driver, std::ostream* out) {
    *out << driver.fsType;
}

/// The card as if it had but one partition: its three have one size, and come in any order.
class LocationCard : public LocationTest, public testing::WithParamInterface<Driver> {
protected:
    void SetUp() override {
        LocationTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        makeLocation(Hardware::card());
        takeOne(start());
        expectSelected(Hardware::card(), part());
    }

    static QString part() {
        return Hardware::card(GetParam().partition);
    }
    void takeOne(const Batch& batch) {
        ASSERT_TRUE(batch.events);
        auto events = BDMon::EventListSPtr::create();
        for (const BDMon::Event& event : *batch.events) {
            if (event.dev->m_partNum == 0 || event.dev->m_devName == part())
                events->append(event);
        }
        take({events, nullptr});
    }
    void insert(bool isProtected = false) {
        ASSERT_TRUE(Hardware::insertCard(isProtected));
        takeOne(update());
        expectSelected(Hardware::card(), part());
    }
    void eject() {
        ASSERT_TRUE(Hardware::ejectCard());
        takeOne(update());
        expectNothingThere();
    }
    /// Checks the card, which has been pulled, and looks for a file on it.
    void expectSound(const QString& path, const QByteArray& text) {
        EXPECT_EQ(location().check(), 0);
        ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
        expectMounted(part(), StorageLocation::Write);
        EXPECT_EQ(contents(files(), path), text);
        EXPECT_TRUE(makeFile(files(), "/next", "more"));
        expectUnmounted(StorageLocation::Presence);
    }
};

TEST_P(LocationCard, InsertedMountedWrittenEjected_FilesStayOnTheCard) {
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    expectMounted(part(), StorageLocation::Write);
    const Mount mount = mountsOf(part()).value(0);
    EXPECT_EQ(mount.type, GetParam().fsType);
    EXPECT_EQ(mount.options, QStringList({"rw", "noexec", "noatime"}));
    EXPECT_TRUE(mount.filesystemOptions.contains(GetParam().option))
        << mount.filesystemOptions.join(',').toStdString();
    EXPECT_TRUE(makeFile(files(), QString::fromUtf8("/Über.mov"), "film"));
    EXPECT_EQ(contents(*FSSwitch::rootfs(), directory() + QString::fromUtf8("/Über.mov")), "film");
    expectUnmounted(StorageLocation::Presence);
    eject();
    expectRefused([&] { return location().mount(nullptr); }, NotFound);
    expectRefused([&] { return location().format(nullptr); }, NotFound);

    insert();
    ASSERT_EQ(location().mkReadOnly(), 0);
    expectMounted(part(), StorageLocation::Read);
    EXPECT_EQ(mountsOf(part()).value(0).options, QStringList({"ro", "noexec", "noatime"}));
    EXPECT_EQ(contents(files(), QString::fromUtf8("/Über.mov")), "film");
    EXPECT_FALSE(files().open("/second", O_RDWR | O_CREAT, 0644));
    EXPECT_EQ(errno, EROFS);

    // The same mount, with other options.
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    expectMounted(part(), StorageLocation::Write);
    EXPECT_EQ(files().unlink(QString::fromUtf8("/Über.mov")), 0);
    expectUnmounted(StorageLocation::Presence);
}

TEST_P(LocationCard, CheckOfASoundCard_FindsNothing) {
    LogCapture log("libio=12");
    EXPECT_EQ(location().check(), 0);
    EXPECT_EQ(log.messages(),
              QStringList({QString("libio 12 SysCmd: fsck -t %1 %2").arg(GetParam().fsType, part()),
                           "libio 12 Run 1 of 3 completed status 0\n"}));
}

// --- pulled too early ---------------------------------------------------------------------------

TEST_P(LocationCard, PulledWhileReading_ReadingFailsAndTheRestWorks) {
    const QByteArray film(4 * MiB, 'f');
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_TRUE(makeFile(files(), "/film", film));
    ASSERT_TRUE(makeFile(files(), "/clip", "short"));
    expectUnmounted(StorageLocation::Presence); // what the kernel has a copy of, it need not read
    ASSERT_EQ(location().mount(nullptr), 0);
    const QSharedPointer<File> file = files().open("/film", O_RDONLY, 0);
    ASSERT_TRUE(file);
    char byte = 0;
    EXPECT_EQ(file->pread(&byte, 1, 0), 1);
    EXPECT_EQ(byte, 'f');

    ASSERT_TRUE(Hardware::ejectCard());
    expectMounted(part(), StorageLocation::Write); // nobody has told the location
    EXPECT_EQ(file->pread(&byte, 1, film.size() - 1), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(file->close(), 0);
    EXPECT_FALSE(makeFile(files(), "/late", "late"));
    EXPECT_THAT(errno, AnyOf(EIO, EROFS));
    takeOne(update());
    expectMounted(part(), StorageLocation::None); // for its owner to unmount
    expectUnmounted(StorageLocation::None);
    expectNothingThere();

    insert();
    expectSound("/clip", "short");
}

TEST_P(LocationCard, PulledWhileRecording_WhatWasSyncedIsOnTheCard) {
    constexpr int blockSize = 16384;
    constexpr int limit = 1024; // in blocks: from there it begins anew, for as long as it takes
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
            // The last one may be written in part: it is the rest that fails.
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

    takeOne(update());
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

TEST_P(LocationCard, PulledAndInsertedAgain_CanBeMountedOnceTheOldMountIsGone) {
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_TRUE(makeFile(files(), "/clip", "film"));
    ASSERT_TRUE(Hardware::ejectCard());
    ASSERT_TRUE(Hardware::insertCard());
    takeOne(update()); // of both in one batch
    expectSelected(Hardware::card(), part());
    expectMounted(part(), StorageLocation::Presence); // the one of before
    expectUnmounted(StorageLocation::Presence);
    expectSound("/clip", "film");
}

TEST_P(LocationCard, PulledAndUnmountedLazily_NextCardDoesNotWaitForTheOpenFile) {
    ASSERT_EQ(location().mount(nullptr), 0);
    const QSharedPointer<File> clip = files().open("/clip", O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_TRUE(clip);
    ASSERT_EQ(clip->write("film", 4), 4);
    ASSERT_EQ(clip->fsync(), 0);
    ASSERT_TRUE(Hardware::ejectCard());
    takeOne(update());
    Properties lazy = {{"lazy", true}};
    EXPECT_EQ(location().umount(&lazy), 0) << std::strerror(errno);
    EXPECT_FALSE(isMountPoint(directory()));
    expectNothingThere();
    clip->pwrite("late", 4, 0); // into the kernel's memory, at best
    EXPECT_EQ(clip->fsync(), -1);
    EXPECT_THAT(errno, AnyOf(EIO, EROFS));
    clip->close();
    insert();
    expectSound("/clip", "film");
}

// --- write protection ---------------------------------------------------------------------------

TEST_P(LocationCard, WriteProtected_OnlyReadingWorks) {
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_TRUE(makeFile(files(), "/clip", "film"));
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
    EXPECT_EQ(contents(files(), "/clip"), "film");
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
    EXPECT_EQ(contents(files(), "/clip"), "film");
    expectUnmounted(StorageLocation::Presence);

    eject();
    insert();
    EXPECT_FALSE(location().isWriteProtected());
    EXPECT_TRUE(location().m_writeProtected) << "one of its media was";
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

// --- all of the card ----------------------------------------------------------------------------

TEST_F(LocationTest, ThreeOfEqualSize_FirstToArriveIsSelected) {
    makeLocation(Hardware::card());
    take(start());
    expectSelected(Hardware::card(), Hardware::card(1)); // they are told of in their order
    ASSERT_TRUE(Hardware::ejectCard());
    take(update());
    expectNothingThere();

    ASSERT_TRUE(Hardware::insertCard());
    const Batch batch = update();
    take(batch);
    ASSERT_EQ(batch.events->size(), 4);
    expectSelected(Hardware::card(), batch.events->at(1).dev->m_devName);
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    EXPECT_TRUE(makeFile(files(), "/clip", "film"));
    expectUnmounted(StorageLocation::Presence);
}

// The kernel has the next card's file system under the name that the old one still has. The owner
// has to unmount first: after the attempt, the location holds nothing for mounted.
TEST_F(LocationTest, NextCardMountedBeforeTheUnmount_FailsForExt4) {
    makeLocation(Hardware::card());
    const auto takeExt4 = [&](const Batch& batch) {
        ASSERT_TRUE(batch.events);
        auto events = BDMon::EventListSPtr::create();
        for (const BDMon::Event& event : *batch.events) {
            if (event.dev->m_partNum == 0 || event.dev->m_partNum == 3)
                events->append(event);
        }
        take({events, nullptr});
    };
    takeExt4(start());
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_TRUE(Hardware::ejectCard());
    ASSERT_TRUE(Hardware::insertCard());
    takeExt4(update());
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

/// A card of which nothing is left on the next one.
TEST_F(LocationTest, CardFormatted_NewPartitionWorksAndTheNextCardIsAsItWas) {
    ASSERT_TRUE(Hardware::copyCard("spare"));
    ASSERT_TRUE(Hardware::ejectCard());
    ASSERT_TRUE(Hardware::insertCopy("spare"));
    makeLocation(Hardware::card());
    take(start());
    expectFormatted(Hardware::card(), Hardware::card(1));

    ASSERT_TRUE(Hardware::ejectCard());
    take(update());
    expectNothingThere();
    ASSERT_TRUE(Hardware::insertCard());
    take(update());
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
    /// Plugs it in instead of the other, and has a location that knows of it.
    void plugIn(const char* stick) {
        ASSERT_TRUE(Hardware::plug(stick));
        makeLocation(Hardware::stick(stick));
        BDMon::instance()->stop();
        take(start());
    }
    void SetUp() override {
        LocationTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        ASSERT_TRUE(Hardware::unplug("vfat"));
    }
};

TEST_F(LocationStick, WithAnEfiPartition_ThatIsNeverSelected) {
    ASSERT_TRUE(start().events); // the stick will be told of as it comes
    LogCapture log("stg=11");
    ASSERT_TRUE(Hardware::plug("efi"));
    makeLocation(Hardware::stick("efi"));
    take(update());
    const QStringList skipped = {"stg 11 media skipping EFI system partition\n"};
    EXPECT_EQ(log.messages().filter("EFI"), skipped);
    expectSelected(Hardware::stick("efi"), Hardware::stick("efi", 2));
    EXPECT_EQ(location().selectedPart()->m_fsLabel, "EFIDATA");

    // The same when it was there before the monitor.
    BDMon::instance()->stop();
    makeLocation(Hardware::stick("efi"));
    take(start());
    EXPECT_EQ(log.messages().filter("EFI"), skipped);
    expectSelected(Hardware::stick("efi"), Hardware::stick("efi", 2));

    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    expectMounted(Hardware::stick("efi", 2), StorageLocation::Write);
    EXPECT_TRUE(makeFile(files(), "/clip", "film"));
    expectUnmounted(StorageLocation::Presence);
    EXPECT_EQ(location().check(), 0);
    ASSERT_TRUE(Hardware::unplug("efi"));
    take(update());
    expectNothingThere();
}

TEST_F(LocationStick, ExfatInAGpt_FilesStayOnTheStick) {
    plugIn("exfat");
    const QString part = Hardware::stick("exfat", 1);
    expectSelected(Hardware::stick("exfat"), part);
    EXPECT_FALSE(location().isWriteProtected());
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    expectMounted(part, StorageLocation::Write);
    EXPECT_EQ(mountsOf(part).value(0).type, "exfat");
    EXPECT_TRUE(makeFile(files(), "/clip", "film"));
    expectUnmounted(StorageLocation::Presence);
    ASSERT_TRUE(Hardware::unplug("exfat"));
    take(update());
    expectNothingThere();

    plugIn("exfat");
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    EXPECT_EQ(contents(files(), "/clip"), "film");
    expectUnmounted(StorageLocation::Presence);
}

TEST_F(LocationStick, PulledWhileMounted_CheckMakesItClean) {
    plugIn("vfat");
    ASSERT_EQ(location().mount(nullptr), 0);
    ASSERT_TRUE(makeFile(files(), "/clip", "film"));
    ASSERT_TRUE(Hardware::unplug("vfat"));
    EXPECT_FALSE(makeFile(files(), "/late", "late"));
    EXPECT_THAT(errno, AnyOf(EIO, EROFS));
    take(update());
    expectUnmounted(StorageLocation::None);
    expectNothingThere();

    plugIn("vfat");
    const QString part = Hardware::stick("vfat", 1);
    EXPECT_EQ(runTool({"fsck.vfat", "-n", part}).status, 1) << "its dirty bit is set";
    EXPECT_EQ(location().check(), 0);
    EXPECT_EQ(runTool({"fsck.vfat", "-n", part}).status, 0);
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    EXPECT_EQ(contents(files(), "/clip"), "film");
    expectUnmounted(StorageLocation::Presence);
}

TEST_F(LocationStick, DamagedExt4_CheckRepairsIt) {
    ASSERT_TRUE(Hardware::makeStick("spare", 32 * MiB, "label: gpt\nstart=1MiB, type=linux\n"));
    ASSERT_TRUE(Hardware::plug("spare"));
    const QString part = Hardware::stick("spare", 1);
    ASSERT_TRUE(makeDamagedExt4(part, directory("source")) && noteErrors(part));
    ASSERT_TRUE(Hardware::settle());
    makeLocation(Hardware::stick("spare"));
    take(start());
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

TEST_F(LocationStick, Formatted_NewPartitionIsSelectedAndWorks) {
    ASSERT_TRUE(Hardware::makeStick("spare", 64 * MiB, twoPartitions));
    ASSERT_TRUE(Hardware::plug("spare"));
    const QString disk = Hardware::stick("spare");
    const QString part = Hardware::stick("spare", 1);
    ASSERT_EQ(runTool({"mkfs.ext4", "-q", "-L", "OLD", part}).status, 0);
    ASSERT_TRUE(Hardware::settle());
    makeLocation(disk);
    take(start());
    expectSelected(disk, part);
    expectFormatted(disk, part);

    ASSERT_TRUE(Hardware::unplug("spare"));
    take(update());
    expectNothingThere();
    plugIn("spare");
    ASSERT_EQ(location().mount(nullptr), 0) << std::strerror(errno);
    EXPECT_EQ(contents(files(), "/new"), "film");
    expectUnmounted(StorageLocation::Presence);
}

TEST_F(LocationStick, ThatTakesNoWriting_OnlyReadingWorks) {
    ASSERT_TRUE(start().events);
    ASSERT_TRUE(Hardware::plug("exfat", true));
    makeLocation(Hardware::stick("exfat"));
    take(update());
    EXPECT_FALSE(location().isWriteProtected()); // it has no switch
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
