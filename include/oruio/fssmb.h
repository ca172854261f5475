// SPDX-License-Identifier: Apache-2.0
/// \file
/// The SMB2/3 backend: a share of a server on the network as an FS.
///
/// \code
/// auto share = Smb2FS::SPtr::create(10); // seconds
/// if (share->connect({{"server", "nas"}, {"share", "clips"}, {"user", "recorder"},
///                     {"password", password}}) != 0)
///     fprintf(stderr, "cannot connect: %s\n", oru::io::strerror());
/// \endcode
///
/// Requests:
///
/// - An operation on a path sends one request, unless documented otherwise. It blocks until the
///   server has answered or the time-out has passed.
/// - When the server refuses, errno is libsmb2's translation of the NT status.
/// - Nothing is cached.
///
/// Paths:
///
/// - Paths are relative to the share: "/dir/file" and "dir/file" are the same. (A PosixFS needs the
///   slash.)
/// - The server decides whether letter case matters, and which characters names may contain.
/// - A path of more than 32767 characters fails with errno ENAMETOOLONG.
///
/// Fatal failures are ETIMEDOUT, ENETRESET, EBUSY, ECONNREFUSED and ECONNRESET. After one of them,
/// until the next connect():
///
/// - Every operation of the share, its files and its directories fails at once. It sends no request
///   and leaves errno and liberrno unchanged, on all threads.
/// - A thread that was already waiting for its turn fails with the same errno when the connection
///   is lost. When the errno was an answer of the server, such as EBUSY, that thread is served.
/// - disconnect() still does its work. When it fails, errno holds the reason.
/// - Operations that this backend never provides still fail in their usual way: link(), symlink(),
///   flock(), fchmod(), ioctl(), extended attributes and watches.
///
/// Threads: any thread may call any operation. One lock per share lets one operation through at a
/// time: a write with all its pieces, a listing with all its requests. So a slow server delays all
/// callers of the share: n operations can take n times the time-out.
#pragma once

#include <oruio/fs.h>
#include <oruio/properties.h>

#include <QExplicitlySharedDataPointer>

#include <memory>

struct smb2_context;
struct smb2fh;

namespace oru::io {

/// A share of an SMB2/3 server.
class ORUIO_EXPORT Smb2FS : public FS {
public:
    using SPtr = QSharedPointer<Smb2FS>;

    /// Makes a share that is not connected: its operations fail with errno ENOTCONN.
    ///
    /// `timeout` is the longest time of a request in seconds. 0 means no limit: then a request
    /// takes as long as the connection lasts.
    explicit Smb2FS(unsigned int timeout);
    /// Closes the connection, without a request. Release files and directories before: operations
    /// on those that remain fail with errno EBADF.
    ~Smb2FS() override;

    /// Not implemented.
    int addWatch(QString path) override;
    /// Not implemented.
    int remWatch(QString path) override;
    /// Opens a file, not a directory. `mode` is not used, and O_APPEND has no effect.
    ///
    /// While the file is open, others may read and write it, but not remove or rename it.
    QSharedPointer<File> open(QString path, int flags, int mode) override;
    /// Opens a directory and reads the whole listing. \returns null on failure.
    ///
    /// Sends as many requests as the listing needs, each within the time-out.
    QSharedPointer<Directory> opendir(QString path) override;
    /// Same as stat(): a symbolic link is not treated differently.
    int lstat(QString path, struct stat& st) override;
    /// Gets the status of a file.
    ///
    /// Sets only these fields of `st`:
    /// - st_size, st_ino, st_nlink;
    /// - st_mode: the file type, with the permissions rw-rw-rw- for every file;
    /// - st_atim, st_mtim, st_ctim.
    ///
    /// The other fields stay unchanged; after a failure all fields do.
    int stat(QString path, struct stat& st) override;
    /// Gets the sizes of the file system. f_files, f_ffree and f_namelen are 0.
    int statfs(QString path, struct statfs& st) override;
    /// Fails with errno EOPNOTSUPP.
    int link(QString oldPath, QString newPath) override;
    /// Removes a file. Fails with errno:
    /// - EPERM: it is a directory;
    /// - ETXTBSY: the file is open, here or elsewhere.
    int unlink(QString path) override;
    /// Makes a directory. `mode` is not used.
    int mkdir(QString path, int mode) override;
    int rmdir(QString path) override;
    /// Renames a file or directory. Never replaces: fails with errno EEXIST when `newPath` exists.
    int rename(QString oldPath, QString newPath) override;
    /// Does nothing.
    void sync() override;
    /// Fails with errno EOPNOTSUPP.
    int getxattr(QString path, QString name, void* value, unsigned int size) override;
    /// Fails with errno EOPNOTSUPP.
    int setxattr(QString path, QString name, void* value, unsigned int size, int flags) override;
    /// Fails with errno EOPNOTSUPP.
    int removexattr(QString path, QString name) override;
    /// Fails with errno EOPNOTSUPP.
    int listxattr(QString path, QVector<QString>& names) override;
    /// Fails with errno EOPNOTSUPP.
    int listxattr(QString path, char* list, unsigned int size) override;
    /// Fails with errno EOPNOTSUPP.
    int symlink(QString target, QString linkPath) override;
    /// Reads up to 4095 bytes of the target. `target` is empty after a failure.
    ///
    /// \returns 0, not the length, or -1.
    int readlink(QString path, QString& target) override;
    /// Reads up to `size` bytes of the target. Fills the rest of `buf` with NULs; a target of
    /// `size` bytes and more has no NUL.
    ///
    /// \returns 0, not the length, or -1.
    int readlink(QString path, char* buf, unsigned int size) override;
    int truncate(QString path, long long length) override;
    /// Fails with errno EOPNOTSUPP.
    int chmod(QString path, int mode) override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

