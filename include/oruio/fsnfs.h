// SPDX-License-Identifier: Apache-2.0
/// \file
/// The NFS backend: an export of an NFS server as an FS.
///
/// connect() runs the maintenance program (oruio/sysutils.h), which mounts the export on a local
/// directory. Operations on paths, files and directories are those of PosixFS on that directory.
/// While nothing is mounted, they act on the directory itself.
///
/// Threads: the backend has no locks. Only one thread may connect and disconnect. Operations on
/// other threads at that time use what is mounted at that moment.
#pragma once

#include <oruio/posixfs.h>
#include <oruio/properties.h>

namespace oru::io {

/// An export of an NFS server.
class ORUIO_EXPORT NFS : public PosixFS {
public:
    using SPtr = QSharedPointer<NFS>;

    /// Makes a file system that is not connected.
    ///
    /// `mountPoint` is the directory to mount the export on. It must exist when connect() is
    /// called, and be spelled as umountPath() requires. Slashes at its end are allowed.
    explicit NFS(QString mountPoint);
    /// Calls disconnect().
    ~NFS() override;

    /// Not implemented.
    int ioctl(QString request, QString& response) override;

    /// Mounts an export, after disconnect(). Blocks as long as the maintenance program runs.
    ///
    /// Keys in `props`:
    /// - "target": the export, as `server:/path`.
    /// - "readonly": true to mount it read-only.
    /// - "cmd_opts": the mount options of nfs(5), none by default. Without "soft" and a short
    ///   "timeo", calls block as long as the server does not answer.
    ///
    /// disconnect() passes all of `props` to umountPath().
    ///
    /// \returns 0 on success, else a failure, whose reason is in the log:
    /// - the exit status of the maintenance program, when it is not 0;
    /// - -1: the program could not be started, or was killed by a signal.
    virtual int connect(Properties props);
    /// Unmounts all that is mounted on the directory, also what other processes have mounted.
    ///
    /// \returns the result of umountPath(): 0, or -1 with errno. After -1 it is still connected.
    virtual int disconnect();
    /// Returns whether connect() has succeeded and stat(2) on the directory succeeds.
    ///
    /// Without the mount option "soft", stat(2) may block as long as the server does not answer. An
    /// unmount by another process is not noticed.
    virtual bool isConnected();

private:
    Properties connectProps; // those of connect(); empty when not connected
};

} // namespace oru::io
