// SPDX-License-Identifier: Apache-2.0
#include <oruio/error.h>
#include <oruio/fdadapter.h>
#include <oruio/fsswitch.h>

#include "core/errnosaver_p.h"
#include "core/failwith_p.h"
#include "core/forksafemutex_p.h"
#include "core/systemtext_p.h"

#include <QMap>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <queue>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace oru::io {

namespace {

/// The number of open files that the device is designed for. It is not a limit.
[[maybe_unused]] constexpr int MAX_FDS = 4096;

/// The table of all adapters. Never destroyed, as detached threads and the destructors of other
/// static objects may use it to the end of the process.
FDMap& fdMap = *new FDMap;

/// Calls `operation` with `path` as a QString. \returns its result, or -1 with errno when `path`
/// cannot be converted. errno stays as `operation` leaves it, also when the memory of the string is
/// freed.
template <class Operation>
int withString(const char* path, Operation operation) {
    int result = -1;
    int reason = 0;
    {
        QString string;
        result = fromSystem(path, string) ? operation(string) : failWith(errno);
        reason = errno;
    }
    errno = reason;
    return result;
}

/// The same with two strings.
template <class Operation>
int withStrings(const char* first, const char* second, Operation operation) {
    return withString(first, [&](const QString& firstString) {
        return withString(second, [&](const QString& secondString) {
            return operation(firstString, secondString);
        });
    });
}

/// The same with an operation that fills `*record`.
template <class Record, class Operation>
int withRecord(const char* path, Record* record, Operation operation) {
    if (!record)
        return failWith(EFAULT);
    return withString(path, [&](const QString& string) { return operation(string, *record); });
}

/// Calls `operation` with the open file. \returns its result, or -1 when there is none.
template <class Operation>
auto withFile(int fd, Operation operation) -> decltype(operation(*fdMap.get(fd))) {
    auto file = fdMap.get(fd);
    if (!file)
        return -1;
    const auto result = operation(*file);
    release(file);
    return result;
}

} // namespace

class FDMap::Data {
public:
    /// \returns -1 when all numbers are used. With fileMutex held.
    int takeLowestFree() {
        if (freed.empty())
            return next == std::numeric_limits<int>::max() ? -1 : next++;
        const int fd = freed.top();
        freed.pop();
        return fd;
    }

    const int base = static_cast<int>(sysconf(_SC_OPEN_MAX));
    ForkSafeMutex fileMutex; // guards files, freed and next
    ForkSafeMutex dirMutex;  // guards dirs
    QMap<int, QSharedPointer<File>> files;
    QMap<void*, QSharedPointer<Directory>> dirs;
    // The numbers below `next` that are not in `files`, the lowest on top.
    std::priority_queue<int, std::vector<int>, std::greater<int>> freed;
    int next = base; // this number and all after it are free
};

FDMap::FDMap() : m_data(new Data) {}

FDMap::~FDMap() = default;

int FDMap::add(QSharedPointer<File>& file) {
    if (!file || m_data->base == -1)
        return -1;
    const std::lock_guard lock(m_data->fileMutex);
    const int fd = m_data->takeLowestFree();
    if (fd == -1)
        return failWith(EMFILE);
    m_data->files.insert(fd, file);
    return fd;
}

QSharedPointer<File> FDMap::get(int fd) {
    QSharedPointer<File> file;
    {
        const std::lock_guard lock(m_data->fileMutex);
        const auto found = m_data->files.constFind(fd);
        if (found != m_data->files.constEnd())
            file = *found;
    }
    liberrno = file ? Ok : NotFound;
    return file;
}

int FDMap::remove(int fd) {
    QSharedPointer<File> file;
    {
        const std::lock_guard lock(m_data->fileMutex);
        file = m_data->files.take(fd);
        if (file)
            m_data->freed.push(fd);
    }
    liberrno = file ? Ok : NotFound;
    if (!file)
        return -1;
    const int result = file->close();
    release(file);
    return result;
}