    /// Connects to a share, after disconnect().
    ///
    /// Release files and directories of the former connection before: operations on those that
    /// remain fail with errno EBADF. After a failure the share is not connected.
    ///
    /// Keys in `props`, all optional strings:
    /// - "server": a name or an address, followed by a colon and the port unless it is 445. An IPv6
    ///   address is in brackets.
    /// - "share": the name of the share.
    /// - "user": the name of the user.
    /// - "password": without one, or with an empty one, the session is anonymous for any user.
    /// - "domain", "workstation": sent to the server.
    /// - "version": the dialect, "2.x", "3.x", "2.0.2", "2.1.0", "3.0.0", "3.0.2" or "3.1.1". With
    ///   any other value the server selects it.
    ///
    /// \returns 0, or -1 with errno:
    /// - EACCES: the user has no access to the share.
    /// - EACCES: the server requires encryption, which the dialect does not have.
    /// - EAGAIN, EIO: the name of the server cannot be resolved.
    /// - ECONNREFUSED: nothing listens at the address.
    /// - ECONNREFUSED: the server refuses the user or the password.
    /// - ECONNRESET, ETIMEDOUT: the server does not answer, or stops answering.
    /// - EHOSTUNREACH, ENETUNREACH: there is no route to the server.
    /// - EILSEQ: a string is not valid UTF-16.
    /// - EINVAL: a string contains a NUL.
    /// - EINVAL: the server does not support the dialect.
    /// - EINVAL: the closing bracket of an address is missing.
    /// - ENAMETOOLONG: a string is longer than 1 KiB.
    /// - ENOENT: the server has no such share.
    /// - ENOTSUP: this libsmb2 does not show whether the session is signed or encrypted.
    /// - EPERM: the server requires the session to be signed or encrypted, which takes more
    ///   processor time than a recording can spare.
    /// - Any errno of socket(2), such as EMFILE: no socket could be made.
    virtual int connect(Properties props);
    /// Disconnects from the share, if it is connected.
    ///
    /// \returns 0, or -1 with errno. After -1 the share still counts as connected.
    virtual int disconnect();
    /// Asks the server whether it is there: sends an echo request if the share is connected.
    ///
    /// After a fatal failure the result is true, without a request: the failing operations report
    /// it, and connect() repairs it.
    virtual bool isConnected();
    /// Returns the dialect in use, such as "3.1.1", or "unknown" when not connected.
    virtual QString getDialect();

    /// The connection. Internal.
    class ORUIO_LOCAL Data;

private:
    friend class Smb2Dir;
    friend class Smb2File;
    friend ORUIO_EXPORT int set_errno(Smb2FS* fs, int rc, smb2_context* ctx, const char* op,
                                      const char* detail);

