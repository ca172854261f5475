// The descriptor adapter: any FS behind the familiar C interface of paths, integer descriptors and
// directory handles.
#pragma once

#include <oruio/fs.h>

#include <QMap>

#include <functional>
#include <memory>
#include <mutex>
#include <queue>
#include <vector>

namespace oru::io {

/// The table behind all adapters: descriptors to open files, handles to open directories.
///
/// Descriptors begin at the process's limit of system descriptors, as sysconf(_SC_OPEN_MAX) tells
/// it when the table is made, so that they can never be mistaken for the system's own. The lowest
/// free number is handed out, and a number is free again as soon as it is closed. When the limit is
/// unknown (-1), no descriptor can be added.
///
/// Threads: any thread may call any function. A file or directory that was found stays alive until
/// its finder lets it go, also when it is removed meanwhile.
class ORUIO_EXPORT FDMap {
public:
    FDMap();
    ~FDMap();

    /// A new descriptor for `file`. \returns -1 when `file` is null, when the limit was unknown,
    /// and, with errno EMFILE, when the numbers are used up.
    int add(QSharedPointer<File>& file);
    /// The open file, or null. Sets liberrno to 0 or NotFound.
    QSharedPointer<File> get(int fd);

    /// An open file, held for the length of a call.
    using Hold = std::shared_ptr<const QSharedPointer<File>>;
    /// As get(), for those who let go at once: holding costs half of what another QSharedPointer
    /// does, which counts twice.
    Hold hold(int fd);

    /// Forgets the descriptor, then closes its file. \returns the result of File::close(), or -1
    /// when there is no such descriptor. Sets liberrno to 0 or NotFound before it closes.
    int remove(int fd);

    /// The handle for `dir`, which is its address; null for null. Adding it again changes nothing.
    void* add(QSharedPointer<Directory>& dir);
    /// The open directory, or null. Leaves liberrno alone.
    QSharedPointer<Directory> getdir(void* handle);
    /// Forgets the handle; the directory closes when its last holder lets it go. \returns 0, also
    /// for an unknown handle, or -1 for a null one.
    int remove(void* handle);

private:
    Q_DISABLE_COPY(FDMap)

    int lowestFree();

    const int m_base;
    std::mutex m_fileMutex; // guards m_files, m_freed and m_next
    std::mutex m_dirMutex;  // guards m_dirs
    QMap<int, Hold> m_files;
    QMap<void*, QSharedPointer<Directory>> m_dirs;
    // The numbers below m_next that are not in m_files, the lowest on top.
    std::priority_queue<int, std::vector<int>, std::greater<int>> m_freed;
    int m_next; // every number from here on is free
};

/// The operations of an FS with `const char*` paths, integer descriptors and directory handles.
///
/// Each operation does what the POSIX call of its name does, on the FS given to the constructor,
/// and returns its result. All adapters share one process-wide FDMap: a descriptor opened through
/// one adapter can be used and closed through any other.
///
/// A path, name, target or record pointer that is null is refused with -1 (null from opendir) and
/// errno EFAULT; a text that is not valid UTF-8, with errno EILSEQ; one of more than 1 MiB, with
/// errno ENAMETOOLONG; all set liberrno to 0. An unknown descriptor gives -1 with liberrno
/// NotFound, and errno stays as it was.
///
/// Threads: any thread may call any operation, as far as the FS allows it.
class ORUIO_EXPORT FDAdapter {
public:
    using SPtr = QSharedPointer<FDAdapter>;

    /// Serves `fs`; for a null one, an empty FSSwitch, where nothing is found.
    explicit FDAdapter(QSharedPointer<FS> fs);

    /// lstat(2).
    virtual int lstat(const char* path, struct stat* st);
    /// stat(2).
    virtual int stat(const char* path, struct stat* st);
    /// statfs(2).
    virtual int statfs(const char* path, struct statfs* st);
    /// link(2).
    virtual int link(const char* oldPath, const char* newPath);
    /// unlink(2).
    virtual int unlink(const char* path);
    /// mkdir(2).
    virtual int mkdir(const char* path, int mode);
    /// rmdir(2).
    virtual int rmdir(const char* path);
    /// rename(2).
    virtual int rename(const char* oldPath, const char* newPath);
    /// sync(2).
    virtual void sync();
    /// getxattr(2).
    virtual int getxattr(const char* path, const char* name, void* value, unsigned int size);
    /// setxattr(2).
    virtual int setxattr(const char* path, const char* name, void* value, unsigned int size,
                         int flags);
    /// removexattr(2).
    virtual int removexattr(const char* path, const char* name);
    /// listxattr(2).
    virtual int listxattr(const char* path, char* list, unsigned int size);
    /// symlink(2).
    virtual int symlink(const char* target, const char* linkPath);
    /// readlink(2).
    virtual int readlink(const char* path, char* buf, unsigned int size);
    /// truncate(2).
    virtual int truncate(const char* path, long long length);
    /// chmod(2).
    virtual int chmod(const char* path, int mode);
    /// opendir(3). \returns a handle for readdir(), or null when the FS gave no directory. Over
    /// the local backend a directory that cannot be opened gives a handle with no entries, and
    /// errno tells why.
    virtual void* opendir(const char* path);
    /// readdir(3). \returns null at the end, on failure, and for an unknown handle.
    virtual struct dirent* readdir(void* handle);
    /// rewinddir(3). Does nothing for an unknown handle.
    virtual void rewinddir(void* handle);
    /// closedir(3). \returns 0, also for an unknown handle; -1 for a null one.
    virtual int closedir(void* handle);
    /// open(2). \returns the lowest free descriptor of the table, or -1.
    virtual int open(const char* path, int flags, int mode);
    /// creat(2): open() for writing, created or cut to nothing.
    virtual int creat(const char* path, int mode);
    /// read(2).
    virtual int read(int fd, void* buf, unsigned int len);
    /// write(2).
    virtual int write(int fd, const void* buf, unsigned int len);
    /// pread(2).
    virtual int pread(int fd, void* buf, unsigned int len, long long offset);
    /// pwrite(2).
    virtual int pwrite(int fd, const void* buf, unsigned int len, long long offset);
    /// lseek(2).
    virtual long long lseek(int fd, long long offset, int whence);
    /// fstat(2).
    virtual int fstat(int fd, struct stat* st);
    /// ftruncate(2).
    virtual int ftruncate(int fd, long long length);
    /// fsync(2).
    virtual int fsync(int fd);
    /// fdatasync(2).
    virtual int fdatasync(int fd);
    /// fcntl(2) with exactly one further argument of one machine word: an integer or a pointer.
    virtual int fcntl(int fd, int cmd, ...);
    /// flock(2).
    virtual int flock(int fd, int operation);
    /// fchmod(2).
    virtual int fchmod(int fd, int mode);
    /// close(2).
    virtual int close(int fd);
    /// File::ioctl() of the open file.
    virtual int ioctl(int fd, const QString& request, QString& response);
    /// The type name of the FS.
    virtual QString type();

    virtual ~FDAdapter();

    /// The adapter over FSSwitch::rootfs() as it was at the first call of this function. It lives
    /// until the library is unloaded; any thread may call this.
    static FDAdapter* rootfs();

private:
    Q_DISABLE_COPY(FDAdapter)
    const QSharedPointer<FS> m_fs;
};

} // namespace oru::io
