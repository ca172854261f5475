// SPDX-License-Identifier: Apache-2.0
// BDMon and LinuxBD with the device's hardware: fields and events of its card and sticks, compared
// with the output of the system's tools.
#include <oruio/bdmon.h>

#include "device/hardware.h"
#include "support/suite/qtprint.h"
#include "support/system/childprocess.h"
#include "support/system/files.h"
#include "support/system/loopdisk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace oru::io::test {
namespace {

using testing::ElementsAre;

constexpr quint64 MiB = 1024 * 1024;

/// A partition that make-disks has created.
struct Partition {
    const char* fsType;
    const char* label;
    const char* entryType;
    quint64 startMiB;
    quint64 sizeMiB;
};

struct Medium {
    const char* name; ///< name of the stick; null for the card
    const char* tableType;
    quint64 sizeMiB;
    std::vector<Partition> partitions;

    QString node(int partition = 0) const {
        return name ? Hardware::stick(name, partition) : Hardware::card(partition);
    }
};

constexpr char basicData[] = "ebd0a0a2-b9e5-4433-87c0-68b6b72699c7";

const Medium card = {nullptr,
                     "dos",
                     256,
                     {{"vfat", "SDVFAT", "0xc", 1, 64},
                      {"exfat", "SDEXFAT", "0x7", 65, 64},
                      {"ext4", "SDEXT4", "0x83", 129, 64}}};
const Medium vfatStick = {"vfat", "dos", 128, {{"vfat", "USBVFAT", "0xc", 1, 64}}};
const Medium exfatStick = {"exfat", "gpt", 128, {{"exfat", "USBEXFAT", basicData, 1, 64}}};
const Medium efiStick = {"efi",
                         "gpt",
                         128,
                         {{"vfat", "EFI", "c12a7328-f81f-11d2-ba4b-00a0c93ec93b", 1, 36},
                          {"vfat", "EFIDATA", basicData, 37, 64}}};

// --- output of the tools ------------------------------------------------------------------------

QStringList sorted(QStringList lines) {
    lines.sort();
    return lines;
}

/// "NAME=VALUE" for each property that does not belong to a single event. Links are sorted.
QStringList persistent(const Properties& properties) {
    QStringList lines;
    for (auto it = properties.begin(); it != properties.end(); ++it) {
        const QString value =
            it.key() == "DEVLINKS" ? sorted(it->toString().split(' ')).join(' ') : it->toString();
        if (!QStringList({"ACTION", "SEQNUM", "SYNTH_UUID", "WRITE_PROTECTED"}).contains(it.key()))
            lines.append(it.key() + '=' + value);
    }
    return lines;
}

/// The properties in udevd's database.
Properties udevProperties(const QString& node) {
    Properties properties;
    for (const QString& line : outputOf({"udevadm", "info", "--query=property", node}).split('\n'))
        properties[line.section('=', 0, 0)] = line.section('=', 1);
    return properties;
}

/// The columns of lsblk(8) for one device.
QJsonObject lsblk(const QString& node) {
    const QString table =
        outputOf({"lsblk", "--json", "--bytes", "--nodeps", "--output",
                  "PATH,TYPE,SIZE,RO,PHY-SEC,FSTYPE,LABEL,PTTYPE,PARTTYPE,MAJ:MIN", node});
    return QJsonDocument::fromJson(table.toUtf8())["blockdevices"][0].toObject();
}

/// The tags that blkid(8) reads from the medium.
QMap<QString, QString> tagsOf(const QString& node) {
    QMap<QString, QString> tags;
    for (const QString& line : outputOf({"blkid", "-p", "-o", "export", node}).split('\n'))
        tags[line.section('=', 0, 0)] = line.section('=', 1);
    return tags;
}

quint64 numberIn(const QString& file) {
    bool isNumber = false;
    const quint64 number = contents(file).trimmed().toULongLong(&isNumber);
    EXPECT_TRUE(isNumber) << file.toStdString();
    return number;
}

/// Expects that the fields of a present device equal the output of the tools.
void expectEqualToTools(BlockDevice& device) {
    const QString& node = device.m_devName;
    SCOPED_TRACE(node.toStdString());
    const QString sysfsPath = Hardware::sysfsPath(node);
    ASSERT_NE(sysfsPath, "");
    const bool isPartition = QFile::exists(sysfsPath + "/partition");
    const bool isCard = node.startsWith(Hardware::card());
    const QString disk = isPartition ? QDir::cleanPath(sysfsPath + "/..") : sysfsPath;
    const QJsonObject columns = lsblk(node);
    const QMap<QString, QString> tags = tagsOf(node);
    ASSERT_EQ(tags["DEVNAME"], node);
    ASSERT_EQ(columns["path"].toString(), node);

    EXPECT_EQ(persistent(device.m_props), persistent(udevProperties(node)));
    EXPECT_EQ(device.props(), device.m_props);
    EXPECT_EQ(device.m_props["DEVTYPE"].toString(),
              columns["type"].toString().replace("part", "partition"));
    EXPECT_EQ(device.m_idPath, Hardware::idPath(node));
    EXPECT_EQ(device.m_partNum, isPartition ? numberIn(sysfsPath + "/partition") : 0u);
    EXPECT_EQ(device.m_startBlock, isPartition ? numberIn(sysfsPath + "/start") : 0u);
    EXPECT_EQ(device.m_blkSize, numberIn(disk + "/queue/physical_block_size"));
    EXPECT_EQ(device.m_blkSize, quint64(columns["phy-sec"].toInt()));
    EXPECT_EQ(device.m_totalBlocks, numberIn(sysfsPath + "/size"));
    EXPECT_EQ(double(device.capacity()), columns["size"].toDouble());

    EXPECT_EQ(device.m_fsType, columns["fstype"].toString());
    EXPECT_EQ(device.m_fsType, tags["TYPE"]);
    EXPECT_EQ(device.isMountable(), !columns["fstype"].toString().isEmpty());
    EXPECT_EQ(device.m_fsLabel, columns["label"].toString());
    EXPECT_EQ(device.m_fsLabel, tags["LABEL"]);
    EXPECT_EQ(device.m_partTableType, columns["pttype"].toString());
    EXPECT_EQ(device.m_partTableType, tags.value("PTTYPE", tags["PART_ENTRY_SCHEME"]));
    EXPECT_EQ(device.m_partEntryType, columns["parttype"].toString());
    EXPECT_EQ(device.m_partEntryType, tags["PART_ENTRY_TYPE"]);

    EXPECT_EQ(device.m_devPath, isCard ? sysfsPath + "/ro" : sysfsPath.mid(4));
    EXPECT_EQ(device.m_writeProtected, isCard && columns["ro"].toBool());
    EXPECT_EQ(device.m_props.contains("WRITE_PROTECTED"), isCard);
    EXPECT_EQ(device.m_props.value("WRITE_PROTECTED").toBool(), device.m_writeProtected);
    EXPECT_FALSE(device.m_umountFailed);
}

// --- events -------------------------------------------------------------------------------------

/// "ACTION NODE" for each event.
QStringList summary(const QList<BDMon::Event>& events) {
    QStringList lines;
    for (const BDMon::Event& event : events)
        lines.append(event.action + ' ' + event.dev->m_devName);
    return lines;
}

QStringList prefixed(const QString& action, const QStringList& nodes) {
    return QStringList(nodes).replaceInStrings(QRegularExpression("^"), action + ' ');
}

/// Removes "change" events of disks: a plugged-in stick becomes ready in several steps, and the
/// SCSI layer sends "change" when it notices one.
QList<BDMon::Event> withoutDiskChanges(const QList<BDMon::Event>& events) {
    QList<BDMon::Event> found;
    for (const BDMon::Event& event : events) {
        if (event.action == "change")
            EXPECT_TRUE(event.dev->m_devName.startsWith("/dev/sd") && event.dev->m_partNum == 0);
        else
            found.append(event);
    }
    return found;
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
    QMap<QString, QStringList> expected;
    QMap<QString, QStringList> groups;
    const auto line = [](const BDMon::Event& event) {
        return QString("%1: %2 %3")
            .arg(event.seq)
            .arg(event.action)
            .arg(quintptr(event.dev.data()), 0, 16);
    };
    for (int i = 0; i < events.size(); ++i) {
        EXPECT_EQ(events[i].seq, i + 1);
        expected[events[i].dev->m_idPath].append(line(events[i]));
    }
    for (const QString& idPath : eventsByDevice.keys()) {
        for (const BDMon::Event& event : eventsByDevice[idPath])
            groups[idPath].append(line(event));
    }
    EXPECT_EQ(groups, expected);
}

/// Expects that the medium is present, and that the last event of each of its devices matches the
/// medium and the output of the tools.
void expectMedium(const Medium& medium, const QList<BDMon::Event>& events) {
    const BlockDevice::SPtr disk = deviceIn(events, medium.node());
    ASSERT_TRUE(disk);
    expectEqualToTools(*disk);
    EXPECT_EQ(disk->capacity(), medium.sizeMiB * MiB);
    EXPECT_EQ(disk->m_partTableType, medium.tableType);
    EXPECT_FALSE(disk->isMountable());
    int number = 0;
    for (const Partition& made : medium.partitions) {
        ++number;
        const BlockDevice::SPtr device = deviceIn(events, medium.node(number));
        ASSERT_TRUE(device) << number;
        expectEqualToTools(*device);
        EXPECT_EQ(device->m_idPath, disk->m_idPath);
        EXPECT_EQ(device->m_partNum, static_cast<unsigned>(number));
        EXPECT_EQ(device->m_fsType, made.fsType);
        EXPECT_EQ(device->m_fsLabel, made.label);
        // The boot sector of exFAT also looks like a partition table, and udev prefers the table.
        const bool isExfat = device->m_fsType == "exfat";
        EXPECT_EQ(device->m_partTableType, isExfat ? "dos" : medium.tableType);
        EXPECT_EQ(device->m_partEntryType, made.entryType);
        EXPECT_EQ(device->m_startBlock * 512, made.startMiB * MiB);
        EXPECT_EQ(device->capacity(), made.sizeMiB * MiB);
    }
}

/// Expects that the disk is added first, then its partitions in any order.
void expectAddition(const QStringList& nodes, const QList<BDMon::Event>& events) {
    const QStringList lines = summary(withoutDiskChanges(events));
    EXPECT_EQ(lines.value(0), "add " + nodes[0]);
    EXPECT_EQ(sorted(lines), prefixed("add", nodes));
    int last = 0;
    for (const BDMon::Event& event : events) {
        EXPECT_EQ(event.dev->m_action, event.action);
        EXPECT_EQ(event.dev->m_props["ACTION"].toString(), event.action);
        EXPECT_EQ(event.dev->m_props["SEQNUM"].toString(), QString::number(event.dev->m_seqNum));
        EXPECT_GT(event.dev->m_seqNum, 0);
        last = qMax(last, event.dev->m_seqNum);
    }
    EXPECT_GE(last, events.first().dev->m_seqNum + nodes.size() - 1);
}

/// Expects that the partitions are removed in any order, then the disk.
void expectRemovalOrder(const QStringList& nodes, const QList<BDMon::Event>& events) {
    const QStringList lines = summary(withoutDiskChanges(events));
    EXPECT_EQ(lines.value(lines.size() - 1), "remove " + nodes[0]);
    EXPECT_EQ(sorted(lines), prefixed("remove", nodes));
}

/// Expects the removal of these nodes. `before` are the events of the devices while they were
/// present.
void expectRemoval(const QStringList& nodes, const QList<BDMon::Event>& events,
                   const QList<BDMon::Event>& before) {
    expectRemovalOrder(nodes, events);
    for (const QString& node : nodes) {
        SCOPED_TRACE(node.toStdString());
        const BlockDevice::SPtr gone = deviceIn(events, node);
        const BlockDevice::SPtr there = deviceIn(before, node);
        ASSERT_TRUE(gone && there);
        EXPECT_EQ(gone->m_action, "remove");
        EXPECT_GT(gone->m_seqNum, there->m_seqNum);
        EXPECT_EQ(persistent(gone->m_props), persistent(there->m_props));
        EXPECT_EQ(gone->m_idPath, there->m_idPath);
        EXPECT_EQ(gone->m_partNum, there->m_partNum);
        EXPECT_EQ(gone->m_fsType, there->m_fsType);
        EXPECT_EQ(gone->m_fsLabel, there->m_fsLabel);
        EXPECT_EQ(gone->m_partTableType, there->m_partTableType);
        EXPECT_EQ(gone->m_partEntryType, there->m_partEntryType);
        EXPECT_EQ(gone->m_startBlock, there->m_startBlock);
        // The length of a disk is read from its node, which is gone; that of a partition is udev's.
        EXPECT_EQ(gone->m_totalBlocks, gone->m_partNum == 0 ? 0u : there->m_totalBlocks);
        EXPECT_EQ(gone->m_blkSize, 512u);
        EXPECT_EQ(gone->m_devPath, there->m_devPath);
        EXPECT_FALSE(gone->m_writeProtected) << "the file in /sys is gone";
        EXPECT_EQ(gone->m_props.contains("WRITE_PROTECTED"),
                  there->m_props.contains("WRITE_PROTECTED"));
        EXPECT_FALSE(gone->m_props.value("WRITE_PROTECTED").toBool());
    }
}

/// Starts the monitor.
class Media : public HardwareTest {
protected:
    void SetUp() override {
        HardwareTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        const Batch batch = start();
        ASSERT_TRUE(batch.events);
        present = *batch.events;
    }

