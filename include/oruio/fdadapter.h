// SPDX-License-Identifier: Apache-2.0
/// \file
/// The descriptor adapter: access to any FS with `const char*` paths, integer descriptors and
/// directory handles.
///
/// \code
/// FDAdapter* io = FDAdapter::rootfs();
/// const int fd = io->open("/media/card/clip.mov", O_WRONLY | O_CREAT | O_EXCL, 0644);
/// if (fd == -1 || io->write(fd, "frame", 5) != 5 || io->close(fd) != 0)
///     fprintf(stderr, "cannot record: %s\n", oru::io::strerror());
/// \endcode
#pragma once

#include <oruio/fs.h>

#include <memory>

namespace oru::io {

/// A table of open files by descriptor and of open directories by handle.
///
/// All adapters share one table, which is made when the library is loaded. Numbering:
///
/// - The first descriptor is the process's limit of system descriptors when the table is made:
///   sysconf(_SC_OPEN_MAX). So no descriptor of the table equals a descriptor of the system.
/// - If the process raises the limit later (setrlimit(2)), the two ranges overlap.
/// - add() assigns the lowest free number. A number is free again as soon as it is removed.
/// - When the limit is unknown (-1), no descriptor can be added.
///
/// Threads: any thread may call any function. A file or directory that get() or getdir() returned
/// stays alive until the caller releases it, even if it is removed from the table in between.
class ORUIO_EXPORT FDMap {
public:
    FDMap();
    ~FDMap();

    /// Adds `file` under a new descriptor.
    ///
    /// \returns the descriptor, or -1:
    /// - errno EMFILE: no number is free;
    /// - `file` is null, or the limit was unknown: errno and liberrno stay unchanged.
    int add(QSharedPointer<File>& file);
    /// Returns the open file and sets liberrno to Ok. For an unknown descriptor, returns null and
    /// sets liberrno to NotFound.
    QSharedPointer<File> get(int fd);

    /// Removes the descriptor, then closes its file.
    ///
    /// \returns the result of File::close(), before which liberrno is set to Ok; -1 with liberrno
    /// NotFound for an unknown descriptor.
    int remove(int fd);

    /// Adds `dir`. Adding the same directory again has no effect.
    ///
    /// \returns the handle, which is the address of the directory; null if `dir` is null.
    void* add(QSharedPointer<Directory>& dir);
    /// Returns the open directory, or null for an unknown handle. Does not change errno and
    /// liberrno.
    QSharedPointer<Directory> getdir(void* handle);
    /// Removes the handle. The directory closes when the last reference to it is released.
    ///
    /// \returns 0, also for an unknown handle; -1 for null.
    int remove(void* handle);

private:
    Q_DISABLE_COPY(FDMap)
    class ORUIO_LOCAL Data;

    const std::unique_ptr<Data> m_data;
};

/// The operations of an FS with `const char*` paths, integer descriptors and directory handles.
///
/// Each operation calls the operation of the same name and returns its result:
///
/// - with a path: on the FS given to the constructor;
/// - with a descriptor or a handle: on the open File or Directory.
///
/// All adapters of the process share one FDMap: a descriptor opened through one adapter can be used
/// and closed through another.
///
/// The adapter itself refuses an operation, with -1 or a null handle, in these cases:
///
/// - errno EFAULT: a path, name, target or record pointer is null.
/// - errno EILSEQ: a string is not valid UTF-8.
/// - errno ENAMETOOLONG: a string is longer than 1 MiB.
/// - liberrno NotFound: the descriptor is unknown. errno stays unchanged.
///
/// With EFAULT, EILSEQ and ENAMETOOLONG, liberrno is set to Ok.
///
/// Threads: any thread may call any operation, as far as the FS allows it.
class ORUIO_EXPORT FDAdapter {
public:
    using SPtr = QSharedPointer<FDAdapter>;

    /// Makes an adapter for `fs`. With null, for a new empty FSSwitch: operations on paths then
    /// fail with liberrno NotFound.
    explicit FDAdapter(QSharedPointer<FS> fs);

