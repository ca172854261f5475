// SPDX-License-Identifier: Apache-2.0
// Running a command of the maintenance program: its runs, its log and its result.
#pragma once

#include "media/program_p.h"

#include <oruio/bdmon.h>
#include <oruio/sysutils.h>

#include <QList>

#include <functional>
#include <memory>

namespace oru::io {

/// The log channel of commands.
extern const int sysutilsLogChannel;

/// A command, and what is needed to run it.
struct MaintenanceTask {
    SysCmd command;
    int runs = 1;           ///< it is run until it succeeds, at most so often
    Properties environment; ///< variables that are added to the environment of the program
    /// Decides before the first run whether the command may run. When not, it leaves an errno. May
    /// be empty.
    std::function<bool()> isAllowed;
};

/// BlockDevice::fsck(), mkfs() and format() of a device, whose node is compared with the event when
/// they start.
MaintenanceTask fsckTask(const BlockDevice& device, const Properties* props);
MaintenanceTask mkfsTask(const BlockDevice& device, const Properties* props);
MaintenanceTask formatTask(const BlockDevice& device, const Properties* props);

/// A command that runs, in the thread that has started it. It moves on in advance() only.
class MaintenanceRun {
public:
    using Watcher = std::function<void(const QProcess&)>;

    /// `watch` is called with each process before it is started. Without it, the program does not
    /// report its progress.
    explicit MaintenanceRun(MaintenanceTask task, Watcher watch = {});
    MaintenanceRun(const MaintenanceRun&) = delete;
    MaintenanceRun& operator=(const MaintenanceRun&) = delete;

    /// As MaintenanceJob::start().
    int start();
    /// As MaintenanceJob::cancel(), while it is running.
    int cancel();
    bool isRunning() const;
    int status() const;
    /// After how many milliseconds to call advance() again.
    int pace() const;
    /// Waits until a process has started or ended, at most so long.
    void wait(int msecs);
    /// Reads what the program reports, bounds the memory of its output, and deals with the end of a
    /// run.
    void advance();
    /// Takes the next line about the progress. A run that follows another one begins with a line of
    /// an empty phase.
    bool takeLine(ProgressLine& line);
    QStringList lastLines() const;
    QString reason() const;

private:
    bool begin();
    void endRun();
    void fail();
    void readProgress();

    const MaintenanceTask m_task;
    const Watcher m_watch;
    const QByteArray m_commandLine;
    std::unique_ptr<Program> m_program; // of the current run, or the last one
    QList<ProgressLine> m_lines;
    int m_run = 0;
    int m_status = -1;
    bool m_isRunning = false;
    bool m_writesFast = false;
    bool m_isCancelled = false;
    bool m_reportsProgress = false; // a known line was read in this run
    bool m_isCommitted = false;     // in this run
};

/// Runs a command to its end. \returns as SysCmd::exec(), or -1 with errno when it may not run.
int runToEnd(MaintenanceTask task);
/// The reason of the last runToEnd() of this thread. Empty when it has not failed or gave none.
QString reasonOfLastRun();

} // namespace oru::io
