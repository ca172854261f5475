// SPDX-License-Identifier: Apache-2.0
// How a MediumKeeper keeps each kind of location.
#pragma once

#include <oruio/mediumkeeper.h>

#include <QDeadlineTimer>
#include <QSharedPointer>
#include <QString>

#include <memory>

namespace oru::io {

/// The intervals between attempts that fail.
class Retry {
public:
    explicit Retry(const MediumKeeper::Policy& policy);

    /// Begins again: the next attempt is due at once.
    void reset();
    void fail();
    bool isDue() const;
    /// The time until the next attempt in ms.
    int remaining() const;

private:
    const int m_first;
    const int m_longest;
    int m_next;
    QDeadlineTimer m_due;
};

/// A location that is kept. Nothing here emits a signal.
class Kept {
public:
    static constexpr int never = -1;

    virtual ~Kept();

    /// Takes the events of a batch. \returns whether any concerned this location.
    virtual bool take(const BDMon::EventListByDeviceSPtr& events);
    /// Does what is due. \returns the time in ms until the next call, or `never`.
    virtual int step() = 0;
    /// The same while it is checked or formatted, when nothing is mounted.
    virtual void stepBusy();
    virtual int mount(StorageLocation::AccessType access) = 0;
    virtual int unmount(bool lazy) = 0;
    /// Makes the job of a check or format. \returns null with errno if it cannot be done.
    virtual QSharedPointer<MaintenanceJob> makeCheck();
    virtual QSharedPointer<MaintenanceJob> makeFormat(const Properties* props);
    /// Whether the medium must be checked now, before it is mounted.
    virtual bool isCheckDue() const;
    virtual void noteCheck(int status, const QString& why);

    StorageLocation& location;
    const MediumKeeper::Policy policy;
    MediumKeeper::State state = MediumKeeper::Absent;
    QString reason;

protected:
    Kept(StorageLocation& kept, const MediumKeeper::Policy& chosen);

    void setState(MediumKeeper::State now, const QString& why = {});
    void setAccess(StorageLocation::AccessType access);
    /// The access that the policy wants; None if the medium is mounted by hand.
    StorageLocation::AccessType initiallyWanted() const;

    StorageLocation::AccessType m_wanted; ///< None: not mounted
    Retry m_retry;
};

std::unique_ptr<Kept> makeKeptMedium(SystemLocation& location, const MediumKeeper::Policy& policy);
std::unique_ptr<Kept> makeKeptShare(StorageLocation& location, const MediumKeeper::Policy& policy);

} // namespace oru::io
