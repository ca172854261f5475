// SPDX-License-Identifier: Apache-2.0
// How a Smb2Session connects.

#include "network/libsmb2_internals_p.h"
#include "network/libsmb2_p.h"
#include "network/smb2reply_p.h"
#include "network/smb2session_p.h"

#include <QSemaphore>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

namespace oru::io {

namespace {

/// libsmb2's callback for a socket that it has created: sets the socket's options.
void socketMade(smb2_context*, t_socket socket, int command) {
    if (command != SMB2_ADD_FD)
        return;
    // A program that this process starts must not inherit the connection.
    fcntl(socket, F_SETFD, FD_CLOEXEC);
    // Detects a server that was switched off, also while no request is pending.
    const auto set = [socket](int level, int option, int value) {
        setsockopt(socket, level, option, &value, sizeof value);
    };
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_KEEPIDLE, 30);
    set(IPPROTO_TCP, TCP_KEEPINTVL, 10);
    set(IPPROTO_TCP, TCP_KEEPCNT, 3);
}

/// The host in "host", "host:port", "[host]" and "[host]:port".
std::string hostOf(const char* server) {
    const bool isBracketed = *server == '[';
    const char* const begin = server + (isBracketed ? 1 : 0);
    return {begin, std::strcspn(begin, isBracketed ? "]" : ":")};
}

/// Whether a server is given by its address, so that no resolver is needed.
bool isAddress(const char* server) {
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* addresses = nullptr;
    if (getaddrinfo(hostOf(server).c_str(), nullptr, &hints, &addresses) != 0)
        return false;
    freeaddrinfo(addresses);
    return true;
}

} // namespace

/// An attempt to connect. libsmb2 resolves the server's name in its first call, which may take as
/// long as the resolver's own time-outs. So a thread may own the attempt when its session has given
/// it up.
struct Smb2Session::Attempt {
    std::string server;
    std::string share;
    Reply reply;
    std::unique_ptr<smb2_context, ContextDeleter> context; // its destruction writes to the reply
    std::string message;                                   // libsmb2's, after a failure
    std::atomic<int> result = 0;                           // set after the other members
    QSemaphore hasBegun;

    void begin() {
        // No user here, as it is set already. libsmb2 would otherwise replace the password by one
        // from a file of its own.
        const int refused = smb2_connect_share_async(context.get(), server.c_str(), share.c_str(),
                                                     nullptr, Reply::takeConnection, &reply);
        if (refused != 0)
            message = smb2_get_error(context.get());
        result = refused == 0 ? 0 : libsmb2::connectError(context.get(), refused);
        hasBegun.release();
    }

    static void* run(void* shared) {
        const std::unique_ptr<std::shared_ptr<Attempt>> attempt(
            static_cast<std::shared_ptr<Attempt>*>(shared));
        (*attempt)->begin();
        return nullptr;
    }
};

int Smb2Session::connect(const Login& login, const QDeadlineTimer& deadline) {
    const auto attempt = std::make_shared<Attempt>();
    attempt->server = login.server;
    attempt->share = login.share;
    attempt->context.reset(libsmb2::makeContext());
    if (!attempt->context)
        return -ENOMEM;
    smb2_context* const context = attempt->context.get();
    // libsmb2's own time-out is not set: it fires late, and some of its calls crash after it.
    smb2_fd_event_callbacks(context, socketMade, nullptr);
    // Otherwise a libsmb2 that was built with Kerberos tries that, and fails.
    constexpr int ntlmssp = 1;
    smb2_set_authentication(context, ntlmssp);
    smb2_set_user(context, login.user);
    // With an empty password libsmb2 would log the user in with it. Null logs in anonymously.
    smb2_set_password(context, login.password[0] ? login.password : nullptr);
    smb2_set_domain(context, login.domain);
    smb2_set_workstation(context, login.workstation);
    smb2_set_security_mode(context, 0);
    smb2_set_version(context, static_cast<smb2_negotiate_version>(login.version));

    const int result = establish(attempt, deadline);
    if (result < 0) {
        fail(ENOTCONN);
        return result;
    }
    m_frames.setConnected();
    m_dialect = smb2_get_dialect(context);
    const int isSigned = libsmb2::isSigned(context);
    const int isSealed = libsmb2::isSealed(context);
    m_isProtected = std::min(isSigned, isSealed) < 0 ? -ENOTSUP : isSigned | isSealed;
    m_lastError = 0;
    return 0;
}

int Smb2Session::establish(const std::shared_ptr<Attempt>& attempt,
                           const QDeadlineTimer& deadline) {
    const int refused = begin(attempt, deadline);
    if (refused != 0) {
        if (attempt->result == refused) // else the thread may still use it
            m_message = attempt->message;
        return refused;
    }
    m_context = std::move(attempt->context);
    const int failed = reach(deadline);
    if (failed != 0)
        return failed;
    const int result = await(attempt->reply, deadline);
    return m_context || result < 0 ? result : -m_lastError;
}

/// Starts the attempt. The name of a server is resolved on a detached thread, so that the time-out
/// holds.
int Smb2Session::begin(const std::shared_ptr<Attempt>& attempt, const QDeadlineTimer& deadline) {
    if (isAddress(attempt->server.c_str())) {
        attempt->begin();
        return attempt->result;
    }
    auto shared = std::make_unique<std::shared_ptr<Attempt>>(attempt);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    // The process's signal handlers must not run on this thread.
    sigset_t all;
    sigset_t mask;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &mask);
    pthread_t thread;
    const int error = pthread_create(&thread, &attributes, &Attempt::run, shared.get());
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    pthread_attr_destroy(&attributes);
    if (error != 0)
        return -error;
    static_cast<void>(shared.release()); // now owned by the thread
    if (!attempt->hasBegun.tryAcquire(1, remainingMs(deadline)))
        return -ETIMEDOUT;
    return attempt->result;
}

/// Waits until one of the server's addresses has accepted the connection.
///
/// The addresses are tried one after another, as libsmb2 may close the wrong socket when it tries
/// several at a time. An address that does not answer gets an eighth of the time left while there
/// are others. Each address is on libsmb2's list three times, once per socket type, so even a
/// single address is tried three times.
int Smb2Session::reach(const QDeadlineTimer& deadline) {
    smb2_context* const context = m_context.get();
    const auto isConnecting = [context] { return (smb2_which_events(context) & POLLIN) == 0; };
    while (isConnecting()) {
        size_t count = 0;
        int untilNext = -1;
        struct pollfd poller = {*smb2_get_fds(context, &count, &untilNext), POLLOUT, 0};
        const bool isLast = untilNext < 0;
        QDeadlineTimer share = deadline;
        if (!isLast && !deadline.isForever())
            share.setRemainingTime(deadline.remainingTime() / 8);

        int ready = 0;
        do
            ready = poll(&poller, 1, remainingMs(share));
        while (ready < 0 && errno == EINTR);
        if (ready < 0)
            return -errno;
        int error = ETIMEDOUT;
        socklen_t size = sizeof error;
        if (ready > 0)
            getsockopt(poller.fd, SOL_SOCKET, SO_ERROR, &error, &size);
        if (isLast && error != 0)
            return -error;
        // POLLERR makes libsmb2 close this socket and try the next address.
        const int failed = smb2_service_fd(context, poller.fd, error == 0 ? POLLOUT : POLLERR);
        if (failed != 0)
            return -error;
    }
    return 0;
}

} // namespace oru::io
