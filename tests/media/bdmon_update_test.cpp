// SPDX-License-Identifier: Apache-2.0
// BDMon::update(): batches of queued events, and the quiet time.

#include "bdmontest.h"
#include "support/suite/logcapture.h"

#include <QSemaphore>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

#include <poll.h>
#include <pthread.h>

namespace oru::io::test {
namespace {

TEST_F(BDMonTest, Update_BeforeStart_EmitsNothing) {
    testbed.addDisk("sda", "usb-1");
    EXPECT_LT(durationOf([&] { EXPECT_EQ(monitor->update(20000), 0); }), atOnce);
    EXPECT_TRUE(batches.isEmpty());
    EXPECT_FALSE(monitor->isRunning());
}

TEST_F(BDMonTest, Update_AfterStop_EmitsNothing) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    monitor->stop();
    EXPECT_LT(durationOf([&] { EXPECT_EQ(monitor->update(20000), 0); }), atOnce);
    EXPECT_TRUE(batches.isEmpty());
}

TEST_F(BDMonTest, Update_NothingQueued_ReturnsAtOnce) {
    testbed.addDisk("sda", "usb-1");
    startAndForget();
    EXPECT_LT(durationOf([&] { EXPECT_EQ(monitor->update(20000), 0); }), atOnce);
    EXPECT_TRUE(batches.isEmpty());
}

TEST_F(BDMonTest, Update_CardWithTwoPartitions_OneBatchOfThree) {
    startAndForget();
    const QString card = testbed.addDisk("mmcblk0", "platform-sd");
    testbed.addPartition(card, 2); // events need not come in the order of the numbers
    testbed.addPartition(card, 1);
    const Batch batch = update();
    const QStringList expected{"1 add /dev/mmcblk0", "2 add /dev/mmcblk0p2",
                               "3 add /dev/mmcblk0p1"};
    EXPECT_EQ(summary(*batch.events), expected);
    EXPECT_EQ(batch.eventsByDevice->keys(), QStringList({"platform-sd"}));
    EXPECT_EQ(summary(batch.eventsByDevice->value("platform-sd")), expected);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(batch.device(i).m_action, "add");
        EXPECT_GT(batch.device(i).m_seqNum, i ? batch.device(i - 1).m_seqNum : 0);
        EXPECT_EQ(batch.eventsByDevice->value("platform-sd").at(i).dev, batch.events->at(i).dev);
    }
    EXPECT_EQ(batch.device(1).m_partNum, 2U);
}

TEST_F(BDMonTest, Update_SeveralDisks_GroupedInEventOrder) {
    startAndForget();
    const QString a = testbed.addDisk("sda", "usb-1");
    const QString b = testbed.addDisk("sdb", "usb-0");
    testbed.addPartition(a, 1);
    testbed.addPartition(b, 1);
    const Batch batch = update();
    EXPECT_EQ(summary(*batch.events), QStringList({"1 add /dev/sda", "2 add /dev/sdb",
                                                   "3 add /dev/sda1", "4 add /dev/sdb1"}));
    EXPECT_EQ(batch.eventsByDevice->keys(), QStringList({"usb-0", "usb-1"}));
    EXPECT_EQ(summary(batch.eventsByDevice->value("usb-0")),
              QStringList({"2 add /dev/sdb", "4 add /dev/sdb1"}));
    EXPECT_EQ(summary(batch.eventsByDevice->value("usb-1")),
              QStringList({"1 add /dev/sda", "3 add /dev/sda1"}));
}

TEST_F(BDMonTest, Update_NextBatch_NumberedFromOne) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    testbed.send(disk, "change");
    const Batch first = update();
    EXPECT_EQ(summary(*first.events), QStringList({"1 change /dev/sda", "2 change /dev/sda"}));
    EXPECT_NE(first.events->at(0).dev, first.events->at(1).dev);
    testbed.send(disk, "remove");
    EXPECT_EQ(summary(*update().events), QStringList({"1 remove /dev/sda"}));
    EXPECT_EQ(first.events->size(), 2);
}

