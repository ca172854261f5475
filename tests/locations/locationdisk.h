// SPDX-License-Identifier: Apache-2.0
// Fixtures for tests of local media locations on loop disks.
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

/// Has one location, which follows the monitor, and the real maintenance program.
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
            EXPECT_EQ(slot->accessChanges, 0) << "only the application emits accessChanged";
        }
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
    void insert(const LoopDisk& disk) {
        ASSERT_EQ(disk.problem(), "");
        ASSERT_TRUE(plugIn(disk));
        ASSERT_TRUE(update().events);
    }
    /// Expects that no partition is selected and that the location has this disk.
    void expectNoneSelected(const QString& disk) {
        EXPECT_EQ(location().access(), StorageLocation::None);
        EXPECT_EQ(field("present"), "no");
        EXPECT_EQ(field("disk"), disk);
        EXPECT_EQ(field("part"), "-");
    }
    void expectSelected(const QString& disk, const QString& part) {
        slot->expectSelected(disk, part);
    }

    const FreshRootSwitch rootSwitch;
    std::unique_ptr<MaintenanceProgram> program;
    std::unique_ptr<MediaLocation> slot;
};

/// Has a card with one partition inserted.
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
    /// The mount options of the card; empty unless it is mounted exactly once.
    QStringList options() const {
        const QList<Mount> mounts = mountsOf(card->node(1));
        return mounts.size() == 1 ? mounts[0].options : QStringList();
    }
    /// Expects this access, and one mount of the card with `option`, "rw" or "ro".
    void expectMounted(StorageLocation::AccessType access, const char* option) {
        EXPECT_EQ(location().access(), access);
        EXPECT_EQ(field("mounted"), "yes");
        EXPECT_EQ(devicesAt(directory()), QStringList(card->node(1)));
        EXPECT_EQ(options(), QStringList({option, "noexec", "noatime"}));
    }
    void expectNotMounted(StorageLocation::AccessType access) {
        EXPECT_EQ(location().access(), access);
        EXPECT_EQ(field("mounted"), "no");
        EXPECT_EQ(field("mountOk"), "no");
        EXPECT_FALSE(isMountPoint(directory()));
        EXPECT_THAT(mountsOf(card->node(1)), testing::IsEmpty());
    }

    Properties readonlyFalse = {{"readonly", false}};
    Properties lazyFalse = {{"lazy", false}};
    std::unique_ptr<LoopDisk> card;
};

} // namespace oru::io::test