    /// Gets the status of a file or symbolic link, as lstat(2).
    virtual int lstat(const char* path, struct stat* st);
    /// Gets the status of a file, as stat(2).
    virtual int stat(const char* path, struct stat* st);
    /// Gets the status of a file system, as statfs(2).
    virtual int statfs(const char* path, struct statfs* st);
    /// Makes a hard link, as link(2).
    virtual int link(const char* oldPath, const char* newPath);
    /// Removes a file, as unlink(2).
    virtual int unlink(const char* path);
    /// Makes a directory, as mkdir(2).
    virtual int mkdir(const char* path, int mode);
    /// Removes an empty directory, as rmdir(2).
    virtual int rmdir(const char* path);
    /// Renames a file, as rename(2). FSSwitch::rename() documents what happens across mounts.
    virtual int rename(const char* oldPath, const char* newPath);
    /// Writes everything to the medium, as sync(2).
    virtual void sync();
    /// Gets an extended attribute, as getxattr(2).
    virtual int getxattr(const char* path, const char* name, void* value, unsigned int size);
    /// Sets an extended attribute, as setxattr(2).
    virtual int setxattr(const char* path, const char* name, void* value, unsigned int size,
                         int flags);
    /// Removes an extended attribute, as removexattr(2).
    virtual int removexattr(const char* path, const char* name);
    /// Lists the names of the extended attributes, as listxattr(2).
    virtual int listxattr(const char* path, char* list, unsigned int size);
    /// Makes a symbolic link, as symlink(2).
    virtual int symlink(const char* target, const char* linkPath);
    /// Reads the target of a symbolic link, as readlink(2). FS::readlink() documents how the
    /// backends differ.
    virtual int readlink(const char* path, char* buf, unsigned int size);
    /// Cuts or extends a file, as truncate(2).
    virtual int truncate(const char* path, long long length);
    /// Changes the mode of a file, as chmod(2).
    virtual int chmod(const char* path, int mode);
    /// Opens a directory, as opendir(3).
    ///
    /// \returns a handle for readdir(), or null when the FS returned no directory. When the system
    /// refuses to open a directory of a PosixFS, the handle is not null: the directory has no
    /// entries, and errno holds the reason.
    virtual void* opendir(const char* path);
    /// Returns the next entry, as readdir(3).
    ///
    /// \returns null at the end, on failure, and for an unknown handle. Directory::readdir()
    /// documents errno; for an unknown handle it stays unchanged.
    virtual struct dirent* readdir(void* handle);
    /// Starts again from the first entry, as rewinddir(3). Does nothing for an unknown handle.
    virtual void rewinddir(void* handle);
    /// Closes a directory, as closedir(3).
    ///
    /// \returns 0, also for an unknown handle and when Directory::closedir() fails; -1 for null.
    virtual int closedir(void* handle);
    /// Opens a file, as open(2). Sets liberrno to Ok first.
    ///
    /// \returns the lowest free descriptor of the table (FDMap), or -1.
    virtual int open(const char* path, int flags, int mode);
    /// Creates a file, as creat(2): open() with O_WRONLY | O_CREAT | O_TRUNC.
    virtual int creat(const char* path, int mode);
    /// Reads at the file position, as read(2).
    virtual int read(int fd, void* buf, unsigned int len);
    /// Writes at the file position, as write(2).
    virtual int write(int fd, const void* buf, unsigned int len);
    /// Reads at `offset`, as pread(2).
    virtual int pread(int fd, void* buf, unsigned int len, long long offset);
    /// Writes at `offset`, as pwrite(2).
    virtual int pwrite(int fd, const void* buf, unsigned int len, long long offset);
    /// Moves the file position, as lseek(2).
    virtual long long lseek(int fd, long long offset, int whence);
    /// Gets the status of an open file, as fstat(2).
    virtual int fstat(int fd, struct stat* st);
    /// Cuts or extends an open file, as ftruncate(2).
    virtual int ftruncate(int fd, long long length);
    /// Writes data and metadata of an open file to the medium, as fsync(2).
    virtual int fsync(int fd);
    /// Writes the data of an open file to the medium, as fdatasync(2).
    virtual int fdatasync(int fd);
    /// Controls an open file, as fcntl(2). Takes exactly one argument after `cmd`: an integer or a
    /// pointer of the size of a machine word.
    virtual int fcntl(int fd, int cmd, ...);
    /// Locks an open file, as flock(2).
    virtual int flock(int fd, int operation);
    /// Changes the mode of an open file, as fchmod(2).
    virtual int fchmod(int fd, int mode);
    /// Closes a descriptor, as close(2).
    virtual int close(int fd);
    /// Calls File::ioctl() of the open file.
    virtual int ioctl(int fd, const QString& request, QString& response);
    /// Returns the type() of the FS.
    virtual QString type();

    virtual ~FDAdapter();

    /// Returns the process-wide adapter. The first call creates it, for the switch that
    /// FSSwitch::rootfs() returns then. A later FSSwitch::setRootfs() does not change the adapter.
    ///
    /// The adapter lives until the process ends: destructors of static objects and detached threads
    /// may use it. FSSwitch::rootfs() documents when its mounts are removed at exit. Any thread may
    /// call this function.
    static FDAdapter* rootfs();

private:
    Q_DISABLE_COPY(FDAdapter)
    const QSharedPointer<FS> m_fs;
};

} // namespace oru::io
