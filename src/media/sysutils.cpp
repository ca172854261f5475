// SPDX-License-Identifier: Apache-2.0
#include <oruio/sysutils.h>

#include "core/cancelguard_p.h"
#include "core/errnosaver_p.h"
#include "core/mounttable_p.h"
#include "core/systemtext_p.h"

#include <QByteArray>
#include <QProcess>
#include <QProcessEnvironment>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "core/log_p.h"

ORUIO_LOG_CHANNEL("libio");

namespace oru::io {

namespace {

const QString fl_sysCmdPath = QStringLiteral("/usr/local/bin/oruio_sysutils");
constexpr int startLimitMs = 5000;

/// How much of an output stream is kept for the log.
constexpr int longestOutput = 1 << 20;

/// Whether this process can wait for its children. If not, QProcess takes each exit for a success.
bool canWaitForChildren() {
    struct sigaction action = {};
    sigaction(SIGCHLD, nullptr, &action);
    return action.sa_handler != SIG_IGN && !(action.sa_flags & SA_NOCLDWAIT);
}

/// Checks that QProcess passes all arguments to a program unchanged.
bool checkArguments(const QStringList& arguments) {
    return std::all_of(arguments.begin(), arguments.end(), checkQtEncoding);
}

/// Marks every descriptor above stderr close-on-exec. Runs between fork(2) and exec(3), so it makes
/// system calls only.
void closeDescriptorsOnExec() {
    constexpr unsigned int closeRangeCloexec = 4; // CLOSE_RANGE_CLOEXEC
    if (syscall(SYS_close_range, 3U, ~0U, closeRangeCloexec) == 0)
        return;
    // Before Linux 5.11. Not a loop up to the limit: it may be a billion, and after it was lowered
    // there may be descriptors above it.
    const int directory = ::open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    alignas(struct dirent64) char entries[1024];
    long size = 0;
    while ((size = syscall(SYS_getdents64, directory, entries, sizeof entries)) > 0) {
        for (long at = 0; at < size;) {
            const auto* const entry = reinterpret_cast<const struct dirent64*>(entries + at);
            int fd = 0;
            for (const char* digit = entry->d_name; *digit >= '0' && *digit <= '9'; ++digit)
                fd = fd * 10 + (*digit - '0');
            if (fd >= 3)
                fcntl(fd, F_SETFD, FD_CLOEXEC);
            at += entry->d_reclen;
        }
    }
}

/// A run of the maintenance program. It inherits the standard descriptors only, and no blocked
/// signals.
class Program : public QProcess {
public:
    Program() {
        connect(this, &QProcess::readyReadStandardOutput, this, [this] { takeOutput(); });
        connect(this, &QProcess::readyReadStandardError, this, [this] { takeOutput(); });
    }
    /// QProcess ends a program that did not start in time, and may read its output then.
    ~Program() override {
        disconnect();
    }

    /// Adds variables to the environment of this process, which the program inherits.
    void add(const Properties& variables) {
        if (variables.isEmpty())
            return;
        QProcessEnvironment all = QProcessEnvironment::systemEnvironment();
        for (auto variable = variables.begin(); variable != variables.end(); ++variable)
            all.insert(variable.key(), variable.value().toString());
        setProcessEnvironment(all);
    }

    /// Reads the output so far, and keeps up to longestOutput of it.
    void takeOutput() {
        const auto keep = [](QByteArray& kept, const QByteArray& more) {
            kept.append(more.left(longestOutput - kept.size()));
        };
        keep(output, readAllStandardOutput());
        keep(errors, readAllStandardError());
    }

