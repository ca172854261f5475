// SPDX-License-Identifier: Apache-2.0
/// \file
/// The SMB2/3 backend: a share of a server on the network as an FS.
///
/// \code
/// const auto share = Smb2FS::SPtr::create(10); // seconds
/// const Properties login = {
///     {"server", "nas"}, {"share", "clips"}, {"user", "recorder"}, {"password", password}};
/// for (;; sleep(5)) {
///     // After a lost connection isConnected() returns true, but brokenBy() the errno.
///     if (share->brokenBy() == 0 && share->isConnected())
///         continue;
///     if (share->connect(login) == 0)
///         continue;
///     const auto failure = share->connectFailure();
///     fprintf(stderr, "cannot connect: %s\n", qPrintable(failure.message));
///     for (const QString& key : failure.unknownKeys)
///         fprintf(stderr, "unknown property: %s\n", qPrintable(key));
/// }
/// \endcode
///
/// [docs/shares.md](docs/shares.md) describes how to set up a server, and what to check if
/// connecting fails.
///
/// Requests:
///
/// - An operation on a path sends one request, unless documented otherwise. It blocks until the
///   server has answered or the time-out has passed.
/// - When the server refuses the request, errno is libsmb2's translation of the NT status.
/// - When the server answers "end of file", which is no answer to the request, errno is EBADMSG.
/// - When an answer breaks the protocol, the connection ends with errno ECONNRESET.
/// - Nothing is cached.
/// - These operations set liberrno to Ok first: open() and opendir() of the share; read(), write(),
///   pread(), pwrite(), lseek(), ftruncate(), fsync(), fdatasync() and close() of a file. All
///   others leave liberrno unchanged.
///
/// Paths:
///
/// - Paths are relative to the share: "/dir/file" and "dir/file" are the same. (A PosixFS needs the
///   slash.)
/// - The server decides whether letter case matters, and which characters names may contain.
/// - Names with one of : * ? < > | or a quotation mark or a control character, and names that are
///   too long for the server (with Samba, more than 255 bytes), fail with errno EIO.
/// - A path of more than 32767 characters fails with errno ENAMETOOLONG.
/// - A backslash separates directories, as a slash does.
/// - A listing contains "." and "..", but a path that ends in "." fails with errno EIO.
///
/// Where files differ from those of a PosixFS:
///
/// - O_APPEND has no effect, as the flag does not reach the server: writing begins at offset 0 and
///   overwrites the head of the file, without an error. After two programs have appended "abc" and
///   "def", the file contains "def".
/// - SEEK_END is relative to the end of the data that was written through the object, not to the
///   end of the file.
/// - fstat() of a file opened with O_WRONLY fails with errno EACCES. stat() works.
/// - With O_DIRECTORY, open() opens files. It never opens a directory: it fails with errno EPERM.
///
/// Sessions are neither signed nor encrypted. A server that requires one of these is refused:
/// libsmb2 needs 70 to 77 s of processor time for each GiB that it signs, and 143 to 154 s to
/// encrypt it, so that a PC writes 2 to 8 MiB/s through a signed session.
///
/// Fatal failures are ETIMEDOUT, ENETRESET, EBUSY, ECONNREFUSED and ECONNRESET. After one of them,
/// until the next connect():
///
/// - Every operation of the share, its files and its directories fails at once, on all threads. It
///   sends no request and leaves errno and liberrno unchanged.
/// - brokenBy() returns the errno.
/// - An operation that was already waiting for the lock of the share is not refused in this way. If
///   the connection is lost, it fails with the same errno. If the fatal errno was an answer of the
///   server, such as EBUSY, the connection still works and the operation is carried out.
/// - disconnect() still disconnects. If it fails, errno holds the reason. If this reason is not a
///   fatal one, the server has refused to disconnect, and operations send requests again.
/// - link(), symlink(), flock(), fchmod(), extended attributes, ioctl() and watches, which this
///   backend never provides, fail with their documented reason.
///
/// Threads: any thread may call any operation. Each share has one lock, so it carries out one
/// operation at a time: a write with all its pieces, a listing with all its requests. A slow server
/// therefore delays all callers of the share: n operations can take n times the time-out. Only
/// brokenBy() and connectFailure() do not wait for this lock.
#pragma once

