// SPDX-License-Identifier: Apache-2.0
#include <oruio/error.h>
#include <oruio/maintenancejob.h>
#include <oruio/mediumkeeper.h>

#include "locations/kept_p.h"

#include <QAbstractEventDispatcher>
#include <QPointer>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>

#include <cerrno>
#include <cstring>
#include <utility>

namespace oru::io {

class MediumKeeper::Data {
public:
    Data(MediumKeeper& owner, StorageLocation& location, const Policy& policy);

    int advance();
    void report();
    int run(MaintenanceJob::SPtr made, bool ofPolicy);
    void endJob(int status);
    template <class Operation>
    int operate(Operation operation);

    MediumKeeper& keeper;

    const std::unique_ptr<Kept> kept;
    MaintenanceJob::SPtr job;
    QTimer* timer = nullptr;      // a child of the keeper, which moves to another thread with it
    bool isCheckOfPolicy = false; ///< the job was not asked for

    // What has been reported.
    State state = Absent;
    StorageLocation::AccessType access = StorageLocation::None;
    QString reason;
};

namespace {

std::unique_ptr<Kept> makeKept(StorageLocation& location, const MediumKeeper::Policy& policy) {
    if (auto* const local = qobject_cast<SystemLocation*>(&location))
        return makeKeptMedium(*local, policy);
    return makeKeptShare(location, policy);
}

} // namespace

MediumKeeper::Data::Data(MediumKeeper& owner, StorageLocation& location, const Policy& policy)
    : keeper(owner), kept(makeKept(location, policy)) {}

/// One step, with the policy's check. \returns the time until the next one.
int MediumKeeper::Data::advance() {
    if (job) {
        kept->stepBusy();
        return Kept::never;
    }
    const int wait = kept->step();
    if (!kept->isCheckDue())
        return wait;
    if (run(kept->makeCheck(), true) == 0)
        return Kept::never;
    kept->noteCheck(-1, QString::fromUtf8(std::strerror(errno)));
    return kept->step();
}

/// Starts a check or a format. \returns 0, or -1 with errno.
int MediumKeeper::Data::run(MaintenanceJob::SPtr made, bool ofPolicy) {
    if (!made || made->start() != 0)
        return -1;
    job = std::move(made);
    isCheckOfPolicy = ofPolicy;
    kept->state = Busy;
    kept->reason.clear();
    connect(job.data(), &MaintenanceJob::finished, &keeper, [this](int status) { endJob(status); });
    return 0;
}

void MediumKeeper::Data::endJob(int status) {
    // It is still calling: it is deleted when the last reference has gone.
    const MaintenanceJob::SPtr ended = std::move(job);
    const QPointer<MediumKeeper> guard(&keeper);
    if (isCheckOfPolicy)
        kept->noteCheck(status, ended->reason());
    Q_EMIT keeper.finished(status);
    if (guard)
        keeper.step();
}

/// Reports what has changed. A receiver may call the keeper, or delete it.
void MediumKeeper::Data::report() {
    const QPointer<MediumKeeper> guard(&keeper);
    StorageLocation& location = kept->location;
    if (access != location.access()) {
        access = location.access();
        Q_EMIT keeper.accessChanged(&location, access);
    }
    if (!guard || (state == kept->state && reason == kept->reason))
        return;
    state = kept->state;
    reason = kept->reason;
    Q_EMIT keeper.stateChanged(state);
}

/// Calls an operation of the location, and reports what has changed. Keeps its errno.
template <class Operation>
int MediumKeeper::Data::operate(Operation operation) {
    liberrno = Ok; // errno holds the reason
    if (job) {
        errno = EBUSY;
        return -1;
    }
    const int result = operation();
    const int error = errno;
    keeper.step();
    liberrno = Ok;
    errno = error;
    return result;
}

MediumKeeper::MediumKeeper(StorageLocation* location, const Policy& policy, QObject* parent)
    : QObject(parent), m_data(new Data(*this, *location, policy)) {
    qRegisterMetaType<State>();
    m_data->timer = new QTimer(this);
    m_data->timer->setSingleShot(true);
    m_data->timer->setTimerType(Qt::PreciseTimer);
    connect(m_data->timer, &QTimer::timeout, this, &MediumKeeper::step);
    connect(BDMon::instance(), &BDMon::notify, this,
            [this](BDMon::EventListSPtr, BDMon::EventListByDeviceSPtr events) {
                if (m_data->kept->take(events))
                    step();
            });
    // For an event loop: a share must be connected, and a mount point may be in use.
    QMetaObject::invokeMethod(this, "step", Qt::QueuedConnection);
}

MediumKeeper::~MediumKeeper() {
    if (m_data->job)
        m_data->job->cancel();
}

StorageLocation* MediumKeeper::location() const {
    return &m_data->kept->location;
}

MediumKeeper::State MediumKeeper::state() const {
    return m_data->state;
}

StorageLocation::AccessType MediumKeeper::access() const {
    return m_data->access;
}

QString MediumKeeper::reason() const {
    return m_data->reason;
}

MaintenanceJob* MediumKeeper::job() const {
    return m_data->job.data();
}

int MediumKeeper::mount(StorageLocation::AccessType access) {
    if (access != StorageLocation::Read && access != StorageLocation::Write) {
        errno = EINVAL;
        return -1;
    }
    return m_data->operate([&] { return m_data->kept->mount(access); });
}

int MediumKeeper::unmount(bool lazy) {
    return m_data->operate([&] { return m_data->kept->unmount(lazy); });
}

int MediumKeeper::check() {
    return m_data->operate([&] { return m_data->run(m_data->kept->makeCheck(), false); });
}

int MediumKeeper::format(const Properties* props) {
    return m_data->operate([&] { return m_data->run(m_data->kept->makeFormat(props), false); });
}

int MediumKeeper::step() {
    const MaintenanceJob::SPtr running = m_data->job;
    const QPointer<MediumKeeper> guard(this);
    // In a thread without a running event loop, nothing else advances the job.
    if (running && running->waitForFinished(0))
        return guard ? 0 : Kept::never; // endJob() has called this function
    const int wait = m_data->advance();
    if (wait != Kept::never && QAbstractEventDispatcher::instance(thread()))
        m_data->timer->start(wait);
    else
        m_data->timer->stop();
    constexpr int jobMs = 100;
    const int due = m_data->job ? jobMs : wait;
    m_data->report();
    return due;
}

// --- MonitorFollower ----------------------------------------------------------------------------

class MonitorFollower::Data {
public:
    explicit Data(int ms) : quietMs(ms) {}

