// The local backend: a directory tree of this system as an FS.
//
// A thin layer. Each operation prefixes the path with the root directory, makes the one system call
// of its name and returns its result, with errno as the system left it. The two opens clear
// liberrno first, and so do reading, writing, seeking, syncing, truncating and closing an open
// file: strerror() then falls through to errno. Other operations leave liberrno as it was; set it
// to Ok before them, if strerror() is to tell their reason.
//
// Threads: no locks; objects may be shared as far as the system calls allow.
#pragma once

#include <oruio/fs.h>

#include <atomic>

namespace oru::io {

/// A directory tree of the local system.
class ORUIO_EXPORT PosixFS : public FS {
public:
    using SPtr = QSharedPointer<PosixFS>;

    /// The system path of an operation is `mountPoint` followed directly by the operation's path:
    /// no separator is inserted and nothing is normalised. An empty `mountPoint` passes paths
    /// through unchanged.
    explicit PosixFS(QString mountPoint);
    /// As above, under another type name.
    PosixFS(QString mountPoint, QString type);
    ~PosixFS() override;

    /// The root directory given to the constructor.
    const QString& mountPoint() const;

    /// Not implemented.
    int addWatch(QString path) override;
    /// Not implemented.
    int remWatch(QString path) override;
    QSharedPointer<File> open(QString path, int flags, int mode) override;
    /// Never null: when the system refuses, the answer is a directory whose readdir() returns null
    /// and whose closedir() returns -1, and errno holds the reason.
    QSharedPointer<Directory> opendir(QString path) override;
    int lstat(QString path, struct stat& st) override;
    int stat(QString path, struct stat& st) override;
    int statfs(QString path, struct statfs& st) override;
    int link(QString oldPath, QString newPath) override;
    int unlink(QString path) override;
    int mkdir(QString path, int mode) override;
    int rmdir(QString path) override;
    int rename(QString oldPath, QString newPath) override;
    /// Flushes the whole system, not only this tree.
    void sync() override;
    int getxattr(QString path, QString name, void* value, unsigned int size) override;
    int setxattr(QString path, QString name, void* value, unsigned int size, int flags) override;
    int removexattr(QString path, QString name) override;
    /// \returns the result of the other form on a buffer of 64 KiB, and appends as many texts as
    /// that list has bytes: the attribute names, then empty texts.
    int listxattr(QString path, QVector<QString>& names) override;
    int listxattr(QString path, char* list, unsigned int size) override;
    /// Only `linkPath` is prefixed with the root directory.
    int symlink(QString target, QString linkPath) override;
    /// `target` is empty when the call fails.
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
    /// Takes the system descriptor over.
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
    /// After the first call the file is closed, whatever the result; a further call returns 0, also
    /// from another thread at the same time. As with close(2), an operation that is under way in
    /// another thread goes on, and one that is about to start may meet a descriptor that the system
    /// has given away again: callers keep the two apart.
    int close() override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

private:
    std::atomic<int> m_fd;
};

/// An open directory stream of the local system.
class ORUIO_EXPORT PosixDir : public Directory {
public:
    /// Takes the stream over. A null stream makes a directory that never opened.
    explicit PosixDir(DIR* dir);
    ~PosixDir() override;

    struct dirent* readdir() override;
    /// \returns 0 in every case.
    int rewinddir() override;
    /// \returns -1, with errno as it was, when the directory is not open.
    int closedir() override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

private:
    DIR* m_dir;
};

} // namespace oru::io
