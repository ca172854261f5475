// The SMB2/3 backend: a share of a server on the network as an FS.
//
// Each operation on a path is one request to the server, except where it says otherwise, and blocks
// until that is answered or the time-out has passed. What the server refuses is in errno, in
// libsmb2's translation of its NT status. Nothing is cached.
//
// A failure of the connection itself is fatal: ETIMEDOUT, ENETRESET, EBUSY, ECONNREFUSED and
// ECONNRESET. After one of these every operation of the share, its files and its directories fails
// at once, without a request and without touching errno or liberrno, until connect() has been
// called; the threads that did not see the failure learn of it that way. Those that wait for their
// turn meanwhile get its errno where the connection is gone; where the server has answered so, such
// as with EBUSY, they are served. Of the operations, link(), symlink(), flock(), fchmod(), ioctl()
// and those of extended attributes and watches are refused as they always are here, and
// disconnect() tells in errno why it fails.
//
// Paths are those of the share: "/dir/file" and "dir/file" are the same. The server decides about
// letter case, and about characters that it does not allow in names.
//
// Threads: any may call any operation; one lock per share lets one operation through at a time, a
// write with all of its pieces and a listing with all of its requests. So a slow server holds up
// every other caller of the same share: n requests may take n times the time-out.
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

    /// Not connected: operations fail with errno ENOTCONN. `timeout` is how many seconds a request
    /// may take; 0 is no limit, then it may take as long as the connection stands.
    explicit Smb2FS(unsigned int timeout);
    /// Drops the connection, without a request. Files and directories should be gone by then: what
    /// is left of them answers EBADF.
    ~Smb2FS() override;

    /// Not implemented.
    int addWatch(QString path) override;
    /// Not implemented.
    int remWatch(QString path) override;
    /// `mode` is not used, and O_APPEND has no effect. Not for directories. What others may do with
    /// the file meanwhile is to read and write it, not to remove or rename it.
    QSharedPointer<File> open(QString path, int flags, int mode) override;
    /// Reads the whole listing, in as many requests as that takes, each within the time-out.
    QSharedPointer<Directory> opendir(QString path) override;
    /// As stat(): links are not told apart.
    int lstat(QString path, struct stat& st) override;
    /// Sets st_size, st_ino, st_nlink, st_mode (the kind, and rw-rw-rw- for everything) and the
    /// times of access, modification and change. The rest of `st`, and all of it after a failure,
    /// stays as it was.
    int stat(QString path, struct stat& st) override;
    /// Sizes only: the number of files and the longest name are 0.
    int statfs(QString path, struct statfs& st) override;
    /// Fails with errno EOPNOTSUPP.
    int link(QString oldPath, QString newPath) override;
    /// Fails with errno EPERM on a directory, ETXTBSY on a file that somebody has open.
    int unlink(QString path) override;
    /// `mode` is not used.
    int mkdir(QString path, int mode) override;
    int rmdir(QString path) override;
    /// Fails with errno EEXIST when there is something of the new name.
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
    /// `target` is empty when the call fails.
    int readlink(QString path, QString& target) override;
    /// \returns 0, not the length: what is left of `buf` behind the target is filled with NULs, and
    /// a target that fills it, or is cut to it, has none.
    int readlink(QString path, char* buf, unsigned int size) override;
    int truncate(QString path, long long length) override;
    /// Fails with errno EOPNOTSUPP.
    int chmod(QString path, int mode) override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

    /// Connects to a share, after disconnecting from the one before; files and directories of that
    /// should be gone by then: what is left of them answers EBADF.
    ///
    /// `props` has texts, each of which may be missing: "server" (a name or an address, which is in
    /// brackets when it is one of IPv6, with a colon and the port unless that is 445), "share",
    /// "user", "password", "domain", "workstation", and "version": the dialect to use, one of
    /// "2.x", "3.x", "2.0.2", "2.1.0", "3.0.0", "3.0.2" and "3.1.1"; with any other text the server
    /// chooses. Without a password, or with an empty one, the session is anonymous, whatever the
    /// user.
    ///
    /// \returns 0, or -1 with errno: ECONNREFUSED when nothing listens there, and when the server
    /// refuses the user or the password; EHOSTUNREACH or ENETUNREACH when there is no way to it;
    /// ETIMEDOUT or ECONNRESET when it does not answer, or not to the end; EIO or EAGAIN when its
    /// name cannot be resolved; ENOENT when it has no such share; EACCES when it keeps the user out
    /// of it, and when it wants encryption of a dialect that has none; EPERM when it wants the
    /// session signed or encrypted, which costs more than a recording can spare; ENOTSUP when this
    /// libsmb2 does not let one see that; EINVAL when it does not speak the dialect, and for a
    /// bracket too few; ENAMETOOLONG, EINVAL or EILSEQ when a text is over 1 KiB, contains a NUL or
    /// is no text; what socket(2) says, such as EMFILE, when there is no socket to be had.
    virtual int connect(Properties props);
    /// Leaves the share, if it is connected. \returns 0, or -1 with errno: the share then still
    /// counts as connected.
    virtual int disconnect();
    /// Whether the server gives a sign of life; asks it. True without asking when a fatal failure
    /// has been seen: the operations that fail tell, and connect() repairs.
    virtual bool isConnected();
    /// The dialect in use, such as "3.1.1"; "unknown" when not connected.
    virtual QString getDialect();

    /// The connection. The library's own.
    class ORUIO_LOCAL Data;

