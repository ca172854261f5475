// SPDX-License-Identifier: Apache-2.0
#include "media/maintenancerun_p.h"

#include "core/cancelguard_p.h"

#include <cerrno>
#include <utility>

#include "core/log_p.h"

namespace oru::io {

ORUIO_LOG_ON(sysutilsLogChannel);

namespace {

constexpr int usualPaceMs = 50;
constexpr int fastPaceMs = 2;
constexpr int linesOfStream = 20;

/// Until when a command can be cancelled.
enum class Cancellable { Never, UntilCommitted, Always };

Cancellable cancellable(const QString& command) {
    static const struct {
        const char* command;
        Cancellable until;
    } table[] = {
        {"format", Cancellable::UntilCommitted},
        {"fsck", Cancellable::UntilCommitted},
        {"mkfs", Cancellable::UntilCommitted},
        {"mount.nfs", Cancellable::Always},
    };
    for (const auto& entry : table) {
        if (command == QLatin1String(entry.command))
            return entry.until;
    }
    return Cancellable::Never;
}

thread_local QString lastReason;

} // namespace

MaintenanceRun::MaintenanceRun(MaintenanceTask task, Watcher watch)
    : m_task(std::move(task)), m_watch(std::move(watch)),
      m_commandLine(m_task.command.arguments().join(' ').toUtf8()) {}

int MaintenanceRun::start() {
    if (m_task.isAllowed && !m_task.isAllowed())
        return -1;
    ORUIO_LOG(LogDebug, "SysCmd: %s", m_commandLine.constData());
    if (m_task.runs < 1) {
        errno = EINVAL;
        return -1;
    }
    m_isRunning = begin();
    return m_isRunning ? 0 : -1;
}

bool MaintenanceRun::begin() {
    ++m_run;
    m_reportsProgress = false;
    m_isCommitted = false;
    if (m_run > 1)
        m_lines.append(ProgressLine());
    m_program = std::make_unique<Program>();
    if (m_watch)
        m_watch(*m_program);
    if (m_program->begin(m_task.command.arguments(), m_task.environment, m_watch != nullptr))
        return true;
    ORUIO_LOG(LogFailure, "Unable to exec SysCmd %s\n", m_commandLine.constData());
    return false;
}

/// Ends the command when a run cannot be started.
void MaintenanceRun::fail() {
    m_isRunning = false;
    m_status = -1;
}

int MaintenanceRun::cancel() {
    readProgress();
    const Cancellable until = cancellable(m_task.command.arguments().constFirst());
    const bool isSafe = until == Cancellable::Always || (until == Cancellable::UntilCommitted &&
                                                         m_reportsProgress && !m_isCommitted);
    if (!isSafe) {
        errno = EBUSY;
        return -1;
    }
    m_isCancelled = true;
    m_program->awaitStart(); // until execve(2) the signal would reach a handler of this process
    m_program->terminate();
    return 0;
}

bool MaintenanceRun::isRunning() const {
    return m_isRunning;
}

int MaintenanceRun::status() const {
    return m_status;
}

int MaintenanceRun::pace() const {
    return m_writesFast ? fastPaceMs : usualPaceMs;
}

void MaintenanceRun::wait(int msecs) {
    if (m_isRunning)
        m_program->waitForFinished(msecs);
}

void MaintenanceRun::readProgress() {
    m_program->readProgress();
    ProgressLine line;
    while (m_program->progress.next(line)) {
        m_reportsProgress = true;
        if (line.kind == ProgressLine::Kind::Committed)
            m_isCommitted = true;
        else
            m_lines.append(line);
    }
}

void MaintenanceRun::advance() {
    if (!m_isRunning)
        return;
    const bool hasEnded = m_program->hasEnded(); // its last lines are in the pipe by then
    readProgress();
    const bool printsFast = m_program->output.trim(OutputFile::longestBeginning);
    const bool complainsFast = m_program->errors.trim(OutputFile::longestBeginning);
    m_writesFast = printsFast || complainsFast;
    if (hasEnded)
        endRun();
}

void MaintenanceRun::endRun() {
    if (!m_program->hasStarted()) {
        ORUIO_LOG(LogFailure, "Unable to exec SysCmd %s\n", m_commandLine.constData());
        fail();
        m_program.reset(); // also one that hangs in execve(2)
        return;
    }
    const bool hasExited = m_program->exitStatus() == QProcess::NormalExit;
    if (!hasExited || m_program->exitCode() != 0) {
        ORUIO_LOG(LogWarning, "syscmd '%s' failed\n", m_commandLine.constData());
        ORUIO_LOG(LogWarning, "stderr: %s\n", m_program->errors.beginning().constData());
        ORUIO_LOG(LogWarning, "stdout: %s\n", m_program->output.beginning().constData());
    }
    m_program->output.trim(0);
    m_program->errors.trim(0);
    if (hasExited)
        m_status = m_program->exitCode();
    ORUIO_LOG(LogDebug, "Run %d of %d completed status %d\n", m_run, m_task.runs, m_status);
    if (m_status != 0)
        ORUIO_LOG(LogDebug, "'%s': Exited with status %d\n", m_commandLine.constData(), m_status);
    if (m_status == 0 || m_run == m_task.runs || m_isCancelled)
        m_isRunning = false;
    else if (!begin())
        fail();
}

bool MaintenanceRun::takeLine(ProgressLine& line) {
    if (m_lines.isEmpty())
        return false;
    line = m_lines.takeFirst();
    return true;
}

QStringList MaintenanceRun::lastLines() const {
    if (!m_program)
        return {};
    return m_program->output.lastLines(linesOfStream) + m_program->errors.lastLines(linesOfStream);
}

QString MaintenanceRun::reason() const {
    if (!m_program || m_isRunning || m_status == 0)
        return {};
    return m_program->errors.lastLines(1).value(0);
}

int runToEnd(MaintenanceTask task) {
    // The program would go on without this process waiting for it.
    const CancelGuard guard;
    lastReason.clear();
    MaintenanceRun run(std::move(task));
    if (run.start() == -1)
        return -1;
    while (run.isRunning()) {
        run.wait(run.pace());
        run.advance();
    }
    lastReason = run.reason();
    return run.status();
}

QString reasonOfLastRun() {
    return lastReason;
}

} // namespace oru::io
