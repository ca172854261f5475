// SPDX-License-Identifier: Apache-2.0
#include <oruio/fsnfs.h>
#include <oruio/maintenancejob.h>
#include <oruio/sysutils.h>

#include "core/mounttable_p.h"

#include <utility>

#include <sys/stat.h>

#include "core/log_p.h"
#include "core/notimplemented_p.h"

ORUIO_LOG_CHANNEL("NFS");

namespace oru::io {

namespace {

/// Options with which a server that does not answer blocks no caller for long. connect() does not
/// use them: the caller knows the network and passes the options.
[[maybe_unused]] constexpr char DEFAULT_MNT_OPTS[] =
    "nolock,soft,timeo=20,retrans=2,retry=0,vers=3,proto=udp";

/// The command that mounts the export of `props` on `mountPoint`.
SysCmd mountCommand(const QString& mountPoint, const Properties& props) {
    const QString readOnly =
        props.value(QStringLiteral("readonly")).toBool() ? QStringLiteral("-r") : QString();
    return SysCmd("mount.nfs")
        .addArg(readOnly)
        .addArg(props.value(QStringLiteral("target")).toString())
        .addArg(mountPoint)
        .addArg(props.value(QStringLiteral("cmd_opts")).toString());
}

} // namespace

NFS::NFS(QString mountPoint) : PosixFS(std::move(mountPoint), QStringLiteral("NFS")) {}

NFS::~NFS() {
    NFS::disconnect();
}

int NFS::ioctl(QString, QString&) {
    return notImplemented();
}

int NFS::connect(Properties props) {
    disconnect();
    const int result = mountCommand(mountPoint(), props).exec(1);
    if (result == 0)
        connectProps = std::move(props);
    return result;
}

QSharedPointer<MaintenanceJob> NFS::connectJob(const SPtr& share, Properties props) {
    share->disconnect();
    auto job = MaintenanceJob::SPtr::create(mountCommand(share->mountPoint(), props));
    QObject::connect(job.get(), &MaintenanceJob::finished, job.get(),
                     [share, props = std::move(props)](int status) {
                         if (status == 0)
                             share->connectProps = props;
                     });
    return job;
}

int NFS::disconnect() {
    SystemText path;
    if (!tableMountPoint(mountPoint(), path))
        return -1;
    const int result = umountPath(path.constData(), &connectProps);
    if (result == 0)
        connectProps.clear();
    return result;
}

bool NFS::isConnected() {
    struct stat st;
    return !connectProps.isEmpty() && stat(QStringLiteral("/."), st) == 0;
}

} // namespace oru::io