void* FDMap::add(QSharedPointer<Directory>& dir) {
    if (!dir)
        return nullptr;
    const std::lock_guard lock(m_data->dirMutex);
    m_data->dirs.insert(dir.data(), dir);
    return dir.data();
}

QSharedPointer<Directory> FDMap::getdir(void* handle) {
    const std::lock_guard lock(m_data->dirMutex);
    return m_data->dirs.value(handle);
}

int FDMap::remove(void* handle) {
    if (!handle)
        return -1;
    const ErrnoSaver saver;
    QSharedPointer<Directory> dir;
    {
        const std::lock_guard lock(m_data->dirMutex);
        dir = m_data->dirs.take(handle);
    }
    dir.clear(); // closes it, unless another thread uses it
    return 0;
}

FDAdapter::FDAdapter(QSharedPointer<FS> fs)
    : m_fs(fs ? std::move(fs) : QSharedPointer<FSSwitch>::create()) {}

FDAdapter::~FDAdapter() = default;

FDAdapter* FDAdapter::rootfs() {
    static std::atomic<FDAdapter*> theRootfsAdapter{nullptr};
    if (FDAdapter* const adapter = theRootfsAdapter.load(std::memory_order_acquire))
        return adapter;
    // Of several threads that get here, one creates it. Never destroyed, as fdMap.
    auto created = std::make_unique<FDAdapter>(FSSwitch::rootfs());
    FDAdapter* adapter = nullptr;
    if (theRootfsAdapter.compare_exchange_strong(adapter, created.get(), std::memory_order_acq_rel))
        adapter = created.release();
    return adapter;
}

int FDAdapter::lstat(const char* path, struct stat* st) {
    return withRecord(path, st,
                      [this](const QString& p, auto& record) { return m_fs->lstat(p, record); });
}

int FDAdapter::stat(const char* path, struct stat* st) {
    return withRecord(path, st,
                      [this](const QString& p, auto& record) { return m_fs->stat(p, record); });
}

int FDAdapter::statfs(const char* path, struct statfs* st) {
    return withRecord(path, st,
                      [this](const QString& p, auto& record) { return m_fs->statfs(p, record); });
}

int FDAdapter::link(const char* oldPath, const char* newPath) {
    return withStrings(oldPath, newPath, [this](const QString& from, const QString& to) {
        return m_fs->link(from, to);
    });
}

int FDAdapter::unlink(const char* path) {
    return withString(path, [this](const QString& p) { return m_fs->unlink(p); });
}

int FDAdapter::mkdir(const char* path, int mode) {
    return withString(path, [=](const QString& p) { return m_fs->mkdir(p, mode); });
}

int FDAdapter::rmdir(const char* path) {
    return withString(path, [this](const QString& p) { return m_fs->rmdir(p); });
}

int FDAdapter::rename(const char* oldPath, const char* newPath) {
    return withStrings(oldPath, newPath, [this](const QString& from, const QString& to) {
        return m_fs->rename(from, to);
    });
}

void FDAdapter::sync() {
    m_fs->sync();
}

int FDAdapter::getxattr(const char* path, const char* name, void* value, unsigned int size) {
    return withStrings(path, name, [=](const QString& p, const QString& n) {
        return m_fs->getxattr(p, n, value, size);
    });
}

int FDAdapter::setxattr(const char* path, const char* name, void* value, unsigned int size,
                        int flags) {
    return withStrings(path, name, [=](const QString& p, const QString& n) {
        return m_fs->setxattr(p, n, value, size, flags);
    });
}

int FDAdapter::removexattr(const char* path, const char* name) {
    return withStrings(
        path, name, [this](const QString& p, const QString& n) { return m_fs->removexattr(p, n); });
}

int FDAdapter::listxattr(const char* path, char* list, unsigned int size) {
    return withString(path, [=](const QString& p) { return m_fs->listxattr(p, list, size); });
}

int FDAdapter::symlink(const char* target, const char* linkPath) {
    return withStrings(target, linkPath, [this](const QString& to, const QString& p) {
        return m_fs->symlink(to, p);
    });
}

