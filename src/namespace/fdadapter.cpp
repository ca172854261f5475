#include <oruio/error.h>
#include <oruio/fdadapter.h>
#include <oruio/fsswitch.h>

#include "core/errnosaver_p.h"
#include "core/failwith_p.h"
#include "core/systemtext_p.h"

#include <QMutex>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <limits>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace oru::io {

namespace {

/// The number of open files that the device is designed for. It is not a limit.
[[maybe_unused]] constexpr int MAX_FDS = 4096;

FDMap fdMap;

/// Calls `operation` with `path` as a QString. \returns its result, or -1 with errno when `path`
/// cannot be converted.
template <class Operation>
int withString(const char* path, Operation operation) {
    QString string;
    return fromSystem(path, string) ? operation(std::move(string)) : failWith(errno);
}

/// The same with two strings.
template <class Operation>
int withStrings(const char* first, const char* second, Operation operation) {
    return withString(first, [&](QString&& firstString) {
        return withString(second, [&](QString&& secondString) {
            return operation(std::move(firstString), std::move(secondString));
        });
    });
}

/// The same with an operation that fills `*record`.
template <class Record, class Operation>
int withRecord(const char* path, Record* record, Operation operation) {
    if (!record)
        return failWith(EFAULT);
    return withString(path,
                      [&](QString&& string) { return operation(std::move(string), *record); });
}

/// Calls `operation` with the open file. \returns its result, or -1 when there is none.
template <class Operation>
auto withFile(int fd, Operation operation) -> decltype(operation(**fdMap.hold(fd))) {
    auto file = fdMap.hold(fd);
    if (!file)
        return -1;
    const auto result = operation(**file);
    release(file);
    return result;
}

} // namespace

FDMap::FDMap() : m_base(static_cast<int>(sysconf(_SC_OPEN_MAX))), m_next(m_base) {}

FDMap::~FDMap() = default;

int FDMap::lowestFree() {
    if (m_freed.empty())
        return m_next == std::numeric_limits<int>::max() ? -1 : m_next++;
    const int fd = m_freed.top();
    m_freed.pop();
    return fd;
}

int FDMap::add(QSharedPointer<File>& file) {
    if (!file || m_base == -1)
        return -1;
    const auto held = std::make_shared<const QSharedPointer<File>>(file);
    const std::lock_guard lock(m_fileMutex);
    const int fd = lowestFree();
    if (fd == -1) {
        return failWith(EMFILE);
    }
    m_files.insert(fd, held);
    return fd;
}

QSharedPointer<File> FDMap::get(int fd) {
    const Hold file = hold(fd);
    return file ? *file : nullptr;
}

FDMap::Hold FDMap::hold(int fd) {
    Hold file;
    {
        const std::lock_guard lock(m_fileMutex);
        const auto found = m_files.constFind(fd);
        if (found != m_files.constEnd())
            file = *found;
    }
    liberrno = file ? Ok : NotFound;
    return file;
}

int FDMap::remove(int fd) {
    Hold file;
    {
        const std::lock_guard lock(m_fileMutex);
        file = m_files.take(fd);
        if (file)
            m_freed.push(fd);
    }
    liberrno = file ? Ok : NotFound;
    if (!file)
        return -1;
    const int result = (*file)->close();
    release(file);
    return result;
}

void* FDMap::add(QSharedPointer<Directory>& dir) {
    if (!dir)
        return nullptr;
    const std::lock_guard lock(m_dirMutex);
    m_dirs.insert(dir.data(), dir);
    return dir.data();
}

QSharedPointer<Directory> FDMap::getdir(void* handle) {
    const std::lock_guard lock(m_dirMutex);
    return m_dirs.value(handle);
}

int FDMap::remove(void* handle) {
    if (!handle)
        return -1;
    // Declared before the lock, so that the directory is closed after it.
    QSharedPointer<Directory> dir;
    const std::lock_guard lock(m_dirMutex);
    dir = m_dirs.take(handle);
    return 0;
}

FDAdapter::FDAdapter(QSharedPointer<FS> fs)
    : m_fs(fs ? std::move(fs) : QSharedPointer<FSSwitch>::create()) {}

FDAdapter::~FDAdapter() = default;