TEST_F(BDMonTest, Update_Remove_HasAllProperties) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    const QString partition = testbed.addPartition(disk, 1,
                                                   {{"ID_FS_TYPE", "vfat"},
                                                    {"ID_FS_LABEL", "RECORDER"},
                                                    {"ID_PART_ENTRY_OFFSET", "2048"},
                                                    {"ID_PART_ENTRY_SIZE", "15521792"},
                                                    {"ID_PART_ENTRY_TYPE", "0xc"},
                                                    {"ID_PART_TABLE_TYPE", "dos"}});
    startAndForget();
    testbed.send(partition, "remove");
    testbed.remove(partition);
    const Batch batch = update();
    ASSERT_EQ(summary(*batch.events), QStringList({"1 remove /dev/sda1"}));
    const BlockDevice& device = batch.device(0);
    EXPECT_EQ(device.m_action, "remove");
    EXPECT_EQ(device.m_idPath, "usb-1");
    EXPECT_EQ(device.m_partNum, 1U);
    EXPECT_EQ(device.m_fsType, "vfat");
    EXPECT_EQ(device.m_fsLabel, "RECORDER");
    EXPECT_EQ(device.m_startBlock, 2048U);
    EXPECT_EQ(device.m_totalBlocks, 15521792U);
    EXPECT_EQ(device.m_blkSize, 512U);
    EXPECT_EQ(device.m_partTableType, "dos");
    EXPECT_EQ(device.m_partEntryType, "0xc");
    EXPECT_EQ(device.m_devPath, "/devices/sda/sda1");
    Properties expected{{"ACTION", "remove"},
                        {"DEVNAME", "/dev/sda1"},
                        {"DEVPATH", "/devices/sda/sda1"},
                        {"DEVTYPE", "partition"},
                        {"ID_FS_LABEL", "RECORDER"},
                        {"ID_FS_TYPE", "vfat"},
                        {"ID_PART_ENTRY_OFFSET", "2048"},
                        {"ID_PART_ENTRY_SIZE", "15521792"},
                        {"ID_PART_ENTRY_TYPE", "0xc"},
                        {"ID_PART_TABLE_TYPE", "dos"},
                        {"ID_PATH", "usb-1"},
                        {"PARTN", "1"},
                        {"SEQNUM", QString::number(device.m_seqNum)},
                        {"SUBSYSTEM", "block"}};
    EXPECT_EQ(device.m_props, expected);
    EXPECT_EQ(device.m_props["PARTN"].type(), QVariant::String);
    EXPECT_GT(device.m_seqNum, 0);
}

TEST_F(BDMonTest, Update_AnyAction_PassedUnchanged) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    for (const char* action : {"add", "change", "move", "online", "remove"})
        testbed.send(disk, action);
    EXPECT_EQ(summary(*update().events),
              QStringList({"1 add /dev/sda", "2 change /dev/sda", "3 move /dev/sda",
                           "4 online /dev/sda", "5 remove /dev/sda"}));
}

TEST_F(BDMonTest, Update_NonAsciiLabel_DecodedAsUtf8) {
    startAndForget();
    testbed.addDisk("sda", "usb-1", {{"ID_FS_LABEL", "Bänder"}});
    EXPECT_EQ(update().device(0).m_fsLabel, QString::fromUtf8("Bänder"));
}

TEST_F(BDMonTest, Update_DeviceWithoutIdPath_ConsumedButNotReported) {
    const QString loop = testbed.addDisk("loop0", "");
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(loop, "change");
    testbed.send(disk, "change");
    testbed.send(loop, "change");
    EXPECT_EQ(summary(*update().events), QStringList({"1 change /dev/sda"}));
    EXPECT_LT(durationOf([&] { EXPECT_EQ(monitor->update(20000), 0); }), atOnce);
    EXPECT_TRUE(batches.isEmpty());
}

TEST_F(BDMonTest, Update_OnlyDevicesWithoutIdPath_WaitsAndEmitsNothing) {
    const QString loop = testbed.addDisk("loop0", "");
    startAndForget();
    testbed.send(loop, "change");
    EXPECT_GE(durationOf([&] { EXPECT_EQ(monitor->update(100), 0); }), milliseconds(100));
    EXPECT_TRUE(batches.isEmpty());
    EXPECT_LT(durationOf([&] { EXPECT_EQ(monitor->update(20000), 0); }), atOnce);
}

TEST_F(BDMonTest, Update_OtherSubsystem_NotQueued) {
    startAndForget();
    testbed.send(testbed.addOther("usb", "1-1", "usb-1"), "change");
    EXPECT_LT(durationOf([&] { EXPECT_EQ(monitor->update(20000), 0); }), atOnce);
    EXPECT_TRUE(batches.isEmpty());
}

TEST_F(BDMonTest, Update_HundredQueued_AllReportedInOrder) {
    if (UdevTestbed::queueLength() < 100)
        GTEST_SKIP() << "needs a private network namespace for a longer queue";
    QStringList devices;
    QStringList expected;
    for (int disk = 0; disk < 100; ++disk) {
        const QString name = QStringLiteral("sd%1").arg(disk);
        devices += testbed.addDisk(name, "usb-1");
        expected += QStringLiteral("%1 change /dev/%2").arg(100 - disk).arg(name);
    }
    std::reverse(devices.begin(), devices.end());
    std::reverse(expected.begin(), expected.end());
    startAndForget();
    for (const QString& device : devices)
        testbed.send(device, "change");
    const int descriptors = openDescriptors();
    const int objects = heldUdevObjects();
    const Batch batch = update(0);
    EXPECT_EQ(summary(*batch.events), expected);
    EXPECT_EQ(summary(batch.eventsByDevice->value("usb-1")), expected);
    EXPECT_TRUE(noMoreDescriptorsThan(descriptors));
    EXPECT_EQ(heldUdevObjects(), objects);
}

