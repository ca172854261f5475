// SPDX-License-Identifier: Apache-2.0
// SystemLocation: local media, with scripted devices.

#include "support/doubles/memfs.h"
#include "support/doubles/openlocation.h"
#include "support/doubles/scripteddevice.h"
#include "support/suite/logcapture.h"
#include "support/suite/qtprint.h"
#include "support/system/isolation.h"
#include "support/system/tempdir.h"

#include <oruio/error.h>
#include <oruio/fsswitch.h>
#include <oruio/storagelocation.h>

#include <QFile>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <vector>

#include <sys/mount.h>

namespace oru::io {
namespace {

using test::Device;
using test::LogCapture;
using test::makeDevice;
using test::MemFS;
using test::OpenLocation;
using test::ScriptedDevice;

constexpr char slot1[] = "platform-slot-1";
// The switch appends the slash.
const QString nowhere = QStringLiteral("/no/such/directory/");

/// Has a location with a mount point in the root switch, and a disk with one partition.
class SystemLocationTest : public ::testing::Test {
protected:
    void SetUp() override {
        FSSwitch::rootfs()->add(nowhere, fs);
        liberrno = Ok;
    }

    void insert() {
        location.addBlockDevice(disk);
        location.addBlockDevice(part);
    }
    void expectState(StorageLocation::AccessType access, bool isMounted) const {
        EXPECT_EQ(const_cast<OpenLocation&>(location).access(), access);
        EXPECT_EQ(location.m_mounted, isMounted);
    }

