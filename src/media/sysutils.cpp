#include <oruio/sysutils.h>

#include "core/errnosaver_p.h"
#include "core/mounttable_p.h"
#include "core/systemtext_p.h"

#include <QByteArray>
#include <QProcess>

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

/// The most of a stream that is kept for the log, which has room for much less.
constexpr int longestOutput = 1 << 20;

/// Whether this process is told how its children end. If not, QProcess takes every end for a
/// success.
bool childrenAreReported() {
    struct sigaction action = {};
    sigaction(SIGCHLD, nullptr, &action);
    return action.sa_handler != SIG_IGN && !(action.sa_flags & SA_NOCLDWAIT);
}

/// Whether all of them reach a program as they are.
bool canCross(const QStringList& arguments) {
    return std::all_of(arguments.begin(), arguments.end(), checkQtEncoding);
}

/// Has a program that this process becomes get none of its descriptors but the standard ones. Only
/// makes system calls, as it must between fork(2) and exec(3).
void withholdDescriptors() {
    constexpr unsigned int closeRangeCloexec = 4; // CLOSE_RANGE_CLOEXEC
    if (syscall(SYS_close_range, 3U, ~0U, closeRangeCloexec) == 0)
        return;
    // Before 5.11. There may be some above the limit, if that was lowered, and up to it there may
    // be a billion.
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

/// The maintenance program, with nothing of this process but what it is told.
class Program : public QProcess {
public:
    Program() {
        connect(this, &QProcess::readyReadStandardOutput, this, [this] { takeOutput(); });
        connect(this, &QProcess::readyReadStandardError, this, [this] { takeOutput(); });
    }
    /// One that did not begin in time is ended by QProcess, which then may still read.
    ~Program() override {
        disconnect();
    }

    /// What it has written so far, as far as it is kept.
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
    // In the child, which may only make system calls here.
    void setupChildProcess() override {
        // An open file of one medium must not keep it busy while another is checked.
        withholdDescriptors();
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
    }
};

/// Whether something is mounted on `path` now, for all that can be told. Leaves errno as it is.
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

/// Unmounts what was mounted last on `path`, if need be by the means that `props` allows.
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
    const QByteArray command = m_args.join(' ').toUtf8();
    ORUIO_LOG(LogDebug, "SysCmd: %s", command.constData());
    int status = -1;
    for (int run = 1; status != 0 && run <= runs; ++run) {
        Program process;
        const bool canStart = canCross(m_args) && childrenAreReported();
        if (canStart)
            process.start(fl_sysCmdPath, m_args, QIODevice::ReadWrite);
        if (!canStart || !process.waitForStarted(startLimitMs)) {
            ORUIO_LOG(LogFailure, "Unable to exec SysCmd %s\n", command.constData());
            return -1;
        }
        process.closeWriteChannel(); // nobody answers a program that asks
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
    MountTable mounts;
    if (!mounts.isRead())
        return -1;
    int result = 0;
    const MountTable::Mount* mount = nullptr;
    while (result == 0 && (mount = mounts.next())) {
        if (std::strcmp(mount->mountPoint, path) == 0)
            result = umountLast(path, mount->device, props);
        // Somebody else may have been first, and one umount(2) of a shared mount takes several
        // away.
        if (result != 0 && errno == EINVAL && !isMounted(path))
            return 0;
    }
    return result;
}

} // namespace oru::io
