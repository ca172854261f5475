// SPDX-License-Identifier: Apache-2.0
// The client's session with the server.
#pragma once

#include <oruio/fsipc.h>

#include "ipc/clientmutexowner_p.h"
#include "ipc/ipcsync_p.h"
#include "ipc/ipcwire_p.h"

#include <QSharedData>

#include <cstdarg>

namespace oru::io {

/// The log channel "fsipc".
extern const int fsipcLogChannel;

/// At most one session at a time. An IPCFS shares it with its files and directories, which may
/// outlive the IPCFS.
class IPCFS::Data : public QSharedData {
public:
    class File;
    class Dir;

    enum State : int { NotConnected = 0, Connected = 1 };

    Data() = default;
    ~Data();

    /// Begins a session. \returns 0, or -1 with errno.
    int init(Properties* props);
    /// Ends the session, if there is one.
    void end();

    /// Sends the request `name`. `format` and its values are the arguments; null sends none.
    /// \returns 0, or -1 with errno: ENOTCONN without a session, E2BIG when the request does not
    /// fit into the request area.
    int sendRequest(const char* name, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    /// The same with `length` bytes of `data` after the arguments.
    int sendBufRequest(const char* name, const void* data, std::size_t length, const char* format,
                       ...) __attribute__((format(printf, 5, 6)));
    /// Waits for the answer. \returns the result in it. Sets errno and liberrno to those in the
    /// answer, and `*payload` to what follows its header, valid until the next call. \returns -1
    /// with errno ENOTCONN when no answer came, EBADMSG when it is malformed.
    int getResponse(const char** payload = nullptr);

    /// sendRequest() and getResponse().
    int call(const char** payload, const char* name, const char* format, ...)
        __attribute__((format(printf, 4, 5)));
    /// The same for an answer that carries a record of `size` bytes, which is copied to `*record`.
    int callForRecord(void* record, std::size_t size, const char* name, const char* format, ...)
        __attribute__((format(printf, 5, 6)));

    /// Reserves a data buffer. \returns its index, or -1 with errno.
    int reserveBuffer();
    /// Releases a data buffer, if its session still exists. Keeps errno and liberrno.
    void releaseBuffer(int index);
    void* buffer(int index);

    int state = NotConnected;
    QSharedPointer<ShmBlock> block; ///< null when not connected
    IPCShm* shm = nullptr;
    Unavailable reason = Unavailable::None; ///< why there is no session
    /// Counts the sessions of this object. Files and directories belong to one of them.
    unsigned int session = 0;

private:
    Q_DISABLE_COPY(Data)

    ipcwire::Area& area();

    bool lockClientMutex();
    int sendConnect();
    bool endPredecessor();
    bool verifySession();
    void leave();

    int send(const char* name, const void* data, std::size_t length, const char* format,
             va_list args);
    void post(const char* text, std::size_t length);
    int callWith(const char** payload, const char* name, const char* format, va_list args);
    bool awaitResponse();
    void logServerGone(int probed);
    int parseResponse(const char** payload);

    int probeServer();
    template <class Condition>
    bool await(Condition condition);
    bool awaitIdle();

    ClientMutexOwner m_clientMutex;
    unsigned int m_generation = 0; // processGeneration() of the process that began the session
    ipcwire::Text m_response;
    ipcwire::SpinWaiter m_spinWaiter;
};

} // namespace oru::io
