// SPDX-License-Identifier: Apache-2.0
// What the server does for each request.

#include <oruio/error.h>

#include "core/errnosaver_p.h"
#include "ipc/ipc_server_p.h"
#include "ipc/ipcwire_p.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/log_p.h"

namespace oru::io {

ORUIO_LOG_ON(fsipcsrvLogChannel);

namespace {

using namespace ipcwire;

const unsigned int DBG_MASK = IPCShm::debugMask();

} // namespace

// --- What requests have in common ---------------------------------------------------------------

int IPCServer::Data::respond(int result) {
    sendResponse(shm, result, nullptr);
    return result;
}

int IPCServer::Data::refuse(int reason) {
    errno = reason;
    liberrno = Ok;
    return respond(-1);
}

/// \returns false with errno EINVAL and liberrno NotFound unless the session has opened the
/// descriptor. Descriptors that it did not open are rejected, even if valid in the server process.
bool IPCServer::Data::checkOpen(int fd) {
    if (files.contains(fd))
        return true;
    errno = EINVAL;
    liberrno = NotFound;
    return false;
}

bool IPCServer::Data::checkOpen(void* handle) {
    if (dirs.contains(handle))
        return true;
    errno = EINVAL;
    liberrno = NotFound;
    return false;
}

/// The string after the NUL of the first one, or null when the request contains no second.
const char* IPCServer::Data::secondString(const char* first) const {
    const char* const second = first + std::strlen(first) + 1;
    if (second >= request.end() || !std::memchr(second, '\0', request.end() - second))
        return nullptr;
    return second;
}

/// The data buffer `index`. \returns null with errno EINVAL when there is none, or when `count`
/// bytes do not fit into it.
void* IPCServer::Data::dataBuffer(int index, std::size_t count) {
    void* const buffer = count <= dataBufferSize ? shm->databufAddr(index) : nullptr;
    if (!buffer) {
        errno = EINVAL;
        liberrno = Ok;
    }
    return buffer;
}

template <class Operation>
int IPCServer::Data::onPath(const char* args, Operation operation) {
    return args ? respond(operation(args)) : refuse(EINVAL);
}

template <class Operation>
int IPCServer::Data::onTwoStrings(const char* args, Operation operation) {
    const char* const second = args ? secondString(args) : nullptr;
    return second ? respond(operation(args, second)) : refuse(EINVAL);
}

template <class Number, class Operation>
int IPCServer::Data::onNumberAndPath(const char* args, Operation operation) {
    Number number = 0;
    FieldReader fields(args);
    if (!fields.number(number).separator(' ').isGood())
        return refuse(EINVAL);
    return respond(operation(number, fields.rest()));
}

template <class Operation>
int IPCServer::Data::onFile(const char* args, Operation operation) {
    int fd = -1;
    if (!FieldReader(args).number(fd).isGood())
        return refuse(EINVAL);
    return respond(checkOpen(fd) ? operation(fd) : -1);
}

template <class Number, class Operation>
int IPCServer::Data::onFileAndNumber(const char* args, Operation operation) {
    int fd = -1;
    Number number = 0;
    if (!FieldReader(args).number(fd).separator(' ').number(number).isGood())
        return refuse(EINVAL);
    return respond(checkOpen(fd) ? operation(fd, number) : -1);
}

template <class Record, class Operation>
int IPCServer::Data::forRecord(Operation operation) {
    Record record = {};
    const int result = operation(record);
    if (result != 0)
        return respond(result);
    sendBufResponse(shm, result, &record, sizeof record);
    return result;
}

template <class Record, class Operation>
int IPCServer::Data::onPathForRecord(const char* args, Operation operation) {
    if (!args)
        return refuse(EINVAL);
    return forRecord<Record>([&](Record& record) { return operation(args, record); });
}

/// Parses a handle. \returns null when the session did not open it.
void* IPCServer::Data::openHandle(const char* args) {
    void* handle = nullptr;
    FieldReader(args).pointer(handle);
    return checkOpen(handle) ? handle : nullptr;
}

/// The arguments of the operations on a data buffer.
struct IPCServer::Data::Transfer {
    int fd = -1;
    int index = -1;
    std::size_t count = 0;
    unsigned long long offset = 0;

