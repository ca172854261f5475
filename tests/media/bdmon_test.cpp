// The monitor of block devices, and what devices tell of themselves, with devices of umockdev's.

#include "support/doubles/udevcalls.h"
#include "support/suite/logcapture.h"
#include "support/suite/qtprint.h"
#include "support/suite/slots.h"
#include "support/system/childprocess.h"
#include "support/system/isolation.h"
#include "support/system/monitorbatches.h"
#include "support/system/udevtestbed.h"

#include <oruio/bdmon.h>

#include <QCoreApplication>
#include <QDir>
#include <QMetaMethod>
#include <QProcess>
#include <QRegularExpression>
#include <QSemaphore>
#include <QSignalSpy>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>
#include <type_traits>
#include <utility>

#include <libudev.h>
#include <pthread.h>
#include <unistd.h>

namespace oru::io {

using test::Batch;
using test::LogCapture;
using test::slotOf;
using test::UdevTestbed;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// Far more than anything takes that does not wait.
constexpr seconds atOnce(5);

milliseconds timeOf(const std::function<void()>& work) {
    const auto begin = Clock::now();
    work();
    return std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
}

int openDescriptors() {
    return QDir("/proc/self/fd")
        .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
        .size();
}

/// Whether no more descriptors are open than there were. umockdev's thread may be about to close
/// its own.
bool noMoreDescriptorsThan(int before) {
    return test::eventually([before] { return openDescriptors() <= before; });
}

/// Each event as "seq action node".
QStringList summary(const QList<BDMon::Event>& events) {
    QStringList lines;
    for (const BDMon::Event& event : events)
        lines += QStringLiteral("%1 %2 %3")
                     .arg(QString::number(event.seq), event.action, event.dev->m_devName);
    return lines;
}

// --- programs that tests start ------------------------------------------------------------------

/// What a test starts this program for, by name.
int runRole(const char* role) {
    if (std::strcmp(role, "idle") == 0) {
        std::printf("%d descriptors, %d threads\n", openDescriptors(),
                    QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot).size());
        return 0;
    }
    if (std::strcmp(role, "types") == 0) {
        for (const char* name : {"BDMon::EventListSPtr", "BDMon::EventListByDeviceSPtr",
                                 "BlockDevice::SPtr", "BDMon::NoSuchType"}) {
            const int type = QMetaType::type(QByteArray("oru::io::") + name);
            std::printf("%s %d\n", name, type != QMetaType::UnknownType);
        }
        return 0;
    }
    if (std::strcmp(role, "start-logged") == 0) {
        static LogCapture log("libio=12");
        std::atexit([] {
            for (const QString& message : log.messages())
                std::fputs(qPrintable(message), stdout);
        });
        BDMon::instance()->start();
        return 0;
    }
    if (std::strcmp(role, "watch") == 0) {
        BDMon::instance()->start();
        std::fputs("started\n", stderr);
        if (std::getchar() != '\n')
            return 2;
        BDMon::instance()->update(0);
        return 0;
    }
    return 3;
}

class Program {
public:
    explicit Program(const QString& role, const char* variable = nullptr, const char* value = "") {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove("ORUIO_UDEVDBG");
        if (variable)
            environment.insert(variable, value);
        m_process.setProcessEnvironment(environment);
        close_range(3, ~0U, CLOSE_RANGE_CLOEXEC); // also what this program was started with
        m_process.start("/proc/self/exe", {"--role", role});
    }

    /// Waits until it is told to go on.
    QByteArray awaitError() {
        m_process.setReadChannel(QProcess::StandardError);
        while (!m_process.canReadLine() && m_process.waitForReadyRead())
            continue;
        return m_process.readLine();
    }
    void goOn() {
        m_process.write("\n");
    }
    int exitStatus() {
        if (!m_process.waitForFinished(60000) || m_process.exitStatus() != QProcess::NormalExit)
            return -1;
        return m_process.exitCode();
    }
    QByteArray output() {
        return m_process.readAllStandardOutput();
    }
    QByteArray errors() {
        return m_process.readAllStandardError();
    }

private:
    QProcess m_process;
};

} // namespace

// --- fixture ------------------------------------------------------------------------------------

class BDMonTest : public ::testing::Test {
protected:
    BDMonTest() {
        QObject::connect(
            monitor, &BDMon::notify,
            [this](BDMon::EventListSPtr events, BDMon::EventListByDeviceSPtr byDevice) {
                batches.append({events, byDevice});
                if (onNotify)
                    onNotify();
            });
    }
    ~BDMonTest() override {
        monitor->stop();
        monitor->disconnect();
        test::hideUdevDevice({});
        test::failUdevReceive(0, 0);
    }

