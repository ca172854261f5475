// The file-system interface: FS, File and Directory, which every storage backend implements.
//
// The operations are the POSIX calls of the same name. Unless a function says otherwise:
//
//  - it returns what the call returns: 0 or a count on success, -1 or null on failure, with the
//    reason in errno (the system or the server refused) or in liberrno (the library refused);
//  - it blocks until the storage has answered;
//  - sizes and offsets are in bytes, modes and flags are those of the platform's <fcntl.h> and
//    <sys/stat.h>;
//  - paths are UTF-8 on their way to the system. A path that cannot cross to it fails with errno
//    EINVAL (it contains a NUL) or EILSEQ (it is not valid UTF-16);
//  - what it would have written through a reference or pointer is unspecified when it fails.
//
// The interface holds no locks. Whether one object may be used from several threads at once is
// each backend's matter, and said there. liberrno and errno are per thread.
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

/// An open file. Closes itself when its last holder lets it go.
class ORUIO_EXPORT File {
public:
    using SPtr = QSharedPointer<File>;

    /// `type` is what type() answers.
    explicit File(const QString& type);

    /// read(2): up to `len` bytes at the file position, which moves. \returns the count, 0 at the
    /// end of the file, or -1.
    virtual int read(void* buf, unsigned int len) = 0;
    /// write(2): up to `len` bytes at the file position, which moves. \returns the count or -1.
    virtual int write(const void* buf, unsigned int len) = 0;
    /// pread(2): as read(), at `offset`; the file position stays.
    virtual int pread(void* buf, unsigned int len, long long offset) = 0;
    /// pwrite(2): as write(), at `offset`; the file position stays.
    virtual int pwrite(const void* buf, unsigned int len, long long offset) = 0;
    /// lseek(2). `whence` is SEEK_SET, SEEK_CUR or SEEK_END. \returns the new position or -1.
    virtual long long lseek(long long offset, int whence) = 0;
    /// fstat(2).
    virtual int fstat(struct stat& st) = 0;
    /// ftruncate(2): cuts or extends the file to `length` bytes.
    virtual int ftruncate(long long length) = 0;
    /// fsync(2): returns when data and metadata are on the medium.
    virtual int fsync() = 0;
    /// fdatasync(2): as fsync(), without metadata that reading the data does not need.
    virtual int fdatasync() = 0;
    /// fcntl(2) with exactly one further argument of one machine word: an integer or a pointer.
    virtual int fcntl(int cmd, ...) = 0;
    /// flock(2): LOCK_SH, LOCK_EX or LOCK_UN, optionally with LOCK_NB.
    virtual int flock(int operation) = 0;
    /// fchmod(2).
    virtual int fchmod(int mode) = 0;
    /// close(2). Closing again is harmless. The file is closed also when -1 is returned.
    virtual int close() = 0;
    /// A backend's own text request and its text answer.
    virtual int ioctl(QString request, QString& response) = 0;

    /// The bytes from the file position on, at most `maxSize` and at most the size that fstat()
    /// tells.
    ///
    /// Makes a single read(): a read that fails or comes back short gives an empty array. So do
    /// more bytes than an array holds (2 GiB, errno EFBIG) or than memory has (errno ENOMEM). An
    /// empty file and a failure look alike; only errno and liberrno tell them apart.
    virtual QByteArray readAll(unsigned int maxSize);

    /// What kind of file it is: "PosixFile", "Smb2File" or "IPCFile", or what another class gives
    /// the constructor. The reference lives as long as the file.
    virtual const QString& type();

    virtual ~File();

private:
    Q_DISABLE_COPY(File)
    const QString m_type;
};

/// An open directory stream. Closes itself when its last holder lets it go.
class ORUIO_EXPORT Directory {
public:
    using SPtr = QSharedPointer<Directory>;

    /// `type` is what type() answers.
    explicit Directory(QString type);

