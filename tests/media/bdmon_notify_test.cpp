// SPDX-License-Identifier: Apache-2.0
// BDMon::notify(): receivers of the signal.

#include "bdmontest.h"

#include <QSemaphore>
#include <QSignalSpy>
#include <QThread>

#include <thread>

namespace oru::io::test {
namespace {

TEST_F(BDMonTest, Notify_DirectReceiver_RunsOnCallersThread) {
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

TEST_F(BDMonTest, Notify_SignalSpy_ReceivesBatch) {
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

TEST_F(BDMonTest, Notify_QueuedReceiver_BatchStaysValid) {
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
    batches.clear(); // only the queued call still holds the batch
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

TEST_F(BDMonTest, Notify_ReceiverStops_MonitorStopped) {
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

TEST_F(BDMonTest, Notify_ReceiverUpdates_NestedBatchesInOrder) {
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

TEST_F(BDMonTest, Notify_ReceiverRestarts_MonitorRunning) {
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

TEST(BDMonEvent, Construction_FromPointer_OwnsDevice) {
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

} // namespace
} // namespace oru::io::test