    /// The batches so far, which then count as seen.
    QList<Batch> takeBatches() {
        return std::exchange(batches, {});
    }
    void startAndForget() {
        monitor->start();
        batches.clear();
    }
    /// The only batch that an update brings.
    Batch update(unsigned int quiescentMs = 0) {
        EXPECT_EQ(monitor->update(quiescentMs), 0);
        const QList<Batch> seen = takeBatches();
        EXPECT_EQ(seen.size(), 1);
        return seen.isEmpty()
                   ? Batch{BDMon::EventListSPtr::create(), BDMon::EventListByDeviceSPtr::create()}
                   : seen.first();
    }

    UdevTestbed testbed;
    BDMon* const monitor = BDMon::instance();
    QList<Batch> batches;
    std::function<void()> onNotify;
};

// --- start, stop --------------------------------------------------------------------------------

TEST_F(BDMonTest, Instance_IsOne) {
    EXPECT_EQ(BDMon::instance(), monitor);
    EXPECT_FALSE(std::is_default_constructible_v<BDMon>);
    EXPECT_FALSE(std::is_copy_constructible_v<BDMon>);
}

TEST_F(BDMonTest, IsRunning_FromStartToStop) {
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
    const int objects = test::heldUdevObjects();
    LogCapture log("libio=9");
    qputenv("ORUIO_TEST_FAILS", "udev_monitor_enable_receiving");
    monitor->start();
    qunsetenv("ORUIO_TEST_FAILS");
    EXPECT_FALSE(monitor->isRunning());
    EXPECT_TRUE(batches.isEmpty());
    EXPECT_EQ(test::heldUdevObjects(), objects);
    EXPECT_EQ(log.messages(), QStringList{"libio 9 The udev monitor cannot receive\n"});
    monitor->start();
    EXPECT_TRUE(monitor->isRunning());
    EXPECT_EQ(takeBatches().size(), 1);
}

TEST_F(BDMonTest, Start_NothingThere_TellsNothing) {
    monitor->start();
    EXPECT_TRUE(batches.isEmpty());
}

TEST_F(BDMonTest, Start_ListensToUdevNotToTheKernel) {
    monitor->start();
    EXPECT_EQ(test::udevMonitorSource(), "udev");
}

