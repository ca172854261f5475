// SPDX-License-Identifier: Apache-2.0
/// \file
/// The file-system interface: FS, File and Directory, which every storage backend implements.
///
/// Each operation mirrors the POSIX call that its comment names. Unless an operation or a backend
/// documents otherwise:
///
/// - Result: that of the POSIX call: 0 or a count on success, -1 or null on failure.
/// - Reason of a failure: errno holds it when the system or the server refused, liberrno when the
///   library refused (oruio/error.h).
/// - Blocking: the call returns when the storage has answered.
/// - Units: sizes and offsets are in bytes.
/// - Modes and flags: those of `<fcntl.h>` and `<sys/stat.h>` on the platform.
/// - Paths: passed to the system as UTF-8. An operation on a path that contains a NUL fails with
///   errno EINVAL. An operation on a path that is not valid UTF-16 fails with errno EILSEQ.
/// - Output parameters: their content is unspecified after a failure.
/// - "Not implemented": the operation returns -1 with liberrno NotImplemented. errno stays
///   unchanged.
/// - Threads: FS, File and Directory hold no lock themselves. Each backend documents whether
///   threads may share one object. errno and liberrno are per thread.
/// - Cancelled threads (pthread_cancel(3)): only the default type, deferred, is supported. The
///   destructors of the library and of its caller run. Two kinds of calls are cancelled at once:
///   those of the local backend, except close() and closedir(), and those of an application's own
///   FS. All other operations are completed first.
/// - Exceptions: the library throws none. An exception that leaves an application's own FS, File or
///   Directory ends the process.
/// - fork(2): in the child, local files, mount tables and descriptors work. Connections to servers
///   and to other processes belong to the parent: the child cannot use them.
#pragma once

#include <oruio/export.h>

#include <QByteArray>
#include <QSharedPointer>
#include <QString>
#include <QVector>

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/vfs.h>

static_assert(sizeof(off_t) == 8 && sizeof(ino_t) == 8,
              "liboruio uses the large-file records: compile with -D_FILE_OFFSET_BITS=64, as its "
              "pkg-config file and its CMake package do");
static_assert(sizeof(time_t) == sizeof(long),
              "liboruio uses the records with the system's own times: compile without "
              "-D_TIME_BITS=64");

namespace oru::io {

/// An open file. It is closed when the last reference to it is released.
class ORUIO_EXPORT File {
public:
    using SPtr = QSharedPointer<File>;

    /// `type` is the name that type() returns.
    explicit File(const QString& type);

    /// Reads up to `len` bytes at the file position and advances it, as read(2).
    ///
    /// \returns the number of bytes read, 0 at the end of the file, or -1.
    virtual int read(void* buf, unsigned int len) = 0;
    /// Writes up to `len` bytes at the file position and advances it, as write(2).
    ///
    /// \returns the number of bytes written, or -1.
    virtual int write(const void* buf, unsigned int len) = 0;
    /// Reads up to `len` bytes at `offset`, as pread(2). The file position stays.
    ///
    /// \returns the number of bytes read, 0 at the end of the file, or -1.
    virtual int pread(void* buf, unsigned int len, long long offset) = 0;
    /// Writes up to `len` bytes at `offset`, as pwrite(2). The file position stays.
    ///
    /// \returns the number of bytes written, or -1.
    virtual int pwrite(const void* buf, unsigned int len, long long offset) = 0;
    /// Moves the file position, as lseek(2). `whence` is SEEK_SET, SEEK_CUR or SEEK_END.
    ///
    /// \returns the new position, or -1.
    virtual long long lseek(long long offset, int whence) = 0;
    /// Gets the status of the file, as fstat(2).
    virtual int fstat(struct stat& st) = 0;
    /// Cuts or extends the file to `length` bytes, as ftruncate(2).
    virtual int ftruncate(long long length) = 0;
    /// Writes data and metadata to the medium, as fsync(2). Returns when the medium has them.
    virtual int fsync() = 0;
    /// Writes the data to the medium, and only that metadata that is needed to read the data, as
    /// fdatasync(2).
    virtual int fdatasync() = 0;
    /// Controls the open file, as fcntl(2).
    ///
    /// Takes exactly one argument after `cmd`: an integer or a pointer of the size of a machine
    /// word.
    virtual int fcntl(int cmd, ...) = 0;
    /// Locks the file, as flock(2). `operation` is LOCK_SH, LOCK_EX or LOCK_UN, optionally with
    /// LOCK_NB.
    virtual int flock(int operation) = 0;
    /// Changes the mode of the file, as fchmod(2).
    virtual int fchmod(int mode) = 0;
    /// Closes the file, as close(2).
    ///
    /// The file is closed even if the result is -1. A second call closes nothing. It returns 0, or
    /// -1 with errno EBADF for a file of an IPCFS.
    virtual int close() = 0;
    /// Sends a request string that only the backend defines, and stores its answer in `response`.
    ///
    /// No backend of the library implements it: -1 with liberrno NotImplemented.
    virtual int ioctl(QString request, QString& response) = 0;

