// SPDX-License-Identifier: Apache-2.0
/// \file
/// Commands of the maintenance program (oruio/sysutils.h) that run while their caller goes on:
/// watched, waited for and cancelled.
///
/// \code
/// auto job = MaintenanceJob::format(*disk);
/// QObject::connect(job.get(), &MaintenanceJob::progressed,
///                  [](const QString& phase, int permille) { qInfo() << phase << permille; });
/// QObject::connect(job.get(), &MaintenanceJob::finished, [job = job.get()](int status) {
///     qInfo() << (status == 0 ? "formatted" : job->reason());
/// });
/// if (job->start() == -1)
///     qWarning() << oru::io::strerror();
/// \endcode
#pragma once

#include <oruio/bdmon.h>
#include <oruio/export.h>
#include <oruio/properties.h>
#include <oruio/sysutils.h>

#include <QObject>
#include <QSharedPointer>
#include <QString>
#include <QStringList>

#include <memory>

namespace oru::io {

/// One command of the maintenance program, with its runs.
///
/// **Progress.** The program may write lines about its progress to a descriptor that it gets from
/// the job: the environment variable ORUIO_PROGRESS_FD is the number of the descriptor. Each line
/// ends with a newline:
///
/// - `phase NAME`: what the program does now, such as "making the file system".
/// - `progress N`: how much of the phase is done, in permille (0 to 1000).
/// - `committed`: the program has begun to change the medium, and ends by itself only.
///
/// Other lines are ignored. Writing to the descriptor never blocks: while the job is not advanced
/// (see "Threads") it takes 64 KiB, then write(2) fails with EAGAIN. A program that does not know
/// the variable runs as ever; its phase is empty and its progress unknown.
///
/// **Cancelling.** See cancel().
///
/// **The end of the job's owner.** The program does not depend on the job or the process that
/// started it. When the job is deleted, or the process ends or is killed, the program runs on to
/// its end: a repair is never left half done. No further run is started then. In the meantime the
/// system keeps the output of the program in memory.
///
/// **Threads.** A job belongs to the thread that makes it. Only this thread may call its functions
/// and delete it. It must not be moved to another thread after start().
///
/// - If the thread has an event loop at start(), the signals come from that event loop.
/// - waitForFinished() emits the signals too, with or without an event loop. In a thread without
///   one, nothing else advances the job.
///
/// A job that is not advanced for long keeps what the program writes in memory, without a limit,
/// and does not begin its next run.
///
/// The job may be deleted by a receiver of its signals, also while waitForFinished() waits.
class ORUIO_EXPORT MaintenanceJob : public QObject {
    Q_OBJECT

public:
    using SPtr = QSharedPointer<MaintenanceJob>;

    /// Makes a job that runs `command` until a run succeeds, at most `runs` times, as
    /// SysCmd::exec() does. Starts nothing.
    explicit MaintenanceJob(const SysCmd& command, int runs = 1);
    /// Does not end the program: it runs on, see above. Does not emit finished().
    ~MaintenanceJob() override;

    /// Makes the job of BlockDevice::fsck(), with the same keys in `props`, which may be null. Of
    /// `device` it keeps a copy of what it needs.
    static SPtr fsck(const BlockDevice& device, const Properties* props = nullptr);
    /// Makes the job of BlockDevice::mkfs(), as fsck().
    static SPtr mkfs(const BlockDevice& device, const Properties* props = nullptr);
    /// Makes the job of BlockDevice::format(), as fsck().
    static SPtr format(const BlockDevice& device, const Properties* props = nullptr);

    /// Starts the command and returns at once. A job can be started once.
    ///
    /// \returns 0; then finished() is emitted once, later. Or -1 with errno, and then nothing is
    /// started and finished() is not emitted:
    /// - EALREADY: start() was called before;
    /// - EINVAL: the number of runs is less than 1, or an argument contains a NUL;
    /// - ENODEV: the node of the device has passed to another medium (see BlockDevice);
    /// - EILSEQ: an argument is not valid UTF-16, or the codec of the locale does not encode it as
    ///   UTF-8;
    /// - ECHILD: the process ignores SIGCHLD, so that the exit status would be lost;
    /// - any errno of memfd_create(2) or pipe2(2).
    ///
    /// A program that does not exist, is not executable or has not started within 5 s is reported
    /// by finished(-1).
    int start();

    /// Asks the program to end, with SIGTERM. Returns at once; finished() is emitted when the
    /// program has ended. No further run is started.
    ///
    /// | command | can be cancelled |
    /// |---|---|
    /// | "fsck", "mkfs", "format" | from the first line about its progress to "committed" |
    /// | "mount.nfs" | at any time |
    /// | others | never |
    ///
    /// So a program that reports no progress is not cancelled: it may be in the middle of a repair.
    /// The program may reach "committed" just before it gets the signal. It then runs on, and
    /// status() is the status of the whole command. A program that was cancelled in time has the
    /// status 31 (see its manual page), or -1 if the signal has killed it.
    ///
    /// \returns 0, or -1 with errno:
    /// - ESRCH: the job is not running;
    /// - EBUSY: the command cannot be cancelled now.
    int cancel();

    /// Waits until the job has ended, for up to `msecs` milliseconds, or without a limit if `msecs`
    /// is negative. Emits progressed() and finished(). The cancellation of the thread
    /// (pthread_cancel(3)) takes effect after the call.
    ///
    /// \returns whether the job is not running: true when it has ended, and when it was not
    /// started.
    bool waitForFinished(int msecs = -1);

    /// Returns whether the job was started and has not ended.
    bool isRunning() const;

    /// The result, as SysCmd::exec() returns it: the exit status of the last run that exited, 0 on
    /// success; -1 if a run could not be started, if every run was killed by a signal, and as long
    /// as no run has ended.
    int status() const;
    /// The phase of the current run or the last one. Empty if it is unknown.
    QString phase() const;
    /// How much of the phase is done, in permille (0 to 1000); -1 if it is unknown.
    int permille() const;

    /// The last lines that the current run or the last one has written so far: up to 20 lines of
    /// its standard output, followed by up to 20 lines of its standard error, without empty lines.
    /// Of each stream the last 16 KiB are looked at. Invalid UTF-8 becomes replacement characters.
    QStringList lastLines() const;
    /// Why the command failed, as the program said: the last line of its standard error that is not
    /// empty. Empty if the command has not failed or has not ended, or the program said nothing.
    QString reason() const;

Q_SIGNALS:
    /// The phase or its progress has changed. `permille` is -1 while the progress is unknown. Of
    /// several changes of `permille` at one time only the last is reported.
    void progressed(const QString& phase, int permille);
    /// The job has ended. `status` is that of status().
    void finished(int status);

private:
    Q_DISABLE_COPY(MaintenanceJob)
    class ORUIO_LOCAL Data;

    ORUIO_LOCAL explicit MaintenanceJob(std::unique_ptr<Data> data);

    std::unique_ptr<Data> m_data;
};

} // namespace oru::io