private:
    friend class Smb2Dir;
    friend class Smb2File;
    friend ORUIO_EXPORT int set_errno(Smb2FS* fs, int rc, smb2_context* ctx, const char* op,
                                      const char* detail);

    const QExplicitlySharedDataPointer<Data> m_data;
};

/// Reports the result of a libsmb2 call on a share: \returns `rc` unless it is negative; then -1,
/// with -`rc` in errno and remembered by `fs`. `ctx`, `op` (the name of the operation) and `detail`
/// (the path) are for diagnostics, and not used.
ORUIO_EXPORT int set_errno(Smb2FS* fs, int rc, smb2_context* ctx, const char* op,
                           const char* detail);

/// An open file of a share.
///
/// Belongs to the connection in which it was opened, and should be dropped before the share is
/// connected anew or destroyed; after that its operations answer EBADF. After a fatal failure
/// close() fails too: the server closes the file with the connection.
class ORUIO_EXPORT Smb2File : public File {
public:
    /// Takes a handle of the share's present connection over. `path` is for diagnostics, and not
    /// used.
    Smb2File(Smb2FS* fs, smb2fh* handle, QString path);
    /// Closes the file.
    ~Smb2File() override;

    /// One request; may return less than `len` before the end of the file.
    int read(void* buf, unsigned int len) override;
    /// Requests of up to 64 KiB, each within the time-out, until all is written. \returns `len`; -1
    /// with errno EINVAL, before any request, when that is more than an int holds. When it fails
    /// the position that lseek() knows stays, while the next write goes on behind what was taken.
    int write(const void* buf, unsigned int len) override;
    /// As read().
    int pread(void* buf, unsigned int len, long long offset) override;
    /// As write(), but ends with success when the server takes nothing.
    int pwrite(const void* buf, unsigned int len, long long offset) override;
    /// No request. SEEK_END is relative to the end of what was written through this object,
    /// whatever the size of the file. With a negative target the position that SEEK_CUR adds to is
    /// moved all the same, while reads and writes go on where they were. \returns -1 with errno; on
    /// a connection that is gone the negative errno itself (-ENOTCONN, -ECONNRESET, …), and errno
    /// stays.
    long long lseek(long long offset, int whence) override;
    /// As FS::stat() of this backend. Fails with errno EACCES on a file opened for writing only.
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
    /// \returns 0 without a request when it was called before.
    int close() override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

private:
    class ORUIO_LOCAL Data;

    const std::unique_ptr<Data> m_data;
};

/// A directory of a share, as listed when it was opened.
///
/// Belongs to a connection as a Smb2File does, while it is open.
class ORUIO_EXPORT Smb2Dir : public Directory {
public:
    /// Opens the directory; isOpen() tells whether that worked, errno why not.
    Smb2Dir(Smb2FS* fs, QString& path);
    /// Closes the directory.
    ~Smb2Dir() override;

    /// With the system's entries of all directories, "." and "..". Only d_ino, d_name (cut to 255
    /// bytes) and d_type are set. The entry is valid until the next call. \returns null with errno
    /// ENOENT at the end, and when the directory is closed.
    struct dirent* readdir() override;
    /// Lists the directory anew; a closed one in the share's present connection, which it then
    /// belongs to. \returns 0, also when that failed, with errno; it is then closed.
    int rewinddir() override;
    /// \returns 0, also when it was closed.
    int closedir() override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

    /// Whether it is open, without asking the server.
    virtual bool isOpen();

private:
    class ORUIO_LOCAL Data;

    const std::unique_ptr<Data> m_data;
};

} // namespace oru::io
