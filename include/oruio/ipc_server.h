// The file service between processes, server side: exports a file system to one client process at
// a time, which reaches it through IPCFS (oruio/fsipc.h).
#pragma once

#include <oruio/fs.h>
#include <oruio/properties.h>

#include <memory>

namespace oru::io {

/// Serves one FS through shared memory. There is one service on a system; a second server refuses
/// to run while the first one lives.
///
/// Requests are carried out one at a time, on the thread in run(): the FS sees one call at a time,
/// and one that does not return stops the service.
///
/// Threads: run() takes one thread for the server's life, which the application provides; the other
/// functions may be called from any thread. A signal or exception must not end the thread in run().
class ORUIO_EXPORT IPCServer {
public:
    /// Will serve `fs`.
    explicit IPCServer(QSharedPointer<FS> fs);

    /// Not implemented.
    virtual int ioctl(QString request, QString& response);
    /// Serves until terminate() is called. `props` is not read and may be null. \returns 0 after an
    /// orderly end; -1 when the service could not begin, with errno EBUSY when another server is
    /// running, this object included; 0 also when only its semaphores could not be initialised. It
    /// can be run again.
    ///
    /// What a crashed server left behind is removed first, unless that was a program of another
    /// word size: whether it still runs cannot be told, and errno is EBUSY. When it cannot be
    /// removed, errno is that of shm_unlink(3). Its client is left to find out. What the client had
    /// open is closed at the end.
    virtual int run(Properties* props);
    /// 0 stopped, 1 initialising, 2 serving, 3 terminating.
    virtual int state();
    /// Asks run() to end after the request under way, and waits up to 10 s until it no longer
    /// serves; when another process keeps the block locked for 10 s, asks without waiting. A client
    /// whose request comes too late gets -1 with errno ECANCELED. Does nothing while there is
    /// nothing to stop. \returns 0.
    virtual int terminate();

    /// Terminates, and waits until run() has returned, however long the file system takes.
    virtual ~IPCServer();

    /// The adapter behind the service. The library's own.
    class ORUIO_LOCAL Data;

private:
    Q_DISABLE_COPY(IPCServer)
    const std::unique_ptr<Data> m_data;
};

} // namespace oru::io
