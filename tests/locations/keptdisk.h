// SPDX-License-Identifier: Apache-2.0
// Fixture for tests of a MediumKeeper on loop disks.
#pragma once

#include "support/doubles/maintenanceprogram.h"
#include "support/doubles/openlocation.h"
#include "support/suite/qtprint.h"
#include "support/system/childprocess.h"
#include "support/system/disktest.h"
#include "support/system/files.h"
#include "support/system/mounts.h"

#include <oruio/fsswitch.h>
#include <oruio/maintenancejob.h>
#include <oruio/mediumkeeper.h>
#include <oruio/posixfs.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <memory>

#include <sys/mount.h>

namespace oru::io::test {

/// Has the real maintenance program, and a slot with a keeper that follows the monitor.
class KeptDisk : public MonitorTest {
protected:
    void SetUp() override {
        MonitorTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        program = std::make_unique<MaintenanceProgram>(realMaintenance);
        ASSERT_EQ(program->problem(), "");
        ASSERT_FALSE(start().events);
    }
    void TearDown() override {
        keeper.reset();
        while (umount2(QFile::encodeName(m_place).constData(), MNT_DETACH) == 0)
            continue;
    }

    /// Keeps the slot, with the mount point directory(name).
    void keep(const MediumKeeper::Policy& policy = {}, const char* name = "mnt") {
        keeper.reset();
        m_place = directory(name);
        Properties props = {{"blkDevId", idPath()}};
        location = std::make_unique<SystemLocation>("card", FS::SPtr(new PosixFS(m_place)), &props);
        FSSwitch::rootfs()->remove(m_place);
        FSSwitch::rootfs()->add(m_place, location->fs());
        keeper = std::make_unique<MediumKeeper>(location.get(), policy);
        QObject::connect(keeper.get(), &MediumKeeper::accessChanged,
                         [this](StorageLocation*, StorageLocation::AccessType access) {
                             changes += StorageLocation::straccess(access);
                         });
        QObject::connect(keeper.get(), &MediumKeeper::finished,
                         [this](int status) { statuses += status; });
    }
    FS& files() {
        return *location->fs();
    }
    std::unique_ptr<LoopDisk> insertCard() {
        auto card = std::make_unique<LoopDisk>(20 * MiB, onePartition);
        EXPECT_TRUE(makeExt4(card->node(1)) && plugIn(*card) && update().events);
        EXPECT_EQ(keeper->access(), keeper->location()->access());
        return card;
    }
    void awaitJob() {
        EXPECT_TRUE(eventually([this] {
            keeper->step();
            return !keeper->job();
        }));
    }
    /// The kernel's number of the mount.
    int mountId() const {
        for (const QByteArray& line : contents("/proc/self/mountinfo").split('\n')) {
            if (line.contains(' ' + QFile::encodeName(m_place) + ' '))
                return line.split(' ').first().toInt();
        }
        return -1;
    }
    /// Expects that the device alone is mounted, and that the keeper says so.
    void expectMounted(const QString& node, StorageLocation::AccessType access) {
        EXPECT_EQ(keeper->state(), MediumKeeper::Mounted) << keeper->reason().toStdString();
        EXPECT_EQ(keeper->access(), access);
        EXPECT_EQ(location->access(), access);
        EXPECT_EQ(devicesAt(m_place), QStringList(node));
        const QList<Mount> mounts = mountsOf(node);
        ASSERT_EQ(mounts.size(), 1);
        EXPECT_EQ(mounts.first().options.first(), access == StorageLocation::Read ? "ro" : "rw");
    }

    const FreshRootSwitch rootSwitch;
    std::unique_ptr<MaintenanceProgram> program;
    std::unique_ptr<SystemLocation> location;
    std::unique_ptr<MediumKeeper> keeper;
    QStringList changes; ///< by accessChanged()
    QList<int> statuses; ///< by finished()

private:
    QString m_place;
};

} // namespace oru::io::test
