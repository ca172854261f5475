// SPDX-License-Identifier: Apache-2.0
#include "fuzz/smb/inprocessserver.h"

#include "fuzz/smb/message.h"
#include "fuzz/support.h"

#include <cerrno>
#include <utility>

#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace oru::io::test {

namespace {

InProcessServer* currentServer = nullptr;

} // namespace

InProcessServer::InProcessServer() {
    require(!currentServer, "one server exists at a time");
    currentServer = this;
}

InProcessServer::~InProcessServer() {
    currentServer = nullptr;
}

InProcessServer* InProcessServer::current() {
    return currentServer;
}

bool InProcessServer::connectClient(int client) {
    int ends[2];
    constexpr int type = SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC;
    if (::socketpair(AF_UNIX, type, 0, ends) == -1)
        return false;
    m_socket = Socket(ends[0]);
    m_received.clear();
    m_pieces.clear();
    m_isClosing = false;
    const bool isConnected = ::dup3(ends[1], client, O_CLOEXEC) != -1;
    ::close(ends[1]);
    return isConnected;
}

bool InProcessServer::turn() {
    const bool hasReceived = receive();
    return transmit() || hasReceived;
}

void InProcessServer::carryOn() {
    if (m_pieces.isEmpty() && !m_isClosing)
        idle();
    transmit();
}

void InProcessServer::idle() {
    close();
}

void InProcessServer::send(const QByteArray& bytes, bool isFollowedByPause) {
    if (!m_isClosing)
        m_pieces.append({bytes, isFollowedByPause});
}

void InProcessServer::close() {
    m_isClosing = true;
}

bool InProcessServer::receive() {
    static char buffer[1 << 18];
    bool hasReceived = false;
    while (m_socket.isOpen()) {
        const ssize_t count = ::recv(m_socket.fd(), buffer, sizeof buffer, 0);
        if (count <= 0) {
            if (count == 0 || errno != EAGAIN)
                m_socket.close();
            break;
        }
        hasReceived = true;
        m_received.append(buffer, static_cast<int>(count));
    }
    QByteArray frame;
    while (!m_isClosing && takeFrame(m_received, frame))
        answer(frame);
    return hasReceived;
}

bool InProcessServer::transmit() {
    bool hasSent = false;
    bool isPause = false;
    while (m_socket.isOpen() && !m_pieces.isEmpty() && !isPause) {
        Piece& piece = m_pieces.first();
        const ssize_t count = ::send(m_socket.fd(), piece.bytes.constData(),
                                     static_cast<size_t>(piece.bytes.size()), MSG_NOSIGNAL);
        if (count == -1)
            return hasSent;
        hasSent = true;
        piece.bytes.remove(0, static_cast<int>(count));
        if (!piece.bytes.isEmpty())
            return hasSent;
        isPause = piece.isFollowedByPause;
        m_pieces.removeFirst();
    }
    if (m_pieces.isEmpty() && m_isClosing)
        m_socket.close();
    return hasSent;
}

} // namespace oru::io::test

using oru::io::test::InProcessServer;

/// connect(2) of this process, also for libsmb2.
extern "C" __attribute__((visibility("default"))) int
connect(int fd, const struct sockaddr* address, socklen_t size) {
    InProcessServer* const server = InProcessServer::current();
    const auto* const internet = reinterpret_cast<const sockaddr_in*>(address);
    if (server && address->sa_family == AF_INET &&
        ntohs(internet->sin_port) == InProcessServer::port)
        return server->connectClient(fd) ? 0 : -1;
    return static_cast<int>(::syscall(SYS_connect, fd, address, size));
}

extern "C" int __real_poll(struct pollfd* fds, nfds_t count, int timeout);

namespace {

/// poll(2) at this moment, as for a TCP connection: a local socket ignores SO_RCVLOWAT there.
int pollNow(struct pollfd* fds, nfds_t count) {
    int ready = __real_poll(fds, count, 0);
    for (nfds_t i = 0; i < count && ready > 0; ++i) {
        int wanted = 1;
        int available = 0;
        socklen_t size = sizeof wanted;
        if ((fds[i].revents & (POLLIN | POLLHUP)) != POLLIN ||
            ::getsockopt(fds[i].fd, SOL_SOCKET, SO_RCVLOWAT, &wanted, &size) == -1 ||
            ::ioctl(fds[i].fd, FIONREAD, &available) == -1 || available >= wanted)
            continue;
        fds[i].revents &= static_cast<short>(~POLLIN);
        ready -= fds[i].revents == 0;
    }
    return ready;
}

} // namespace

/// poll(2) of the library: never waits.
extern "C" int __wrap_poll(struct pollfd* fds, nfds_t count, int timeout) {
    InProcessServer* const server = InProcessServer::current();
    if (!server)
        return __real_poll(fds, count, timeout);
    // A client may also go round in circles, with a request that it cannot send.
    constexpr int enough = 100;
    static int idleTurns = 0;
    idleTurns = timeout == 0 || server->turn() ? 0 : idleTurns + 1;
    if (idleTurns > enough)
        server->carryOn();
    int ready = pollNow(fds, count);
    for (int i = 0; i < enough && ready == 0 && timeout != 0; ++i) {
        server->carryOn();
        ready = pollNow(fds, count);
    }
    oru::io::test::require(ready != 0 || timeout == 0, "a client that waits has a connection");
    return ready;
}