    const int quietMs;
    QTimer* quiet = nullptr;
    std::unique_ptr<QSocketNotifier> notifier; ///< null unless the monitor was started here
};

MonitorFollower::MonitorFollower(int quietMs, QObject* parent)
    : QObject(parent), m_data(new Data(quietMs)) {
    m_data->quiet = new QTimer(this);
    m_data->quiet->setSingleShot(true);
    m_data->quiet->setTimerType(Qt::PreciseTimer);
    connect(m_data->quiet, &QTimer::timeout, this, [this] {
        const QPointer<MonitorFollower> guard(this);
        BDMon::instance()->update(0);
        if (guard && m_data->notifier)
            m_data->notifier->setEnabled(true);
    });
}

MonitorFollower::~MonitorFollower() {
    stop();
}

bool MonitorFollower::start() {
    BDMon& monitor = *BDMon::instance();
    if (m_data->notifier)
        return true;
    monitor.start();
    if (!monitor.isRunning())
        return false;
    m_data->notifier =
        std::make_unique<QSocketNotifier>(monitor.descriptor(), QSocketNotifier::Read);
    connect(m_data->notifier.get(), &QSocketNotifier::activated, this, [this] {
        m_data->notifier->setEnabled(false); // until the events are read
        m_data->quiet->start(m_data->quietMs);
    });
    return true;
}

void MonitorFollower::stop() {
    if (!m_data->notifier)
        return;
    m_data->quiet->stop();
    m_data->notifier.reset(); // before its descriptor is closed
    BDMon::instance()->stop();
}

} // namespace oru::io
