// The client's session with the server, and the files and directories opened in it.
#pragma once

#include <oruio/fsipc.h>

#include "ipc/ipcwire_p.h"

#include <QSharedData>

#include <cstdarg>

namespace oru::io {

/// One session at a time. Shared by an IPCFS with its files and directories, so that those can
/// outlive it.
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

    /// Sends a request: `format` and what follows are its arguments, a null format is none.
    /// \returns 0; -1 with errno ENOTCONN without a session, E2BIG when the text does not fit.
    int sendRequest(const char* name, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    /// As sendRequest(), with `length` bytes behind the text.
    int sendBufRequest(const char* name, const void* data, std::size_t length, const char* format,
                       ...) __attribute__((format(printf, 5, 6)));
    /// Waits for the answer. \returns its result, with errno and liberrno as answered and, in
    /// `*payload`, what follows its header; -1 with errno ENOTCONN when there was none, EBADMSG
    /// when it was not understood. The payload is valid until the next call.
    int getResponse(const char** payload = nullptr);

    /// sendRequest() and getResponse().
    int call(const char** payload, const char* name, const char* format, ...)
        __attribute__((format(printf, 4, 5)));
    /// As call(), for an answer that carries `size` bytes for `*record`.
    int callForRecord(void* record, std::size_t size, const char* name, const char* format, ...)
        __attribute__((format(printf, 5, 6)));

    /// Reserves a data buffer. \returns its index, or -1 with errno.
    int reserveBuffer();
    /// Releases it, if the session it belongs to is still there. Leaves errno and liberrno alone.
    void releaseBuffer(int index);
    void* buffer(int index);

    int state = NotConnected;
    QSharedPointer<ShmBlock> block; ///< null when not connected
    IPCShm* shm = nullptr;
    unsigned int session = 0; ///< the number of the session; which files and directories belong to

private:
    Q_DISABLE_COPY(Data)

    ipcwire::Area& area();

    bool enter();
    int greet();
    bool endPredecessor();
    bool holdsSession();
    bool holdsClientMutex();
    bool isLastSession();
    void leave();

    int send(const char* name, const void* data, std::size_t length, const char* format,
             va_list args);
    void post(const char* text, std::size_t length);
    int callWith(const char** payload, const char* name, const char* format, va_list args);
    int awaitResponse(const char** payload);
    int parseResponse(const char** payload);

    int probeServer();
    template <class Condition>
    bool await(Condition condition);

    bool m_holdsClientMutex = false;
    pid_t m_owner = 0;               // the thread that took it, for the present session
    std::uint32_t m_areaSession = 0; // the area's number of the session
    unsigned int m_process = 0;      // which process of a line of forks has begun it
    ipcwire::Text m_response;
    ipcwire::SpinWaiter m_spinWaiter;
};

/// A descriptor of the server.
class IPCFS::Data::File : public oru::io::File {
public:
    File(int fd, Data* data);

    int read(void* buf, unsigned int len) override;
    int write(const void* buf, unsigned int len) override;
    int pread(void* buf, unsigned int len, long long offset) override;
    int pwrite(const void* buf, unsigned int len, long long offset) override;
    long long lseek(long long offset, int whence) override;
    int fstat(struct stat& st) override;
    int ftruncate(long long length) override;
    int fsync() override;
    int fdatasync() override;
    int fcntl(int cmd, ...) override;
    int flock(int operation) override;
    int fchmod(int mode) override;
    int close() override;
    int ioctl(QString request, QString& response) override;
    ~File() override;

    /// Whether the file is open, in the session of today. Sets errno to EBADF when it is not.
    virtual bool isValid();

private:
    template <class Request>
    int fetch(void* buf, unsigned int len, Request request);
    template <class Request>
    int deliver(const void* buf, unsigned int len, Request request);

    int m_fd;
    const QExplicitlySharedDataPointer<Data> m_data;
    const unsigned int m_session;
};

/// A directory handle of the server.
class IPCFS::Data::Dir : public Directory {
public:
    Dir(void* handle, Data* data);

    struct dirent* readdir() override;
    int rewinddir() override;
    int closedir() override;
    int ioctl(QString request, QString& response) override;
    ~Dir() override;

    /// Whether the directory is open, in the session of today. Sets errno to EBADF when it is not.
    virtual bool isValid();

private:
    void* m_handle;
    const QExplicitlySharedDataPointer<Data> m_data;
    const unsigned int m_session;
    struct dirent m_entry = {};
};

} // namespace oru::io
