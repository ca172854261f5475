// SPDX-License-Identifier: Apache-2.0
// LinuxBD without a device node: fields from udev's properties, write protection, and mounts of
// tmpfs.

#include "support/suite/logcapture.h"
#include "support/suite/qtprint.h"
#include "support/suite/slots.h"
#include "support/system/childprocess.h"
#include "support/system/isolated.h"
#include "support/system/mounts.h"
#include "support/system/tempdir.h"

#include <oruio/bdmon.h>
#include <oruio/error.h>

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <type_traits>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace oru::io {

using test::LogCapture;
using test::slotOf;
using test::TempDir;

namespace {

constexpr char noNode[] = "/dev/oruio-no-such-disk";

/// A device of these properties.
LinuxBD deviceOf(Properties props) {
    return LinuxBD(props);
}

} // namespace

// --- names --------------------------------------------------------------------------------------

TEST(BlockDeviceNames, Keys_EqualUdevProperties) {
    EXPECT_EQ(QString(UDEV_ID_PATH), "ID_PATH");
    EXPECT_EQ(QString(UDEV_DEVTYPE), "DEVTYPE");
    EXPECT_EQ(QString(UDEV_DEVNAME), "DEVNAME");
    EXPECT_EQ(QString(UDEV_ID_PART_TABLE_TYPE), "ID_PART_TABLE_TYPE");
    EXPECT_EQ(QString(UDEV_PARTN), "PARTN");
    EXPECT_EQ(QString(UDEV_ID_PART_ENTRY_OFFSET), "ID_PART_ENTRY_OFFSET");
    EXPECT_EQ(QString(UDEV_ID_PART_ENTRY_SIZE), "ID_PART_ENTRY_SIZE");
    EXPECT_EQ(QString(UDEV_ID_FS_TYPE), "ID_FS_TYPE");
    EXPECT_EQ(QString(UDEV_ID_FS_LABEL), "ID_FS_LABEL");
    EXPECT_EQ(QString(UDEV_ACTION), "ACTION");
    EXPECT_EQ(QString(UDEV_SEQNUM), "SEQNUM");
    EXPECT_EQ(QString(UDEV_DEVPATH), "DEVPATH");
    EXPECT_EQ(QString(UDEV_ID_PART_ENTRY_TYPE), "ID_PART_ENTRY_TYPE");
    EXPECT_EQ(FSCK_RETRIES, 3);
    static_assert(std::is_same_v<decltype(FSCK_RETRIES), const int>);
}

// --- construction -------------------------------------------------------------------------------

const Properties partitionProps{{"ACTION", "add"},
                                {"DEVNAME", noNode},
                                {"DEVPATH", "/devices/usb1/block/sda/sda3"},
                                {"DEVTYPE", "partition"},
                                {"ID_FS_LABEL", "REC 1"},
                                {"ID_FS_TYPE", "vfat"},
                                {"ID_PART_ENTRY_OFFSET", "2048"},
                                {"ID_PART_ENTRY_SIZE", "15521792"},
                                {"ID_PART_ENTRY_TYPE", "0xc"},
                                {"ID_PART_TABLE_TYPE", "dos"},
                                {"ID_PATH", "platform-usb-0:1"},
                                {"PARTN", "3"},
                                {"SEQNUM", "1234"}};

/// The properties of a partition without one of them.
Properties without(const char* key) {
    Properties props = partitionProps;
    EXPECT_EQ(props.remove(key), 1);
    return props;
}

TEST(LinuxBDConstruction, Partition_EachFieldFromItsKey) {
    const LinuxBD device = deviceOf(partitionProps);
    EXPECT_EQ(device.m_idPath, "platform-usb-0:1");
    EXPECT_EQ(device.m_partNum, 3U);
    EXPECT_EQ(device.m_startBlock, 2048U);
    EXPECT_EQ(device.m_totalBlocks, 15521792U);
    EXPECT_EQ(device.m_blkSize, 512U);
    EXPECT_EQ(device.m_fsType, "vfat");
    EXPECT_EQ(device.m_fsLabel, "REC 1");
    EXPECT_EQ(device.m_devName, noNode);
    EXPECT_EQ(device.m_partTableType, "dos");
    EXPECT_EQ(device.m_seqNum, 1234);
    EXPECT_EQ(device.m_action, "add");
    EXPECT_EQ(device.m_devPath, "/devices/usb1/block/sda/sda3");
    EXPECT_EQ(device.m_partEntryType, "0xc");
    EXPECT_FALSE(device.m_writeProtected);
    EXPECT_EQ(device.m_props, partitionProps);
    EXPECT_FALSE(device.m_umountFailed);
    EXPECT_EQ(device.capacity(), 7947157504U);
}

TEST(LinuxBDConstruction, MissingKey_EmptiesOnlyItsField) {
    EXPECT_EQ(deviceOf(without("ID_PATH")).m_idPath, "");
    EXPECT_EQ(deviceOf(without("PARTN")).m_partNum, 0U);
    EXPECT_EQ(deviceOf(without("ID_PART_ENTRY_OFFSET")).m_startBlock, 0U);
    EXPECT_EQ(deviceOf(without("ID_PART_ENTRY_SIZE")).m_totalBlocks, 0U);
    EXPECT_EQ(deviceOf(without("ID_FS_TYPE")).m_fsType, "");
    EXPECT_EQ(deviceOf(without("ID_FS_LABEL")).m_fsLabel, "");
    EXPECT_EQ(deviceOf(without("DEVNAME")).m_devName, "");
    EXPECT_EQ(deviceOf(without("DEVNAME")).m_blkSize, 512U);
    EXPECT_EQ(deviceOf(without("ID_PART_TABLE_TYPE")).m_partTableType, "");
    EXPECT_EQ(deviceOf(without("SEQNUM")).m_seqNum, 0);
    EXPECT_EQ(deviceOf(without("ACTION")).m_action, "");
    EXPECT_EQ(deviceOf(without("DEVPATH")).m_devPath, "");
    EXPECT_EQ(deviceOf(without("ID_PART_ENTRY_TYPE")).m_partEntryType, "");
    for (auto key = partitionProps.keyBegin(); key != partitionProps.keyEnd(); ++key) {
        Properties props = partitionProps;
        props.remove(*key);
        const LinuxBD device(props);
        EXPECT_EQ(device.m_props, props);
        EXPECT_EQ(device.m_idPath.isEmpty(), *key == "ID_PATH") << qPrintable(*key);
        EXPECT_EQ(device.m_partEntryType.isEmpty(), *key == "ID_PART_ENTRY_TYPE");
        EXPECT_EQ(device.m_totalBlocks == 0, *key == "ID_PART_ENTRY_SIZE") << qPrintable(*key);
    }
}

TEST(LinuxBDConstruction, NoProperties_AllFieldsEmpty) {
    LinuxBD device = deviceOf({});
    EXPECT_EQ(device.m_idPath, "");
    EXPECT_EQ(device.m_partNum, 0U);
    EXPECT_EQ(device.m_startBlock, 0U);
    EXPECT_EQ(device.m_totalBlocks, 0U);
    EXPECT_EQ(device.m_blkSize, 512U);
    EXPECT_EQ(device.m_fsType, "");
    EXPECT_EQ(device.m_devPath, "");
    EXPECT_EQ(device.m_seqNum, 0);
    EXPECT_FALSE(device.m_writeProtected);
    EXPECT_FALSE(device.m_umountFailed);
    EXPECT_TRUE(device.props().isEmpty());
    EXPECT_FALSE(device.isMountable());
    EXPECT_EQ(device.capacity(), 0U);
}

TEST(LinuxBDConstruction, DiskNodeMissing_NoLength) {
    // The ID_PART_ENTRY_ properties are ignored for a disk.
    const LinuxBD device = deviceOf({{"DEVNAME", noNode},
                                     {"DEVTYPE", "disk"},
                                     {"ID_PART_ENTRY_OFFSET", "2048"},
                                     {"ID_PART_ENTRY_SIZE", "8192"}});
    EXPECT_EQ(device.m_partNum, 0U);
    EXPECT_EQ(device.m_startBlock, 0U);
    EXPECT_EQ(device.m_totalBlocks, 0U);
    EXPECT_EQ(device.m_blkSize, 512U);
}

TEST(LinuxBDConstruction, TypeOtherThanDisk_TreatedAsPartition) {
    for (const char* type : {"partition", "Disk", "disks", ""}) {
        Properties props = partitionProps;
        props["DEVTYPE"] = type;
        EXPECT_EQ(deviceOf(props).m_totalBlocks, 15521792U) << type;
        EXPECT_EQ(deviceOf(props).m_startBlock, 2048U) << type;
    }
    EXPECT_EQ(deviceOf(without("DEVTYPE")).m_totalBlocks, 15521792U);
}

TEST(LinuxBDConstruction, NodeNotADevice_512ByteBlocksAndNoLength) {
    const TempDir directory;
    QFile file(directory / "file");
    ASSERT_TRUE(file.open(QFile::WriteOnly));
    file.resize(8192);
    const LinuxBD device = deviceOf({{"DEVNAME", file.fileName()}, {"DEVTYPE", "disk"}});
    EXPECT_EQ(device.m_blkSize, 512U);
    EXPECT_EQ(device.m_totalBlocks, 0U);
}

TEST(LinuxBDConstruction, LargestNumbers_FitTheirFields) {
    LinuxBD device = deviceOf({{"ID_PART_ENTRY_OFFSET", "18446744073709551615"},
                               {"ID_PART_ENTRY_SIZE", "34359738368"},
                               {"PARTN", "4294967295"},
                               {"SEQNUM", "2147483647"}});
    EXPECT_EQ(device.m_startBlock, 18446744073709551615U);
    EXPECT_EQ(device.m_totalBlocks, 34359738368U);
    EXPECT_EQ(device.capacity(), 17592186044416U);
    EXPECT_EQ(device.m_partNum, 4294967295U);
    EXPECT_EQ(device.m_seqNum, 2147483647);
    device.m_blkSize = 4096;
    EXPECT_EQ(device.capacity(), 140737488355328U);
}

TEST(LinuxBDConstruction, InvalidNumbers_Zero) {
    const LinuxBD device = deviceOf({{"ID_PART_ENTRY_OFFSET", "many"},
                                     {"ID_PART_ENTRY_SIZE", ""},
                                     {"PARTN", "one"},
                                     {"SEQNUM", "99999999999"}});
    EXPECT_EQ(device.m_startBlock, 0U);
    EXPECT_EQ(device.m_totalBlocks, 0U);
    EXPECT_EQ(device.m_partNum, 0U);
    EXPECT_EQ(device.m_seqNum, 0);
}

TEST(LinuxBDConstruction, Node_Logged) {
    LogCapture log("libio=12");
    deviceOf(partitionProps);
    EXPECT_EQ(log.messages(), QStringList({"libio 12 Dev path: /dev/oruio-no-such-disk"}));
    deviceOf({});
    EXPECT_EQ(log.messages(), QStringList({"libio 12 Dev path: "}));
}

TEST(LinuxBDConstruction, Props_ReturnsCopy) {
    LinuxBD device = deviceOf(partitionProps);
    Properties copy = device.props();
    EXPECT_EQ(copy, device.m_props);
    copy["ID_FS_TYPE"] = "ext4";
    EXPECT_EQ(device.m_props, partitionProps);
}

TEST(LinuxBDConstruction, IsMountable_TrueWithFileSystem) {
    EXPECT_TRUE(deviceOf({{"ID_FS_TYPE", "ext4"}}).isMountable());
    EXPECT_FALSE(deviceOf({{"ID_FS_TYPE", ""}}).isMountable());
    EXPECT_FALSE(deviceOf({{"DEVTYPE", "disk"}, {"ID_PART_TABLE_TYPE", "gpt"}}).isMountable());
}

TEST(LinuxBDConstruction, SharedPointer_DestroysDerivedObject) {
    struct Watched : LinuxBD {
        Watched(Properties& props, bool& flag) : LinuxBD(props), isGone(flag) {}
        ~Watched() override {
            isGone = true;
        }
        bool& isGone;
    };
    bool isGone = false;
    Properties props;
    BlockDevice::SPtr device(static_cast<BlockDevice*>(new Watched(props, isGone)));
    device.reset();
    EXPECT_TRUE(isGone);
    static_assert(std::is_same_v<BlockDevice::SPtr, QSharedPointer<BlockDevice>>);
}

// --- write protection ---------------------------------------------------------------------------

/// Has a directory that stands in for the card's directory in /sys.
class WriteProtection : public ::testing::Test {
protected:
    explicit WriteProtection(const char* name = "mmcblk7") : card(directory / name) {
        QDir().mkpath(card);
    }

    Properties props() const {
        return {{"DEVNAME", noNode}, {"DEVPATH", devPath()}, {"DEVTYPE", "disk"}};
    }
    QString devPath() const {
        return "/.." + card;
    }
    /// The path of the file "ro" that the library builds from devPath().
    QString probePath() const {
        return "/sys/.." + card + "/ro";
    }
    void writeState(const QByteArray& state) const {
        QFile file(card + "/ro");
        ASSERT_TRUE(file.open(QFile::WriteOnly));
        ASSERT_EQ(file.write(state), state.size());
    }
    /// The log messages without the one of the node.
    static QStringList messages(LogCapture& log) {
        QStringList all = log.messages();
        all.removeAll(QStringLiteral("libio 12 Dev path: %1").arg(noNode));
        return all;
    }

    const TempDir directory;
    const QString card;
};

TEST_F(WriteProtection, StateOne_Protected) {
    writeState("1\n");
    LogCapture log("libio=12");
    LinuxBD device = deviceOf(props());
    EXPECT_TRUE(device.m_writeProtected);
    EXPECT_EQ(device.m_devPath, probePath());
    EXPECT_EQ(device.props().value("WRITE_PROTECTED"), QVariant(true));
    EXPECT_EQ(device.props().value("WRITE_PROTECTED").type(), QVariant::Bool);
    EXPECT_EQ(device.props().value("DEVPATH"), devPath());
    EXPECT_EQ(messages(log),
              QStringList({"libio 11 /dev/oruio-no-such-disk is write protected\n"}));
}

TEST_F(WriteProtection, OtherStates_NotProtected) {
    for (const char* state : {"0\n", "2", "\n", " 1", "y"}) {
        writeState(state);
        LogCapture log("libio=12");
        LinuxBD device = deviceOf(props());
        EXPECT_FALSE(device.m_writeProtected) << state;
        EXPECT_EQ(device.m_devPath, probePath());
        EXPECT_EQ(device.props().value("WRITE_PROTECTED"), QVariant(false)) << state;
        EXPECT_EQ(device.props().value("WRITE_PROTECTED").type(), QVariant::Bool);
        EXPECT_EQ(messages(log), QStringList());
    }
}

TEST_F(WriteProtection, SeveralBytes_FirstDecides) {
    writeState("10");
    EXPECT_TRUE(deviceOf(props()).m_writeProtected);
    writeState("01");
    EXPECT_FALSE(deviceOf(props()).m_writeProtected);
}

TEST_F(WriteProtection, EmptyFile_PropertyMissing) {
    writeState("");
    LogCapture log("libio=12");
    LinuxBD device = deviceOf(props());
    EXPECT_FALSE(device.m_writeProtected);
    EXPECT_EQ(device.m_devPath, probePath());
    EXPECT_FALSE(device.props().contains("WRITE_PROTECTED"));
    EXPECT_EQ(messages(log), QStringList());
}

TEST_F(WriteProtection, ReadFails_PropertyMissing) {
    ASSERT_TRUE(QDir().mkpath(card + "/ro"));
    LinuxBD device = deviceOf(props());
    EXPECT_FALSE(device.m_writeProtected);
    EXPECT_FALSE(device.props().contains("WRITE_PROTECTED"));
}

TEST_F(WriteProtection, NoFile_NotProtected) {
    LogCapture log("libio=12");
    LinuxBD device = deviceOf(props());
    EXPECT_FALSE(device.m_writeProtected);
    EXPECT_EQ(device.m_devPath, probePath());
    EXPECT_EQ(device.props().value("WRITE_PROTECTED"), QVariant(false));
    EXPECT_EQ(messages(log),
              QStringList({"libio 11 Cannot access() /sys dev path: " + probePath() + "\n"}));
}

TEST_F(WriteProtection, DescriptorZero_NotProtected) {
    writeState("1");
    test::ChildProcess child([this] {
        close(STDIN_FILENO);
        LinuxBD device = deviceOf(props());
        const bool isClosed = fcntl(STDIN_FILENO, F_GETFD) == -1;
        return !device.m_writeProtected &&
                       device.props().value("WRITE_PROTECTED") == QVariant(false) && isClosed
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(WriteProtection, CallersProperties_Unchanged) {
    writeState("1");
    Properties original = props();
    const LinuxBD device(original);
    EXPECT_EQ(original, props());
}

TEST_F(WriteProtection, Partition_OwnStateRead) {
    const QString partition = card + "/mmcblk7p1";
    ASSERT_TRUE(QDir().mkpath(partition));
    QFile file(partition + "/ro");
    ASSERT_TRUE(file.open(QFile::WriteOnly));
    file.write("1");
    file.close();
    const LinuxBD device = deviceOf({{"DEVPATH", "/.." + partition}, {"DEVTYPE", "partition"}});
    EXPECT_TRUE(device.m_writeProtected);
}

TEST_F(WriteProtection, Descriptor_Closed) {
    writeState("1");
    const auto count = [] { return QDir("/proc/self/fd").entryList(QDir::AllEntries).size(); };
    const int before = count();
    deviceOf(props());
    EXPECT_EQ(count(), before);
}

class NoCard : public WriteProtection, public ::testing::WithParamInterface<const char*> {
protected:
    NoCard() : WriteProtection(GetParam()) {}
};

TEST_P(NoCard, OtherName_StateNotRead) {
    writeState("1");
    LogCapture log("libio=12");
    LinuxBD device = deviceOf(props());
    EXPECT_FALSE(device.m_writeProtected);
    EXPECT_EQ(device.m_devPath, devPath());
    EXPECT_FALSE(device.props().contains("WRITE_PROTECTED"));
    EXPECT_EQ(messages(log), QStringList());
}

INSTANTIATE_TEST_SUITE_P(Names, NoCard, ::testing::Values("sda", "MMCBLK0", "mmcBlk0", "mmc0"));

TEST(WriteProtectionOfNames, CardNameOnlyInNode_StateNotRead) {
    const LinuxBD device =
        deviceOf({{"DEVNAME", "/dev/mmcblk0"}, {"DEVPATH", "/devices/sda"}, {"DEVTYPE", "disk"}});
    EXPECT_EQ(device.m_devPath, "/devices/sda");
    EXPECT_FALSE(device.m_props.contains("WRITE_PROTECTED"));
}

// --- mount and umount of tmpfs with the name of the disk ----------------------------------------

class LinuxBDInMemory : public test::Isolated {
protected:
    void SetUp() override {
        Isolated::SetUp();
        liberrno = NotFound;
    }
    ~LinuxBDInMemory() override {
        for (const QString& mounted : mounts())
            umount2(qPrintable(mounted), MNT_DETACH);
    }

    /// The mount points of a device.
    static QStringList mounts(const char* node = noNode) {
        return test::directoriesOf(node);
    }

    const TempDir directory;
    const QString point = directory / "mnt";
    const QString second = directory / "second";
    LinuxBD disk = deviceOf({{"DEVNAME", noNode}, {"ID_FS_TYPE", "tmpfs"}});
};

TEST_F(LinuxBDInMemory, Mount_Flags_NoexecNoatime) {
    EXPECT_EQ(disk.mount(point, nullptr), 0);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(mounts(), QStringList({point}));
    struct statvfs st;
    ASSERT_EQ(statvfs(qPrintable(point), &st), 0);
    EXPECT_TRUE(st.f_flag & ST_NOATIME);
    EXPECT_TRUE(st.f_flag & ST_NOEXEC);
    EXPECT_FALSE(st.f_flag & ST_RDONLY);
}

TEST_F(LinuxBDInMemory, Remount_ReadOnlyAndBack_FlagChanges) {
    EXPECT_EQ(disk.mount(point, nullptr), 0);
    const Properties toReadOnly{{"readonly", true}, {"remount", true}};
    EXPECT_EQ(disk.mount(point, &toReadOnly), 0);
    EXPECT_EQ(mounts().size(), 1);
    struct statvfs st;
    ASSERT_EQ(statvfs(qPrintable(point), &st), 0);
    EXPECT_TRUE(st.f_flag & ST_RDONLY);
    const Properties back{{"readonly", false}, {"remount", true}};
    EXPECT_EQ(disk.mount(point, &back), 0);
    ASSERT_EQ(statvfs(qPrintable(point), &st), 0);
    EXPECT_FALSE(st.f_flag & ST_RDONLY);
}

TEST_F(LinuxBDInMemory, Mount_Succeeds_LogsOnlyTheCall) {
    LogCapture log("libio=12");
    EXPECT_EQ(disk.mount(point, nullptr), 0);
    EXPECT_EQ(log.messages(), QStringList({QStringLiteral("libio 12 mount %1 %2 tmpfs flags "
                                                          "0xc0ed0408 <>\n")
                                               .arg(noNode, point)}));
}

TEST_F(LinuxBDInMemory, Umount_TwoDirectories_InTableOrder) {
    ASSERT_EQ(disk.mount(second, nullptr), 0);
    ASSERT_EQ(disk.mount(point, nullptr), 0);
    ASSERT_EQ(mounts(), QStringList({second, point}));
    LogCapture log("libio=12");
    EXPECT_EQ(disk.umount(nullptr), 0);
    EXPECT_EQ(mounts(), QStringList());
    EXPECT_FALSE(disk.m_umountFailed);
    const QStringList own =
        log.messages().filter("umount device"); // without the message of each umount
    EXPECT_EQ(
        own,
        QStringList({QStringLiteral("libio 12 umount device '%1' from '%2'").arg(noNode, second),
                     QStringLiteral("libio 12 umount device '%1' from '%2'").arg(noNode, point)}));
}

TEST_F(LinuxBDInMemory, Umount_OtherDevice_StaysMounted) {
    LinuxBD longer = deviceOf({{"DEVNAME", "/dev/oruio-no-such-disk1"}, {"ID_FS_TYPE", "tmpfs"}});
    ASSERT_EQ(longer.mount(point, nullptr), 0);
    ASSERT_EQ(disk.mount(second, nullptr), 0);
    EXPECT_EQ(disk.umount(nullptr), 0);
    EXPECT_EQ(mounts(), QStringList());
    EXPECT_EQ(mounts("/dev/oruio-no-such-disk1"), QStringList({point}));
    EXPECT_EQ(longer.umount(nullptr), 0);
    EXPECT_EQ(mounts("/dev/oruio-no-such-disk1"), QStringList());
}

TEST_F(LinuxBDInMemory, Umount_FirstBusy_SecondStaysMounted) {
    ASSERT_EQ(disk.mount(point, nullptr), 0);
    ASSERT_EQ(disk.mount(second, nullptr), 0);
    QFile user(point + "/file");
    ASSERT_TRUE(user.open(QFile::WriteOnly));
    EXPECT_EQ(disk.umount(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_TRUE(disk.m_umountFailed);
    EXPECT_EQ(mounts(), QStringList({point, second}));
    user.close();
    EXPECT_EQ(disk.umount(nullptr), 0);
    EXPECT_FALSE(disk.m_umountFailed);
    EXPECT_EQ(mounts(), QStringList());
}

TEST_F(LinuxBDInMemory, Umount_SecondBusy_FirstUnmounted) {
    ASSERT_EQ(disk.mount(point, nullptr), 0);
    ASSERT_EQ(disk.mount(second, nullptr), 0);
    QFile user(second + "/file");
    ASSERT_TRUE(user.open(QFile::WriteOnly));
    EXPECT_EQ(disk.umount(nullptr), -1);
    EXPECT_TRUE(disk.m_umountFailed);
    EXPECT_EQ(mounts(), QStringList({second}));
}

TEST_F(LinuxBDInMemory, Umount_BusyAndLazy_Detached) {
    ASSERT_EQ(disk.mount(point, nullptr), 0);
    QFile user(point + "/file");
    ASSERT_TRUE(user.open(QFile::WriteOnly));
    const Properties lazy{{"lazy", true}};
    EXPECT_EQ(disk.umount(&lazy), 0);
    EXPECT_FALSE(disk.m_umountFailed);
    EXPECT_EQ(mounts(), QStringList());
}

TEST_F(LinuxBDInMemory, Umount_MountPointEqualsNode_Unmounted) {
    ASSERT_EQ(disk.mount(point, nullptr), 0);
    LinuxBD named = deviceOf({{"DEVNAME", point}});
    LogCapture log("libio=12");
    EXPECT_EQ(named.umount(nullptr), 0);
    EXPECT_EQ(mounts(), QStringList());
    EXPECT_EQ(log.messages().value(0),
              QStringLiteral("libio 12 umount device '%1' from '%1'").arg(point));
}

// --- layout -------------------------------------------------------------------------------------

template <class Base>
struct Extended : Base {
    virtual void next();
};

constexpr int destructor = 2;

TEST(Slots, BlockDevice_InOrder) {
    int slot = 0;
    EXPECT_EQ(slotOf(&BlockDevice::mount), slot++);
    EXPECT_EQ(slotOf(&BlockDevice::umount), slot++);
    EXPECT_EQ(slotOf(&BlockDevice::mkfs), slot++);
    EXPECT_EQ(slotOf(&BlockDevice::fsck), slot++);
    EXPECT_EQ(slotOf(&BlockDevice::format), slot++);
    EXPECT_EQ(slotOf(&BlockDevice::props), slot++);
    EXPECT_EQ(slotOf(&Extended<BlockDevice>::next), slot + destructor);
    EXPECT_EQ(slotOf(&Extended<LinuxBD>::next), slot + destructor);
    EXPECT_TRUE(std::is_abstract_v<BlockDevice>);
}

TEST(Layout, BlockDevice_FieldsInOrder) {
    const LinuxBD device = deviceOf({});
    const auto place = [&](const auto& field) { return reinterpret_cast<std::uintptr_t>(&field); };
    const std::uintptr_t places[] = {place(device.m_idPath),        place(device.m_partNum),
                                     place(device.m_startBlock),    place(device.m_totalBlocks),
                                     place(device.m_blkSize),       place(device.m_fsType),
                                     place(device.m_fsLabel),       place(device.m_devName),
                                     place(device.m_partTableType), place(device.m_seqNum),
                                     place(device.m_action),        place(device.m_devPath),
                                     place(device.m_partEntryType), place(device.m_writeProtected),
                                     place(device.m_props),         place(device.m_umountFailed)};
    for (std::size_t i = 1; i < std::size(places); ++i)
        EXPECT_LT(places[i - 1], places[i]) << i;
    EXPECT_EQ(sizeof(LinuxBD), sizeof(BlockDevice));
}

} // namespace oru::io
