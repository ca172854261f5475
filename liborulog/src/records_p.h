// The fixed supply of message records and the queue of those to be written.
#pragma once

#include <orulog/control.h>

#include <cstddef>

namespace orulog {

/// Each record is free, taken by a writer, queued, or taken out to be written. Not thread-safe.
///
/// A record's `service` field is the link while it is free or queued. On a taken one it is a mark,
/// so that whatever else a writer hands over is found out.
class Records {
public:
    /// A free record, now taken; null when there is none.
    oruLogMsg* take();

    /// Queues a taken record. \returns false, without doing anything, for any other pointer.
    bool queue(oruLogMsg* msg);

    bool hasQueued() const {
        return m_oldest;
    }

    /// Takes out the record that was queued first; null when none is.
    oruLogMsg* takeOldest();

    /// Frees a record that was taken out.
    void release(oruLogMsg* msg);

    /// Frees all queued records. \returns how many there were.
    size_t releaseQueued();

private:
    bool isTaken(const oruLogMsg* msg) const;

    oruLogMsg m_pool[ORULOG_RECORDS] = {};
    int m_used = 0; // the records from here on have never been taken
    oruLogMsg* m_free = nullptr;
    oruLogMsg* m_oldest = nullptr;
    oruLogMsg* m_newest = nullptr;
};

} // namespace orulog
