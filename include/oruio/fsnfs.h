// SPDX-License-Identifier: Apache-2.0
/// \file
/// The NFS backend: an export of an NFS server as an FS.
///
/// connect() runs the maintenance program (oruio/sysutils.h), which mounts the export on a local
/// directory. Operations on paths, files and directories are those of PosixFS on that directory.
/// While nothing is mounted, they act on the directory itself.
///
/// Threads: the backend has no locks. Only one thread at a time may call connect() and
/// disconnect(). Operations in progress on other threads act on what is mounted on the directory at
/// that moment: the export, or the directory itself.
#pragma once

#include <oruio/posixfs.h>
#include <oruio/properties.h>

namespace oru::io {

class MaintenanceJob;

/// An export of an NFS server.
class ORUIO_EXPORT NFS : public PosixFS {
public:
    using SPtr = QSharedPointer<NFS>;

    /// Makes a file system that is not connected.
    ///
    /// `mountPoint` is the directory to mount the export on. The directory must exist when
    /// connect() is called. Spell it as umountPath() requires; slashes at the end are allowed here.
    explicit NFS(QString mountPoint);
    /// Calls disconnect().
    ~NFS() override;

    /// Not implemented.
    int ioctl(QString request, QString& response) override;

    /// Calls disconnect(), then mounts an export. Blocks as long as the maintenance program runs.
    ///
    /// Keys in `props`:
    /// - "target": the export, as `server:/path`.
    /// - "readonly": true to mount it read-only.
    /// - "cmd_opts": the mount options of nfs(5), none by default. Without "soft" and a short
    ///   "timeo", calls block as long as the server does not answer.
    /// - "lazy": disconnect() passes `props` to umountPath(), which reads this key.
    ///
    /// \returns 0, or one of these. SysCmd::failure() returns what the program said about the
    /// reason, and the log holds its output; errno and liberrno hold no reason:
    /// - a positive number: the exit status of the maintenance program;
    /// - -1: the program could not be started, or was killed by a signal.
    virtual int connect(Properties props);
    /// Calls disconnect() of `share`, and makes a job (oruio/maintenancejob.h) that mounts the
    /// export as connect() does. Starts nothing.
    ///
    /// When the job finishes with status 0, the share is connected, before other receivers get the
    /// signal. While the job runs, do not call connect() or disconnect(). The job holds `share`,
    /// and must be used on the same thread.
    ///
    /// If the job is deleted while it runs, the program runs on and may still mount the export. The
    /// share does not count as connected then; disconnect() unmounts it all the same.
    static QSharedPointer<MaintenanceJob> connectJob(const SPtr& share, Properties props);
    /// Unmounts everything that is mounted on the directory, including mounts of other processes.
    ///
    /// \returns the result of umountPath(): 0, also when not connected, or -1 with errno. After -1
    /// the file system still counts as connected.
    virtual int disconnect();
    /// Returns whether connect() has succeeded and stat(2) on the directory succeeds.
    ///
    /// Without the mount option "soft", stat(2) may block as long as the server does not answer.
    /// The result stays true after another process has unmounted the export.
    virtual bool isConnected();

private:
    Properties connectProps; // the argument of connect(); empty when not connected
};

} // namespace oru::io
