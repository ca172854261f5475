// SPDX-License-Identifier: Apache-2.0
#include "support/system/loopback.h"

#include <cerrno>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace oru::io::test {

namespace {

void setOption(const Socket& socket, int level, int option) {
    const int on = 1;
    setsockopt(socket.fd(), level, option, &on, sizeof on);
}

sockaddr_in loopback(quint16 port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

Socket tcpSocket(int flags) {
    return Socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

Socket boundSocket(quint16 port, int flags) {
    Socket socket = tcpSocket(flags);
    setOption(socket, SOL_SOCKET, SO_REUSEADDR);
    const sockaddr_in address = loopback(port);
    if (::bind(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1)
        socket.close();
    return socket;
}

} // namespace

Socket::Socket(int fd) : m_fd(fd) {}

Socket::Socket(Socket&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}

Socket& Socket::operator=(Socket&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
}

Socket::~Socket() {
    close();
}

bool Socket::isOpen() const {
    return m_fd != -1;
}

int Socket::fd() const {
    return m_fd;
}

quint16 Socket::port() const {
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

void Socket::close() {
    if (isOpen())
        ::close(std::exchange(m_fd, -1));
}

void Socket::reset() {
    const linger discard = {1, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &discard, sizeof discard);
    close();
}

Socket boundSocket(quint16 port) {
    return boundSocket(port, 0);
}

Socket listeningSocket(quint16 port, int flags) {
    Socket socket = boundSocket(port, flags);
    if (::listen(socket.fd(), SOMAXCONN) == -1)
        socket.close();
    return socket;
}

Socket connectedSocket(quint16 port, int flags) {
    Socket socket = tcpSocket(flags);
    setOption(socket, IPPROTO_TCP, TCP_NODELAY);
    const sockaddr_in address = loopback(port);
    if (::connect(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1 &&
        errno != EINPROGRESS)
        socket.close();
    return socket;
}

Socket acceptedSocket(const Socket& listener, int flags) {
    Socket socket(::accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC | flags));
    setOption(socket, IPPROTO_TCP, TCP_NODELAY);
    return socket;
}

} // namespace oru::io::test