#include <oruio/fs.h>
#include <oruio/properties.h>

#include <QExplicitlySharedDataPointer>
#include <QStringList>

#include <memory>

struct smb2_context;
struct smb2fh;

namespace oru::io {

/// A share of an SMB2/3 server.
class ORUIO_EXPORT Smb2FS : public FS {
public:
    using SPtr = QSharedPointer<Smb2FS>;

    /// The result of a connect().
    struct ConnectFailure {
        /// Why it failed.
        enum class Reason {
            None,           ///< it has succeeded, or has not been called
            BadProperties,  ///< a property cannot be used: `message` names its key
            HostNotFound,   ///< the name of the server cannot be resolved
            Unreachable,    ///< there is no route to the server
            NobodyListens,  ///< nothing listens at the address
            TimedOut,       ///< the time-out has passed
            ConnectionLost, ///< the server has ended the connection
            ProtocolError,  ///< an answer of the server does not follow the protocol
            DialectRefused, ///< the server does not support the dialect
            LoginRefused,   ///< the server refuses the user, the password or the account
            NoSuchShare,    ///< the server has no such share
            NoAccess,       ///< the user has no access to the server or to the share
            Protected,      ///< the server requires a signed or encrypted session
            Other,          ///< none of these: `message` and `error` are all that is known
        };

        Reason reason = Reason::None; ///< why it failed
        int error = 0;                ///< the errno of connect(); 0 after a success
        /// Libsmb2's message. If it has none: what is wrong with a property, or the message for
        /// `error`. Empty after a success. It never contains the password.
        QString message;
        /// The keys of the properties that connect() does not know, also after a success.
        QStringList unknownKeys;
    };

    /// Makes a share that is not connected: its operations fail with errno ENOTCONN.
    ///
    /// `timeout` is the longest time of a request in seconds. 0 means no limit: a request then
    /// waits for its answer until the connection ends.
    explicit Smb2FS(unsigned int timeout);
    /// Closes the connection without a request. Release all files and directories before this:
    /// operations on the remaining ones fail with errno EBADF.
    ~Smb2FS() override;

    /// Not implemented.
    int addWatch(QString path) override;
    /// Not implemented.
    int remWatch(QString path) override;
    /// Opens a file, not a directory. `mode` is not used. O_APPEND and O_DIRECTORY have no effect.
    ///
    /// While the file is open, other clients may read and write it, but not remove or rename it.
    QSharedPointer<File> open(QString path, int flags, int mode) override;
    /// Opens a directory and reads the whole listing, in the order of the server. \returns null
    /// with errno, among them:
    /// - EBADMSG: an entry is malformed, or its name is empty or contains a slash or a NUL. The
    ///   connection still works.
    /// - EOVERFLOW: the listing does not end after 10,000 requests.
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
    /// The other fields stay unchanged. After a failure all fields stay unchanged.
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
    /// Renames a file or directory. Never replaces a file: when `newPath` exists, it fails with
    /// errno EEXIST.
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
    /// Reads up to `size` bytes of the target. Fills the rest of `buf` with NULs. If the target has
    /// `size` bytes or more, there is no NUL.
    ///
    /// \returns 0, not the length, or -1.
    int readlink(QString path, char* buf, unsigned int size) override;
    int truncate(QString path, long long length) override;
    /// Fails with errno EOPNOTSUPP.
    int chmod(QString path, int mode) override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

