// SPDX-License-Identifier: Apache-2.0
// BDMon on loop disks with a real udevd.

#include "support/doubles/maintenanceprogram.h"
#include "support/system/childprocess.h"
#include "support/system/disktest.h"

#include <oruio/bdmon.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonValue>

#include <cstring>
#include <memory>
#include <ostream>
#include <string>

namespace oru::io::test {
namespace {

using testing::Each;

constexpr char twoGptPartitions[] =
    "label: gpt\nstart=1MiB, size=16MiB, type=linux\n"
    "start=17MiB, size=20MiB, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n";

/// Removes the properties that differ between events.
Properties persistent(Properties properties) {
    for (const char* name : {"ACTION", "SEQNUM", "USEC_INITIALIZED", "SYNTH_UUID"})
        properties.remove(name);
    return properties;
}

using BDMonDisk = MonitorTest;

/// "ACTION NODE" for each event.
QStringList summary(const QList<BDMon::Event>& events) {
    QStringList lines;
    for (const BDMon::Event& event : events)
        lines.append(event.action + ' ' + event.dev->m_devName);
    return lines;
}

QStringList sorted(QStringList lines) {
    lines.sort();
    return lines;
}

/// The latest event of this device, or null.
BlockDevice::SPtr deviceIn(const QList<BDMon::Event>& events, const QString& node) {
    BlockDevice::SPtr found;
    for (const BDMon::Event& event : events) {
        if (event.dev->m_devName == node)
            found = event.dev;
    }
    return found;
}

/// Expects that the events are numbered from 1, and that `eventsByDevice` holds the same events by
/// ID_PATH.
void expectGrouped(const QList<BDMon::Event>& events,
                   const QMap<QString, QList<BDMon::Event>>& eventsByDevice) {
    QMap<QString, QList<BDMon::Event>> expected;
    for (int i = 0; i < events.size(); ++i) {
        EXPECT_EQ(events[i].seq, i + 1);
        expected[events[i].dev->m_idPath].append(events[i]);
    }
    ASSERT_EQ(eventsByDevice.keys(), expected.keys());
    for (const QString& key : expected.keys()) {
        const QList<BDMon::Event>& group = eventsByDevice[key];
        ASSERT_EQ(group.size(), expected[key].size()) << key.toStdString();
        for (int i = 0; i < group.size(); ++i) {
            EXPECT_EQ(group[i].seq, expected[key][i].seq);
            EXPECT_EQ(group[i].action, expected[key][i].action);
            EXPECT_EQ(group[i].dev, expected[key][i].dev);
        }
    }
}

struct Layout {
    const char* name;
    const char* tableType;
    const char* table;
    unsigned sectorSize;
};

void PrintTo(const Layout& layout, std::ostream* out) {
    *out << layout.name;
}

class BDMonLayout : public BDMonDisk, public testing::WithParamInterface<Layout> {
protected:
    void SetUp() override {
        BDMonDisk::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        disk = std::make_unique<LoopDisk>(40 * MiB, GetParam().table,
                                          static_cast<int>(GetParam().sectorSize));
        ASSERT_EQ(disk->problem(), "");
        ASSERT_TRUE(makeExt4(disk->node(1), {"-L", "CLIPS"}));
        ASSERT_TRUE(makeExt4(disk->node(2), {"-L", "BACKUP 2"}));
    }

    void expectDisk(BlockDevice& device) const;
    void expectPartition(BlockDevice& device, int number) const;