TEST_F(BDMonTest, Start_WhatIsThere_IsAddedInTheOrderOfTheEnumeration) {
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

TEST_F(BDMonTest, Start_SeveralDisks_AreGroupedByTheirPlug) {
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

TEST_F(BDMonTest, Start_WhatIsThere_HasNeitherActionNorNumber) {
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

TEST_F(BDMonTest, Start_WithoutIdPath_IsLeftOut) {
    testbed.addDisk("loop0", "");
    testbed.addDisk("sda", "usb-1");
    testbed.addDisk("zram0", "");
    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    EXPECT_EQ(summary(*batches[0].events), QStringList({"1 add /dev/sda"}));
    EXPECT_EQ(batches[0].eventsByDevice->keys(), QStringList({"usb-1"}));
}

TEST_F(BDMonTest, Start_OnlyWithoutIdPath_TellsNothing) {
    testbed.addDisk("loop0", "");
    monitor->start();
    EXPECT_TRUE(batches.isEmpty());
}

TEST_F(BDMonTest, Start_OtherSubsystems_AreLeftOut) {
    testbed.addOther("usb", "1-1", "usb-1");
    testbed.addDisk("sda", "usb-1");
    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    EXPECT_EQ(batches[0].events->size(), 1);
}

TEST_F(BDMonTest, Start_GoneBeforeItIsOpened_IsLeftOut) {
    const QString gone = testbed.addDisk("sda", "usb-1");
    testbed.addDisk("sdb", "usb-2");
    test::hideUdevDevice(gone.toUtf8());
    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    EXPECT_EQ(summary(*batches[0].events), QStringList({"1 add /dev/sdb"}));
}

TEST_F(BDMonTest, Start_ThousandDevices_AreOneBatch) {
    for (int disk = 0; disk < 1000; ++disk) {
        const QString name = QString::asprintf("sd%04d", disk);
        // Without nodes: to ask all of them takes umockdev minutes when the machine is busy.
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

TEST_F(BDMonTest, Start_Twice_DoesNothing) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    const int objects = test::heldUdevObjects();
    monitor->start();
    EXPECT_TRUE(batches.isEmpty());
    EXPECT_EQ(test::heldUdevObjects(), objects);
    EXPECT_EQ(summary(*update().events), QStringList({"1 change /dev/sda"}));
}

TEST_F(BDMonTest, Start_AfterStop_TellsAgain) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    monitor->stop();
    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    EXPECT_EQ(summary(*batches[0].events), QStringList({"1 add /dev/sda"}));
    batches.clear();
    // What was queued for the closed monitor is gone with it.
    EXPECT_EQ(monitor->update(0), 0);
    EXPECT_TRUE(batches.isEmpty());
    testbed.send(disk, "remove");
    EXPECT_EQ(summary(*update().events), QStringList({"1 remove /dev/sda"}));
}

TEST_F(BDMonTest, Start_ComesWhileItTells_IsInTheNextUpdate) {
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

// It listens before it looks, so that nothing can come in between.
TEST_F(BDMonTest, Start_ComesBeforeItLooks_IsInTheNextUpdateToo) {
    testbed.addDisk("sda", "usb-1");
    test::beforeUdevEnumerates([this] { testbed.addDisk("sdb", "usb-2"); });
    monitor->start();
    test::beforeUdevEnumerates({});
    ASSERT_EQ(batches.size(), 1);
    EXPECT_EQ(summary(*batches[0].events), QStringList({"1 add /dev/sda", "2 add /dev/sdb"}));
    batches.clear();
    EXPECT_EQ(summary(*update().events), QStringList({"1 add /dev/sdb"}));
}

TEST_F(BDMonTest, StartAndStop_LeaveNoDescriptor) {
    testbed.setNode("/dev/sda", {512, 1024});
    testbed.addDisk("sda", "usb-1");
    startAndForget();
    monitor->stop();
    const int stopped = openDescriptors();
    const int objects = test::heldUdevObjects();
    for (int round = 0; round < 50; ++round) {
        monitor->start();
        EXPECT_EQ(test::heldUdevObjects(), objects + 1);
        monitor->stop();
        EXPECT_EQ(test::heldUdevObjects(), objects);
    }
    EXPECT_TRUE(noMoreDescriptorsThan(stopped));
    EXPECT_EQ(batches.size(), 50);
}

// --- update -------------------------------------------------------------------------------------

TEST_F(BDMonTest, Update_BeforeStart_TellsNothing) {
    testbed.addDisk("sda", "usb-1");
    EXPECT_LT(timeOf([&] { EXPECT_EQ(monitor->update(20000), 0); }), atOnce);
    EXPECT_TRUE(batches.isEmpty());
    EXPECT_FALSE(monitor->isRunning());
}

TEST_F(BDMonTest, Update_AfterStop_TellsNothing) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    monitor->stop();
    EXPECT_LT(timeOf([&] { EXPECT_EQ(monitor->update(20000), 0); }), atOnce);
    EXPECT_TRUE(batches.isEmpty());
}

TEST_F(BDMonTest, Update_NothingQueued_ReturnsAtOnce) {
    testbed.addDisk("sda", "usb-1");
    startAndForget();
    EXPECT_LT(timeOf([&] { EXPECT_EQ(monitor->update(20000), 0); }), atOnce);
    EXPECT_TRUE(batches.isEmpty());
}

TEST_F(BDMonTest, Update_CardWithTwoPartitions_IsOneBatchOfThree) {
    startAndForget();
    const QString card = testbed.addDisk("mmcblk0", "platform-sd");
    testbed.addPartition(card, 2); // udev's order need not be the numbers'
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

TEST_F(BDMonTest, Update_SeveralDisks_AreGroupedInTheirOrder) {
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

TEST_F(BDMonTest, Update_NextBatch_CountsFromOneAgain) {
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

TEST_F(BDMonTest, Update_AnyAction_IsToldAsUdevHasIt) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    for (const char* action : {"add", "change", "move", "online", "remove"})
        testbed.send(disk, action);
    EXPECT_EQ(summary(*update().events),
              QStringList({"1 add /dev/sda", "2 change /dev/sda", "3 move /dev/sda",
                           "4 online /dev/sda", "5 remove /dev/sda"}));
}

TEST_F(BDMonTest, Update_Texts_AreUtf8) {
    startAndForget();
    testbed.addDisk("sda", "usb-1", {{"ID_FS_LABEL", "Bänder"}});
    EXPECT_EQ(update().device(0).m_fsLabel, QString::fromUtf8("Bänder"));
}

TEST_F(BDMonTest, Update_WithoutIdPath_IsConsumedButNotTold) {
    const QString loop = testbed.addDisk("loop0", "");
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(loop, "change");
    testbed.send(disk, "change");
    testbed.send(loop, "change");
    EXPECT_EQ(summary(*update().events), QStringList({"1 change /dev/sda"}));
    EXPECT_LT(timeOf([&] { EXPECT_EQ(monitor->update(20000), 0); }), atOnce);
    EXPECT_TRUE(batches.isEmpty());
}

TEST_F(BDMonTest, Update_OnlyWithoutIdPath_TellsNothingButWaits) {
    const QString loop = testbed.addDisk("loop0", "");
    startAndForget();
    testbed.send(loop, "change");
    EXPECT_GE(timeOf([&] { EXPECT_EQ(monitor->update(100), 0); }), milliseconds(100));
    EXPECT_TRUE(batches.isEmpty());
    EXPECT_LT(timeOf([&] { EXPECT_EQ(monitor->update(20000), 0); }), atOnce);
}

TEST_F(BDMonTest, Update_OtherSubsystems_AreNotQueued) {
    startAndForget();
    testbed.send(testbed.addOther("usb", "1-1", "usb-1"), "change");
    EXPECT_LT(timeOf([&] { EXPECT_EQ(monitor->update(20000), 0); }), atOnce);
    EXPECT_TRUE(batches.isEmpty());
}

TEST_F(BDMonTest, Update_HundredQueued_AllAreToldInOrder) {
    if (UdevTestbed::queueLength() < 100)
        GTEST_SKIP() << "no network of its own, with longer queues";
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
    const int objects = test::heldUdevObjects();
    const Batch batch = update(0);
    EXPECT_EQ(summary(*batch.events), expected);
    EXPECT_EQ(summary(batch.eventsByDevice->value("usb-1")), expected);
    EXPECT_TRUE(noMoreDescriptorsThan(descriptors));
    EXPECT_EQ(test::heldUdevObjects(), objects);
}

TEST_F(BDMonTest, Update_DevicesTheirNodesAndHandles_AreGivenBack) {
    testbed.setNode("/dev/sda", {512, 1024});
    const QString loop = testbed.addDisk("loop0", "");
    const QString disk = testbed.addDisk("sda", "usb-1");
    const QString card = testbed.addDisk("mmcblk0", "platform-sd");
    testbed.setAttribute(card, "ro", "1\n");
    startAndForget();
    const int descriptors = openDescriptors();
    const int objects = test::heldUdevObjects();
    for (int round = 0; round < 20; ++round) {
        for (const QString& device : {loop, disk, card})
            testbed.send(device, "change");
        EXPECT_EQ(update().events->size(), 2);
        EXPECT_EQ(test::heldUdevObjects(), objects);
    }
    EXPECT_TRUE(noMoreDescriptorsThan(descriptors));
}

TEST_F(BDMonTest, Update_QueueWasTooShort_WhatItHoldsIsTold) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    test::failUdevReceive(ENOBUFS, 1);
    EXPECT_EQ(summary(*update().events), QStringList({"1 change /dev/sda"}));
}

TEST_F(BDMonTest, Update_InterruptedBySignal_ReceivesAgain) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    test::failUdevReceive(EINTR, 3);
    EXPECT_EQ(summary(*update().events), QStringList({"1 change /dev/sda"}));
}

// --- quiet time ---------------------------------------------------------------------------------

TEST_F(BDMonTest, Update_AfterTheLastEvent_WaitsForTheQuietTime) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    for (const int quietMs : {0, 1, 50, 300, 1100}) {
        testbed.send(disk, "change");
        testbed.send(disk, "change");
        const milliseconds taken = timeOf(
            [&] { EXPECT_EQ(update(static_cast<unsigned int>(quietMs)).events->size(), 2); });
        EXPECT_GE(taken, milliseconds(quietMs));
        EXPECT_LT(taken, milliseconds(quietMs) + atOnce);
    }
}

TEST_F(BDMonTest, Update_SteadyStream_StaysInsideUntilItEnds) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    Clock::time_point last;
    std::thread stream([&] {
        for (int i = 0; i < 40; ++i) { // goes on for longer than the quiet time
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

TEST_F(BDMonTest, Update_EventWhileItWaits_StartsTheQuietTimeAnew) {
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

TEST_F(BDMonTest, Update_LongestQuietTime_IsNoShortOne) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    QSemaphore told;
    onNotify = [&] { told.release(); };
    test::shortenLongestPolls(5); // each of which is nearly 25 days
    const int received = test::receivedUdevDevices();
    std::thread updater([&] { monitor->update(4294967295U); });
    EXPECT_TRUE(test::eventually([&] { return test::receivedUdevDevices() > received; }));
    EXPECT_FALSE(told.tryAcquire(1, 100));
    test::failUdevReceive(EBADF, 1); // a failure ends the wait, and the test
    testbed.send(disk, "remove");
    updater.join();
    EXPECT_EQ(told.available(), 1);
    EXPECT_EQ(summary(*takeBatches().value(0).events), QStringList({"1 change /dev/sda"}));
}

namespace {
std::atomic<int> alarms{0};
} // namespace

TEST_F(BDMonTest, Update_Signals_DoNotShortenTheQuietTime) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");

    struct sigaction count = {};
    struct sigaction before;
    count.sa_handler = [](int) { ++alarms; };
    sigaction(SIGALRM, &count, &before);
    alarms = 0;
    const pthread_t waiter = pthread_self();
    std::atomic<bool> goesOn{true};
    std::thread alarmClock([&] {
        while (goesOn) {
            std::this_thread::sleep_for(milliseconds(10));
            pthread_kill(waiter, SIGALRM);
        }
    });
    const milliseconds taken = timeOf([&] { EXPECT_EQ(update(500).events->size(), 1); });
    goesOn = false;
    alarmClock.join();
    sigaction(SIGALRM, &before, nullptr);

    EXPECT_GE(taken, milliseconds(500));
    EXPECT_LT(taken, milliseconds(500) + atOnce);
    EXPECT_GT(alarms, 3);
}

// --- meta-object --------------------------------------------------------------------------------

TEST_F(BDMonTest, MetaObject_HasOneSignalAndOneSlot) {
    const QMetaObject& meta = BDMon::staticMetaObject;
    QStringList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        methods += QStringLiteral("%1 %2 %3")
                       .arg(int{method.methodType()})
                       .arg(method.typeName(), method.methodSignature().constData());
        EXPECT_EQ(method.access(), QMetaMethod::Public);
    }
    const QString signal = QString::number(QMetaMethod::Signal);
    const QString slot = QString::number(QMetaMethod::Slot);
    EXPECT_EQ(methods, QStringList({signal + " void notify(oru::io::BDMon::EventListSPtr,"
                                             "oru::io::BDMon::EventListByDeviceSPtr)",
                                    slot + " int update(uint)", slot + " int update()"}));
    EXPECT_STREQ(meta.className(), "oru::io::BDMon");
    EXPECT_STREQ(meta.superClass()->className(), "QObject");
}

TEST_F(BDMonTest, MetaObject_UpdateWithoutArgument_WaitsForHalfASecond) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    int result = -1;
    const milliseconds taken = timeOf([&] {
        EXPECT_TRUE(QMetaObject::invokeMethod(monitor, "update", Qt::DirectConnection,
                                              Q_RETURN_ARG(int, result)));
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(batches.size(), 1);
    EXPECT_GE(taken, milliseconds(500));
    EXPECT_LT(taken, milliseconds(500) + atOnce);
}

TEST_F(BDMonTest, MetaObject_UpdateWithArgument_TakesIt) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    const milliseconds taken = timeOf([&] {
        EXPECT_TRUE(QMetaObject::invokeMethod(monitor, "update", Qt::DirectConnection,
                                              Q_ARG(unsigned int, 900)));
    });
    EXPECT_EQ(batches.size(), 1);
    EXPECT_GE(taken, milliseconds(900));
}

TEST_F(BDMonTest, MetaObject_SignalsParameters_AreTheTypes) {
    const int notify = BDMon::staticMetaObject.indexOfSignal(
        "notify(oru::io::BDMon::EventListSPtr,oru::io::BDMon::EventListByDeviceSPtr)");
    ASSERT_NE(notify, -1);
    const QMetaMethod signal = BDMon::staticMetaObject.method(notify);
    EXPECT_EQ(signal.parameterType(0), qMetaTypeId<BDMon::EventListSPtr>());
    EXPECT_EQ(signal.parameterType(1), qMetaTypeId<BDMon::EventListByDeviceSPtr>());
}

// --- notify -------------------------------------------------------------------------------------

TEST_F(BDMonTest, Notify_DirectReceivers_RunOnTheCallersThread) {
    testbed.addDisk("sda", "usb-1");
    std::thread::id receiver;
    onNotify = [&] { receiver = std::this_thread::get_id(); };
    std::thread([&] {
        monitor->start();
        EXPECT_EQ(receiver, std::this_thread::get_id());
        receiver = {};
        testbed.send("/sys/devices/sda", "change");
        monitor->update(0);
        EXPECT_EQ(receiver, std::this_thread::get_id());
    }).join();
    EXPECT_EQ(batches.size(), 2);
    EXPECT_NE(receiver, std::this_thread::get_id());
}

TEST_F(BDMonTest, Notify_SignalSpy_SeesTheBatch) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    for (const bool byName : {false, true}) {
        QSignalSpy spy =
            byName ? QSignalSpy(monitor, SIGNAL(notify(oru::io::BDMon::EventListSPtr,
                                                       oru::io::BDMon::EventListByDeviceSPtr)))
                   : QSignalSpy(monitor, &BDMon::notify);
        ASSERT_TRUE(spy.isValid());
        testbed.send(disk, "change");
        monitor->update(0);
        ASSERT_EQ(spy.count(), 1);
        const auto events = spy[0][0].value<BDMon::EventListSPtr>();
        const auto byDevice = spy[0][1].value<BDMon::EventListByDeviceSPtr>();
        ASSERT_TRUE(events);
        ASSERT_TRUE(byDevice);
        EXPECT_EQ(events, batches.last().events);
        EXPECT_EQ(summary(byDevice->value("usb-1")), QStringList({"1 change /dev/sda"}));
    }
}

TEST_F(BDMonTest, Notify_QueuedReceivers_HaveTheBatchAfterTheEmission) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();

    QThread thread;
    QSemaphore gate;
    QSemaphore received;
    QStringList seen;
    Qt::HANDLE seenOn = nullptr;
    QWeakPointer<QList<BDMon::Event>> batch;
    auto* const receiver = new QObject;
    receiver->moveToThread(&thread);
    QObject::connect(&thread, &QThread::finished, receiver, &QObject::deleteLater);
    QObject::connect(monitor, &BDMon::notify, receiver,
                     [&](BDMon::EventListSPtr events, BDMon::EventListByDeviceSPtr byDevice) {
                         gate.acquire();
                         seen = summary(*events) + summary(byDevice->value("usb-1"));
                         seenOn = QThread::currentThreadId();
                         received.release();
                     });
    onNotify = [&] { batch = batches.last().events; };
    thread.start();

    testbed.send(disk, "change");
    monitor->update(0);
    batches.clear(); // now only the queued call has it
    EXPECT_EQ(received.available(), 0);
    EXPECT_TRUE(batch);
    gate.release();
    EXPECT_TRUE(received.tryAcquire(1, 20000));
    monitor->disconnect(receiver);
    thread.quit();
    thread.wait();

    EXPECT_EQ(seen, QStringList({"1 change /dev/sda", "1 change /dev/sda"}));
    EXPECT_NE(seenOn, QThread::currentThreadId());
    EXPECT_FALSE(batch);
}

TEST_F(BDMonTest, Notify_ReceiverStops_DoesNoHarm) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    onNotify = [this] { monitor->stop(); };
    monitor->start();
    EXPECT_FALSE(monitor->isRunning());
    EXPECT_EQ(takeBatches().size(), 1);

    onNotify = nullptr;
    startAndForget();
    onNotify = [this] { monitor->stop(); };
    testbed.send(disk, "change");
    EXPECT_EQ(summary(*update().events), QStringList({"1 change /dev/sda"}));
    EXPECT_FALSE(monitor->isRunning());
    EXPECT_EQ(monitor->update(0), 0);
    EXPECT_TRUE(batches.isEmpty());
}

