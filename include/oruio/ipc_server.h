// SPDX-License-Identifier: Apache-2.0
/// \file
/// The file service between processes, server side. One client process at a time uses the served
/// file system through IPCFS (oruio/fsipc.h).
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
/// The thread in run() carries out one request at a time: it makes one call on the FS at a time. A
/// call that does not return stops the service.
///
/// Threads: the application provides the thread that calls run(). It stays there until the service
/// ends, and no signal or exception may end it. Any thread may call the other functions.
class ORUIO_EXPORT IPCServer {
public:
    /// Makes a server for `fs`, which is not running yet.
    explicit IPCServer(QSharedPointer<FS> fs);

    /// Not implemented.
    virtual int ioctl(QString request, QString& response);
    /// Serves until terminate() is called. `props` is not read and may be null.
    ///
    /// First removes the shared memory that a crashed server has left. The client of that server is
    /// not notified: its next request fails. At the end, closes all that the client has open. run()
    /// can be called again afterwards.
    ///
    /// \returns 0 after terminate(), also when only the semaphores could not be initialised. -1
    /// when the service could not begin, with errno:
    /// - EBUSY: another server is running, or this object already is;
    /// - EBUSY: a server of another ABI (32- or 64-bit) has left its shared memory. Whether it is
    ///   still running cannot be determined;
    /// - that of shm_unlink(3): the shared memory of a crashed server could not be removed.
    virtual int run(Properties* props);
    /// Returns what run() is doing.
    ///
    /// \retval 0 stopped
    /// \retval 1 initialising
    /// \retval 2 serving
    /// \retval 3 terminating
    virtual int state();
    /// Asks run() to end after the current request, and waits up to 10 s until it no longer serves.
    ///
    /// - When another process keeps the block locked for 10 s, it asks without waiting.
    /// - A request that arrives too late is answered with -1 and errno ECANCELED.
    /// - When no service is running, it does nothing: a run() that begins later is not affected.
    ///
    /// \returns always 0.
    virtual int terminate();

    /// Terminates the service and waits, without a limit of time, until run() has returned.
    virtual ~IPCServer();

    /// The adapter that carries out the requests. Internal.
    class ORUIO_LOCAL Data;

private:
    Q_DISABLE_COPY(IPCServer)
    const std::unique_ptr<Data> m_data;
};

} // namespace oru::io
