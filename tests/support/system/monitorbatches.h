// SPDX-License-Identifier: Apache-2.0
// Collects the batches of the block device monitor.
#pragma once

#include <oruio/bdmon.h>

#include <QList>

namespace oru::io::test {

/// The arguments of one BDMon::notify(); null if none was emitted.
struct Batch {
    BDMon::EventListSPtr events;
    BDMon::EventListByDeviceSPtr eventsByDevice;

    BlockDevice& device(int index) const {
        return *events->at(index).dev;
    }
};

/// Connects to the monitor. The destructor stops the monitor.
class MonitorBatches {
public:
    MonitorBatches();
    ~MonitorBatches();

    /// Starts the monitor. \returns the batch of the devices that are present.
    Batch start();
    /// Calls BDMon::update(). \returns the batch of the events that udevd has sent so far.
    Batch update();

private:
    Q_DISABLE_COPY(MonitorBatches)

    Batch takeOnly();

    QList<Batch> m_batches;
    const QMetaObject::Connection m_connection;
};

} // namespace oru::io::test
