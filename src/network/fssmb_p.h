// SPDX-License-Identifier: Apache-2.0
// What a share and its files and directories have in common.
#pragma once

#include <oruio/fssmb.h>

#include "core/cancelguard_p.h"
#include "core/systemtext_p.h"
#include "network/smb2session_p.h"

#include <QByteArray>
#include <QSharedData>
#include <QString>

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>

#include <sys/stat.h>

struct smb2_stat_64;

namespace oru::io {

/// The log channel "libio_smb2".
extern const int smbLogChannel;

/// Whether `error` is a failure of the connection, after which the share is unusable until
/// connect().
inline bool isFatal(int error) {
    switch (error) {
    case ETIMEDOUT:
    case ENETRESET:
    case EBUSY:
    case ECONNREFUSED:
    case ECONNRESET:
        return true;
    default:
        return false;
    }
}

/// Fails with errno EOPNOTSUPP.
inline int notSupported() {
    errno = EOPNOTSUPP;
    return -1;
}

/// The longest path that the protocol can carry, in characters.
constexpr int longestPath = 32767;
/// Calls `call` with the path as the protocol spells it: in UTF-8, without a leading slash.
/// \returns its result; -1 with errno when the path cannot be sent.
template <class Call>
int withSharePath(const QString& path, Call call) {
    if (path.size() > longestPath) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return withPath(path, [&](const char* p) { return call(*p == '/' ? p + 1 : p); });
}

/// Copies what a stat(2) of a share sets. The other fields keep their values.
void smbStat2Stat(const smb2_stat_64* in, struct stat* out);

/// The connection. A share has it in common with its files and directories, so that these notice
/// when it ends.
class Smb2FS::Data : public QSharedData {
public:
    explicit Data(unsigned int seconds)
        : timeout(seconds), session(std::make_shared<Smb2Session>(seconds)) {}

    bool isBroken() const {
        return isFatal(lastError);
    }

    /// Begins a new session, until `deadline`. \returns 0 or a negative errno. With the lock held.
    int connect(const Properties& props, const QDeadlineTimer& deadline);
    /// 0 while the share can be used, else the errno that makes it unusable. Without the lock.
    int brokenBy() const;

    /// Locks the connection, and holds off the cancellation of the thread: libsmb2 keeps pointers
    /// into the caller's stack until it has the answer.
    class Lock {
    public:
        explicit Lock(Data& share) : m_lock(share.mutex) {}

    private:
        const CancelGuard m_guard;
        const std::lock_guard<std::recursive_mutex> m_lock;
    };

    /// Converts a result of the session into that of an operation: a negative errno becomes -1,
    /// with errno and lastError set.
    int report(int result) {
        if (result >= 0)
            return result;
        lastError = -result;
        errno = -result;
        return -1;
    }

    /// \returns the result of `call(session, path)`.
    template <class Call>
    int onPath(const QString& path, Call call) {
        if (isBroken())
            return -1;
        const Lock lock(*this);
        return withSharePath(path, [&](const char* p) { return report(call(*session, p)); });
    }

    // Recursive, as opendir() creates a directory while it holds the mutex, and that locks it to
    // open itself.
    std::recursive_mutex mutex; // guards all below but lastError and failure
    const unsigned int timeout;
    std::shared_ptr<Smb2Session> session; ///< a new one at each connect(); null after ~Smb2FS()
    QByteArray description;               ///< of the connection; empty when not connected
    /// Whether the next session sends the requests of a write one by one, because the last one was
    /// lost while several were under way.
    bool writesSingly = false;
    std::atomic<int> lastError{0}; ///< the errno of the last call that failed

    // Never locked during a request. Guards failure, and, beside the other mutex, which session it
    // is. If both are locked, this one is the second.
    mutable std::mutex stateMutex;
    ConnectFailure failure; ///< of the last connect()

private:
    int connect(const Properties& props, const QDeadlineTimer& deadline, ConnectFailure& outcome);
    void setSession(std::shared_ptr<Smb2Session> next);
};

} // namespace oru::io
