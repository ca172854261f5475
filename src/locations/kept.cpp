// SPDX-License-Identifier: Apache-2.0
#include "locations/kept_p.h"

#include <oruio/maintenancejob.h>

#include <algorithm>
#include <cerrno>

namespace oru::io {

Retry::Retry(const MediumKeeper::Policy& policy)
    : m_first(policy.firstRetryMs), m_longest(policy.longestRetryMs), m_next(m_first) {}

void Retry::reset() {
    m_next = m_first;
    m_due = QDeadlineTimer();
}

void Retry::fail() {
    m_due = QDeadlineTimer(m_next);
    m_next = std::min(std::max(m_next, 1) * 2, m_longest);
}

bool Retry::isDue() const {
    return m_due.hasExpired();
}

int Retry::remaining() const {
    return static_cast<int>(m_due.remainingTime());
}

Kept::Kept(StorageLocation& kept, const MediumKeeper::Policy& chosen)
    : location(kept), policy(chosen), m_wanted(initiallyWanted()), m_retry(chosen) {}

Kept::~Kept() = default;

bool Kept::take(const BDMon::EventListByDeviceSPtr&) {
    return false;
}

void Kept::stepBusy() {}

QSharedPointer<MaintenanceJob> Kept::makeCheck() {
    errno = ENOTSUP;
    return {};
}

QSharedPointer<MaintenanceJob> Kept::makeFormat(const Properties*) {
    errno = ENOTSUP;
    return {};
}

bool Kept::isCheckDue() const {
    return false;
}

void Kept::noteCheck(int, const QString&) {}

void Kept::setState(MediumKeeper::State now, const QString& why) {
    state = now;
    reason = why;
}

void Kept::setAccess(StorageLocation::AccessType access) {
    if (location.access() != access)
        location.accessChange(access);
}

StorageLocation::AccessType Kept::initiallyWanted() const {
    using Mount = MediumKeeper::Policy::Mount;
    return policy.mount == Mount::ReadWrite  ? StorageLocation::Write
           : policy.mount == Mount::ReadOnly ? StorageLocation::Read
                                             : StorageLocation::None;
}

} // namespace oru::io