    const QExplicitlySharedDataPointer<Data> m_data;
};

/// Records the result `rc` of a libsmb2 call on the share `fs`.
///
/// `ctx`, `op` (the name of the operation) and `detail` (the path) are not used.
///
/// \returns `rc` if it is not negative. Else -1, with `-rc` in errno; the share records it too and
/// treats it as fatal if it is one of the fatal failures.
ORUIO_EXPORT int set_errno(Smb2FS* fs, int rc, smb2_context* ctx, const char* op,
                           const char* detail);

/// An open file of a share.
///
/// It belongs to the connection in which it was opened. Release it before the share is connected
/// again or destroyed: afterwards its operations fail with errno EBADF. After a fatal failure
/// close() fails too: the server closes the file with the connection.
class ORUIO_EXPORT Smb2File : public File {
public:
    /// Takes ownership of `handle`, of the share's current connection. `path` is not used.
    Smb2File(Smb2FS* fs, smb2fh* handle, QString path);
    /// Closes the file.
    ~Smb2File() override;

    /// Sends one request. May return less than `len` before the end of the file.
    int read(void* buf, unsigned int len) override;
    /// Sends requests of up to 64 KiB, each within the time-out, until all is written.
    ///
    /// After a failure the position that lseek() reports is unchanged, but the next write continues
    /// after the bytes that the server has taken.
    ///
    /// \returns `len`, or -1. errno EINVAL, before any request: `len` is larger than an int holds.
    int write(const void* buf, unsigned int len) override;
    /// As read(), at `offset`. The file position stays.
    int pread(void* buf, unsigned int len, long long offset) override;
    /// As write(), at `offset`. The file position stays. When the server takes 0 bytes of a
    /// request, the call ends there and returns `len` all the same.
    int pwrite(const void* buf, unsigned int len, long long offset) override;
    /// Moves the file position, without a request.
    ///
    /// - SEEK_END is relative to the end of what was written through this object, not to the end of
    ///   the file.
    /// - A negative target fails with errno EINVAL. It still moves the position to which SEEK_CUR
    ///   is relative; reads and writes continue where they were.
    ///
    /// \returns the new position, or -1 with errno. When the connection is lost, the negative errno
    /// itself (such as -ENOTCONN or -ECONNRESET); errno stays unchanged.
    long long lseek(long long offset, int whence) override;
    /// Gets the status of the file, as Smb2FS::stat(). Fails with errno EACCES on a file opened
    /// with O_WRONLY.
    int fstat(struct stat& st) override;
    int ftruncate(long long length) override;
    int fsync() override;
    /// Fails with errno EOPNOTSUPP.
    int fdatasync() override;
    /// Fails with errno EOPNOTSUPP.
    int fcntl(int cmd, ...) override;
    /// Fails with errno EOPNOTSUPP.
    int flock(int operation) override;
    /// Fails with errno EOPNOTSUPP.
    int fchmod(int mode) override;
    /// Closes the file. \returns 0, without a request, when the file is closed already.
    int close() override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

private:
    class ORUIO_LOCAL Data;

    const std::unique_ptr<Data> m_data;
};

/// A directory of a share, as listed when it was opened.
///
/// While it is open it belongs to a connection, as a Smb2File does.
class ORUIO_EXPORT Smb2Dir : public Directory {
public:
    /// Opens the directory. isOpen() returns whether this worked; if not, errno holds the reason.
    Smb2Dir(Smb2FS* fs, QString& path);
    /// Closes the directory.
    ~Smb2Dir() override;

    /// Returns the next entry, which is valid until the next call. "." and ".." are included.
    ///
    /// Only d_ino, d_type and d_name (cut to 255 bytes) are set.
    ///
    /// \returns null with errno ENOENT at the end, and when the directory is closed.
    struct dirent* readdir() override;
    /// Lists the directory again. A closed one is opened in the current connection of the share and
    /// belongs to that one.
    ///
    /// \returns 0, also when the listing failed: then errno holds the reason and the directory is
    /// closed. -1 with errno EBADF when the connection of an open directory has been replaced.
    int rewinddir() override;
    /// Closes the directory. \returns 0, also when it is closed already.
    int closedir() override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

    /// Returns whether the directory is open, without a request.
    virtual bool isOpen();

private:
    class ORUIO_LOCAL Data;

    const std::unique_ptr<Data> m_data;
};

} // namespace oru::io