    const test::FreshRootSwitch rootSwitch;
    const FS::SPtr fs{new MemFS};
    Properties props = {{"blkDevId", slot1}};
    OpenLocation location{"card", fs, &props};
    const Device disk = makeDevice(slot1, 0, 1000, "");
    const Device part = makeDevice(slot1, 1, 900, "vfat");
    Properties readonlyFalse = {{"readonly", false}};
};

TEST_F(SystemLocationTest, LargestMountablePartition_Selected) {
    EXPECT_TRUE(location.selectedPart().isNull());
    location.addBlockDevice(disk);
    EXPECT_EQ(location.selectedPart(), disk);
    EXPECT_TRUE(location.m_blkDevPart.isNull()); // without a file system
    location.addBlockDevice(part);
    EXPECT_EQ(location.selectedPart(), part);
    location.addBlockDevice(makeDevice(slot1, 2, 900, "ext4")); // equal: the first stays
    EXPECT_EQ(location.selectedPart(), part);
    location.addBlockDevice(makeDevice(slot1, 3, 5000, "")); // not mountable
    EXPECT_EQ(location.selectedPart(), part);
    location.addBlockDevice(makeDevice(slot1, 4, 899, "ext4"));
    EXPECT_EQ(location.selectedPart(), part);
    const Device largest = makeDevice(slot1, 5, 901, "ext4");
    location.addBlockDevice(largest);
    EXPECT_EQ(location.selectedPart(), largest);
    location.addBlockDevice(disk); // clears the selection
    EXPECT_EQ(location.selectedPart(), disk);
    location.addBlockDevice(makeDevice("elsewhere", 0, 9999, "ext4"));
    location.addBlockDevice({});
    EXPECT_EQ(location.selectedPart(), disk);
}

TEST_F(SystemLocationTest, DiskWithFileSystem_Selected) {
    const Device plain = makeDevice(slot1, 0, 1000, "vfat");
    location.addBlockDevice(plain);
    EXPECT_EQ(location.m_blkDevWhole, plain);
    EXPECT_EQ(location.m_blkDevPart, plain);
}

TEST_F(SystemLocationTest, AnyRemoval_ClearsSelection) {
    insert();
    expectState(StorageLocation::Presence, false);
    EXPECT_TRUE(location.m_present);
    location.removeBlockDevice(makeDevice("elsewhere", 1, 1, ""));
    location.removeBlockDevice({});
    EXPECT_TRUE(location.m_present);
    location.removeBlockDevice(makeDevice(slot1, 7, 1, "")); // another partition
    EXPECT_TRUE(location.m_blkDevPart.isNull());
    EXPECT_EQ(location.m_blkDevWhole, disk);
    EXPECT_FALSE(location.m_present);
    expectState(StorageLocation::None, false);
    location.removeBlockDevice(disk);
    EXPECT_TRUE(location.m_blkDevWhole.isNull());
}

TEST_F(SystemLocationTest, Batch_AddAndRemove_OnlyOwnDevicesUsed) {
    const auto batchOf = [](const QList<BDMon::Event>& events) {
        return BDMon::EventListSPtr::create(events);
    };
    const auto event = [](const char* action, const Device& device) {
        BDMon::Event made(1, action, nullptr);
        made.dev = device;
        return made;
    };
    const Device efi = makeDevice(slot1, 1, 5000, "vfat");
    efi->m_partEntryType = "c12a7328-f81f-11d2-ba4b-00a0c93ec93b";
    const Device data = makeDevice(slot1, 2, 900, "exfat");
    data->m_partTableType = "gpt";
    data->m_fsLabel = "FILM";
    data->m_seqNum = 42;
    data->m_action = "add";
    data->m_startBlock = 2048;
    LogCapture log("stg=12");
    EXPECT_EQ(location.processBDEvents(batchOf(
                  {event("add", disk), event("add", efi), event("add", data), event("change", efi),
                   event("add", makeDevice("x", 0, 1, "ext4")), event("add", {})})),
              0);
    EXPECT_EQ(location.selectedPart(), data);
    const QStringList messages = log.messages();
    ASSERT_EQ(messages.size(), 3 * 6 + 1);
    EXPECT_EQ(messages[5], "stg 11 card device add: /dev/disk\n");
    EXPECT_EQ(messages[12], "stg 11 card skipping EFI system partition\n");
    const QString geometry = "stg 12 card:  StartBlock: 2048  TotalBlocks: 900  BlkSize: 512\n";
    EXPECT_EQ(messages.mid(13), (QStringList{
                                    "stg 12 card:  Sequence Number: 42 Action: add\n",
                                    "stg 12 card: 'platform-slot-1' [2] --> '/dev/disk2'\n",
                                    geometry,
                                    "stg 12 card:  PartitionType: 'gpt'  FSType: 'exfat'\n",
                                    "stg 12 card:  FSLabel: 'FILM'   Mountable: Yes\n",
                                    "stg 11 card device add: /dev/disk2\n",
                                }));
    EXPECT_EQ(location.processBDEvents(batchOf({event("remove", disk)})), 0);
    const QStringList removal = log.messages();
    ASSERT_EQ(removal.size(), 6);
    EXPECT_EQ(removal[4], "stg 12 card:  FSLabel: ''   Mountable: No\n");
    EXPECT_EQ(removal[5], "stg 11 card device remove: /dev/disk\n");
    expectState(StorageLocation::None, false);
    EXPECT_EQ(location.processBDEvents({}), 0);
    EXPECT_TRUE(location.matchesId(slot1));
    EXPECT_FALSE(location.matchesId("platform-slot"));
}

TEST_F(SystemLocationTest, Mount_Properties_SetOptionsAndAccess) {
    insert();
    EXPECT_EQ(location.mount(nullptr), 0);
    EXPECT_EQ(part->calls, QStringList("mount " + nowhere));
    EXPECT_EQ(part->last, (Properties{{"mountPoint", nowhere}, {"readonly", false}}));
    expectState(StorageLocation::Write, true);
    EXPECT_TRUE(location.m_mountOk);

    // The second mount is a remount. Only the presence of "readonly" matters.
    EXPECT_EQ(location.mount(&readonlyFalse), 0);
    EXPECT_EQ(part->last,
              (Properties{{"mountPoint", nowhere}, {"readonly", true}, {"remount", true}}));
    expectState(StorageLocation::Read, true);

    Properties elsewhere = {{"mountPoint", "/elsewhere"}, {"more", 1}};
    EXPECT_EQ(location.mount(&elsewhere), 0);
    EXPECT_EQ(part->calls.last(), "mount /elsewhere");
    EXPECT_EQ(part->last["more"], 1);

    part->result = -1;
    EXPECT_EQ(location.mount(nullptr), -1);
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_FALSE(location.m_mountOk);
    EXPECT_EQ(location.access(), StorageLocation::None);

    part->result = 3; // not negative
    EXPECT_EQ(location.mount(nullptr), 3);
    EXPECT_FALSE(part->last.contains("remount")); // the failure cleared the mounted state
}

TEST_F(SystemLocationTest, NoDeviceOrNoMountPoint_NotFound) {
    EXPECT_EQ(location.mount(nullptr), -1);
    EXPECT_EQ(liberrno, NotFound);
    liberrno = Ok;
    EXPECT_EQ(location.check(), -1);
    EXPECT_EQ(liberrno, NotFound);
    liberrno = Ok;
    EXPECT_EQ(location.mkReadOnly(), -1);
    EXPECT_EQ(liberrno, NotFound);
    liberrno = Ok;
    EXPECT_EQ(location.mkWriteable(), -1);
    EXPECT_EQ(liberrno, NotFound);

    insert();
    FSSwitch::rootfs()->remove(nowhere);
    for (const auto& call : std::vector<std::function<int()>>{
             [&] { return location.mount(nullptr); }, [&] { return location.mkReadOnly(); },
             [&] { return location.mkWriteable(); }}) {
        liberrno = Ok;
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(liberrno, NotFound);
    }
    expectState(StorageLocation::Presence, false);
    EXPECT_TRUE(part->calls.isEmpty());
}

TEST_F(SystemLocationTest, Umount_Mounted_StateCleared) {
    EXPECT_EQ(location.umount(nullptr), 0);
    insert();
    EXPECT_EQ(location.mount(nullptr), 0);
    EXPECT_EQ(location.umount(nullptr), 0); // the kernel has no mount there
    expectState(StorageLocation::Presence, false);
    EXPECT_FALSE(location.m_mountOk);

    EXPECT_EQ(location.mount(nullptr), 0);
    location.removeBlockDevice(disk);
    expectState(StorageLocation::None, true); // the application must unmount it
    EXPECT_EQ(location.umount(nullptr), 0);
    expectState(StorageLocation::None, false);

    insert();
    EXPECT_EQ(location.mount(nullptr), 0);
    FSSwitch::rootfs()->remove(nowhere);
    liberrno = Ok;
    EXPECT_EQ(location.umount(nullptr), -1);
    EXPECT_EQ(liberrno, NotFound);
    expectState(StorageLocation::Write, true);
}

/// Mounts a tmpfs.
class MemoryDevice : public ScriptedDevice {
public:
    int mount(QString mountPoint, const Properties*) override {
        return ::mount("tmpfs", QFile::encodeName(mountPoint).constData(), "tmpfs", 0, nullptr);
    }
};

// The switch's mount points have a trailing slash, those of the kernel do not.
TEST_F(SystemLocationTest, Umount_SwitchsMountPoint_Unmounted) {
    if (!test::isolate(test::Namespaces::Mount))
        GTEST_SKIP() << "needs a private mount namespace: " << std::strerror(errno);
    const test::TempDir temp;
    const auto isMounted = [&] {
        QFile table("/proc/mounts");
        EXPECT_TRUE(table.open(QFile::ReadOnly));
        return table.readAll().contains(" " + QFile::encodeName(temp.path()) + " ");
    };
    FSSwitch::rootfs()->remove(nowhere);
    FSSwitch::rootfs()->add(temp.path(), fs);
    const auto device = QSharedPointer<MemoryDevice>::create();
    device->m_idPath = slot1;
    device->m_fsType = "vfat";
    location.addBlockDevice(device);
    EXPECT_EQ(location.mount(nullptr), 0);
    EXPECT_TRUE(isMounted());
    {
        QFile inUse(temp / "file");
        ASSERT_TRUE(inUse.open(QFile::WriteOnly));
        EXPECT_EQ(location.umount(nullptr), -1);
        EXPECT_EQ(errno, EBUSY);
        expectState(StorageLocation::Write, true);
    }
    EXPECT_EQ(location.umount(nullptr), 0);
    EXPECT_FALSE(isMounted());
    expectState(StorageLocation::Presence, false);
    EXPECT_EQ(location.mount(nullptr), 0);
    QFile inUse(temp / "file");
    ASSERT_TRUE(inUse.open(QFile::WriteOnly));
    Properties lazy = {{"lazy", true}};
    EXPECT_EQ(location.umount(&lazy), 0);
    EXPECT_FALSE(isMounted());
}

TEST_F(SystemLocationTest, Check_SelectedDevice_RunsFsck) {
    insert();
    part->result = 5;
    EXPECT_EQ(location.check(), 5);
    EXPECT_EQ(part->calls, QStringList("fsck"));
}

TEST_F(SystemLocationTest, Format_SeveralReasons_RefusedInOrder) {
    LogCapture log("stg=12");
    EXPECT_EQ(location.format(nullptr), -1);
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_EQ(log.messages(),
              (QStringList{"stg 11 mounted: F blkdev: NA\n",
                           "stg 9 card: has no block device data; cannot format\n"}));
    disk->m_writeProtected = true;
    insert();
    EXPECT_EQ(location.mount(nullptr), 0);
    liberrno = Ok;
    EXPECT_EQ(location.format(nullptr), -1);
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_EQ(log.messages(),
              (QStringList{"stg 11 mounted: T blkdev: /dev/disk\n",
                           "stg 9 card:Format request while device is mounted fails\n"}));
    EXPECT_EQ(location.umount(nullptr), 0);
    // Write protection is reported with this code.
    EXPECT_EQ(location.format(nullptr), -1);
    EXPECT_EQ(liberrno, NotImplemented);
    EXPECT_EQ(log.messages().last(), "stg 9 card: is write protected; cannot format\n");
    EXPECT_TRUE(disk->calls.isEmpty());

    disk->m_writeProtected = false;
    disk->result = 7;
    Properties kill = {{"kill", true}};
    EXPECT_EQ(location.format(&kill), 7);
    EXPECT_EQ(disk->calls, QStringList("format"));
    EXPECT_EQ(disk->last, kill);
    EXPECT_EQ(part->calls, QStringList("mount " + nowhere)); // the earlier call
}

TEST_F(SystemLocationTest, MkReadOnly_CalledTwice_MountsOnce) {
    insert();
    EXPECT_EQ(location.mkReadOnly(), 0);
    EXPECT_EQ(part->last, (Properties{{"mountPoint", nowhere}, {"readonly", true}}));
    expectState(StorageLocation::Read, true);
    EXPECT_EQ(location.mkReadOnly(), 0);
    EXPECT_EQ(part->calls.size(), 1);
}

/// Overrides mount(), as an application may.
class CountingLocation : public SystemLocation {
public:
    using SystemLocation::SystemLocation;
    int mount(Properties* given) override {
        ++mounts;
        return SystemLocation::mount(given);
    }