    bool read(const char* args, bool hasOffset) {
        FieldReader fields(args);
        fields.number(fd).separator(' ').number(index).separator(' ').number(count);
        if (hasOffset)
            fields.separator(' ').number(offset);
        return fields.isGood();
    }
};

/// Calls `operation` on the transfer's data buffer. \returns its count, or -1.
template <class Operation>
ssize_t IPCServer::Data::move(const Transfer& transfer, Operation operation) {
    void* const buffer = dataBuffer(transfer.index, transfer.count);
    if (!buffer || !checkOpen(transfer.fd))
        return -1;
    return operation(buffer, static_cast<unsigned int>(transfer.count));
}

/// The same for data from the client. Releases the data buffer.
template <class Operation>
int IPCServer::Data::moveOut(const Transfer& transfer, Operation operation) {
    const ssize_t count = move(transfer, operation);
    if (transfer.index >= 0) {
        const ErrnoSaver saver;
        shm->freeDataBuf(transfer.index);
    }
    return respondCount(count);
}

int IPCServer::Data::respondCount(ssize_t count) {
    const int result = count < 0 ? -1 : 0;
    sendResponse(shm, result, answer::count, count);
    return result;
}

// --- Requests -----------------------------------------------------------------------------------

int IPCServer::Data::rq_connect(const char*) {
    respond(0);
    if (DBG_MASK & TraceLifecycle)
        ORUIO_LOG(LogDebug, "Client connected OK");
    return 0;
}

int IPCServer::Data::rq_disconnect(const char*) {
    respond(0);
    resetSession();
    return 0;
}

int IPCServer::Data::rq_mkdir(const char* args) {
    return onNumberAndPath<int>(args,
                                [this](int mode, const char* path) { return mkdir(path, mode); });
}

int IPCServer::Data::rq_rmdir(const char* args) {
    return onPath(args, [this](const char* path) { return rmdir(path); });
}

int IPCServer::Data::rq_statfs(const char* args) {
    return onPathForRecord<struct statfs>(
        args, [this](const char* path, struct statfs& st) { return statfs(path, &st); });
}

int IPCServer::Data::rq_stat(const char* args) {
    return onPathForRecord<struct stat>(
        args, [this](const char* path, struct stat& st) { return stat(path, &st); });
}

int IPCServer::Data::rq_lstat(const char* args) {
    return onPathForRecord<struct stat>(
        args, [this](const char* path, struct stat& st) { return lstat(path, &st); });
}

int IPCServer::Data::rq_link(const char* args) {
    return onTwoStrings(args, [this](const char* from, const char* to) { return link(from, to); });
}

int IPCServer::Data::rq_symlink(const char* args) {
    return onTwoStrings(
        args, [this](const char* target, const char* path) { return symlink(target, path); });
}

int IPCServer::Data::rq_unlink(const char* args) {
    return onPath(args, [this](const char* path) { return unlink(path); });
}

int IPCServer::Data::rq_readlink(const char* args) {
    if (!args)
        return refuse(EINVAL);
    std::array<char, linkTextSize + 1> text = {};
    const int result = readlink(args, text.data(), linkTextSize);
    sendResponse(shm, result, answer::text, text.data());
    return result;
}

int IPCServer::Data::rq_rename(const char* args) {
    return onTwoStrings(args,
                        [this](const char* from, const char* to) { return rename(from, to); });
}

int IPCServer::Data::rq_chmod(const char* args) {
    return onNumberAndPath<int>(args,
                                [this](int mode, const char* path) { return chmod(path, mode); });
}

int IPCServer::Data::rq_truncate(const char* args) {
    return onNumberAndPath<unsigned long long>(
        args, [this](unsigned long long length, const char* path) {
            return truncate(path, static_cast<long long>(length));
        });
}

int IPCServer::Data::rq_sync(const char*) {
    sync();
    return respond(0);
}

int IPCServer::Data::rq_opendir(const char* args) {
    if (!args)
        return refuse(EINVAL);
    void* const handle = opendir(args);
    const int result = handle ? 0 : -1;
    if (handle)
        dirs.append(handle);
    sendResponse(shm, result, answer::handle, handle);
    return result;
}

int IPCServer::Data::rq_readdir(const char* args) {
    void* const handle = openHandle(args);
    if (!handle)
        return respond(-1);
    const struct dirent* const entry = readdir(handle);
    if (!entry) {
        errno = -1;
        return respond(-1);
    }
    // An entry of the system is only as long as its name, so copy no more of it.
    struct dirent record = {};
    const std::size_t length = strnlen(entry->d_name, sizeof record.d_name - 1);
    std::memcpy(&record, entry, offsetof(struct dirent, d_name) + length);
    sendBufResponse(shm, 0, &record, sizeof record);
    return 0;
}

int IPCServer::Data::rq_rewinddir(const char* args) {
    void* const handle = openHandle(args);
    if (!handle)
        return respond(-1);
    rewinddir(handle);
    return respond(0);
}

int IPCServer::Data::rq_closedir(const char* args) {
    void* const handle = openHandle(args);
    if (!handle)
        return respond(-1);
    closedir(handle);
    respond(0);
    dirs.removeOne(handle);
    return 0;
}

int IPCServer::Data::rq_open(const char* args) {
    int flags = 0;
    int mode = 0;
    FieldReader fields(args);
    if (!fields.number(flags).separator(' ').number(mode).separator(' ').isGood())
        return refuse(EINVAL);
    const int fd = open(fields.rest(), flags, mode);
    if (fd >= 0)
        files.append(fd);
    return respond(fd);
}

int IPCServer::Data::rq_read(const char* args) {
    Transfer transfer;
    if (!transfer.read(args, false))
        return refuse(EINVAL);
    const ssize_t count = move(transfer, [&](void* buffer, unsigned int length) {
        return read(transfer.fd, buffer, length);
    });
    const int result = count < 0 ? -1 : 0;
    sendResponse(shm, result, answer::bufferAndCount, transfer.index, count);
    return result;
}

int IPCServer::Data::rq_write(const char* args) {
    Transfer transfer;
    if (!transfer.read(args, false))
        return refuse(EINVAL);
    return moveOut(transfer, [&](const void* buffer, unsigned int length) {
        return write(transfer.fd, buffer, length);
    });
}

int IPCServer::Data::rq_pread(const char* args) {
    Transfer transfer;
    if (!transfer.read(args, true))
        return refuse(EINVAL);
    return respondCount(move(transfer, [&](void* buffer, unsigned int length) {
        return pread(transfer.fd, buffer, length, static_cast<long long>(transfer.offset));
    }));
}

int IPCServer::Data::rq_pwrite(const char* args) {
    Transfer transfer;
    if (!transfer.read(args, true))
        return refuse(EINVAL);
    return moveOut(transfer, [&](const void* buffer, unsigned int length) {
        return pwrite(transfer.fd, buffer, length, static_cast<long long>(transfer.offset));
    });
}

int IPCServer::Data::rq_lseek(const char* args) {
    int fd = -1;
    long long offset = 0;
    int whence = 0;
    FieldReader fields(args);
    if (!fields.number(fd).separator(' ').number(offset).separator(' ').number(whence).isGood())
        return refuse(EINVAL);
    const long long position = checkOpen(fd) ? lseek(fd, offset, whence) : -1;
    const int result = position < 0 ? -1 : 0;
    sendResponse(shm, result, answer::position, position);
    return result;
}

int IPCServer::Data::rq_ftruncate(const char* args) {
    return onFileAndNumber<long long>(
        args, [this](int fd, long long length) { return ftruncate(fd, length); });
}

int IPCServer::Data::rq_fsync(const char* args) {
    return onFile(args, [this](int fd) { return fsync(fd); });
}

int IPCServer::Data::rq_fdatasync(const char* args) {
    return onFile(args, [this](int fd) { return fdatasync(fd); });
}

int IPCServer::Data::rq_fstat(const char* args) {
    int fd = -1;
    FieldReader fields(args);
    if (!fields.number(fd).isGood())
        return refuse(EINVAL);
    if (!checkOpen(fd))
        return respond(-1);
    // With more arguments the client only checks the descriptor and does not want the record.
    if (!fields.atEnd()) {
        struct stat unused;
        return respond(fstat(fd, &unused));
    }
    return forRecord<struct stat>([&](struct stat& st) { return fstat(fd, &st); });
}

int IPCServer::Data::rq_fcntl(const char* args) {
    int fd = -1;
    int command = -1;
    FieldReader fields(args);
    if (!fields.number(fd).separator(' ').number(command).isGood())
        return refuse(EINVAL);
    const int lockCommand = platformLockCommand(command);
    if (lockCommand == -1 && !isIntegerCommand(command))
        return refuse(EOPNOTSUPP);
    if (!checkOpen(fd))
        return respond(-1);
    if (lockCommand != -1) {
        const char* const payload = fields.rest() + 1;
        struct flock lock;
        if (!fields.atEnd() || payload + sizeof lock > request.end())
            return refuse(EINVAL);
        std::memcpy(&lock, payload, sizeof lock);
        return respond(fcntl(fd, lockCommand, &lock));
    }
    int argument = 0;
    if (!fields.separator(' ').number(argument).isGood())
        return refuse(EINVAL);
    return respond(fcntl(fd, command, static_cast<std::intptr_t>(argument)));
}

int IPCServer::Data::rq_flock(const char* args) {
    return onFileAndNumber<int>(args,
                                [this](int fd, int operation) { return flock(fd, operation); });
}

int IPCServer::Data::rq_fchmod(const char* args) {
    // Clients rely on a service that passes the mode to flock(). They set the mode of an open file
    // by its path.
    return onFileAndNumber<int>(args, [this](int fd, int mode) { return flock(fd, mode); });
}

int IPCServer::Data::rq_close(const char* args) {
    int fd = -1;
    const int result = onFile(args, [&](int open) { return close(fd = open); });
    files.removeOne(fd);
    return result;
}

int IPCServer::Data::rq_notfound(const char*) {
    return refuse(EOPNOTSUPP);
}

} // namespace oru::io
