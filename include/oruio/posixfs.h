// SPDX-License-Identifier: Apache-2.0
/// \file
/// The local backend: a directory tree of this system as an FS.
///
/// Each operation on a path puts the root directory before the path. Each operation makes the one
/// system call of the same name and returns its result; errno is that of the system call.
///
/// Some operations set liberrno to Ok first, so that strerror() describes errno:
///
/// - of PosixFS: open() and opendir();
/// - of PosixFile: read(), write(), pread(), pwrite(), lseek(), ftruncate(), fsync(), fdatasync()
///   and close().
///
/// All other operations leave liberrno unchanged. Set it to Ok before such a call if strerror() is
/// to describe errno.
///
/// Threads: the backend has no locks. Threads may share an object as they may share a descriptor or
/// a DIR of the system.
#pragma once

#include <oruio/fs.h>

#include <atomic>

namespace oru::io {

/// A directory tree of the local system.
class ORUIO_EXPORT PosixFS : public FS {
public:
    using SPtr = QSharedPointer<PosixFS>;

    /// Makes a file system of the directory `mountPoint`.
    ///
    /// The system path of an operation is `mountPoint` followed directly by the path of the
    /// operation. No slash is inserted and nothing is normalised:
    /// - `PosixFS("/dir").open("/clip.mov", ...)` opens `/dir/clip.mov`.
    /// - `PosixFS("/dir").open("clip.mov", ...)` opens `/dirclip.mov`. So begin each path with a
    ///   slash. (Smb2FS accepts both spellings.)
    /// - With an empty `mountPoint` the path is used unchanged.
    explicit PosixFS(QString mountPoint);
    /// As the constructor above. `type` is the name that type() returns.
    PosixFS(QString mountPoint, QString type);
    ~PosixFS() override;

    /// Returns the root directory given to the constructor.
    const QString& mountPoint() const;

    /// Not implemented.
    int addWatch(QString path) override;
    /// Not implemented.
    int remWatch(QString path) override;
    QSharedPointer<File> open(QString path, int flags, int mode) override;
    /// Opens a directory. The result is never null.
    ///
    /// When the system refuses to open it, errno holds the reason and the returned directory is not
    /// open: its readdir() returns null and its closedir() returns -1, both without a change of
    /// errno.
    QSharedPointer<Directory> opendir(QString path) override;
    int lstat(QString path, struct stat& st) override;
    int stat(QString path, struct stat& st) override;
    int statfs(QString path, struct statfs& st) override;
    int link(QString oldPath, QString newPath) override;
    int unlink(QString path) override;
    int mkdir(QString path, int mode) override;
    int rmdir(QString path) override;
    int rename(QString oldPath, QString newPath) override;
    /// Writes all file systems of the system to their media, not only this tree.
    void sync() override;
    int getxattr(QString path, QString name, void* value, unsigned int size) override;
    int setxattr(QString path, QString name, void* value, unsigned int size, int flags) override;
    int removexattr(QString path, QString name) override;
    /// Lists the attribute names with a buffer of 64 KiB.
    ///
    /// Appends as many strings as the list has bytes: first the names, then empty strings.
    ///
    /// \returns the size of the list in bytes, or -1.
    int listxattr(QString path, QVector<QString>& names) override;
    int listxattr(QString path, char* list, unsigned int size) override;
    /// Makes a symbolic link. The root directory is put before `linkPath` only.
    int symlink(QString target, QString linkPath) override;
    /// Reads up to 4096 bytes of the target of a symbolic link. `target` is empty after a failure.
    ///
    /// \returns the number of bytes read, or -1.
    int readlink(QString path, QString& target) override;
    int readlink(QString path, char* buf, unsigned int size) override;
    int truncate(QString path, long long length) override;
    int chmod(QString path, int mode) override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

private:
    QString mapped(const QString& path) const;

    const QString m_mountPoint;
};

/// An open file of the local system.
class ORUIO_EXPORT PosixFile : public File {
public:
    /// Takes ownership of the system descriptor `fd`.
    explicit PosixFile(int fd);
    ~PosixFile() override;

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
    /// Closes the file, as close(2).
    ///
    /// The first call closes the file even if it returns -1. Every further call returns 0, even one
    /// on another thread at the same time.
    ///
    /// As with close(2), an operation in progress on another thread continues. An operation that
    /// starts while close() runs may act on a different file, because the system may already have
    /// assigned the same descriptor to it. The callers must prevent this.
    int close() override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

private:
    std::atomic<int> m_fd;
};

/// An open directory stream of the local system.
class ORUIO_EXPORT PosixDir : public Directory {
public:
    /// Takes ownership of the stream `dir`. With null the directory is not open.
    explicit PosixDir(DIR* dir);
    ~PosixDir() override;

    struct dirent* readdir() override;
    /// Starts again from the first entry. \returns always 0.
    int rewinddir() override;
    /// Closes the directory.
    ///
    /// \returns the result of closedir(3); -1 with errno unchanged when the directory is not open.
    int closedir() override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

private:
    DIR* m_dir;
};

} // namespace oru::io
