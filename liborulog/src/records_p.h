// SPDX-License-Identifier: Apache-2.0
// The fixed number of message records, and the queue of records to be written.
#pragma once

#include <orulog/control.h>

namespace orulog {

/// The records. Each is free, taken by a caller, queued, or taken out to be written. Not
/// thread-safe.
///
/// In a free or queued record, `service` links to the next one. In a taken record it is a marker,
/// by which queue() recognises pointers that are not taken records.
class Records {
public:
    /// Takes a free record. \returns null when there is none.
    oruLogMsg* take();

    /// Queues a taken record. For any other pointer it does nothing and returns false.
    bool queue(oruLogMsg* msg);

    bool hasQueued() const {
        return m_oldest;
    }

    /// Takes out the oldest queued record. \returns null when none is queued.
    oruLogMsg* takeOldest();

    /// Frees a record that was taken out.
    void release(oruLogMsg* msg);

    /// Frees all records but `kept`, which may be null: those of threads that do not exist any
    /// more.
    void reset(oruLogMsg* kept);

private:
    bool isTaken(const oruLogMsg* msg) const;

    oruLogMsg m_pool[ORULOG_RECORDS] = {};
    int m_used = 0; // this record and all after it have never been taken
    oruLogMsg* m_free = nullptr;
    oruLogMsg* m_oldest = nullptr;
    oruLogMsg* m_newest = nullptr;
};

} // namespace orulog
