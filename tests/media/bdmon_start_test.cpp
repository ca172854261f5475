// SPDX-License-Identifier: Apache-2.0
// BDMon::start() and stop(): the devices that are present.

#include "bdmontest.h"
#include "support/suite/logcapture.h"

#include <type_traits>

#include <libudev.h>

namespace oru::io::test {
namespace {

TEST_F(BDMonTest, Instance_CalledTwice_ReturnsSameObject) {
    EXPECT_EQ(BDMon::instance(), monitor);
    EXPECT_FALSE(std::is_default_constructible_v<BDMon>);
    EXPECT_FALSE(std::is_copy_constructible_v<BDMon>);
}

TEST_F(BDMonTest, IsRunning_BetweenStartAndStop_True) {
    EXPECT_FALSE(monitor->isRunning());
    monitor->start();
    EXPECT_TRUE(monitor->isRunning());
    monitor->stop();
    EXPECT_FALSE(monitor->isRunning());
    monitor->stop();
    EXPECT_FALSE(monitor->isRunning());
}

TEST_F(BDMonTest, Start_MonitorCannotReceive_IsNotRunning) {
    testbed.addDisk("sda", "usb-1");
    const int objects = heldUdevObjects();
    LogCapture log("libio=9");
    qputenv("ORUIO_TEST_FAILS", "udev_monitor_enable_receiving");
    monitor->start();
    qunsetenv("ORUIO_TEST_FAILS");
    EXPECT_FALSE(monitor->isRunning());
    EXPECT_TRUE(batches.isEmpty());
    EXPECT_EQ(heldUdevObjects(), objects);
    EXPECT_EQ(log.messages(), QStringList{"libio 9 The udev monitor cannot receive\n"});
    monitor->start();
    EXPECT_TRUE(monitor->isRunning());
    EXPECT_EQ(takeBatches().size(), 1);
}

TEST_F(BDMonTest, Start_NoDevices_EmitsNothing) {
    monitor->start();
    EXPECT_TRUE(batches.isEmpty());
}

TEST_F(BDMonTest, Start_MonitorSource_IsUdev) {
    monitor->start();
    EXPECT_EQ(udevMonitorSource(), "udev");
}

TEST_F(BDMonTest, Start_DevicesPresent_AddedInEnumerationOrder) {
    const QString last = testbed.addDisk("sdc", "usb-3");
    testbed.addPartition(last, 1);
    const QString first = testbed.addDisk("sda", "usb-1");
    testbed.addPartition(first, 2);
    testbed.addPartition(first, 1);
    testbed.addDisk("sdb", "usb-2");

    QStringList expected;
    udev* const context = udev_new();
    udev_enumerate* const enumeration = udev_enumerate_new(context);
    udev_enumerate_scan_devices(enumeration);
    udev_list_entry* entry = udev_enumerate_get_list_entry(enumeration);
    for (int seq = 1; entry; entry = udev_list_entry_get_next(entry), ++seq)
        expected += QStringLiteral("%1 add /dev/%2")
                        .arg(seq)
                        .arg(QString(udev_list_entry_get_name(entry)).section('/', -1));
    udev_enumerate_unref(enumeration);
    udev_unref(context);

    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    EXPECT_EQ(summary(*batches[0].events), expected);
    EXPECT_EQ(expected.size(), 6);
}

TEST_F(BDMonTest, Start_SeveralDisks_GroupedByIdPath) {
    const QString stick = testbed.addDisk("sda", "usb-1");
    testbed.addPartition(stick, 1);
    const QString card = testbed.addDisk("mmcblk0", "platform-sd");
    testbed.addPartition(card, 1);
    testbed.addPartition(card, 2);
    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    const auto& byDevice = *batches[0].eventsByDevice;
    EXPECT_EQ(byDevice.keys(), QStringList({"platform-sd", "usb-1"}));
    EXPECT_EQ(summary(byDevice["platform-sd"]),
              QStringList({"1 add /dev/mmcblk0", "2 add /dev/mmcblk0p1", "3 add /dev/mmcblk0p2"}));
    EXPECT_EQ(summary(byDevice["usb-1"]), QStringList({"4 add /dev/sda", "5 add /dev/sda1"}));
    EXPECT_EQ(byDevice["usb-1"][1].dev, batches[0].events->at(4).dev);
}

TEST_F(BDMonTest, Start_DevicesPresent_NoActionAndSeqNumZero) {
    testbed.addDisk("sda", "usb-1", {{"ID_FS_TYPE", "vfat"}});
    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    const BlockDevice& device = batches[0].device(0);
    EXPECT_EQ(device.m_action, "");
    EXPECT_EQ(device.m_seqNum, 0);
    EXPECT_EQ(device.m_fsType, "vfat");
    EXPECT_EQ(device.m_devPath, "/devices/sda");
    EXPECT_FALSE(device.m_props.contains("ACTION"));
}

TEST_F(BDMonTest, Start_DeviceWithoutIdPath_Omitted) {
    testbed.addDisk("loop0", "");
    testbed.addDisk("sda", "usb-1");
    testbed.addDisk("zram0", "");
    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    EXPECT_EQ(summary(*batches[0].events), QStringList({"1 add /dev/sda"}));
    EXPECT_EQ(batches[0].eventsByDevice->keys(), QStringList({"usb-1"}));
}

TEST_F(BDMonTest, Start_OnlyDevicesWithoutIdPath_EmitsNothing) {
    testbed.addDisk("loop0", "");
    monitor->start();
    EXPECT_TRUE(batches.isEmpty());
}

TEST_F(BDMonTest, Start_OtherSubsystem_Omitted) {
    testbed.addOther("usb", "1-1", "usb-1");
    testbed.addDisk("sda", "usb-1");
    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    EXPECT_EQ(batches[0].events->size(), 1);
}

TEST_F(BDMonTest, Start_DeviceGoneBeforeOpen_Omitted) {
    const QString gone = testbed.addDisk("sda", "usb-1");
    testbed.addDisk("sdb", "usb-2");
    hideUdevDevice(gone.toUtf8());
    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    EXPECT_EQ(summary(*batches[0].events), QStringList({"1 add /dev/sdb"}));
}

TEST_F(BDMonTest, Start_ThousandDevices_OneBatch) {
    for (int disk = 0; disk < 1000; ++disk) {
        const QString name = QString::asprintf("sd%04d", disk);
        // Without nodes: their ioctls would take umockdev minutes on a busy machine.
        testbed.addDisk(name, QStringLiteral("usb-%1").arg(disk % 10),
                        {{"DEVNAME", "/no-nodes/" + name}});
    }
    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    ASSERT_EQ(batches[0].events->size(), 1000);
    for (int disk = 0; disk < 1000; ++disk) {
        const BDMon::Event& event = batches[0].events->at(disk);
        ASSERT_EQ(event.seq, disk + 1);
        ASSERT_EQ(event.dev->m_devName, QString::asprintf("/no-nodes/sd%04d", disk));
    }
    EXPECT_EQ(batches[0].eventsByDevice->size(), 10);
    EXPECT_EQ(batches[0].eventsByDevice->value("usb-7").size(), 100);
    EXPECT_EQ(batches[0].eventsByDevice->value("usb-7").at(1).seq, 18);
}

TEST_F(BDMonTest, Start_AlreadyRunning_DoesNothing) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    const int objects = heldUdevObjects();
    monitor->start();
    EXPECT_TRUE(batches.isEmpty());
    EXPECT_EQ(heldUdevObjects(), objects);
    EXPECT_EQ(summary(*update().events), QStringList({"1 change /dev/sda"}));
}

TEST_F(BDMonTest, Start_AfterStop_AddsDevicesAgain) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    monitor->stop();
    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    EXPECT_EQ(summary(*batches[0].events), QStringList({"1 add /dev/sda"}));
    batches.clear();
    // The event queued before stop() is lost.
    EXPECT_EQ(monitor->update(0), 0);
    EXPECT_TRUE(batches.isEmpty());
    testbed.send(disk, "remove");
    EXPECT_EQ(summary(*update().events), QStringList({"1 remove /dev/sda"}));
}

