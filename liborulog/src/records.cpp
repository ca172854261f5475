// SPDX-License-Identifier: Apache-2.0
#include "records_p.h"

#include <cstdint>
#include <utility>

namespace orulog {

namespace {

char takenMarker;

oruLogMsg* next(const oruLogMsg* msg) {
    return static_cast<oruLogMsg*>(msg->service);
}

} // namespace

oruLogMsg* Records::take() {
    oruLogMsg* msg = m_free;
    if (msg)
        m_free = next(msg);
    else if (m_used < ORULOG_RECORDS)
        msg = &m_pool[m_used++];
    else
        return nullptr;
    msg->service = &takenMarker;
    return msg;
}

bool Records::isTaken(const oruLogMsg* msg) const {
    // Unsigned: an address before the pool becomes a large offset, as one after the pool is.
    const auto offset = reinterpret_cast<uintptr_t>(msg) - reinterpret_cast<uintptr_t>(m_pool);
    return offset < sizeof m_pool && offset % sizeof *m_pool == 0 && msg->service == &takenMarker;
}

bool Records::queue(oruLogMsg* msg) {
    if (!isTaken(msg))
        return false;
    msg->service = nullptr;
    if (m_newest)
        m_newest->service = msg;
    else
        m_oldest = msg;
    m_newest = msg;
    return true;
}

oruLogMsg* Records::takeOldest() {
    oruLogMsg* const msg = m_oldest;
    if (!msg)
        return nullptr;
    m_oldest = next(msg);
    if (!m_oldest)
        m_newest = nullptr;
    msg->service = nullptr;
    return msg;
}

void Records::release(oruLogMsg* msg) {
    msg->service = std::exchange(m_free, msg);
}

void Records::reset(oruLogMsg* kept) {
    m_oldest = m_newest = m_free = nullptr;
    for (int i = 0; i < m_used; ++i) {
        if (&m_pool[i] != kept)
            release(&m_pool[i]);
    }
}

} // namespace orulog
