// SPDX-License-Identifier: Apache-2.0
// TCP sockets on the loopback interface.
#pragma once

#include <QtGlobal>

namespace oru::io::test {

/// Owns a socket and closes it.
class Socket {
public:
    Socket() = default;
    /// Takes ownership of a descriptor; -1 stands for no socket.
    explicit Socket(int fd);
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&& other) noexcept;
    ~Socket();

    bool isOpen() const;
    int fd() const;
    /// The local port; 0 if the socket is not open.
    quint16 port() const;

    void close();
    /// Closes the connection with RST: data in flight is lost, and the peer's next call fails.
    void reset();

private:
    Q_DISABLE_COPY(Socket)
    int m_fd = -1;
};

/// Binds a socket to a port; 0 chooses a free one. The bound socket reserves the port: the system
/// does not choose it for other sockets, while a program can still bind to its number with
/// SO_REUSEADDR.
Socket boundSocket(quint16 port = 0);
/// A listening socket. `flags` are those of socket(2), such as SOCK_NONBLOCK.
Socket listeningSocket(quint16 port = 0, int flags = 0);
/// A socket connected to a port; with SOCK_NONBLOCK it may still be connecting. Not open on
/// failure.
Socket connectedSocket(quint16 port, int flags = 0);
/// Accepts the next connection, with TCP_NODELAY. Not open on failure.
Socket acceptedSocket(const Socket& listener, int flags = 0);

} // namespace oru::io::test