TEST_F(BDMonTest, Start_DeviceAddedDuringNotify_InNextUpdate) {
    testbed.addDisk("sda", "usb-1");
    onNotify = [this] {
        if (batches.size() == 1)
            testbed.addDisk("sdb", "usb-2");
    };
    monitor->start();
    EXPECT_EQ(summary(*batches[0].events), QStringList({"1 add /dev/sda"}));
    batches.clear();
    onNotify = nullptr;
    EXPECT_EQ(summary(*update().events), QStringList({"1 add /dev/sdb"}));
}

// start() opens the netlink monitor before it enumerates, so that no device is missed in between.
TEST_F(BDMonTest, Start_DeviceAddedBeforeEnumeration_AlsoInNextUpdate) {
    testbed.addDisk("sda", "usb-1");
    beforeUdevEnumerates([this] { testbed.addDisk("sdb", "usb-2"); });
    monitor->start();
    beforeUdevEnumerates({});
    ASSERT_EQ(batches.size(), 1);
    EXPECT_EQ(summary(*batches[0].events), QStringList({"1 add /dev/sda", "2 add /dev/sdb"}));
    batches.clear();
    EXPECT_EQ(summary(*update().events), QStringList({"1 add /dev/sdb"}));
}

TEST_F(BDMonTest, StartAndStop_Repeated_LeakNoDescriptor) {
    testbed.setNode("/dev/sda", {512, 1024});
    testbed.addDisk("sda", "usb-1");
    startAndForget();
    monitor->stop();
    const int stopped = openDescriptors();
    const int objects = heldUdevObjects();
    for (int round = 0; round < 50; ++round) {
        monitor->start();
        EXPECT_EQ(heldUdevObjects(), objects + 1);
        monitor->stop();
        EXPECT_EQ(heldUdevObjects(), objects);
    }
    EXPECT_TRUE(noMoreDescriptorsThan(stopped));
    EXPECT_EQ(batches.size(), 50);
}