    QList<BDMon::Event> present; ///< the events of start()
};

// --- at the start -------------------------------------------------------------------------------

using MediaAtStart = HardwareTest;

TEST_F(MediaAtStart, AllDevicesWithIdPath_AddedInOneBatch) {
    QStringList expected;
    for (const QString& record : outputOf({"udevadm", "info", "--export-db"}).split("\n\n")) {
        const QRegularExpression node("^E: DEVNAME=(.*)$", QRegularExpression::MultilineOption);
        if (record.contains("\nE: SUBSYSTEM=block\n") && record.contains("\nE: ID_PATH="))
            expected.append("add " + node.match(record).captured(1));
    }
    expected.sort();
    ASSERT_TRUE(expected.contains("add /dev/mmcblk0p3"));

    const Batch batch = start();
    ASSERT_TRUE(batch.events);
    const QList<BDMon::Event>& events = *batch.events;
    EXPECT_EQ(sorted(summary(events)), expected);
    expectGrouped(events, *batch.eventsByDevice);
    for (const BDMon::Event& event : events) {
        EXPECT_EQ(event.dev->m_action, "");
        EXPECT_EQ(event.dev->m_seqNum, 0);
    }
    for (const Medium& medium : {card, vfatStick}) {
        expectMedium(medium, events);
        // The disk is reported before its partitions, and these in their order.
        const QString idPath = Hardware::idPath(medium.node());
        EXPECT_EQ(summary((*batch.eventsByDevice)[idPath]),
                  prefixed("add", Hardware::nodes(medium.node())));
    }
}

TEST_F(MediaAtStart, StartedTwice_EmitsOnlyAfterStop) {
    ASSERT_TRUE(start().events);
    EXPECT_FALSE(start().events);
    BDMon::instance()->stop();
    ASSERT_TRUE(Hardware::ejectCard());
    EXPECT_FALSE(update().events);
    const Batch batch = start();
    ASSERT_TRUE(batch.events);
    EXPECT_FALSE(deviceIn(*batch.events, card.node()));
    expectMedium(vfatStick, *batch.events);
    EXPECT_FALSE(update().events) << "events before start() are lost";
}

// --- the card -----------------------------------------------------------------------------------

TEST_F(Media, CardEjected_PartitionsRemovedBeforeDisk) {
    const QString idPath = Hardware::idPath(card.node());
    const QStringList nodes = Hardware::nodes(card.node());
    ASSERT_TRUE(Hardware::ejectCard());
    const Batch batch = update();
    ASSERT_TRUE(batch.events);
    expectGrouped(*batch.events, *batch.eventsByDevice);
    EXPECT_THAT(batch.eventsByDevice->keys(), ElementsAre(idPath));
    expectRemoval(nodes, *batch.events, present);
    EXPECT_FALSE(update().events);
}

TEST_F(Media, CardInserted_DiskAddedBeforePartitions) {
    const QString idPath = Hardware::idPath(card.node());
    ASSERT_TRUE(Hardware::ejectCard());
    ASSERT_TRUE(update().events);
    ASSERT_TRUE(Hardware::insertCard());
    const Batch batch = update();
    ASSERT_TRUE(batch.events);
    expectGrouped(*batch.events, *batch.eventsByDevice);
    EXPECT_THAT(batch.eventsByDevice->keys(), ElementsAre(idPath));
    expectAddition(Hardware::nodes(card.node()), *batch.events);
    expectMedium(card, *batch.events);
    for (const BDMon::Event& event : *batch.events)
        EXPECT_FALSE(event.dev->m_writeProtected);
    EXPECT_FALSE(update().events);
}

TEST_F(Media, CardInsertedWriteProtected_DiskAndPartitionsProtected) {
    ASSERT_TRUE(Hardware::ejectCard());
    ASSERT_TRUE(Hardware::insertCard(true));
    const QStringList nodes = Hardware::nodes(card.node());
    EXPECT_EQ(nodes.size(), 4);
    for (const QString& node : nodes)
        EXPECT_EQ(outputOf({"blockdev", "--getro", node}), "1");
    Batch batch = update();
    ASSERT_TRUE(batch.events);
    expectMedium(card, *batch.events);
    const QList<BDMon::Event> events = batch.events->mid(4); // the first four are removals
    expectAddition(nodes, events);
    for (const BDMon::Event& event : events) {
        EXPECT_TRUE(event.dev->m_writeProtected) << event.dev->m_devName.toStdString();
        EXPECT_EQ(event.dev->m_props["WRITE_PROTECTED"], QVariant(true));
    }

    // After the removal the state is unknown; the next card has the switch off.
    ASSERT_TRUE(Hardware::ejectCard());
    batch = update();
    ASSERT_TRUE(batch.events);
    expectRemoval(nodes, *batch.events, events);
    ASSERT_TRUE(Hardware::insertCard());
    batch = update();
    ASSERT_TRUE(batch.events);
    for (const BDMon::Event& event : *batch.events) {
        EXPECT_FALSE(event.dev->m_writeProtected) << event.dev->m_devName.toStdString();
        EXPECT_EQ(event.dev->m_props["WRITE_PROTECTED"], QVariant(false));
    }
}

// --- sticks -------------------------------------------------------------------------------------

TEST_F(Media, StickPulled_PartitionsRemovedBeforeDisk) {
    const QString idPath = Hardware::idPath(vfatStick.node());
    const QStringList nodes = Hardware::nodes(vfatStick.node());
    ASSERT_TRUE(Hardware::unplug("vfat"));
    const Batch batch = update();
    ASSERT_TRUE(batch.events);
    expectGrouped(*batch.events, *batch.eventsByDevice);
    EXPECT_THAT(batch.eventsByDevice->keys(), ElementsAre(idPath));
    expectRemoval(nodes, *batch.events, present);
}

class MediaStick : public Media, public testing::WithParamInterface<const Medium*> {};

TEST_P(MediaStick, PluggedIn_DiskAddedBeforePartitions) {
    const Medium& medium = *GetParam();
    ASSERT_TRUE(Hardware::unplug("vfat"));
    ASSERT_TRUE(update().events);
    ASSERT_TRUE(Hardware::plug(medium.name));
    const Batch arrived = update();
    ASSERT_TRUE(arrived.events);
    expectGrouped(*arrived.events, *arrived.eventsByDevice);
    EXPECT_THAT(arrived.eventsByDevice->keys(), ElementsAre(Hardware::idPath(medium.node())));
    const QStringList nodes = Hardware::nodes(medium.node());
    expectAddition(nodes, *arrived.events);
    expectMedium(medium, *arrived.events);

    ASSERT_TRUE(Hardware::unplug(medium.name));
    const Batch gone = update();
    ASSERT_TRUE(gone.events);
    expectRemoval(nodes, *gone.events, *arrived.events);
}

TEST_P(MediaStick, PresentAtStart_Added) {
    const Medium& medium = *GetParam();
    ASSERT_TRUE(Hardware::unplug("vfat"));
    ASSERT_TRUE(Hardware::plug(medium.name));
    BDMon::instance()->stop();
    const Batch batch = start();
    ASSERT_TRUE(batch.events);
    expectMedium(medium, *batch.events);
}

// Write protection is the switch of a card; a read-only stick has none.
TEST_F(Media, ReadOnlyStick_NotWriteProtected) {
    ASSERT_TRUE(Hardware::unplug("vfat"));
    ASSERT_TRUE(update().events);
    ASSERT_TRUE(Hardware::plug("efi", true));
    for (const QString& node : Hardware::nodes(efiStick.node()))
        EXPECT_EQ(outputOf({"blockdev", "--getro", node}), "1");
    const Batch batch = update();
    ASSERT_TRUE(batch.events);
    expectMedium(efiStick, *batch.events);
    for (const BDMon::Event& event : *batch.events)
        EXPECT_FALSE(event.dev->m_writeProtected) << event.dev->m_devName.toStdString();
}

INSTANTIATE_TEST_SUITE_P(Sticks, MediaStick, testing::Values(&vfatStick, &exfatStick, &efiStick),
                         [](const testing::TestParamInfo<const Medium*>& param) {
                             return std::string(param.param->name);
                         });

TEST_F(Media, NewFileSystemOnStick_PartitionChangeEvent) {
    ASSERT_TRUE(Hardware::makeStick("spare", 32 * MiB, "label: gpt\nstart=1MiB, type=linux\n"));
    ASSERT_TRUE(Hardware::plug("spare"));
    const QString node = Hardware::stick("spare", 1);
    const Batch before = update();
    ASSERT_TRUE(before.events);
    ASSERT_TRUE(deviceIn(*before.events, node));
    EXPECT_FALSE(deviceIn(*before.events, node)->isMountable());

    ASSERT_EQ(runTool({"mkfs.ext4", "-q", "-L", "CLIPS", node}).status, 0);
    ASSERT_TRUE(Hardware::settle());
    const Batch after = update();
    ASSERT_TRUE(after.events);
    expectGrouped(*after.events, *after.eventsByDevice);
    const BlockDevice::SPtr partition = deviceIn(*after.events, node);
    ASSERT_TRUE(partition);
    EXPECT_EQ(partition->m_action, "change");
    EXPECT_EQ(partition->m_fsType, "ext4");
    EXPECT_EQ(partition->m_fsLabel, "CLIPS");
    expectEqualToTools(*partition);
}

// --- batches ------------------------------------------------------------------------------------

TEST_F(Media, CardAndStickRemovedAndAdded_OneBatchGroupedByDisk) {
    const QString cardPath = Hardware::idPath(card.node());
    const QString stickPath = Hardware::idPath(vfatStick.node());
    const QStringList cardNodes = Hardware::nodes(card.node());
    const QStringList stickNodes = Hardware::nodes(vfatStick.node());
    ASSERT_TRUE(Hardware::ejectCard());
    ASSERT_TRUE(Hardware::unplug("vfat"));
    ASSERT_TRUE(Hardware::insertCard());
    ASSERT_TRUE(Hardware::plug("efi"));
    const QString efiPath = Hardware::idPath(efiStick.node());
    const Batch batch = update();
    ASSERT_TRUE(batch.events);
    const QList<BDMon::Event>& events = *batch.events;
    expectGrouped(events, *batch.eventsByDevice);
    EXPECT_EQ(batch.eventsByDevice->keys(), sorted({cardPath, stickPath, efiPath}));
    expectRemovalOrder(cardNodes, events.mid(0, 4));
    expectRemovalOrder(stickNodes, events.mid(4, 2));
    expectAddition(cardNodes, events.mid(6, 4));
    expectAddition(Hardware::nodes(efiStick.node()), events.mid(10));
    expectMedium(card, events);
    expectMedium(efiStick, events);
}

// update() collects events until none has arrived for the quiet time.
TEST_F(Media, EventsDuringUpdate_InSameBatch) {
    ASSERT_TRUE(Hardware::ejectCard());
    QList<BDMon::EventListSPtr> batches;
    const QMetaObject::Connection connection = QObject::connect(
        BDMon::instance(), &BDMon::notify,
        [&](BDMon::EventListSPtr events, BDMon::EventListByDeviceSPtr) { batches.append(events); });
    std::atomic<bool> isInserted = false;
    std::thread user([&] { isInserted = bool(Hardware::insertCard()); });
    EXPECT_EQ(BDMon::instance()->update(30000), 0);
    EXPECT_TRUE(isInserted) << "inserted within the quiet time";
    user.join();
    QObject::disconnect(connection);
    ASSERT_EQ(batches.size(), 1);
    ASSERT_EQ(batches[0]->size(), 8);
    expectRemovalOrder(Hardware::nodes(card.node()), batches[0]->mid(0, 4));
    expectAddition(Hardware::nodes(card.node()), batches[0]->mid(4));
}

} // namespace
} // namespace oru::io::test