TEST_F(BDMonTest, Notify_ReceiverUpdates_DoesNoHarm) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    onNotify = [&] {
        if (batches.size() < 3)
            testbed.send(disk, batches.size() == 1 ? "change" : "remove");
        EXPECT_EQ(monitor->update(0), 0);
    };
    monitor->start();
    ASSERT_EQ(batches.size(), 3);
    EXPECT_EQ(summary(*batches[0].events), QStringList({"1 add /dev/sda"}));
    EXPECT_EQ(summary(*batches[1].events), QStringList({"1 change /dev/sda"}));
    EXPECT_EQ(summary(*batches[2].events), QStringList({"1 remove /dev/sda"}));
    EXPECT_TRUE(monitor->isRunning());
}

TEST_F(BDMonTest, Notify_ReceiverRestarts_DoesNoHarm) {
    testbed.addDisk("sda", "usb-1");
    onNotify = [&] {
        if (batches.size() == 1) {
            monitor->stop();
            monitor->start();
        }
    };
    monitor->start();
    EXPECT_EQ(batches.size(), 2);
    EXPECT_TRUE(monitor->isRunning());
}

TEST(BDMonEvent, Construction_TakesTheDeviceOver) {
    struct Watched : LinuxBD {
        Watched(Properties& props, bool& flag) : LinuxBD(props), isGone(flag) {}
        ~Watched() override {
            isGone = true;
        }
        bool& isGone;
    };
    bool isGone = false;
    Properties props;
    auto* const device = new Watched(props, isGone);
    {
        const BDMon::Event event(7, "bind", device);
        const BDMon::Event copy = event; // NOLINT(performance-unnecessary-copy-initialization)
        EXPECT_EQ(copy.seq, 7);
        EXPECT_EQ(copy.action, "bind");
        EXPECT_EQ(copy.dev.data(), device);
        EXPECT_FALSE(isGone);
    }
    EXPECT_TRUE(isGone);
}