int FDAdapter::readlink(const char* path, char* buf, unsigned int size) {
    return withString(path, [=](const QString& p) { return m_fs->readlink(p, buf, size); });
}

int FDAdapter::truncate(const char* path, long long length) {
    return withString(path, [=](const QString& p) { return m_fs->truncate(p, length); });
}

int FDAdapter::chmod(const char* path, int mode) {
    return withString(path, [=](const QString& p) { return m_fs->chmod(p, mode); });
}

void* FDAdapter::opendir(const char* path) {
    QSharedPointer<Directory> dir;
    withString(path, [&](const QString& p) {
        dir = m_fs->opendir(p);
        return 0;
    });
    return fdMap.add(dir);
}

struct dirent* FDAdapter::readdir(void* handle) {
    auto dir = fdMap.getdir(handle);
    if (!dir)
        return nullptr;
    struct dirent* const entry = dir->readdir();
    release(dir);
    return entry;
}

void FDAdapter::rewinddir(void* handle) {
    auto dir = fdMap.getdir(handle);
    if (!dir)
        return;
    dir->rewinddir();
    release(dir);
}

int FDAdapter::closedir(void* handle) {
    return fdMap.remove(handle);
}

int FDAdapter::open(const char* path, int flags, int mode) {
    liberrno = Ok;
    QSharedPointer<File> file;
    withString(path, [&](const QString& p) {
        file = m_fs->open(p, flags, mode);
        return 0;
    });
    const int fd = fdMap.add(file);
    release(file);
    return fd;
}

int FDAdapter::creat(const char* path, int mode) {
    return open(path, O_WRONLY | O_CREAT | O_TRUNC, mode);
}

int FDAdapter::read(int fd, void* buf, unsigned int len) {
    return withFile(fd, [=](File& file) { return file.read(buf, len); });
}

int FDAdapter::write(int fd, const void* buf, unsigned int len) {
    return withFile(fd, [=](File& file) { return file.write(buf, len); });
}

int FDAdapter::pread(int fd, void* buf, unsigned int len, long long offset) {
    return withFile(fd, [=](File& file) { return file.pread(buf, len, offset); });
}

int FDAdapter::pwrite(int fd, const void* buf, unsigned int len, long long offset) {
    return withFile(fd, [=](File& file) { return file.pwrite(buf, len, offset); });
}

long long FDAdapter::lseek(int fd, long long offset, int whence) {
    return withFile(fd, [=](File& file) { return file.lseek(offset, whence); });
}

int FDAdapter::fstat(int fd, struct stat* st) {
    return withFile(fd, [=](File& file) { return st ? file.fstat(*st) : failWith(EFAULT); });
}

int FDAdapter::ftruncate(int fd, long long length) {
    return withFile(fd, [=](File& file) { return file.ftruncate(length); });
}

int FDAdapter::fsync(int fd) {
    return withFile(fd, [](File& file) { return file.fsync(); });
}

int FDAdapter::fdatasync(int fd) {
    return withFile(fd, [](File& file) { return file.fdatasync(); });
}

int FDAdapter::fcntl(int fd, int cmd, ...) {
    va_list args;
    va_start(args, cmd);
    void* argument = va_arg(args, void*);
    va_end(args);
    return withFile(fd, [=](File& file) { return file.fcntl(cmd, argument); });
}

int FDAdapter::flock(int fd, int operation) {
    return withFile(fd, [=](File& file) { return file.flock(operation); });
}

int FDAdapter::fchmod(int fd, int mode) {
    return withFile(fd, [=](File& file) { return file.fchmod(mode); });
}

int FDAdapter::close(int fd) {
    return fdMap.remove(fd);
}

int FDAdapter::ioctl(int fd, const QString& request, QString& response) {
    return withFile(fd, [&](File& file) { return file.ioctl(request, response); });
}

QString FDAdapter::type() {
    return m_fs->type();
}

} // namespace oru::io