    /// Reads the file with one read(). It requests the size that fstat() reports, but at most
    /// `maxSize` bytes.
    ///
    /// It reads from the file position, so seek to the start of the file first. If read() returns
    /// fewer bytes than requested, the result is empty.
    ///
    /// \returns the bytes. An empty array for an empty file, for a `maxSize` of 0, and on failure:
    /// - fstat() or read() failed: the reason is in errno or liberrno;
    /// - read() returned fewer bytes than requested: errno and liberrno hold no reason;
    /// - errno EFBIG: more bytes than a QByteArray can hold (2 GiB);
    /// - errno ENOMEM: not enough memory.
    ///
    /// To distinguish a failure from an empty file, set errno to 0 and liberrno to Ok before the
    /// call.
    virtual QByteArray readAll(unsigned int maxSize);

    /// Returns the kind of file: "PosixFile", "Smb2File", "IPCFile", or what a derived class passed
    /// to the constructor. The reference is valid as long as the file exists.
    virtual const QString& type();

    virtual ~File();

private:
    Q_DISABLE_COPY(File)
    const QString m_type;
};

/// An open directory stream. It is closed when the last reference to it is released.
class ORUIO_EXPORT Directory {
public:
    using SPtr = QSharedPointer<Directory>;

    /// `type` is the name that type() returns.
    explicit Directory(QString type);

    /// Returns the next entry, as readdir(3). It is valid until the next call on this directory.
    ///
    /// \returns null at the end and on failure. At the end errno depends on the backend:
    /// - local: unchanged;
    /// - share: ENOENT;
    /// - IPC: -1. After a failure of the server's file system it is -1, too.
    virtual struct dirent* readdir() = 0;
    /// Starts again from the first entry, as rewinddir(3).
    virtual int rewinddir() = 0;
    /// Closes the directory, as closedir(3). readdir() returns null afterwards.
    virtual int closedir() = 0;
    /// Sends a request string that only the backend defines, and stores its answer in `response`.
    ///
    /// No backend of the library implements it: -1 with liberrno NotImplemented.
    virtual int ioctl(QString request, QString& response) = 0;
    /// Returns the kind of directory: "PosixDirectory", "Smb2Directory", "IPCDirectory", or what a
    /// derived class passed to the constructor.
    virtual QString type();

    virtual ~Directory();

private:
    Q_DISABLE_COPY(Directory)
    const QString m_type;
};

/// A file system addressed by path strings.
class ORUIO_EXPORT FS {
public:
    using SPtr = QSharedPointer<FS>;

    /// `type` is the name that type() returns.
    explicit FS(QString type);