    QByteArray output;
    QByteArray errors;

protected:
    // Runs in the child, between fork(2) and exec(3).
    void setupChildProcess() override {
        // A file that is open on one medium must not keep that busy while another is checked.
        closeDescriptorsOnExec();
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
    }
};

/// Whether something is mounted on `path` now. Also true when the table cannot be read. Keeps
/// errno.
bool isMounted(const char* path) {
    const ErrnoSaver saver;
    MountTable mounts;
    if (!mounts.isRead())
        return true;
    const MountTable::Mount* mount = nullptr;
    while ((mount = mounts.next()) && std::strcmp(mount->mountPoint, path) != 0)
        continue;
    return mount != nullptr;
}

/// Unmounts what was mounted last on `path`. When it is busy, forces it, and with "lazy" detaches
/// it.
int umountLast(const char* path, const char* device, const Properties* props) {
    const int result = ::umount(path);
    ORUIO_LOG(LogDebug, "umount '%s' (%s): %d", path, device, result);
    if (result == 0)
        return 0;
    int flags = props && props->contains(QStringLiteral("lazy")) ? MNT_DETACH : 0;
    if (errno == EBUSY)
        flags |= MNT_FORCE;
    return ::umount2(path, flags);
}

/// Unmounts each mount on `path`, the oldest line of the table first.
int umountAll(const char* path, MountTable& mounts, const Properties* props) {
    int result = 0;
    const MountTable::Mount* mount = nullptr;
    while (result == 0 && (mount = mounts.next())) {
        if (std::strcmp(mount->mountPoint, path) == 0)
            result = umountLast(path, mount->device, props);
        // Another process may have unmounted it, and one umount(2) of a shared mount removes
        // several lines.
        if (result != 0 && errno == EINVAL && !isMounted(path))
            return 0;
    }
    return result;
}

} // namespace

SysCmd::SysCmd(const char* cmd) : m_args(QString::fromUtf8(cmd)) {}

SysCmd& SysCmd::addArg(const QString& value, const char* option) {
    if (option)
        m_args.append(QString::fromUtf8(option));
    if (!value.isEmpty())
        m_args.append(value);
    return *this;
}

int SysCmd::exec(int runs) {
    return exec(runs, {});
}

int SysCmd::exec(int runs, const Properties& environment) {
    // The program would go on without this process waiting for it.
    const CancelGuard guard;
    const QByteArray command = m_args.join(' ').toUtf8();
    ORUIO_LOG(LogDebug, "SysCmd: %s", command.constData());
    int status = -1;
    for (int run = 1; status != 0 && run <= runs; ++run) {
        Program process;
        process.add(environment);
        const bool canStart = checkArguments(m_args) && canWaitForChildren();
        if (canStart)
            process.start(fl_sysCmdPath, m_args, QIODevice::ReadWrite);
        if (!canStart || !process.waitForStarted(startLimitMs)) {
            ORUIO_LOG(LogFailure, "Unable to exec SysCmd %s\n", command.constData());
            return -1;
        }
        process.closeWriteChannel(); // a program that asks a question reads the end of the file
        const bool hasEnded = process.waitForFinished(-1);
        const bool hasExited = hasEnded && process.exitStatus() == QProcess::NormalExit;
        if (!hasExited || process.exitCode() != 0) {
            ORUIO_LOG(LogWarning, "syscmd '%s' failed\n", command.constData());
            process.takeOutput();
            ORUIO_LOG(LogWarning, "stderr: %s\n", process.errors.constData());
            ORUIO_LOG(LogWarning, "stdout: %s\n", process.output.constData());
        }
        if (hasExited)
            status = process.exitCode();
        ORUIO_LOG(LogDebug, "Run %d of %d completed status %d\n", run, runs, status);
        if (status != 0)
            ORUIO_LOG(LogDebug, "'%s': Exited with status %d\n", command.constData(), status);
    }
    return status;
}

int umountPath(const char* path, const Properties* props) {
    if (!path) {
        errno = EFAULT;
        return -1;
    }
    const CancelGuard guard;
    int result = -1;
    int reason = 0;
    {
        MountTable mounts;
        if (mounts.isRead())
            result = umountAll(path, mounts, props);
        reason = errno;
    }
    errno = reason; // freeing the table may change it
    return result;
}

} // namespace oru::io