// --- geometry -----------------------------------------------------------------------------------

class GeometryTest : public ::testing::Test {
protected:
    LinuxBD disk() {
        Properties props{{"DEVNAME", "/dev/sda"}, {"DEVTYPE", "disk"}};
        return LinuxBD(props);
    }
    LinuxBD partition() {
        Properties props{{"DEVNAME", "/dev/sda"},
                         {"DEVTYPE", "partition"},
                         {"ID_PART_ENTRY_OFFSET", "2048"},
                         {"ID_PART_ENTRY_SIZE", "8192"}};
        return LinuxBD(props);
    }

    UdevTestbed testbed;
};

TEST_F(GeometryTest, Disk_CountsInBlocksOfItsSize) {
    testbed.setNode("/dev/sda", {512, 7948206080});
    const LinuxBD device = disk();
    EXPECT_EQ(device.m_blkSize, 512U);
    EXPECT_EQ(device.m_totalBlocks, 15523840U);
    EXPECT_EQ(device.capacity(), 7948206080U);
    EXPECT_EQ(device.m_startBlock, 0U);
}

TEST_F(GeometryTest, DiskOfLargeBlocks_CountsInThose) {
    testbed.setNode("/dev/sda", {4096, 8000000000000});
    const LinuxBD device = disk();
    EXPECT_EQ(device.m_blkSize, 4096U);
    EXPECT_EQ(device.m_totalBlocks, 1953125000U);
    EXPECT_EQ(device.capacity(), 8000000000000U);
}

