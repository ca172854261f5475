// Locations of local media on real disks: fixtures.
#pragma once

#include "support/doubles/maintenanceprogram.h"
#include "support/suite/logcapture.h"
#include "support/system/disktest.h"
#include "support/system/files.h"
#include "support/system/medialocation.h"
#include "support/system/mounts.h"

#include <oruio/error.h>
#include <oruio/fsswitch.h>
#include <oruio/storagelocation.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

namespace oru::io::test {

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
        EXPECT_THAT(mountsOf(card->node(1)), testing::IsEmpty());
    }

    Properties readonlyFalse = {{"readonly", false}};
    Properties lazyFalse = {{"lazy", false}};
    std::unique_ptr<LoopDisk> card;
};

} // namespace oru::io::test