    /// Calls disconnect(), then connects to a share.
    ///
    /// Release all files and directories of the former connection before this call: operations on
    /// the remaining ones fail with errno EBADF. After a failure the share is not connected.
    ///
    /// Keys in `props`, all optional strings:
    /// - "server": a name or an address, followed by a colon and the port unless it is 445. An IPv6
    ///   address is in brackets.
    /// - "share": the name of the share.
    /// - "user": the name of the user.
    /// - "password": if it is missing or empty, the session is anonymous, also if "user" is set. So
    ///   an account with an empty password cannot be used.
    /// - "domain", "workstation": sent to the server.
    /// - "version": the dialect: "2.x", "3.x", "2.0.2", "2.1.0", "3.0.0", "3.0.2" or "3.1.1". With
    ///   any other value the server selects the dialect.
    ///
    /// Other keys have no effect. connectFailure() returns them.
    ///
    /// \returns 0, or -1 with errno; connectFailure() distinguishes the causes of one errno:
    /// - EACCES: the user has no access to the share.
    /// - EACCES: the server requires encryption, but the dialect has no encryption.
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
    /// - ENOTSUP: with the installed libsmb2 it cannot be determined whether the session is signed
    ///   or encrypted.
    /// - EPERM: the server requires a signed or encrypted session. This would take too much
    ///   processor time during a recording.
    /// - EPROTO: the server moves less than 4 KiB at a time.
    /// - any errno of socket(2), such as EMFILE: no socket could be made.
    virtual int connect(Properties props);
    /// Disconnects from the share, if it is connected.
    ///
    /// \returns 0, also when the share is not connected, or -1 with errno. After -1 the share still
    /// counts as connected.
    virtual int disconnect();
    /// Returns whether the share is connected and the server answers an echo request. If the share
    /// is not connected, sends no request.
    ///
    /// After a fatal failure it returns true without a request, until the next connect(). The fatal
    /// failure shows in the operations, which fail, and in brokenBy().
    virtual bool isConnected();
    /// Returns the dialect in use, such as "3.1.1", or "unknown" when not connected.
    virtual QString getDialect();

    /// Returns why the share is unusable. Sends no request, so it does not notice that the server
    /// has ended since the last one.
    ///
    /// Does not wait for the lock of the share: any thread may call it, also while another thread
    /// waits for the server.
    ///
    /// \returns the errno of the fatal failure, until the next connect(); ENOTCONN while the share
    /// is not connected; 0 while it is usable.
    int brokenBy() const;
    /// Returns why the last connect() failed. While a connect() runs: why the one before it failed.
    ///
    /// Does not wait for the lock of the share, as brokenBy().
    ///
    /// \code
    /// using Reason = Smb2FS::ConnectFailure::Reason;
    /// if (share.connect(login) != 0 && share.connectFailure().reason == Reason::LoginRefused)
    ///     fprintf(stderr, "wrong user or password\n");
    /// \endcode
    ConnectFailure connectFailure() const;

    /// The connection. Internal.
    class ORUIO_LOCAL Data;

private:
    friend class Smb2Dir;
    friend class Smb2File;
    friend ORUIO_EXPORT int set_errno(Smb2FS* fs, int rc, smb2_context* ctx, const char* op,
                                      const char* detail);

    const QExplicitlySharedDataPointer<Data> m_data;
};

/// Converts the result `rc` of a libsmb2 call on the share `fs`: a negative `rc` is a negative
/// errno.
///
/// `ctx`, `op` (the name of the operation) and `detail` (the path) are not used.
///
/// \returns `rc` if it is not negative, else -1 with `-rc` in errno. If `-rc` is the errno of a
/// fatal failure, the share counts as broken until the next connect().
ORUIO_EXPORT int set_errno(Smb2FS* fs, int rc, smb2_context* ctx, const char* op,
                           const char* detail);

/// An open file of a share.
///
/// It belongs to the connection in which it was opened. Release it before the share is connected
/// again or destroyed: afterwards its operations fail with errno EBADF. After a fatal failure
/// close() fails too; the server closes the file when the connection ends.
class ORUIO_EXPORT Smb2File : public File {
public:
    /// Takes ownership of `handle`, which belongs to the current connection of `fs`. `path` is not
    /// used.
    Smb2File(Smb2FS* fs, smb2fh* handle, QString path);
    /// Closes the file.
    ~Smb2File() override;