TEST_F(GeometryTest, DiskNotOfWholeBlocks_IsRoundedDown) {
    testbed.setNode("/dev/sda", {4096, 3 * 4096 + 4095});
    EXPECT_EQ(disk().m_totalBlocks, 3U);
    EXPECT_EQ(disk().capacity(), 3U * 4096);
}

TEST_F(GeometryTest, PartitionOfLargeBlocks_IsTakenAsUdevCounts) {
    testbed.setNode("/dev/sda", {4096, 8000000000000});
    const LinuxBD device = partition();
    EXPECT_EQ(device.m_blkSize, 4096U);
    EXPECT_EQ(device.m_startBlock, 2048U);
    EXPECT_EQ(device.m_totalBlocks, 8192U);
    EXPECT_EQ(device.capacity(), 8192U * 4096);
}

TEST_F(GeometryTest, NoAnswers_BlocksOf512AndNoLength) {
    testbed.setNode("/dev/sda", {});
    const LinuxBD device = disk();
    EXPECT_EQ(device.m_blkSize, 512U);
    EXPECT_EQ(device.m_totalBlocks, 0U);
    EXPECT_EQ(device.capacity(), 0U);
    EXPECT_EQ(partition().m_blkSize, 512U);
    EXPECT_EQ(partition().capacity(), 8192U * 512);
}

