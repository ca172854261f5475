// SPDX-License-Identifier: Apache-2.0
#include <oruio/sysutils.h>

#include "core/cancelguard_p.h"
#include "core/errnosaver_p.h"
#include "core/mounttable_p.h"
#include "media/maintenancerun_p.h"

#include <cerrno>
#include <cstring>

#include <sys/mount.h>

#include "core/log_p.h"

namespace oru::io {

ORUIO_SHARED_LOG_CHANNEL(sysutilsLogChannel, "libio");

namespace {

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

const QStringList& SysCmd::arguments() const {
    return m_args;
}

int SysCmd::exec(int runs) {
    return runToEnd({*this, runs, {}, {}});
}

QString SysCmd::failure() {
    return reasonOfLastRun();
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