TEST_F(BDMonTest, Update_Repeated_LeaksNoDescriptorOrUdevObject) {
    testbed.setNode("/dev/sda", {512, 1024});
    const QString loop = testbed.addDisk("loop0", "");
    const QString disk = testbed.addDisk("sda", "usb-1");
    const QString card = testbed.addDisk("mmcblk0", "platform-sd");
    testbed.setAttribute(card, "ro", "1\n");
    startAndForget();
    const int descriptors = openDescriptors();
    const int objects = heldUdevObjects();
    for (int round = 0; round < 20; ++round) {
        for (const QString& device : {loop, disk, card})
            testbed.send(device, "change");
        EXPECT_EQ(update().events->size(), 2);
        EXPECT_EQ(heldUdevObjects(), objects);
    }
    EXPECT_TRUE(noMoreDescriptorsThan(descriptors));
}

TEST_F(BDMonTest, Update_QueueOverflow_QueuedEventsReported) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    failUdevReceive(ENOBUFS, 1);
    EXPECT_EQ(summary(*update().events), QStringList({"1 change /dev/sda"}));
}

TEST_F(BDMonTest, Update_NothingChangedInOverflow_NothingReported) {
    const QString disk = testbed.addDisk("sda", "usb-1", {{"DISKSEQ", "7"}});
    testbed.addPartition(disk, 1, {{"ID_FS_TYPE", "vfat"}, {"DISKSEQ", "7"}});
    startAndForget();
    testbed.send(disk, "change");
    EXPECT_EQ(update().events->size(), 1);
    failUdevReceive(ENOBUFS, 1);
    EXPECT_EQ(monitor->update(0), 0);
    EXPECT_TRUE(takeBatches().isEmpty());
}

TEST_F(BDMonTest, Update_EventsLostInOverflow_DifferencesReported) {
    const QString stays = testbed.addDisk("sda", "usb-1");
    const QString removed = testbed.addDisk("sdb", "usb-2", {{"DISKSEQ", "7"}});
    const QString partition =
        testbed.addPartition(removed, 1, {{"ID_FS_TYPE", "vfat"}, {"DISKSEQ", "7"}});
    startAndForget();
    testbed.remove(partition);
    testbed.remove(removed);
    testbed.addPartition(testbed.addDisk("sdc", "usb-3"), 1, {{"ID_FS_TYPE", "ext4"}});
    loseUdevMessages(2);
    LogCapture log("libio=11");
    const Batch batch = update();
    EXPECT_EQ(summary(*batch.events), QStringList({"1 remove /dev/sdb1", "2 remove /dev/sdb",
                                                   "3 add /dev/sdc", "4 add /dev/sdc1"}));
    EXPECT_EQ(batch.device(0).m_fsType, "vfat");
    EXPECT_EQ(batch.device(0).m_action, "remove");
    EXPECT_EQ(batch.device(3).m_fsType, "ext4");
    EXPECT_EQ(batch.device(3).m_action, "add");
    EXPECT_EQ(batch.eventsByDevice->keys(), QStringList({"usb-2", "usb-3"}));
    EXPECT_EQ(log.messages(), QStringList{"libio 11 Events of block devices were lost. "
                                          "4 differences found\n"});
    failUdevReceive(ENOBUFS, 1);
    EXPECT_EQ(monitor->update(0), 0);
    EXPECT_TRUE(takeBatches().isEmpty()); // the differences are known now
}

TEST_F(BDMonTest, Update_MediumExchangedInOverflow_RemoveAndAdd) {
    const QString disk = testbed.addDisk("sda", "usb-1", {{"DISKSEQ", "7"}});
    startAndForget();
    testbed.setProperty(disk, "DISKSEQ", "8");
    failUdevReceive(ENOBUFS, 1);
    const Batch batch = update();
    EXPECT_EQ(summary(*batch.events), QStringList({"1 remove /dev/sda", "2 add /dev/sda"}));
    EXPECT_EQ(batch.device(0).m_props.value("DISKSEQ"), "7");
    EXPECT_EQ(batch.device(1).m_props.value("DISKSEQ"), "8");
}