TEST_F(GeometryTest, NoBlockSize_BlocksOf512) {
    testbed.setNode("/dev/sda", {std::nullopt, 10240});
    EXPECT_EQ(disk().m_blkSize, 512U);
    EXPECT_EQ(disk().m_totalBlocks, 20U);
    EXPECT_EQ(partition().m_blkSize, 512U);
}

TEST_F(GeometryTest, BlockSizeOf0_BlocksOf512) {
    testbed.setNode("/dev/sda", {0, 10240});
    EXPECT_EQ(disk().m_blkSize, 512U);
    EXPECT_EQ(disk().m_totalBlocks, 20U);
}

TEST_F(GeometryTest, NoLength_NoBlocks) {
    testbed.setNode("/dev/sda", {4096, std::nullopt});
    EXPECT_EQ(disk().m_blkSize, 4096U);
    EXPECT_EQ(disk().m_totalBlocks, 0U);
    EXPECT_EQ(disk().capacity(), 0U);
}

TEST_F(GeometryTest, Node_IsClosed) {
    testbed.setNode("/dev/sda", {512, 10240});
    disk();
    const int descriptors = openDescriptors();
    for (int round = 0; round < 20; ++round) {
        disk();
        partition();
    }
    EXPECT_TRUE(noMoreDescriptorsThan(descriptors));
}

// --- write protection ---------------------------------------------------------------------------

TEST_F(BDMonTest, ProtectedCard_IsKnownWithItsPartitions) {
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

TEST_F(BDMonTest, WritableCard_IsKnown) {
    const QString card = testbed.addDisk("mmcblk0", "platform-sd");
    testbed.setAttribute(card, "ro", "0\n");
    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    EXPECT_FALSE(batches[0].device(0).m_writeProtected);
    EXPECT_EQ(batches[0].device(0).props().value("WRITE_PROTECTED"), QVariant(false));
}

TEST_F(BDMonTest, UsbDisk_IsNotAskedForProtection) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    testbed.setAttribute(disk, "ro", "1\n");
    monitor->start();
    ASSERT_EQ(batches.size(), 1);
    EXPECT_FALSE(batches[0].device(0).m_writeProtected);
    EXPECT_FALSE(batches[0].device(0).props().contains("WRITE_PROTECTED"));
}

// --- in a process of its own --------------------------------------------------------------------

TEST(BDMonProcess, Loaded_HasNeitherDescriptorNorThread) {
    Program program("idle");
    EXPECT_EQ(program.exitStatus(), 0);
    // Its three standard ones, and the directory it counts in.
    EXPECT_EQ(program.output(), "4 descriptors, 1 threads\n");
}

// Before anything that registers a type of Qt's by its use.
TEST(BDMonProcess, Loaded_KnowsItsTypesByName) {
    Program program("types");
    EXPECT_EQ(program.exitStatus(), 0);
    EXPECT_EQ(program.output(), "BDMon::EventListSPtr 1\nBDMon::EventListByDeviceSPtr 1\n"
                                "BlockDevice::SPtr 1\nBDMon::NoSuchType 0\n");
}

