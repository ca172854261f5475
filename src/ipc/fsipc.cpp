// SPDX-License-Identifier: Apache-2.0
#include <oruio/error.h>
#include <oruio/fsipc.h>

#include "core/cancelguard_p.h"
#include "core/errnosaver_p.h"
#include "core/failwith_p.h"
#include "core/systemtext_p.h"
#include "ipc/fsipc_p.h"
#include "ipc/ipcsession_p.h"
#include "ipc/ipctrace_p.h"
#include "ipc/ipcwire_p.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <thread>

#include <sys/file.h>

#include "core/log_p.h"
#include "core/notimplemented_p.h"

namespace oru::io {

ORUIO_SHARED_LOG_CHANNEL(fsipcLogChannel, "fsipc");

namespace {

using namespace ipcwire;

/// Checks a buffer of the caller's. \returns false with errno EFAULT when it is null although `len`
/// is not 0.
bool checkBuffer(const void* buf, unsigned int len) {
    if (buf || len == 0)
        return true;
    failWith(EFAULT);
    return false;
}

} // namespace

// --- Path operations ----------------------------------------------------------------------------

IPCFS::IPCFS() : FS(QStringLiteral("IPCFS")), m_data(new Data) {}

IPCFS::~IPCFS() {
    m_data->end();
}

int IPCFS::connect(unsigned int tries, Properties* props) {
    for (unsigned int i = 0; i < tries && !isConnected(); ++i) {
        if (m_data->init(props) == 0)
            break;
        const ErrnoSaver saver;
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    if (isConnected())
        return 0;
    return tries == 0 ? failWith(ENOTCONN) : -1;
}

int IPCFS::disconnect() {
    m_data->end();
    return 0;
}

bool IPCFS::isConnected() {
    return state() == Data::Connected;
}

int IPCFS::state() {
    return m_data->state;
}

IPCFS::Unavailable IPCFS::unavailable() const {
    return m_data->reason;
}

int IPCFS::addWatch(QString) {
    return notImplemented();
}

int IPCFS::remWatch(QString) {
    return notImplemented();
}

QSharedPointer<File> IPCFS::open(QString path, int flags, int mode) {
    liberrno = Ok;
    const int fd = withPath(path, [=](const char* p) {
        return m_data->call(nullptr, op::open, args::open, flags, mode, p);
    });
    if (fd < 0)
        return {};
    return QSharedPointer<Data::File>::create(fd, m_data.data());
}

QSharedPointer<Directory> IPCFS::opendir(QString path) {
    liberrno = Ok;
    const char* payload = nullptr;
    const int result = withPath(path, [this, &payload](const char* p) {
        return m_data->call(&payload, op::opendir, args::path, p);
    });
    if (result != 0)
        return {};
    void* handle = nullptr;
    if (!FieldReader(payload).pointer(handle).isGood() || !handle) {
        failWith(EBADMSG);
        return {};
    }
    return QSharedPointer<Data::Dir>::create(handle, m_data.data());
}

int IPCFS::lstat(QString path, struct stat& st) {
    liberrno = Ok;
    return withPath(path, [this, &st](const char* p) {
        return m_data->callForRecord(&st, sizeof st, op::lstat, args::path, p);
    });
}

int IPCFS::stat(QString path, struct stat& st) {
    liberrno = Ok;
    return withPath(path, [this, &st](const char* p) {
        return m_data->callForRecord(&st, sizeof st, op::stat, args::path, p);
    });
}

int IPCFS::statfs(QString path, struct statfs& st) {
    liberrno = Ok;
    return withPath(path, [this, &st](const char* p) {
        return m_data->callForRecord(&st, sizeof st, op::statfs, args::path, p);
    });
}

int IPCFS::link(QString oldPath, QString newPath) {
    liberrno = Ok;
    return withPaths(oldPath, newPath, [this](const char* from, const char* to) {
        return m_data->call(nullptr, op::link, args::twoStrings, from, '\0', to);
    });
}

int IPCFS::unlink(QString path) {
    liberrno = Ok;
    return withPath(
        path, [this](const char* p) { return m_data->call(nullptr, op::unlink, args::path, p); });
}

int IPCFS::mkdir(QString path, int mode) {
    liberrno = Ok;
    return withPath(path, [=](const char* p) {
        return m_data->call(nullptr, op::mkdir, args::modeAndPath, mode, p);
    });
}

int IPCFS::rmdir(QString path) {
    liberrno = Ok;
    return withPath(
        path, [this](const char* p) { return m_data->call(nullptr, op::rmdir, args::path, p); });
}

int IPCFS::rename(QString oldPath, QString newPath) {
    liberrno = Ok;
    return withPaths(oldPath, newPath, [this](const char* from, const char* to) {
        return m_data->call(nullptr, op::rename, args::twoStrings, from, '\0', to);
    });
}

void IPCFS::sync() {
    m_data->call(nullptr, op::sync, nullptr);
}

int IPCFS::getxattr(QString, QString, void*, unsigned int) {
    return notImplemented();
}

int IPCFS::setxattr(QString, QString, void*, unsigned int, int) {
    return notImplemented();
}

int IPCFS::removexattr(QString, QString) {
    return notImplemented();
}

int IPCFS::listxattr(QString, QVector<QString>&) {
    return notImplemented();
}

int IPCFS::listxattr(QString, char*, unsigned int) {
    return notImplemented();
}

int IPCFS::symlink(QString target, QString linkPath) {
    liberrno = Ok;
    return withPaths(target, linkPath, [this](const char* to, const char* p) {
        return m_data->call(nullptr, op::symlink, args::twoStrings, to, '\0', p);
    });
}

int IPCFS::readlink(QString path, QString& target) {
    std::array<char, linkTextSize> text;
    const int result = readlink(std::move(path), text.data(), linkTextSize);
    if (result == 0)
        target = decoded(text.data(), static_cast<int>(strnlen(text.data(), linkTextSize)));
    return result;
}

int IPCFS::readlink(QString path, char* buf, unsigned int size) {
    if (!checkBuffer(buf, size))
        return -1;
    liberrno = Ok;
    const char* payload = nullptr;
    const int result = withPath(path, [this, &payload](const char* p) {
        return m_data->call(&payload, op::readlink, args::path, p);
    });
    if (result < 0)
        return result;
    const auto length = std::min<std::size_t>(std::strlen(payload), size);
    std::fill(std::copy_n(payload, length, buf), buf + size, '\0');
    return 0;
}

int IPCFS::truncate(QString path, long long length) {
    liberrno = Ok;
    return withPath(path, [=](const char* p) {
        return m_data->call(nullptr, op::truncate, args::lengthAndPath,
                            static_cast<unsigned long long>(length), p);
    });
}

int IPCFS::chmod(QString path, int mode) {
    liberrno = Ok;
    return withPath(path, [=](const char* p) {
        return m_data->call(nullptr, op::chmod, args::modeAndPath, mode, p);
    });
}

int IPCFS::ioctl(QString, QString&) {
    ORUIO_LOG(LogDebug, "'ioctl' Not implemented");
    return notImplemented();
}

// --- Files --------------------------------------------------------------------------------------

IPCFS::Data::File::File(int fd, Data* data)
    : oru::io::File(QStringLiteral("IPCFile")), m_fd(fd), m_data(data), m_session(data->session) {}

IPCFS::Data::File::~File() {
    const ErrnoSaver saver;
    File::close();
}

bool IPCFS::Data::File::isValid() {
    if (m_fd > 0 && m_session == m_data->session)
        return true;
    failWith(EBADF);
    return false;
}

/// Reads up to `len` bytes, at most one data buffer. `request` makes the exchange for a data buffer
/// and a count, and parses the count in the answer.
template <class Request>
int IPCFS::Data::File::fetch(void* buf, unsigned int len, Request request) {
    if (!isValid() || !checkBuffer(buf, len))
        return -1;
    const CancelGuard guard; // until the data buffer is released
    const std::size_t wanted = std::min(len, dataBufferSize);
    const int index = m_data->reserveBuffer();
    if (index < 0)
        return -1;
    ssize_t count = -1;
    if (request(index, wanted, count) != 0)
        count = -1;
    else if (count < 0 || static_cast<std::size_t>(count) > wanted)
        count = failWith(EBADMSG);
    else if (!m_data->shm)
        count = failWith(ENOTCONN);
    else if (count > 0)
        std::memcpy(buf, m_data->buffer(index), count);
    m_data->releaseBuffer(index);
    return static_cast<int>(count);
}

int IPCFS::Data::File::read(void* buf, unsigned int len) {
    return fetch(buf, len, [this](int index, std::size_t wanted, ssize_t& count) {
        const char* payload = nullptr;
        const int result = m_data->call(&payload, op::read, args::transfer, m_fd, index, wanted);
        int answered = -1;
        const bool isGood =
            result == 0 &&
            FieldReader(payload).number(answered).separator(' ').number(count).isGood();
        if (isGood && answered != index)
            count = -1;
        return result;
    });
}

int IPCFS::Data::File::pread(void* buf, unsigned int len, long long offset) {
    return fetch(buf, len, [=](int index, std::size_t wanted, ssize_t& count) {
        const char* payload = nullptr;
        const int result = m_data->call(&payload, op::pread, args::transferAt, m_fd, index, wanted,
                                        static_cast<unsigned long long>(offset));
        if (result == 0)
            FieldReader(payload).number(count);
        return result;
    });
}

/// Writes up to `len` bytes, at most one data buffer. `request` sends the request for a data buffer
/// and a count. The server releases the buffer.
template <class Request>
int IPCFS::Data::File::deliver(const void* buf, unsigned int len, Request request) {
    if (!isValid() || !checkBuffer(buf, len))
        return -1;
    const CancelGuard guard; // until the answer has arrived
    const std::size_t offered = std::min(len, dataBufferSize);
    const int index = m_data->reserveBuffer();
    if (index < 0)
        return -1;
    trace(Step::FillBuffer, areaOf(m_data->shm), 0, index);
    if (offered > 0)
        std::memcpy(m_data->buffer(index), buf, offered);
    if (request(index, offered) != 0) {
        m_data->releaseBuffer(index);
        return -1;
    }
    const char* payload = nullptr;
    if (m_data->getResponse(&payload) != 0)
        return -1;
    ssize_t count = -1;
    FieldReader(payload).number(count);
    if (count < 0 || static_cast<std::size_t>(count) > offered)
        return failWith(EBADMSG);
    return static_cast<int>(count);
}

int IPCFS::Data::File::write(const void* buf, unsigned int len) {
    return deliver(buf, len, [this](int index, std::size_t offered) {
        return m_data->sendRequest(op::write, args::transfer, m_fd, index, offered);
    });
}

int IPCFS::Data::File::pwrite(const void* buf, unsigned int len, long long offset) {
    return deliver(buf, len, [=](int index, std::size_t offered) {
        return m_data->sendRequest(op::pwrite, args::transferAt, m_fd, index, offered,
                                   static_cast<unsigned long long>(offset));
    });
}

long long IPCFS::Data::File::lseek(long long offset, int whence) {
    const char* payload = nullptr;
    if (!isValid() || m_data->call(&payload, op::lseek, args::lseek, m_fd, offset, whence) != 0)
        return -1;
    long long position = -1;
    if (!FieldReader(payload).number(position).isGood() || position < 0)
        return failWith(EBADMSG);
    return position;
}

int IPCFS::Data::File::fstat(struct stat& st) {
    return isValid() ? m_data->callForRecord(&st, sizeof st, op::fstat, args::fd, m_fd) : -1;
}

int IPCFS::Data::File::ftruncate(long long length) {
    return isValid() ? m_data->call(nullptr, op::ftruncate, args::fdAndLength, m_fd, length) : -1;
}

int IPCFS::Data::File::fsync() {
    return isValid() ? m_data->call(nullptr, op::fsync, args::fd, m_fd) : -1;
}

int IPCFS::Data::File::fdatasync() {
    return isValid() ? m_data->call(nullptr, op::fdatasync, args::fd, m_fd) : -1;
}

int IPCFS::Data::File::fcntl(int cmd, ...) {
    va_list arguments;
    va_start(arguments, cmd);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (!isValid())
        return -1;
    const int lockCommand = wireLockCommand(cmd);
    if (lockCommand != -1) {
        if (!checkBuffer(argument, sizeof(struct flock)))
            return -1;
        const CancelGuard guard;
        return m_data->sendBufRequest(op::fcntl, argument, sizeof(struct flock), args::fdAndNumber,
                                      m_fd, lockCommand) == 0
                   ? m_data->getResponse()
                   : -1;
    }
    if (!isIntegerCommand(cmd))
        return failWith(EOPNOTSUPP);
    // Sent as "fstat", with which servers only check the descriptor, and clients rely on that:
    // flags and duplicates of a descriptor concern the server's process alone.
    return m_data->call(nullptr, op::fstat, args::fdAndTwoNumbers, m_fd, cmd,
                        static_cast<int>(reinterpret_cast<std::intptr_t>(argument)));
}

int IPCFS::Data::File::flock(int operation) {
    return isValid() ? m_data->call(nullptr, op::flock, args::fdAndNumber, m_fd, operation) : -1;
}

int IPCFS::Data::File::fchmod(int mode) {
    return isValid() ? m_data->call(nullptr, op::fchmod, args::fdAndNumber, m_fd, mode) : -1;
}

int IPCFS::Data::File::close() {
    if (!isValid())
        return -1;
    const int result = m_data->call(nullptr, op::close, args::fd, m_fd);
    m_fd = -1;
    return result;
}

int IPCFS::Data::File::ioctl(QString, QString&) {
    ORUIO_LOG(LogDebug, "'file::ioctl' Not implemented");
    return notImplemented();
}

// --- Directories --------------------------------------------------------------------------------

IPCFS::Data::Dir::Dir(void* handle, Data* data)
    : Directory(QStringLiteral("IPCDirectory")), m_handle(handle), m_data(data),
      m_session(data->session) {}

IPCFS::Data::Dir::~Dir() {
    const ErrnoSaver saver;
    Dir::closedir();
}

bool IPCFS::Data::Dir::isValid() {
    if (m_handle && m_session == m_data->session)
        return true;
    failWith(EBADF);
    return false;
}

struct dirent* IPCFS::Data::Dir::readdir() {
    if (!isValid() ||
        m_data->callForRecord(&m_entry, sizeof m_entry, op::readdir, args::handle, m_handle) != 0)
        return nullptr;
    m_entry.d_name[sizeof m_entry.d_name - 1] = '\0';
    return &m_entry;
}

int IPCFS::Data::Dir::rewinddir() {
    return isValid() ? m_data->call(nullptr, op::rewinddir, args::handle, m_handle) : 0;
}

int IPCFS::Data::Dir::closedir() {
    if (!isValid())
        return 0;
    const int result = m_data->call(nullptr, op::closedir, args::handle, m_handle);
    if (result == 0)
        m_handle = nullptr;
    return result;
}

int IPCFS::Data::Dir::ioctl(QString, QString&) {
    ORUIO_LOG(LogDebug, "'dir::ioctl' Not implemented");
    return notImplemented();
}

} // namespace oru::io