    /// readdir(3). \returns the next entry, valid until the next call on this directory, or null
    /// at the end and on failure. At the end errno stays as it was over the local backend, is
    /// ENOENT on a share, and -1 over IPC, where it is the same after a failure of the server's
    /// file system.
    virtual struct dirent* readdir() = 0;
    /// rewinddir(3): the next readdir() starts from the beginning.
    virtual int rewinddir() = 0;
    /// closedir(3). Afterwards readdir() answers null.
    virtual int closedir() = 0;
    /// A backend's own text request and its text answer.
    virtual int ioctl(QString request, QString& response) = 0;
    /// What kind of directory it is: "PosixDirectory", "Smb2Directory" or "IPCDirectory", or what
    /// another class gives the constructor.
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

    /// `type` is what type() answers.
    explicit FS(QString type);

    /// Asks for notice of changes under `path`. No backend provides it yet.
    virtual int addWatch(QString path) = 0;
    /// Ends addWatch().
    virtual int remWatch(QString path) = 0;
    /// open(2). `mode` counts only when `flags` create the file. \returns the open file or null.
    virtual QSharedPointer<File> open(QString path, int flags, int mode) = 0;
    /// opendir(3). \returns the open directory; backends say whether they return null on failure.
    virtual QSharedPointer<Directory> opendir(QString path) = 0;
    /// lstat(2): as stat(), of a symbolic link itself.
    virtual int lstat(QString path, struct stat& st) = 0;
    /// stat(2).
    virtual int stat(QString path, struct stat& st) = 0;
    /// statfs(2).
    virtual int statfs(QString path, struct statfs& st) = 0;
    /// link(2).
    virtual int link(QString oldPath, QString newPath) = 0;
    /// unlink(2).
    virtual int unlink(QString path) = 0;
    /// mkdir(2).
    virtual int mkdir(QString path, int mode) = 0;
    /// rmdir(2).
    virtual int rmdir(QString path) = 0;
    /// rename(2). It outlives a power cut once the file has been synced under its new name, and
    /// then the directory: what FAT file systems keep under the new name is empty until then.
    virtual int rename(QString oldPath, QString newPath) = 0;
    /// sync(2).
    virtual void sync() = 0;
    /// getxattr(2). \returns the size of the value; with a `size` of 0, without storing it.
    virtual int getxattr(QString path, QString name, void* value, unsigned int size) = 0;
    /// setxattr(2).
    virtual int setxattr(QString path, QString name, void* value, unsigned int size, int flags) = 0;
    /// removexattr(2).
    virtual int removexattr(QString path, QString name) = 0;
    /// As the other form, with the names appended to `names`; backends say whether empty texts
    /// follow them. \returns the size that the list of the other form has.
    virtual int listxattr(QString path, QVector<QString>& names) = 0;
    /// listxattr(2): NUL-terminated names, one behind the other. \returns the size of the list;
    /// with a `size` of 0, without storing it.
    virtual int listxattr(QString path, char* list, unsigned int size) = 0;
    /// symlink(2). `target` is stored as it is.
    virtual int symlink(QString target, QString linkPath) = 0;
    /// readlink(2) into a text.
    virtual int readlink(QString path, QString& target) = 0;
    /// readlink(2): no terminating NUL is added.
    virtual int readlink(QString path, char* buf, unsigned int size) = 0;
    /// truncate(2).
    virtual int truncate(QString path, long long length) = 0;
    /// chmod(2).
    virtual int chmod(QString path, int mode) = 0;
    /// A backend's own text request and its text answer.
    virtual int ioctl(QString request, QString& response) = 0;
    /// What kind of file system it is: "PosixFS", "NFS", "Smb2FS", "IPCFS", or "FSSwitchFS" for an
    /// FSSwitch, or what another class gives the constructor.
    virtual QString type();

    virtual ~FS();

private:
    Q_DISABLE_COPY(FS)
    const QString m_type;
};

} // namespace oru::io
