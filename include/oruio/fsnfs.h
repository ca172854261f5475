// The NFS backend: an export of an NFS server as an FS.
//
// The system's own client does the work: connect() has the maintenance program mount the export on
// a local directory, and every operation on paths, files and directories is that of a local
// directory. While nothing is mounted, they act on the directory itself.
//
// Threads: no locks. Let one thread connect and disconnect; operations of others meanwhile see
// whatever is mounted at that moment.
#pragma once

#include <oruio/posixfs.h>
#include <oruio/properties.h>

namespace oru::io {

/// An export of an NFS server.
class ORUIO_EXPORT NFS : public PosixFS {
public:
    using SPtr = QSharedPointer<NFS>;

    /// Not connected. `mountPoint` is the directory that the export gets mounted on; it has to
    /// exist by connect(), and disconnect() finds it only if it is spelled as umountPath() says;
    /// but slashes at its end do no harm.
    explicit NFS(QString mountPoint);
    /// Disconnects.
    ~NFS() override;

    /// Not implemented.
    int ioctl(QString request, QString& response) override;

    /// Mounts an export, after disconnect(). Takes as long as the maintenance program does.
    ///
    /// Reads of `props`: "target", the export (server:/path); "readonly", true to mount it so;
    /// "cmd_opts", the mount options as nfs(5) has them (there are none by default: without "soft"
    /// and a short "timeo" a server that is gone blocks whoever uses its files). disconnect() hands
    /// all of `props` to umountPath().
    /// \returns 0; else the exit status of the maintenance program, or -1 when that could not be
    /// started or was ended by a signal. Why is in the log.
    virtual int connect(Properties props);
    /// Unmounts whatever is mounted on the directory, also by others. \returns what umountPath()
    /// does: 0, or -1 with errno; it then is still connected.
    virtual int disconnect();
    /// Whether it is connected and its directory answers stat(2), which without the option "soft"
    /// may block for as long as the server is gone. Whether somebody else has unmounted it is not
    /// seen.
    virtual bool isConnected();

private:
    Properties connectProps; // of the connection; empty when there is none
};

} // namespace oru::io
