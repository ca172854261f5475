#include <oruio/sysutils.h>

#include "mounttable_p.h"

#include <QByteArray>
#include <QProcess>

#include <cerrno>
#include <cstring>

#include <sys/mount.h>

#include "log_p.h"

ORUIO_LOG_CHANNEL("libio");

namespace oru::io {

namespace {

const QString fl_sysCmdPath = QStringLiteral("/usr/local/bin/oruio_sysutils");
constexpr int startLimitMs = 5000;

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
        QProcess process;
        process.start(fl_sysCmdPath, m_args, QIODevice::ReadWrite);
        if (!process.waitForStarted(startLimitMs)) {
            ORUIO_LOG(LogFailure, "Unable to exec SysCmd %s\n", command.constData());
            return -1;
        }
        process.closeWriteChannel(); // nobody answers a program that asks
        const bool hasEnded = process.waitForFinished(-1);
        const bool hasExited = hasEnded && process.exitStatus() == QProcess::NormalExit;
        if (!hasExited || process.exitCode() != 0) {
            ORUIO_LOG(LogWarning, "syscmd '%s' failed\n", command.constData());
            ORUIO_LOG(LogWarning, "stderr: %s\n", process.readAllStandardError().constData());
            ORUIO_LOG(LogWarning, "stdout: %s\n", process.readAllStandardOutput().constData());
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
    }
    return result;
}

} // namespace oru::io
