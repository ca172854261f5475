// SPDX-License-Identifier: Apache-2.0
#include <oruio/error.h>
#include <oruio/maintenancejob.h>

#include "core/cancelguard_p.h"
#include "core/failwith_p.h"
#include "media/maintenancerun_p.h"

#include <QAbstractEventDispatcher>
#include <QDeadlineTimer>
#include <QPointer>
#include <QTimer>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace oru::io {

class MaintenanceJob::Data {
public:
    explicit Data(MaintenanceTask task)
        : run(std::move(task), [this](const QProcess& program) { watch(program); }) {}

    void attach(MaintenanceJob* owner);
    int start();
    void watch(const QProcess& program);
    void advance();

    MaintenanceRun run;
    bool isRunning = false; ///< until finished() is emitted
    QString phase;
    int permille = -1;

private:
    bool take(const ProgressLine& line);

    MaintenanceJob* m_job = nullptr;
    bool m_wasStarted = false;
    QTimer* m_timer = nullptr; // moves to another thread with the job
};

void MaintenanceJob::Data::attach(MaintenanceJob* owner) {
    m_job = owner;
    m_timer = new QTimer(owner);
    m_timer->setTimerType(Qt::CoarseTimer);
    QObject::connect(m_timer, &QTimer::timeout, owner, [this] { advance(); });
}

int MaintenanceJob::Data::start() {
    if (m_wasStarted)
        return failWith(EALREADY);
    m_wasStarted = true;
    liberrno = Ok;
    isRunning = run.start() == 0;
    if (!isRunning)
        m_timer->stop();
    return isRunning ? 0 : -1;
}

/// In a thread with an event loop, has a process watched by it.
void MaintenanceJob::Data::watch(const QProcess& program) {
    if (!QAbstractEventDispatcher::instance())
        return;
    // Queued: the job, and the process with it, may be deleted by a receiver of its signals.
    QObject::connect(&program, &QProcess::stateChanged, m_job, [this] {
        QMetaObject::invokeMethod(
            m_job, [this] { advance(); }, Qt::QueuedConnection);
    });
    m_timer->start(run.pace());
}

/// \returns whether the phase has begun with it.
bool MaintenanceJob::Data::take(const ProgressLine& line) {
    if (line.kind == ProgressLine::Kind::Permille) {
        permille = line.permille;
        return false;
    }
    const bool isNew = phase != line.phase || permille != -1;
    phase = line.phase;
    permille = -1;
    return isNew;
}

/// Emits the signals that are due. Afterwards the job may not exist any more.
void MaintenanceJob::Data::advance() {
    if (!isRunning)
        return;
    const CancelGuard guard;
    run.advance();
    if (m_timer->isActive() && m_timer->interval() != run.pace())
        m_timer->setInterval(run.pace());
    const QPointer<MaintenanceJob> job(m_job);
    const auto report = [&] { Q_EMIT job->progressed(phase, permille); };
    int reported = permille;
    ProgressLine line;
    while (job && run.takeLine(line)) {
        if (line.kind == ProgressLine::Kind::Phase && permille != reported)
            report(); // the last progress of the phase that ends
        if (!job)
            return;
        if (!take(line))
            continue;
        report();
        reported = -1;
    }
    if (job && permille != reported)
        report();
    if (!job || !isRunning || run.isRunning())
        return;
    isRunning = false;
    m_timer->stop();
    Q_EMIT job->finished(run.status());
}

MaintenanceJob::MaintenanceJob(std::unique_ptr<Data> data) : m_data(std::move(data)) {
    m_data->attach(this);
}

MaintenanceJob::MaintenanceJob(const SysCmd& command, int runs)
    : MaintenanceJob(std::make_unique<Data>(MaintenanceTask{command, runs, {}, {}})) {}

MaintenanceJob::~MaintenanceJob() {
    const CancelGuard guard; // close(2) must not unwind the stack out of a destructor
    m_data.reset();
}

MaintenanceJob::SPtr MaintenanceJob::fsck(const BlockDevice& device, const Properties* props) {
    return SPtr(new MaintenanceJob(std::make_unique<Data>(fsckTask(device, props))));
}

MaintenanceJob::SPtr MaintenanceJob::mkfs(const BlockDevice& device, const Properties* props) {
    return SPtr(new MaintenanceJob(std::make_unique<Data>(mkfsTask(device, props))));
}

MaintenanceJob::SPtr MaintenanceJob::format(const BlockDevice& device, const Properties* props) {
    return SPtr(new MaintenanceJob(std::make_unique<Data>(formatTask(device, props))));
}

int MaintenanceJob::start() {
    const CancelGuard guard;
    return m_data->start();
}

int MaintenanceJob::cancel() {
    const CancelGuard guard;
    liberrno = Ok;
    if (!m_data->isRunning)
        return failWith(ESRCH);
    return m_data->run.cancel();
}

bool MaintenanceJob::waitForFinished(int msecs) {
    const CancelGuard guard;
    const QDeadlineTimer deadline(msecs);
    const QPointer<MaintenanceJob> job(this);
    while (m_data->isRunning) {
        const qint64 left = deadline.remainingTime();
        const qint64 pace = m_data->run.pace();
        m_data->run.wait(static_cast<int>(left < 0 ? pace : std::min(left, pace)));
        m_data->advance();
        if (!job)
            return true;
        if (deadline.hasExpired())
            break;
    }
    return !m_data->isRunning;
}

bool MaintenanceJob::isRunning() const {
    return m_data->isRunning;
}

int MaintenanceJob::status() const {
    return m_data->run.status();
}

QString MaintenanceJob::phase() const {
    return m_data->phase;
}

int MaintenanceJob::permille() const {
    return m_data->permille;
}

QStringList MaintenanceJob::lastLines() const {
    return m_data->run.lastLines();
}

QString MaintenanceJob::reason() const {
    return m_data->run.reason();
}

} // namespace oru::io