FDAdapter* FDAdapter::rootfs() {
    static QMutex initMutex;
    static QSharedPointer<FDAdapter> theRootfsAdapter;
    static std::atomic<FDAdapter*> created{nullptr};

    FDAdapter* adapter = created.load(std::memory_order_acquire);
    if (adapter)
        return adapter;
    const QMutexLocker lock(&initMutex);
    if (!theRootfsAdapter) {
        theRootfsAdapter = SPtr::create(FSSwitch::rootfs());
        created.store(theRootfsAdapter.data(), std::memory_order_release);
    }
    return theRootfsAdapter.data();
}

int FDAdapter::lstat(const char* path, struct stat* st) {
    return withRecord(
        path, st, [this](QString&& p, auto& record) { return m_fs->lstat(std::move(p), record); });
}

int FDAdapter::stat(const char* path, struct stat* st) {
    return withRecord(
        path, st, [this](QString&& p, auto& record) { return m_fs->stat(std::move(p), record); });
}

int FDAdapter::statfs(const char* path, struct statfs* st) {
    return withRecord(
        path, st, [this](QString&& p, auto& record) { return m_fs->statfs(std::move(p), record); });
}

int FDAdapter::link(const char* oldPath, const char* newPath) {
    return withStrings(oldPath, newPath, [this](QString&& from, QString&& to) {
        return m_fs->link(std::move(from), std::move(to));
    });
}

int FDAdapter::unlink(const char* path) {
    return withString(path, [this](QString&& p) { return m_fs->unlink(std::move(p)); });
}

int FDAdapter::mkdir(const char* path, int mode) {
    return withString(path, [=](QString&& p) { return m_fs->mkdir(std::move(p), mode); });
}

int FDAdapter::rmdir(const char* path) {
    return withString(path, [this](QString&& p) { return m_fs->rmdir(std::move(p)); });
}

int FDAdapter::rename(const char* oldPath, const char* newPath) {
    return withStrings(oldPath, newPath, [this](QString&& from, QString&& to) {
        return m_fs->rename(std::move(from), std::move(to));
    });
}

void FDAdapter::sync() {
    m_fs->sync();
}

int FDAdapter::getxattr(const char* path, const char* name, void* value, unsigned int size) {
    return withStrings(path, name, [=](QString&& p, QString&& n) {
        return m_fs->getxattr(std::move(p), std::move(n), value, size);
    });
}

int FDAdapter::setxattr(const char* path, const char* name, void* value, unsigned int size,
                        int flags) {
    return withStrings(path, name, [=](QString&& p, QString&& n) {
        return m_fs->setxattr(std::move(p), std::move(n), value, size, flags);
    });
}

int FDAdapter::removexattr(const char* path, const char* name) {
    return withStrings(path, name, [this](QString&& p, QString&& n) {
        return m_fs->removexattr(std::move(p), std::move(n));
    });
}

int FDAdapter::listxattr(const char* path, char* list, unsigned int size) {
    return withString(path, [=](QString&& p) { return m_fs->listxattr(std::move(p), list, size); });
}

int FDAdapter::symlink(const char* target, const char* linkPath) {
    return withStrings(target, linkPath, [this](QString&& to, QString&& p) {
        return m_fs->symlink(std::move(to), std::move(p));
    });
}

int FDAdapter::readlink(const char* path, char* buf, unsigned int size) {
    return withString(path, [=](QString&& p) { return m_fs->readlink(std::move(p), buf, size); });
}

int FDAdapter::truncate(const char* path, long long length) {
    return withString(path, [=](QString&& p) { return m_fs->truncate(std::move(p), length); });
}

int FDAdapter::chmod(const char* path, int mode) {
    return withString(path, [=](QString&& p) { return m_fs->chmod(std::move(p), mode); });
}

void* FDAdapter::opendir(const char* path) {
    QSharedPointer<Directory> dir;
    withString(path, [&](QString&& p) {
        dir = m_fs->opendir(std::move(p));
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
    if (const auto dir = fdMap.getdir(handle))
        dir->rewinddir();
}

int FDAdapter::closedir(void* handle) {
    return fdMap.remove(handle);
}

int FDAdapter::open(const char* path, int flags, int mode) {
    liberrno = Ok;
    QSharedPointer<File> file;
    withString(path, [&](QString&& p) {
        file = m_fs->open(std::move(p), flags, mode);
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
