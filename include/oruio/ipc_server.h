// SPDX-License-Identifier: Apache-2.0
/// \file
/// The server of the file service between processes. One client process at a time uses the served
/// file system, through an IPCFS (oruio/fsipc.h).
///
/// \code
/// IPCServer server(FSSwitch::rootfs());
/// std::thread service([&] { server.run(nullptr); });
/// // ... and when the application ends:
/// server.terminate();
/// service.join();
/// \endcode
#pragma once

#include <oruio/fs.h>
#include <oruio/properties.h>

#include <memory>

namespace oru::io {

/// Serves one FS through shared memory. Only one server runs on a system at a time.
///
/// The thread that called run() carries out one request at a time, with one call on the FS at a
/// time. While a call on the FS does not return, the server answers no other request.
///
/// Threads: the application provides the thread that calls run(). The thread stays in run() until
/// the service ends. A signal handler must not end this thread. An exception that leaves the FS
/// ends the process. If the thread is cancelled while it waits for a request, the service ends in
/// order. Any thread may call the other functions.
///
/// A child of fork(2) cannot use a server on which its parent has called run(): run() fails with
/// errno EBUSY, and terminate() and the destructor do nothing.
class ORUIO_EXPORT IPCServer {
public:
    /// Makes a server for `fs`, which is not running yet.
    explicit IPCServer(QSharedPointer<FS> fs);

    /// Not implemented: returns -1 with liberrno NotImplemented.
    virtual int ioctl(QString request, QString& response);
    /// Serves until terminate() is called. `props` is not read and may be null.
    ///
    /// At the start, run() removes the shared memory that a crashed server has left. The client of
    /// that server is not notified: its next request fails. At the end, run() closes all files and
    /// directories that its client has open. It can be called again after it has returned.
    ///
    /// \returns 0 after terminate(). Also 0, without having served a request, when the semaphores
    /// could not be initialised. -1 when the service could not begin, with errno:
    /// - EBUSY: another server is running;
    /// - EBUSY: run() of this object is already in progress;
    /// - EBUSY: the shared memory belongs to a server of another ABI (32- or 64-bit), which may
    ///   still be running: this cannot be determined;
    /// - any errno of shm_unlink(3): the shared memory of a crashed server could not be removed;
    /// - any other errno: the shared memory could not be created or initialised.
    virtual int run(Properties* props);
    /// Returns what run() is doing.
    ///
    /// \retval 0 stopped
    /// \retval 1 initialising
    /// \retval 2 serving
    /// \retval 3 terminating
    virtual int state();
    /// Makes run() end after the current request, and waits up to 10 s until run() no longer
    /// serves.
    ///
    /// - First it waits up to 10 s for the lock of the shared block. If another process keeps the
    ///   block locked for longer, it stops run() without waiting for the end.
    /// - A request that arrives after the last request of run() is answered with -1 and errno
    ///   ECANCELED.
    /// - When no service is running, it does nothing. A run() that begins later is not affected.
    ///
    /// \returns always 0.
    virtual int terminate();

    /// Terminates the service and waits without a time limit until run() has returned.
    virtual ~IPCServer();

    /// The adapter that carries out the requests. Internal.
    class ORUIO_LOCAL Data;

private:
    Q_DISABLE_COPY(IPCServer)
    std::unique_ptr<Data> m_data;
};

} // namespace oru::io