TEST(BDMonProcess, NoContext_EndsTheProcess) {
    Program program("idle", "ORUIO_TEST_FAILS", "udev_new");
    EXPECT_EQ(program.exitStatus(), 1);
    EXPECT_EQ(program.errors(), "Fatal: Failed to create udev context\n");
    EXPECT_EQ(program.output(), "");
}

TEST(BDMonProcess, NoMonitor_EndsTheProcess) {
    Program program("start-logged", "ORUIO_TEST_FAILS", "udev_monitor_new_from_netlink");
    EXPECT_EQ(program.exitStatus(), 1);
    EXPECT_EQ(program.output(), "libio 12 Fatal: Failed to create udev monitor\n");
}

TEST(BDMonProcess, Monitor_StartsWithoutAWord) {
    const UdevTestbed testbed;
    Program program("start-logged");
    EXPECT_EQ(program.exitStatus(), 0);
    EXPECT_EQ(program.output(), "");
}

class BDMonDebug : public ::testing::TestWithParam<const char*> {};

TEST_P(BDMonDebug, Variable_PrintsEveryDevice) {
    UdevTestbed testbed;
    const QString disk = testbed.addDisk("sda", "usb-1", {{"UDISKS_PRESENTATION_NOPOLICY", "a b"}});
    const QString ram = testbed.addDisk("ram0", "");
    Program program("watch", "ORUIO_UDEVDBG", GetParam());
    ASSERT_EQ(program.awaitError(), "started\n");
    testbed.send(ram, "change");
    testbed.send(disk, "remove");
    program.goOn();
    ASSERT_EQ(program.exitStatus(), 0);
    QString output = program.output();
    output.replace(QRegularExpression("SEQNUM               [0-9]+"), "SEQNUM               N");
    EXPECT_EQ(output, R"(
*** DEVICE ***
  DEVNAME              /dev/ram0
  DEVPATH              /devices/ram0
  DEVTYPE              disk
  SUBSYSTEM            block

*** END DEVICE ***

*** DEVICE ***
  DEVNAME              /dev/sda
  DEVPATH              /devices/sda
  DEVTYPE              disk
  ID_PATH              usb-1
  SUBSYSTEM            block
  UDISKS_PRESENTATION_NOPOLICY a b

*** END DEVICE ***

*** DEVICE ***
  ACTION               change
  DEVNAME              /dev/ram0
  DEVPATH              /devices/ram0
  DEVTYPE              disk
  SEQNUM               N
  SUBSYSTEM            block

*** END DEVICE ***

*** DEVICE ***
  ACTION               remove
  DEVNAME              /dev/sda
  DEVPATH              /devices/sda
  DEVTYPE              disk
  ID_PATH              usb-1
  SEQNUM               N
  SUBSYSTEM            block
  UDISKS_PRESENTATION_NOPOLICY a b

*** END DEVICE ***
)");
}

INSTANTIATE_TEST_SUITE_P(AnyValue, BDMonDebug, ::testing::Values("1", "0", ""));

TEST(BDMonProcess, NoDebugVariable_PrintsNothing) {
    UdevTestbed testbed;
    const QString disk = testbed.addDisk("sda", "usb-1");
    Program program("watch");
    ASSERT_EQ(program.awaitError(), "started\n");
    testbed.send(disk, "remove");
    program.goOn();
    EXPECT_EQ(program.exitStatus(), 0);
    EXPECT_EQ(program.output(), "");
}

// --- layout -------------------------------------------------------------------------------------

template <class Base>
struct Extended : Base {
    virtual void behind();
};

TEST(Slots, BDMon_BehindThoseOfQObject) {
    int slot = slotOf(&Extended<QObject>::behind);
    EXPECT_EQ(slotOf(&BDMon::update), slot++);
    EXPECT_EQ(slotOf(&BDMon::start), slot++);
    EXPECT_EQ(slotOf(&BDMon::stop), slot++);
    EXPECT_EQ(slotOf(&BDMon::isRunning), slot++);
    EXPECT_EQ(slotOf(&Extended<BDMon>::behind), slot);
}

} // namespace oru::io

#if defined(__SANITIZE_THREAD__)
// Libraries that are not instrumented: their locks are not seen, nor what they hand over to another
// thread: umockdev the answers of a node, Qt the arguments of a queued call.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "called_from_lib:libumockdev.so\n"
           "called_from_lib:libumockdev-preload.so\n"
           "called_from_lib:libudev.so\n"
           "called_from_lib:libglib-2.0.so\n"
           "called_from_lib:libgobject-2.0.so\n"
           "called_from_lib:libgio-2.0.so\n"
           "race:handleIoctl\n"
           "race:QObject::event\n";
}
#endif

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--role") == 0)
        return oru::io::runRole(argv[2]);
    // Without a network of its own only some tests skip themselves.
    oru::io::test::isolate(oru::io::test::Namespaces::MountAndNetwork);
    const QCoreApplication application(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