// --- write protection ---------------------------------------------------------------------------

TEST_F(BDMonTest, Start_ProtectedCard_DiskAndPartitionsProtected) {
    const QString card = testbed.addDisk("mmcblk0", "platform-sd");
    const QString partition = testbed.addPartition(card, 1);
    testbed.setAttribute(card, "ro", "1\n");
    testbed.setAttribute(partition, "ro", "1\n");
    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    ASSERT_EQ(batches[0].events->size(), 2);
    for (const BDMon::Event& event : *batches[0].events) {
        EXPECT_TRUE(event.dev->m_writeProtected);
        EXPECT_EQ(event.dev->props().value("WRITE_PROTECTED"), QVariant(true));
    }
    EXPECT_EQ(batches[0].device(0).m_devPath, "/sys/devices/mmcblk0/ro");
    EXPECT_EQ(batches[0].device(1).m_devPath, "/sys/devices/mmcblk0/mmcblk0p1/ro");
    EXPECT_EQ(batches[0].device(1).m_props["DEVPATH"], "/devices/mmcblk0/mmcblk0p1");
}

TEST_F(BDMonTest, Start_WritableCard_NotProtected) {
    const QString card = testbed.addDisk("mmcblk0", "platform-sd");
    testbed.setAttribute(card, "ro", "0\n");
    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    EXPECT_FALSE(batches[0].device(0).m_writeProtected);
    EXPECT_EQ(batches[0].device(0).props().value("WRITE_PROTECTED"), QVariant(false));
}

TEST_F(BDMonTest, Start_UsbDisk_ProtectionNotRead) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    testbed.setAttribute(disk, "ro", "1\n");
    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    EXPECT_FALSE(batches[0].device(0).m_writeProtected);
    EXPECT_FALSE(batches[0].device(0).props().contains("WRITE_PROTECTED"));
}

} // namespace
} // namespace oru::io::test
