// SPDX-License-Identifier: Apache-2.0
// One connection to an SMB2/3 share, with synchronous calls on it.
//
// Each call sends one request, except where it says otherwise, and waits for the answer until the
// session's time-out, also when signals arrive. It returns 0 or a count, or the negative errno of
// the failure. It is built on libsmb2's asynchronous calls, as its synchronous ones do not return
// the errno.
//
// After a failure of the connection or a time-out, the session destroys libsmb2's context, with the
// socket and every handle. Later calls fail with the same errno, without a request.
//
// Threads: callers serialise the calls on one session. Sessions are independent of each other.
#pragma once

#include "network/smb2frames_p.h"

#include <QDeadlineTimer>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

struct pollfd;
struct smb2_context;
struct smb2_create_request;
struct smb2_stat_64;
struct smb2_statvfs;
struct smb2fh;

namespace oru::io {

class Smb2Listing;

class Smb2Session {
public:
    /// Where to connect to, and as which user. An empty string leaves a field out.
    struct Login {
        const char* server; ///< a name or an address, with ":PORT" unless the port is 445
        const char* share;
        const char* user;
        const char* password;
        const char* domain;
        const char* workstation;
        unsigned int version; ///< libsmb2's number of a dialect; 0 for any
    };

    /// Not connected: every call but connect() returns -ENOTCONN. `timeout` is in seconds, for each
    /// call, and for each request of list(); 0 is no limit.
    explicit Smb2Session(unsigned int timeout);
    /// Closes the connection, without a request.
    ~Smb2Session();

    /// Connects, until `deadline`. Call it once. \returns 0 or a negative errno, among them:
    ///  - EIO, EAGAIN: the server's name cannot be resolved
    ///  - ECONNREFUSED: no server listens there, or it refuses the user or the password
    ///  - ENOENT: the server has no such share
    ///  - EPERM: the server encrypts the session
    ///  - EPROTO: the server moves less than 4 KiB at a time
    int connect(const Login& login, const QDeadlineTimer& deadline);
    /// Disconnects from the share and logs off, until `deadline`: two requests. When the server
    /// refuses the first, the session stays connected.
    int disconnect(const QDeadlineTimer& deadline);
    /// The deadline of a call that begins now.
    QDeadlineTimer deadline() const;
    /// Sends an echo request.
    int echo();

    /// 0 while there is a connection, else the errno that each call returns. Any thread may call
    /// it.
    int lastError() const;
    /// libsmb2's message of the failure that ended the connection; empty when it has made none.
    const std::string& message() const;

    /// libsmb2's number of the negotiated dialect; 0 before connect().
    unsigned int dialect() const;
    /// Makes write() and pwrite() wait for the answer to each request before they send the next.
    void writeSingly();
    /// Whether the connection was lost while a write had several requests under way.
    bool wasLostInWindow() const;

    /// Whether the session signs or encrypts its messages: 1 or 0; -ENOTSUP when that cannot be
    /// found out with this libsmb2.
    int isProtected() const;

    int stat(const char* path, smb2_stat_64& st);
    int statvfs(const char* path, struct smb2_statvfs& st);
    int mkdir(const char* path);
    /// Deletes directories only. unlink() deletes everything else.
    int rmdir(const char* path);
    int unlink(const char* path);
    int rename(const char* from, const char* to);
    int truncate(const char* path, std::uint64_t length);
    /// \returns -EINVAL also for a kind of link that has no target.
    int readlink(const char* path, std::string& target);

    int open(const char* path, int flags, smb2fh*& file);
    /// Closes the handle, also when it fails.
    int close(smb2fh* file);
    /// Reads at the handle's offset, which moves. \returns 0 at the end of the file only; -EBADMSG
    /// when the server returns no bytes before it.
    int read(smb2fh* file, void* buf, std::uint32_t count);
    /// The same, and the handle's offset stays.
    int pread(smb2fh* file, void* buf, std::uint32_t count, std::int64_t offset);
    /// Writes all bytes at the handle's offset, in requests of up to 64 KiB, with several of them
    /// under way. Each has the time-out, which begins again with each answer. What the server
    /// leaves out is sent again. After a refusal no more requests are sent.
    ///
    /// The handle's offset moves to the first byte that is not written; bytes after it may be.
    ///
    /// \returns `count`, or the negative errno of the lowest request that was refused.
    int write(smb2fh* file, const void* buf, std::uint32_t count);
    /// The same, and the handle's offset stays. After an answer that no byte is written, no more
    /// requests are sent. \returns `count` also then.
    int pwrite(smb2fh* file, const void* buf, std::uint32_t count, std::int64_t offset);
    /// Moves the handle's offset to `offset`, without a request. \returns it, or a negative errno.
    std::int64_t lseek(smb2fh* file, std::int64_t offset);
    int fstat(smb2fh* file, smb2_stat_64& st);
    int ftruncate(smb2fh* file, std::uint64_t length);
    int fsync(smb2fh* file);

    /// Lists a directory, with as many requests as needed. \returns also
    ///  - -EBADMSG for an answer that is not a listing
    ///  - -EOVERFLOW for a listing that does not end
    int list(const char* path, std::unique_ptr<Smb2Listing>& listing);

    /// Whether there is a connection: connected, and neither disconnected nor lost.
    bool hasConnection() const;

private:
    Q_DISABLE_COPY(Smb2Session)

    struct Attempt;
    struct Reading;
    struct Reply;
    struct Writing;
    /// What a write does after an answer that no byte is written.
    enum class AtZero { SendAgain, Stop };
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
    int readEntries(const std::uint8_t* directory, Smb2Listing& listing);
    int readAt(smb2fh* file, void* buf, std::uint32_t count, std::int64_t offset);
    int writeAt(smb2fh* file, const void* buf, std::uint32_t count, std::int64_t offset,
                AtZero atZero);
    int carryOut(Writing& writing);
    int window() const;
    bool hasCredit() const;
    std::int64_t offsetOf(smb2fh* file) const;

    static int remainingMs(const QDeadlineTimer& deadline);

    bool checkConnection();
    int await(Reply& reply, const QDeadlineTimer& deadline);
    int send();
    int exchange(const QDeadlineTimer& deadline);
    int serve(const struct pollfd& poller);
    int service(int events);
    int fail(int reason);

    const unsigned int m_timeout;
    std::unique_ptr<smb2_context, ContextDeleter> m_context; // null when there is no connection
    std::atomic<int> m_lastError; // then the errno that each call returns, else 0
    std::string m_message;
    Smb2Frames m_frames;
    unsigned int m_dialect = 0;
    int m_isProtected = 0;
    bool m_writesSingly = false;
    bool m_wasLostInWindow = false;
};

} // namespace oru::io