    std::unique_ptr<LoopDisk> disk;
};

void BDMonLayout::expectDisk(BlockDevice& device) const {
    const QString node = disk->node();
    EXPECT_EQ(device.m_idPath, idPath());
    EXPECT_EQ(device.m_partNum, 0u);
    EXPECT_EQ(device.m_startBlock, 0u);
    EXPECT_EQ(device.m_blkSize, GetParam().sectorSize);
    EXPECT_EQ(QString::number(device.m_blkSize), outputOf({"blockdev", "--getpbsz", node}));
    EXPECT_EQ(QString::number(device.capacity()), outputOf({"blockdev", "--getsize64", node}));
    EXPECT_EQ(device.m_totalBlocks, 40u * MiB / GetParam().sectorSize);
    EXPECT_EQ(device.m_fsType, "");
    EXPECT_EQ(device.m_fsLabel, "");
    EXPECT_FALSE(device.isMountable());
    EXPECT_EQ(device.m_devName, node);
    EXPECT_EQ(device.m_partTableType, GetParam().tableType);
    EXPECT_EQ(device.m_partTableType, tagOf(node, "PTTYPE"));
    EXPECT_EQ("/sys" + device.m_devPath, QFileInfo(disk->sysfsPath()).canonicalFilePath());
    EXPECT_EQ(device.m_partEntryType, "");
    EXPECT_FALSE(device.m_writeProtected);
    EXPECT_FALSE(device.m_umountFailed);
    EXPECT_EQ(device.props(), device.m_props);
    EXPECT_EQ(device.m_props.value("DEVTYPE"), "disk");
    EXPECT_FALSE(device.m_props.contains("WRITE_PROTECTED"));
}

void BDMonLayout::expectPartition(BlockDevice& device, int number) const {
    const QString node = disk->node(number);
    EXPECT_EQ(device.m_idPath, idPath());
    EXPECT_EQ(device.m_partNum, static_cast<unsigned>(number));
    EXPECT_EQ(device.m_blkSize, GetParam().sectorSize);
    EXPECT_EQ(device.m_fsType, "ext4");
    EXPECT_EQ(device.m_fsType, tagOf(node, "TYPE"));
    EXPECT_EQ(device.m_fsLabel, tagOf(node, "LABEL").replace(' ', '_')); // as udev encodes it
    EXPECT_EQ(device.m_fsLabel, number == 1 ? "CLIPS" : "BACKUP_2");
    EXPECT_TRUE(device.isMountable());
    EXPECT_EQ(device.m_devName, node);
    EXPECT_EQ(device.m_partTableType, GetParam().tableType);
    EXPECT_EQ("/sys" + device.m_devPath, QFileInfo(disk->sysfsPath(number)).canonicalFilePath());
    EXPECT_FALSE(device.m_writeProtected);
    EXPECT_EQ(device.m_props.value("DEVTYPE"), "partition");
    EXPECT_FALSE(device.m_props.contains("WRITE_PROTECTED"));

    // In units of 512 bytes, independent of the block size.
    EXPECT_EQ(device.m_startBlock, (number == 1 ? 1 : 17) * MiB / 512);
    EXPECT_EQ(device.m_totalBlocks, (number == 1 ? 16 : 20) * MiB / 512);
    EXPECT_EQ(device.m_totalBlocks, outputOf({"blockdev", "--getsz", node}).toULongLong());
    EXPECT_EQ(device.capacity(), device.m_totalBlocks * GetParam().sectorSize);

    const QJsonDocument tables =
        QJsonDocument::fromJson(outputOf({"sfdisk", "--json", disk->node()}).toUtf8());
    const QJsonValue entry = tables["partitiontable"]["partitions"][number - 1];
    EXPECT_EQ(device.m_startBlock, entry["start"].toInt() * GetParam().sectorSize / 512);
    EXPECT_EQ(device.m_totalBlocks, entry["size"].toInt() * GetParam().sectorSize / 512);
    const QString code = entry["type"].toString().toLower();
    EXPECT_FALSE(code.isEmpty());
    EXPECT_EQ(device.m_partEntryType,
              std::strcmp(GetParam().tableType, "dos") == 0 ? "0x" + code : code);
}

TEST_P(BDMonLayout, PluggedIn_OneBatchOfThree) {
    ASSERT_FALSE(start().events);
    ASSERT_TRUE(plugIn(*disk));
    const Batch batch = update();
    ASSERT_TRUE(batch.events);
    const QList<BDMon::Event>& events = *batch.events;
    ASSERT_EQ(events.size(), 3);
    EXPECT_EQ(summary(events)[0], "add " + disk->node()); // the partitions follow in any order
    EXPECT_EQ(sorted(summary(events)),
              QStringList({"add " + disk->node(), "add " + disk->node(1), "add " + disk->node(2)}));
    EXPECT_EQ(batch.eventsByDevice->keys(), QStringList(idPath()));
    expectGrouped(events, *batch.eventsByDevice);

    expectDisk(*events[0].dev);
    for (const int number : {1, 2})
        expectPartition(*deviceIn(events, disk->node(number)), number);
    for (const BDMon::Event& event : events) {
        EXPECT_EQ(event.dev->m_action, "add");
        EXPECT_GT(event.dev->m_seqNum, 0);
        EXPECT_EQ(QString::number(event.dev->m_seqNum), event.dev->m_props["SEQNUM"].toString());
    }
    EXPECT_FALSE(update().events);
}

TEST_P(BDMonLayout, PresentAtStart_AddedInOneBatch) {
    ASSERT_TRUE(plugIn(*disk));
    const Batch batch = start();
    ASSERT_TRUE(batch.events);
    const QList<BDMon::Event>& events = *batch.events;
    ASSERT_EQ(summary(events),
              QStringList({"add " + disk->node(), "add " + disk->node(1), "add " + disk->node(2)}));
    expectGrouped(events, *batch.eventsByDevice);
    expectDisk(*events[0].dev);
    expectPartition(*events[1].dev, 1);
    expectPartition(*events[2].dev, 2);
    for (const BDMon::Event& event : events) {
        EXPECT_EQ(event.dev->m_action, "");
        EXPECT_EQ(event.dev->m_seqNum, 0);
    }

    EXPECT_FALSE(start().events) << "already running";
}

TEST_P(BDMonLayout, Unplugged_RemovedWithLastProperties) {
    ASSERT_FALSE(start().events);
    ASSERT_TRUE(plugIn(*disk));
    const Batch added = update();
    ASSERT_TRUE(added.events);
    const QStringList nodes = {disk->node(), disk->node(1), disk->node(2)};
    ASSERT_TRUE(unplug(*disk));
    const Batch removed = update();
    ASSERT_TRUE(removed.events);
    const QList<BDMon::Event>& events = *removed.events;
    EXPECT_EQ(summary(events).last(), "remove " + nodes[0]);
    EXPECT_EQ(sorted(summary(events)),
              QStringList({"remove " + nodes[0], "remove " + nodes[1], "remove " + nodes[2]}));
    expectGrouped(events, *removed.eventsByDevice);
    EXPECT_EQ(removed.eventsByDevice->keys(), QStringList(idPath()));

    for (const QString& node : nodes) {
        SCOPED_TRACE(node.toStdString());
        const BlockDevice::SPtr before = deviceIn(*added.events, node);
        const BlockDevice::SPtr after = deviceIn(events, node);
        ASSERT_TRUE(before && after);
        EXPECT_EQ(after->m_action, "remove");
        EXPECT_GT(after->m_seqNum, before->m_seqNum);
        EXPECT_EQ(persistent(after->m_props), persistent(before->m_props));
        EXPECT_EQ(after->m_fsLabel, before->m_fsLabel);
        EXPECT_EQ(after->m_startBlock, before->m_startBlock);
        EXPECT_EQ(after->m_totalBlocks, before->m_totalBlocks);
    }
    // The node of a removed partition is gone, so its block size is unknown.
    EXPECT_EQ(deviceIn(events, nodes[1])->m_blkSize, 512u);
    EXPECT_FALSE(update().events);
}

INSTANTIATE_TEST_SUITE_P(Tables, BDMonLayout,
                         testing::Values(Layout{"Mbr512", "dos", twoPartitions, 512},
                                         Layout{"Mbr4096", "dos", twoPartitions, 4096},
                                         Layout{"Gpt512", "gpt", twoGptPartitions, 512},
                                         Layout{"Gpt4096", "gpt", twoGptPartitions, 4096}),
                         [](const testing::TestParamInfo<Layout>& param) {
                             return std::string(param.param.name);
                         });

TEST_F(BDMonDisk, NewFileSystem_ChangeEvent) {
    const LoopDisk disk(20 * MiB, onePartition);
    ASSERT_EQ(disk.problem(), "");
    ASSERT_FALSE(start().events);
    ASSERT_TRUE(plugIn(disk));
    const Batch before = update();
    ASSERT_TRUE(before.events);
    EXPECT_FALSE(deviceIn(*before.events, disk.node(1))->isMountable());

    ASSERT_TRUE(makeExt4(disk.node(1), {"-L", "NEW"}));
    ASSERT_TRUE(disk.sendUevent("change", 1));
    const Batch after = update();
    ASSERT_TRUE(after.events);
    // The udevd of the system, if any, triggers a second event when the node is closed after
    // writing.
    EXPECT_THAT(summary(*after.events), Each(QString("change " + disk.node(1))));
    expectGrouped(*after.events, *after.eventsByDevice);
    const BlockDevice::SPtr device = after.events->last().dev;
    EXPECT_EQ(device->m_action, "change");
    EXPECT_EQ(device->m_idPath, idPath());
    EXPECT_TRUE(device->isMountable());
    EXPECT_EQ(device->m_fsType, "ext4");
    EXPECT_EQ(device->m_fsLabel, "NEW");
}

TEST_F(BDMonDisk, WithoutIdPath_NotReported) {
    const LoopDisk unnamed(20 * MiB, onePartition);
    ASSERT_EQ(unnamed.problem(), "");
    ASSERT_TRUE(unnamed.plugIn());
    ASSERT_TRUE(udevd->settle());
    ASSERT_FALSE(start().events);
    ASSERT_TRUE(unnamed.sendUevent("change") && unnamed.sendUevent("add", 1));
    EXPECT_FALSE(update().events);

    const LoopDisk named(8 * MiB);
    ASSERT_EQ(named.problem(), "");
    ASSERT_TRUE(unnamed.sendUevent("change"));
    ASSERT_TRUE(plugIn(named));
    ASSERT_TRUE(unnamed.sendUevent("change"));
    const Batch batch = update();
    ASSERT_TRUE(batch.events);
    EXPECT_EQ(summary(*batch.events), QStringList("add " + named.node()));
    EXPECT_EQ(batch.events->first().seq, 1);
}

TEST_F(BDMonDisk, TwoDisks_OneBatchOfTwoGroups) {
    const LoopDisk first(20 * MiB, onePartition);
    const LoopDisk second(20 * MiB, onePartition);
    ASSERT_EQ(first.problem() + second.problem(), "");
    ASSERT_FALSE(start().events);
    ASSERT_TRUE(plugIn(first, idPath(1)));
    ASSERT_TRUE(plugIn(second, idPath(2)));
    ASSERT_TRUE(first.sendUevent("change"));
    const Batch batch = update();
    ASSERT_TRUE(batch.events);
    ASSERT_EQ(batch.events->size(), 5);
    expectGrouped(*batch.events, *batch.eventsByDevice);
    const QMap<QString, QList<BDMon::Event>>& groups = *batch.eventsByDevice;
    EXPECT_EQ(groups.keys(), QStringList({idPath(1), idPath(2)}));
    EXPECT_EQ(
        summary(groups[idPath(1)]),
        QStringList({"add " + first.node(), "add " + first.node(1), "change " + first.node()}));
    EXPECT_EQ(summary(groups[idPath(2)]),
              QStringList({"add " + second.node(), "add " + second.node(1)}));
}

TEST_F(BDMonDisk, Stopped_EventsBeforeNextStartLost) {
    const LoopDisk disk(8 * MiB);
    ASSERT_EQ(disk.problem(), "");
    ASSERT_FALSE(start().events);
    BDMon::instance()->stop();
    EXPECT_FALSE(BDMon::instance()->isRunning());
    ASSERT_TRUE(plugIn(disk));
    EXPECT_FALSE(update().events);
    const Batch batch = start();
    ASSERT_TRUE(batch.events);
    EXPECT_EQ(summary(*batch.events), QStringList("add " + disk.node()));
    EXPECT_FALSE(update().events) << "events before start() are lost";
}

TEST_F(BDMonDisk, Formatted_NewPartitionReported) {
    const QString tool = missingToFormat();
    if (!tool.isEmpty())
        GTEST_SKIP() << tool.toStdString() << " is not installed";
    const MaintenanceProgram program(realMaintenance);
    ASSERT_EQ(program.problem(), "");
    const LoopDisk disk(64 * MiB, twoPartitions);
    ASSERT_EQ(disk.problem(), "");
    ASSERT_FALSE(start().events);
    ASSERT_TRUE(plugIn(disk));
    const Batch before = update();
    ASSERT_TRUE(before.events);
    ASSERT_EQ(deviceIn(*before.events, disk.node())->format(nullptr), 0);

    const Batch after = update();
    ASSERT_TRUE(after.events);
    expectGrouped(*after.events, *after.eventsByDevice);
    const BlockDevice::SPtr first = deviceIn(*after.events, disk.node(1));
    const BlockDevice::SPtr second = deviceIn(*after.events, disk.node(2));
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->m_action, "add");
    EXPECT_EQ(first->m_fsType, "vfat");
    EXPECT_EQ(first->m_partEntryType, "0x6");
    EXPECT_EQ(first->m_startBlock, 128u);
    EXPECT_EQ(second->m_action, "remove");
}

// A card may be removed before it is unmounted.
TEST_F(BDMonDisk, RemovedWhileMounted_EventsDeviceUnmounts) {
    LoopDisk disk(20 * MiB, onePartition);
    ASSERT_EQ(disk.problem(), "");
    ASSERT_TRUE(makeExt4(disk.node(1)));
    ASSERT_FALSE(start().events);
    ASSERT_TRUE(plugIn(disk));
    const Batch added = update();
    ASSERT_TRUE(added.events);
    ASSERT_EQ(deviceIn(*added.events, disk.node(1))->mount(directory(), nullptr), 0);

    ASSERT_TRUE(disk.pullOut());
    EXPECT_TRUE(disk.isAttached()) << "the mount keeps the disk attached";
    const Batch removed = update();
    ASSERT_TRUE(removed.events);
    ASSERT_EQ(sorted(summary(*removed.events)),
              QStringList({"remove " + disk.node(), "remove " + disk.node(1)}));
    const BlockDevice::SPtr partition = deviceIn(*removed.events, disk.node(1));
    EXPECT_EQ(partition->m_fsType, "ext4");
    EXPECT_EQ(partition->umount(nullptr), 0);
    EXPECT_FALSE(partition->m_umountFailed);
    EXPECT_FALSE(isMountPoint(directory()));
    EXPECT_TRUE(eventually([&] { return !disk.isAttached(); }));
}

} // namespace
} // namespace oru::io::test