    /// Requests notification of changes below `path`.
    ///
    /// No backend of the library implements it: -1 with liberrno NotImplemented.
    virtual int addWatch(QString path) = 0;
    /// Cancels addWatch().
    ///
    /// No backend of the library implements it: -1 with liberrno NotImplemented.
    virtual int remWatch(QString path) = 0;
    /// Opens a file, as open(2). `mode` is used only when `flags` create the file.
    ///
    /// \returns the open file, or null.
    virtual QSharedPointer<File> open(QString path, int flags, int mode) = 0;
    /// Opens a directory, as opendir(3).
    ///
    /// \returns the open directory. On failure, null or a directory that is not open: each backend
    /// documents which of them.
    virtual QSharedPointer<Directory> opendir(QString path) = 0;
    /// Gets the status of a file, as lstat(2). Does not follow a symbolic link.
    virtual int lstat(QString path, struct stat& st) = 0;
    /// Gets the status of a file, as stat(2).
    virtual int stat(QString path, struct stat& st) = 0;
    /// Gets the status of the file system, as statfs(2).
    virtual int statfs(QString path, struct statfs& st) = 0;
    /// Makes a hard link, as link(2).
    virtual int link(QString oldPath, QString newPath) = 0;
    /// Removes a file, as unlink(2).
    virtual int unlink(QString path) = 0;
    /// Makes a directory, as mkdir(2).
    virtual int mkdir(QString path, int mode) = 0;
    /// Removes an empty directory, as rmdir(2).
    virtual int rmdir(QString path) = 0;
    /// Renames a file or directory, as rename(2).
    ///
    /// To make the new name survive a power cut, call fsync() on the file under its new name, then
    /// on its directory. Until then a FAT file system may hold an empty file under the new name.
    virtual int rename(QString oldPath, QString newPath) = 0;
    /// Writes everything to the medium, as sync(2).
    virtual void sync() = 0;
    /// Gets an extended attribute, as getxattr(2).
    ///
    /// \returns the size of the value, or -1. If `size` is 0, nothing is stored.
    virtual int getxattr(QString path, QString name, void* value, unsigned int size) = 0;
    /// Sets an extended attribute, as setxattr(2).
    virtual int setxattr(QString path, QString name, void* value, unsigned int size, int flags) = 0;
    /// Removes an extended attribute, as removexattr(2).
    virtual int removexattr(QString path, QString name) = 0;
    /// Lists the names of the extended attributes, as listxattr(2), and appends them to `names`.
    ///
    /// PosixFS appends empty strings after the names.
    ///
    /// \returns the size in bytes that the list of the `char*` form has, or -1.
    virtual int listxattr(QString path, QVector<QString>& names) = 0;
    /// Stores the names of the extended attributes in `list`, as listxattr(2). Each name ends with
    /// a NUL.
    ///
    /// \returns the size of the list in bytes, or -1. If `size` is 0, nothing is stored.
    virtual int listxattr(QString path, char* list, unsigned int size) = 0;
    /// Makes a symbolic link, as symlink(2). `target` is stored unchanged.
    virtual int symlink(QString target, QString linkPath) = 0;
    /// Reads the target of a symbolic link into `target`, as readlink(2).
    ///
    /// \returns the length of the target in bytes, or -1. Smb2FS and IPCFS return 0 instead of the
    /// length.
    virtual int readlink(QString path, QString& target) = 0;
    /// Reads up to `size` bytes of the target of a symbolic link into `buf`, as readlink(2).
    ///
    /// Adds no terminating NUL. Smb2FS and IPCFS fill the rest of `buf` with NULs.
    ///
    /// \returns the number of bytes read, or -1. Smb2FS and IPCFS return 0 instead of the number.
    virtual int readlink(QString path, char* buf, unsigned int size) = 0;
    /// Cuts or extends a file to `length` bytes, as truncate(2).
    virtual int truncate(QString path, long long length) = 0;
    /// Changes the mode of a file, as chmod(2).
    virtual int chmod(QString path, int mode) = 0;
    /// Sends a request string that only the backend defines, and stores its answer in `response`.
    ///
    /// No backend of the library implements it: -1 with liberrno NotImplemented.
    virtual int ioctl(QString request, QString& response) = 0;
    /// Returns the kind of file system: "PosixFS", "NFS", "Smb2FS", "IPCFS", "FSSwitchFS" (an
    /// FSSwitch), or what a derived class passed to the constructor.
    virtual QString type();

    virtual ~FS();

private:
    Q_DISABLE_COPY(FS)
    const QString m_type;
};

} // namespace oru::io