TEST_F(BDMonTest, Update_FormattedInOverflow_Change) {
    const QString disk = testbed.addDisk("sda", "usb-1", {{"ID_FS_TYPE", "vfat"}});
    startAndForget();
    testbed.setProperty(disk, "ID_FS_TYPE", "exfat");
    failUdevReceive(ENOBUFS, 1);
    const Batch batch = update();
    EXPECT_EQ(summary(*batch.events), QStringList({"1 change /dev/sda"}));
    EXPECT_EQ(batch.device(0).m_fsType, "exfat");
}

TEST_F(BDMonTest, Descriptor_ReadableWhenAnEventIsQueued) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    EXPECT_EQ(monitor->descriptor(), -1);
    startAndForget();
    struct pollfd poller = {monitor->descriptor(), POLLIN, 0};
    ASSERT_GE(poller.fd, 0);
    EXPECT_EQ(poll(&poller, 1, 0), 0);
    testbed.send(disk, "change");
    EXPECT_EQ(poll(&poller, 1, 0), 1);
    EXPECT_EQ(update().events->size(), 1);
    EXPECT_EQ(poll(&poller, 1, 0), 0);
    monitor->stop();
    EXPECT_EQ(monitor->descriptor(), -1);
}

TEST_F(BDMonTest, Update_InterruptedBySignal_ReceivesAgain) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    failUdevReceive(EINTR, 3);
    EXPECT_EQ(summary(*update().events), QStringList({"1 change /dev/sda"}));
}

// --- quiet time ---------------------------------------------------------------------------------

TEST_F(BDMonTest, Update_AfterLastEvent_WaitsQuietTime) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    for (const int quietMs : {0, 1, 50, 300, 1100}) {
        testbed.send(disk, "change");
        testbed.send(disk, "change");
        const milliseconds taken = durationOf(
            [&] { EXPECT_EQ(update(static_cast<unsigned int>(quietMs)).events->size(), 2); });
        EXPECT_GE(taken, milliseconds(quietMs));
        EXPECT_LT(taken, milliseconds(quietMs) + atOnce);
    }
}

TEST_F(BDMonTest, Update_SteadyStream_ReturnsAfterStreamEnds) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    Clock::time_point last;
    std::thread stream([&] {
        for (int i = 0; i < 40; ++i) { // takes longer than the quiet time
            std::this_thread::sleep_for(milliseconds(20));
            last = Clock::now();
            testbed.send(disk, "change");
        }
    });
    EXPECT_EQ(update(600).events->size(), 41);
    const auto end = Clock::now();
    stream.join();
    EXPECT_GE(end - last, milliseconds(600));
}

TEST_F(BDMonTest, Update_EventDuringWait_RestartsQuietTime) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    Clock::time_point late;
    std::thread sender([&] {
        std::this_thread::sleep_for(milliseconds(250));
        late = Clock::now();
        testbed.send(disk, "remove");
    });
    const Batch batch = update(1000);
    const auto end = Clock::now();
    sender.join();
    EXPECT_EQ(summary(*batch.events), QStringList({"1 change /dev/sda", "2 remove /dev/sda"}));
    EXPECT_GE(end - late, milliseconds(1000));
}

TEST_F(BDMonTest, Update_LongestQuietTime_KeepsWaiting) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    QSemaphore notified;
    onNotify = [&] { notified.release(); };
    shortenLongestPolls(5); // the longest poll() lasts nearly 25 days
    const int received = receivedUdevDevices();
    std::thread updater([&] { monitor->update(4294967295U); });
    EXPECT_TRUE(eventually([&] { return receivedUdevDevices() > received; }));
    EXPECT_FALSE(notified.tryAcquire(1, 100));
    failUdevReceive(EBADF, 1); // a failure ends the wait
    testbed.send(disk, "remove");
    updater.join();
    EXPECT_EQ(notified.available(), 1);
    EXPECT_EQ(summary(*takeBatches().value(0).events), QStringList({"1 change /dev/sda"}));
}

std::atomic<int> alarms{0};

TEST_F(BDMonTest, Update_SignalsDuringWait_QuietTimeNotShortened) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");

    struct sigaction count = {};
    struct sigaction before;
    count.sa_handler = [](int) { ++alarms; };
    sigaction(SIGALRM, &count, &before);
    alarms = 0;
    const pthread_t waiter = pthread_self();
    std::atomic<bool> isRunning{true};
    std::thread alarmClock([&] {
        while (isRunning) {
            std::this_thread::sleep_for(milliseconds(10));
            pthread_kill(waiter, SIGALRM);
        }
    });
    const milliseconds taken = durationOf([&] { EXPECT_EQ(update(500).events->size(), 1); });
    isRunning = false;
    alarmClock.join();
    sigaction(SIGALRM, &before, nullptr);

    EXPECT_GE(taken, milliseconds(500));
    EXPECT_LT(taken, milliseconds(500) + atOnce);
    EXPECT_GT(alarms, 3);
}

} // namespace
} // namespace oru::io::test
