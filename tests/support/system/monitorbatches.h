// What the monitor of block devices tells, for tests to look at.
#pragma once

#include <oruio/bdmon.h>

#include <QList>

namespace oru::io::test {

/// What the monitor tells at once; null when it tells nothing.
struct Batch {
    BDMon::EventListSPtr events;
    BDMon::EventListByDeviceSPtr eventsByDevice;

    BlockDevice& device(int index) const {
        return *events->at(index).dev;
    }
};

/// Listens to the monitor, which it stops in the end.
class MonitorBatches {
public:
    MonitorBatches();
    ~MonitorBatches();

    /// Has the monitor tell of what there is.
    Batch start();
    /// Has the monitor tell of all that udevd has told so far.
    Batch update();

private:
    Q_DISABLE_COPY(MonitorBatches)

    Batch takeOnly();

    QList<Batch> m_batches;
    const QMetaObject::Connection m_connection;
};

} // namespace oru::io::test
