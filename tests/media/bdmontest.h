// SPDX-License-Identifier: Apache-2.0
// Fixture for tests of the block device monitor with umockdev's devices.
#pragma once

#include "support/doubles/udevcalls.h"
#include "support/suite/qtprint.h"
#include "support/system/childprocess.h"
#include "support/system/monitorbatches.h"
#include "support/system/udevtestbed.h"

#include <oruio/bdmon.h>

#include <QDir>
#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <utility>

namespace oru::io::test {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// Upper limit for the duration of a call that does not wait.
constexpr seconds atOnce(5);

inline milliseconds durationOf(const std::function<void()>& work) {
    const auto begin = Clock::now();
    work();
    return std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
}

inline int openDescriptors() {
    return QDir("/proc/self/fd")
        .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
        .size();
}

/// Whether at most `before` descriptors are open. Waits for umockdev's thread to close its own.
inline bool noMoreDescriptorsThan(int before) {
    return eventually([before] { return openDescriptors() <= before; });
}

/// "SEQ ACTION NODE" for each event.
inline QStringList summary(const QList<BDMon::Event>& events) {
    QStringList lines;
    for (const BDMon::Event& event : events)
        lines += QStringLiteral("%1 %2 %3")
                     .arg(QString::number(event.seq), event.action, event.dev->m_devName);
    return lines;
}

/// Runs the part `role` of a test in a process of its own. \returns the exit status.
int runRole(const char* role);

/// Has a testbed without devices, and records the batches of the monitor.
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
        hideUdevDevice({});
        failUdevReceive(0, 0);
    }

    /// \returns the batches so far, and forgets them.
    QList<Batch> takeBatches() {
        return std::exchange(batches, {});
    }
    void startAndForget() {
        monitor->start();
        batches.clear();
    }
    /// Calls update() and expects one batch.
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

} // namespace oru::io::test
