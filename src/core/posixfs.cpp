// SPDX-License-Identifier: Apache-2.0
#include <oruio/posixfs.h>

#include "core/cancelguard_p.h"
#include "core/systemtext_p.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "core/notimplemented_p.h"

namespace oru::io {

PosixFS::PosixFS(QString mountPoint) : PosixFS(std::move(mountPoint), QStringLiteral("PosixFS")) {}

PosixFS::PosixFS(QString mountPoint, QString type)
    : FS(std::move(type)), m_mountPoint(std::move(mountPoint)) {}

PosixFS::~PosixFS() = default;

const QString& PosixFS::mountPoint() const {
    return m_mountPoint;
}

QString PosixFS::mapped(const QString& path) const {
    return m_mountPoint + path;
}

int PosixFS::addWatch(QString) {
    return notImplemented();
}

int PosixFS::remWatch(QString) {
    return notImplemented();
}

QSharedPointer<File> PosixFS::open(QString path, int flags, int mode) {
    liberrno = Ok;
    const int fd = withPath(mapped(path), [=](const char* p) { return ::open(p, flags, mode); });
    if (fd < 0)
        return {};
    return QSharedPointer<PosixFile>::create(fd);
}

QSharedPointer<Directory> PosixFS::opendir(QString path) {
    liberrno = Ok;
    DIR* dir = nullptr;
    withPath(mapped(path), [&dir](const char* p) {
        dir = ::opendir(p);
        return 0;
    });
    const int reason = errno;
    auto result = QSharedPointer<PosixDir>::create(dir);
    errno = reason;
    return result;
}

int PosixFS::lstat(QString path, struct stat& st) {
    return withPath(mapped(path), [&st](const char* p) { return ::lstat(p, &st); });
}

int PosixFS::stat(QString path, struct stat& st) {
    return withPath(mapped(path), [&st](const char* p) { return ::stat(p, &st); });
}

int PosixFS::statfs(QString path, struct statfs& st) {
    return withPath(mapped(path), [&st](const char* p) { return ::statfs(p, &st); });
}

int PosixFS::link(QString oldPath, QString newPath) {
    return withPaths(mapped(oldPath), mapped(newPath), ::link);
}

int PosixFS::unlink(QString path) {
    return withPath(mapped(path), ::unlink);
}

int PosixFS::mkdir(QString path, int mode) {
    return withPath(mapped(path), [mode](const char* p) { return ::mkdir(p, mode); });
}

int PosixFS::rmdir(QString path) {
    return withPath(mapped(path), ::rmdir);
}

int PosixFS::rename(QString oldPath, QString newPath) {
    return withPaths(mapped(oldPath), mapped(newPath), ::rename);
}

void PosixFS::sync() {
    ::sync();
}

int PosixFS::getxattr(QString path, QString name, void* value, unsigned int size) {
    return withPaths(mapped(path), name, [=](const char* p, const char* n) {
        return static_cast<int>(::getxattr(p, n, value, size));
    });
}

int PosixFS::setxattr(QString path, QString name, void* value, unsigned int size, int flags) {
    return withPaths(mapped(path), name, [=](const char* p, const char* n) {
        return ::setxattr(p, n, value, size, flags);
    });
}

int PosixFS::removexattr(QString path, QString name) {
    return withPaths(mapped(path), name, ::removexattr);
}

int PosixFS::listxattr(QString path, QVector<QString>& names) {
    constexpr size_t capacity = 65536;
    int size = -1;
    int reason = 0;
    {
        std::vector<char> list(capacity);
        size = listxattr(path, list.data(), capacity);
        reason = errno;
        const char* next = list.data();
        const char* const end = next + capacity;
        // One string per byte of the list: the names, and after them empty strings from the zeroes
        // that follow. Callers rely on the count.
        for (int i = 0; i < size; ++i) {
            const size_t length = strnlen(next, end - next);
            names.append(decoded(next, static_cast<int>(length)));
            next += length;
            if (next < end)
                ++next;
        }
    }
    errno = reason;
    return size;
}

int PosixFS::listxattr(QString path, char* list, unsigned int size) {
    return withPath(mapped(path),
                    [=](const char* p) { return static_cast<int>(::listxattr(p, list, size)); });
}

int PosixFS::symlink(QString target, QString linkPath) {
    return withPaths(target, mapped(linkPath), ::symlink);
}

int PosixFS::readlink(QString path, QString& target) {
    std::array<char, 4096> text{};
    const int length = withPath(mapped(path), [&text](const char* p) {
        return static_cast<int>(::readlink(p, text.data(), text.size()));
    });
    const int reason = errno;
    target = decoded(text.data(), static_cast<int>(strnlen(text.data(), text.size())));
    errno = reason;
    return length;
}

int PosixFS::readlink(QString path, char* buf, unsigned int size) {
    return withPath(mapped(path),
                    [=](const char* p) { return static_cast<int>(::readlink(p, buf, size)); });
}

int PosixFS::truncate(QString path, long long length) {
    return withPath(mapped(path), [length](const char* p) { return ::truncate(p, length); });
}

int PosixFS::chmod(QString path, int mode) {
    return withPath(mapped(path), [mode](const char* p) { return ::chmod(p, mode); });
}

int PosixFS::ioctl(QString, QString&) {
    return notImplemented();
}

PosixFile::PosixFile(int fd) : File(QStringLiteral("PosixFile")), m_fd(fd) {}

PosixFile::~PosixFile() {
    PosixFile::close();
}

int PosixFile::read(void* buf, unsigned int len) {
    liberrno = Ok;
    return static_cast<int>(::read(m_fd, buf, len));
}

int PosixFile::write(const void* buf, unsigned int len) {
    liberrno = Ok;
    return static_cast<int>(::write(m_fd, buf, len));
}

int PosixFile::pread(void* buf, unsigned int len, long long offset) {
    liberrno = Ok;
    return static_cast<int>(::pread(m_fd, buf, len, offset));
}

int PosixFile::pwrite(const void* buf, unsigned int len, long long offset) {
    liberrno = Ok;
    return static_cast<int>(::pwrite(m_fd, buf, len, offset));
}

long long PosixFile::lseek(long long offset, int whence) {
    liberrno = Ok;
    return ::lseek(m_fd, offset, whence);
}

int PosixFile::fstat(struct stat& st) {
    return ::fstat(m_fd, &st);
}

int PosixFile::ftruncate(long long length) {
    liberrno = Ok;
    return ::ftruncate(m_fd, length);
}

int PosixFile::fsync() {
    liberrno = Ok;
    return ::fsync(m_fd);
}

int PosixFile::fdatasync() {
    liberrno = Ok;
    return ::fdatasync(m_fd);
}

int PosixFile::fcntl(int cmd, ...) {
    va_list args;
    va_start(args, cmd);
    void* argument = va_arg(args, void*);
    va_end(args);
    return ::fcntl(m_fd, cmd, argument);
}

int PosixFile::flock(int operation) {
    return ::flock(m_fd, operation);
}

int PosixFile::fchmod(int mode) {
    return ::fchmod(m_fd, mode);
}

int PosixFile::close() {
    // Cancelled before close(2) does its work, the thread would leave the descriptor open.
    const CancelGuard guard;
    liberrno = Ok;
    // On Linux close(2) releases the descriptor also when it fails. A second call could close
    // another file.
    const int fd = m_fd.exchange(-1);
    return fd < 0 ? 0 : ::close(fd);
}

int PosixFile::ioctl(QString, QString&) {
    return notImplemented();
}

PosixDir::PosixDir(DIR* dir) : Directory(QStringLiteral("PosixDirectory")), m_dir(dir) {}

PosixDir::~PosixDir() {
    PosixDir::closedir();
}

struct dirent* PosixDir::readdir() {
    return m_dir ? ::readdir(m_dir) : nullptr;
}

int PosixDir::rewinddir() {
    if (m_dir)
        ::rewinddir(m_dir);
    return 0;
}

int PosixDir::closedir() {
    if (!m_dir)
        return -1;
    const CancelGuard guard;
    const int result = ::closedir(m_dir);
    m_dir = nullptr;
    return result;
}

int PosixDir::ioctl(QString, QString&) {
    return notImplemented();
}

} // namespace oru::io