    /// Sends one request. May return less than `len` before the end of the file, if the server
    /// sends less or permits only a smaller request.
    ///
    /// \returns 0 only if the server reports the end of the file. -1 with errno EBADMSG if it
    /// reports success without any bytes.
    int read(void* buf, unsigned int len) override;
    /// Sends requests of up to 64 KiB until all bytes are written: up to 16 of them before the
    /// first answer, if the server permits as many. Nothing is under way when the call returns.
    ///
    /// - Each request has the time-out from when it is queued, or from the last answer to another
    ///   request of this write. So a long write may take longer than the time-out.
    /// - After a refused request no more are sent. errno is that of the lowest refused one.
    ///   The position that lseek() reports is unchanged, but the next write continues at the first
    ///   byte that is not written.
    /// - After a refused request or a lost connection, any subset of the requests under way may be
    ///   on the server. What was written before a successful fsync() is there.
    /// - After a connection that was lost with several requests under way, the next connection
    ///   writes one request at a time. So does the dialect 2.0.2.
    ///
    /// \returns `len`, or -1. If `len` is larger than INT_MAX, -1 with errno EINVAL, and no request
    /// is sent. EBADMSG: the server answers with "end of file".
    int write(const void* buf, unsigned int len) override;
    /// As read(), at `offset`. The file position stays.
    int pread(void* buf, unsigned int len, long long offset) override;
    /// As write(), at `offset`. The file position stays.
    ///
    /// If the server answers to a request that it has written 0 bytes, no more requests are sent.
    /// The call still returns `len`, although not all bytes are written.
    int pwrite(const void* buf, unsigned int len, long long offset) override;
    /// Moves the file position, without a request.
    ///
    /// - SEEK_END is relative to the end of the data that was written through this object, not to
    ///   the end of the file.
    /// - A negative new position fails with errno EINVAL. The base of the next SEEK_CUR is then
    ///   this negative position. The next read or write continues at the old position.
    ///
    /// \returns the new position, or -1 with errno. If the connection is lost, the result is a
    /// negative errno (such as -ENOTCONN or -ECONNRESET), and errno stays unchanged.
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
    /// Closes the file.
    ///
    /// \returns 0, or -1 with errno. If the file is already closed, 0 without a request.
    int close() override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

private:
    class ORUIO_LOCAL Data;

    const std::unique_ptr<Data> m_data;
};

/// A directory of a share. Its entries are those that the directory had when it was opened.
///
/// While it is open, it belongs to the connection in which it was opened, as a Smb2File does.
class ORUIO_EXPORT Smb2Dir : public Directory {
public:
    /// Opens the directory. If this fails, isOpen() returns false and errno holds the reason.
    Smb2Dir(Smb2FS* fs, QString& path);
    /// Closes the directory.
    ~Smb2Dir() override;

    /// Returns the next entry, which is valid until the next call. "." and ".." are included.
    ///
    /// Only d_ino, d_type and d_name (cut to 255 bytes) are set. In d_name, U+FFFD stands for half
    /// of a surrogate pair: such a name cannot be opened.
    ///
    /// \returns null with errno:
    /// - ENOENT: the end is reached, or the directory is closed;
    /// - EBADF: the share has been connected again or destroyed since the directory was opened.
    struct dirent* readdir() override;
    /// Lists the directory again. A closed directory is opened in the current connection of the
    /// share and then belongs to this connection.
    ///
    /// \returns 0, even if the listing failed: errno then holds the reason, and the directory is
    /// closed. -1 with errno EBADF if the directory is open but the share has been connected again
    /// or destroyed.
    int rewinddir() override;
    /// Closes the directory.
    ///
    /// \returns 0, also when the directory is already closed; -1 after a fatal failure.
    int closedir() override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

    /// Returns whether the directory is open. Sends no request.
    virtual bool isOpen();

private:
    class ORUIO_LOCAL Data;

    const std::unique_ptr<Data> m_data;
};

} // namespace oru::io