    int mounts = 0;
};

TEST_F(SystemLocationTest, MkReadOnly_MountOverridden_CallsOverride) {
    CountingLocation counting("card", fs, &props);
    counting.addBlockDevice(part);
    EXPECT_EQ(counting.mkReadOnly(), 0);
    EXPECT_EQ(counting.mounts, 1);
}

TEST_F(SystemLocationTest, MkWriteable_Mounted_AccessUnchanged) {
    insert();
    EXPECT_EQ(location.mkReadOnly(), 0);
    EXPECT_EQ(location.mkWriteable(), 0);
    EXPECT_EQ(part->last,
              (Properties{{"mountPoint", nowhere}, {"readonly", false}, {"remount", true}}));
    expectState(StorageLocation::Read, true);
    part->result = -1;
    EXPECT_EQ(location.mkWriteable(), -1);
    expectState(StorageLocation::Read, true);
    part->result = 0;
    EXPECT_EQ(location.mount(nullptr), 0);
    const int calls = part->calls.size();
    EXPECT_EQ(location.mkWriteable(), 0); // already writable
    EXPECT_EQ(part->calls.size(), calls);

    EXPECT_EQ(location.mkReadOnly(), 0);
    disk->m_writeProtected = true;
    LogCapture log("stg=12");
    EXPECT_EQ(location.mkWriteable(), -1);
    EXPECT_EQ(liberrno, NotImplemented);
    EXPECT_EQ(log.messages(),
              QStringList("stg 9 card: is write protected; cannot make writable\n"));
}

TEST_F(SystemLocationTest, WriteProtection_FollowsDisk) {
    EXPECT_FALSE(location.isWriteProtected());
    disk->m_writeProtected = true;
    location.addBlockDevice(disk);
    EXPECT_FALSE(location.isWriteProtected()); // no partition yet
    EXPECT_TRUE(location.m_writeProtected);
    location.addBlockDevice(part);
    EXPECT_TRUE(location.isWriteProtected());
    location.removeBlockDevice(disk);
    EXPECT_FALSE(location.isWriteProtected());
    EXPECT_TRUE(location.m_writeProtected); // stays set
}

TEST_F(SystemLocationTest, Disable_Mounted_Fails) {
    EXPECT_EQ(location.enable(), 0);
    EXPECT_TRUE(location.m_enabled);
    insert();
    EXPECT_EQ(location.disable(), 0);
    EXPECT_FALSE(location.m_enabled);
    EXPECT_EQ(location.enable(), 0);
    for (Properties* how : {static_cast<Properties*>(nullptr), &readonlyFalse}) {
        EXPECT_EQ(location.mount(how), 0);
        LogCapture log("stg=12");
        liberrno = Ok;
        EXPECT_EQ(location.disable(), -1);
        EXPECT_EQ(liberrno, Ok);
        EXPECT_EQ(log.messages(), QStringList("stg 9 card: disable of mounted media fails\n"));
        EXPECT_TRUE(location.m_enabled);
    }
}

TEST_F(SystemLocationTest, FixFSType_UnknownType_BecomesExfat) {
    EXPECT_FALSE(location.fixFSType());
    location.addBlockDevice(disk);
    EXPECT_FALSE(location.fixFSType());
    location.addBlockDevice(part);
    EXPECT_TRUE(location.fixFSType());
    EXPECT_EQ(part->m_fsType, "vfat");
    part->m_fsType.clear();
    EXPECT_TRUE(location.fixFSType());
    EXPECT_EQ(part->m_fsType, "exfat");
}

TEST_F(SystemLocationTest, Slots_InvokedByName_ChangeDevices) {
    EXPECT_TRUE(QMetaObject::invokeMethod(&location, "addBlockDevice",
                                          Q_ARG(BlockDevice::SPtr, BlockDevice::SPtr(disk))));
    EXPECT_EQ(location.m_blkDevWhole, disk);
    EXPECT_TRUE(QMetaObject::invokeMethod(&location, "removeBlockDevice",
                                          Q_ARG(BlockDevice::SPtr, BlockDevice::SPtr(disk))));
    EXPECT_TRUE(location.m_blkDevWhole.isNull());
    SystemLocation nameless("card", fs, nullptr);
    EXPECT_TRUE(nameless.matchesId(""));
    EXPECT_NE(QMetaType::type("BlockDevice::SPtr"), QMetaType::UnknownType);
}

} // namespace
} // namespace oru::io
