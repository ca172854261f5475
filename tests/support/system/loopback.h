// TCP sockets on the loopback interface, for tests that stand between a client and its server.
#pragma once

#include <QtGlobal>

namespace oru::io::test {

/// A socket that is closed with its owner.
class Socket {
public:
    Socket() = default;
    /// Takes over a system descriptor; -1 is a socket that is not open.
    explicit Socket(int fd);
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&& other) noexcept;
    ~Socket();

    bool isOpen() const;
    int fd() const;
    /// The number of its own end; 0 when it is not open.
    quint16 port() const;

    void close();
    /// Closes it with RST: what is on its way is lost, and the peer's next call fails.
    void reset();

private:
    Q_DISABLE_COPY(Socket)
    int m_fd = -1;
};

/// A socket bound to a port, 0 being any that is free. As long as it neither listens nor closes,
/// the system gives its port to nobody who asks for any, while programs that ask for it by its
/// number with SO_REUSEADDR get it: it reserves the port for them.
Socket boundSocket(quint16 port = 0);
/// A socket that listens on a port. `flags` are of socket(2), such as SOCK_NONBLOCK.
Socket listeningSocket(quint16 port = 0, int flags = 0);
/// A socket that is connected, or with SOCK_NONBLOCK connecting, to a port. Not open on failure.
Socket connectedSocket(quint16 port, int flags = 0);
/// The next connection to a listening socket. Not open on failure. It sends without delay.
Socket acceptedSocket(const Socket& listener, int flags = 0);

} // namespace oru::io::test
