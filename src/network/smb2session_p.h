// One connection to an SMB2/3 share, with synchronous calls on it.
//
// What libsmb2's own synchronous calls would be if they told why they failed: each call here
// returns 0 or a count, or the negative errno of what happened, within the session's time-out. It
// sends one request (where a call needs more, it says so) and waits for the answer to it, whatever
// signals arrive meanwhile.
//
// A connection that breaks, and one on which an answer did not come in time, is not usable any
// more: libsmb2's context is destroyed then and there, with the socket and every handle that it
// gave out, and each further call returns what ended it, without a request.
//
// Threads: callers serialise the calls on one session. Sessions are independent of each other.
#pragma once

#include <QDeadlineTimer>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

struct pollfd;
struct smb2_context;
struct smb2_create_request;
struct smb2_stat_64;
struct smb2_statvfs;
struct smb2dir;
struct smb2dirent;
struct smb2fh;

namespace oru::io {

class Smb2Session {
public:
    /// Where to connect to, and as whom. An empty text is none.
    struct Login {
        const char* server; ///< a name or an address, and a colon and the port unless that is 445
        const char* share;
        const char* user;
        const char* password;
        const char* domain;
        const char* workstation;
        unsigned int version; ///< a dialect as libsmb2 numbers them, 0 for any
    };

    /// Not connected: every call but connect() returns -ENOTCONN. `timeout` is in seconds, per
    /// call, of opendir() per request; 0 is none.
    explicit Smb2Session(unsigned int timeout);
    /// Drops the connection, without a request.
    ~Smb2Session();

    /// Connects, once in the life of a session. \returns -EIO or -EAGAIN when the server's name
    /// cannot be resolved, -ECONNREFUSED also when the server refuses the user or the password,
    /// -ENOENT when it has no such share. `deadline`: the time-out of this call.
    int connect(const Login& login, const QDeadlineTimer& deadline);
    /// Leaves the share and ends the connection: two requests. When the server refuses the first,
    /// the session stays connected. `deadline`: the time-out of this call.
    int disconnect(const QDeadlineTimer& deadline);
    /// When a call that begins now has to be done.
    QDeadlineTimer deadline() const;
    /// Asks the server for a sign of life.
    int echo();

    /// The dialect that the server agreed to, as libsmb2 numbers them; 0 before connect().
    unsigned int dialect() const;
    /// Whether the session signs or encrypts its messages: 1 or 0; -ENOTSUP when this libsmb2 does
    /// not let one see.
    int isProtected() const;

    int stat(const char* path, smb2_stat_64& st);
    int statvfs(const char* path, struct smb2_statvfs& st);
    int mkdir(const char* path);
    /// Of directories only, as unlink() is of anything else.
    int rmdir(const char* path);
    int unlink(const char* path);
    int rename(const char* from, const char* to);
    int truncate(const char* path, std::uint64_t length);
    /// \returns -EINVAL also for a link of a kind that has no target text.
    int readlink(const char* path, std::string& target);

    int open(const char* path, int flags, smb2fh*& file);
    /// Closes the handle, whatever the result.
    int close(smb2fh* file);
    /// At the handle's offset, which moves on.
    int read(smb2fh* file, void* buf, std::uint32_t count);
    int write(smb2fh* file, const void* buf, std::uint32_t count);
    /// The handle's offset stays.
    int pread(smb2fh* file, void* buf, std::uint32_t count, std::int64_t offset);
    int pwrite(smb2fh* file, const void* buf, std::uint32_t count, std::int64_t offset);
    /// Moves the handle's offset to `offset`, without a request. \returns it, or a negative errno.
    std::int64_t lseek(smb2fh* file, std::int64_t offset);
    int fstat(smb2fh* file, smb2_stat_64& st);
    int ftruncate(smb2fh* file, std::uint64_t length);
    int fsync(smb2fh* file);

    /// Reads the whole directory: as many requests as that takes, each within the time-out.
    int opendir(const char* path, smb2dir*& dir);
    /// From what opendir() has read. Null at the end, and when the connection is gone.
    const smb2dirent* readdir(smb2dir* dir);
    void closedir(smb2dir* dir);

private:
    Q_DISABLE_COPY(Smb2Session)

    struct Attempt;
    struct Reply;
    template <class Attributes>
    struct Query;
    struct ContextDeleter {
        void operator()(smb2_context* context) const;
    };

    int establish(const std::shared_ptr<Attempt>& attempt, const QDeadlineTimer& deadline);
    static int begin(const std::shared_ptr<Attempt>& attempt, const QDeadlineTimer& deadline);
    int reach(const QDeadlineTimer& deadline);

    template <class Submit>
    int request(Submit submit);
    template <class Submit>
    int request(Reply& reply, const QDeadlineTimer& deadline, Submit submit);
    template <class... MakeCommand>
    int whileOpen(Reply& reply, smb2_create_request open, MakeCommand... makeCommand);
    template <class Info, class Attributes>
    int query(const char* path, std::uint8_t type, std::uint8_t infoClass, Attributes& attributes);
    int change(smb2_create_request open, std::uint8_t infoClass, void* info);
    int remove(const char* path, std::uint32_t options);
    template <class Submit>
    int transfer(std::uint32_t count, Submit submit);
    template <class Transfer>
    int atOffset(smb2fh* file, std::int64_t offset, Transfer transfer);
    std::int64_t offsetOf(smb2fh* file) const;

    bool isStillThere();
    int await(Reply& reply, QDeadlineTimer deadline);
    int serve(const struct pollfd& poller);
    int service(int events);
    int fail(int reason);

    const unsigned int m_timeout;
    std::unique_ptr<smb2_context, ContextDeleter> m_context; // null when there is no connection
    int m_lastError;                                         // the errno that says why
    unsigned int m_dialect = 0;
    int m_isProtected = 0;
};

} // namespace oru::io
