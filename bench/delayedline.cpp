// SPDX-License-Identifier: Apache-2.0
#include "delayedline.h"

#include "placement.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <deque>
#include <utility>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

using oru::io::test::acceptedSocket;
using oru::io::test::connectedSocket;
using oru::io::test::listeningSocket;
using oru::io::test::Socket;

/// One direction of a connection.
struct DelayedLine::Stream {
    struct Chunk {
        Clock::time_point due;
        std::vector<char> bytes;
        std::size_t sent = 0;
    };

    const Socket& from;
    const Socket& to;
    std::deque<Chunk> chunks = {};
    bool isAtEnd = false; // nothing more comes
    bool isFull = false;  // the destination takes nothing at the moment

    void receive(Clock::duration delay) {
        thread_local std::vector<char> buffer(256 << 10);
        const ssize_t count = ::recv(from.fd(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        isAtEnd = count <= 0;
        chunks.push_back(
            {Clock::now() + delay, {buffer.data(), buffer.data() + std::max<ssize_t>(count, 0)}});
    }

    /// Sends what is due. An empty chunk is the end.
    void send() {
        isFull = false;
        while (!chunks.empty() && chunks.front().due <= Clock::now()) {
            Chunk& chunk = chunks.front();
            const std::size_t left = chunk.bytes.size() - chunk.sent;
            if (left == 0) {
                ::shutdown(to.fd(), SHUT_WR);
            } else {
                const ssize_t count = ::send(to.fd(), chunk.bytes.data() + chunk.sent, left,
                                             MSG_DONTWAIT | MSG_NOSIGNAL);
                isFull = count < 0 && errno == EAGAIN;
                if (isFull)
                    return;
                // A destination that is gone takes everything.
                chunk.sent += count < 0 ? left : static_cast<std::size_t>(count);
            }
            if (chunk.sent == chunk.bytes.size())
                chunks.pop_front();
        }
    }

    bool isOver() const {
        return isAtEnd && chunks.empty();
    }
};

struct DelayedLine::Connection {
    Socket client;
    Socket server;
    Stream requests{client, server};
    Stream answers{server, client};

    bool isOver() const {
        return requests.isOver() && answers.isOver();
    }
};

DelayedLine::DelayedLine(quint16 serverPort, Clock::duration roundTrip)
    : m_serverPort(serverPort), m_delay(roundTrip / 2), m_listener(listeningSocket()),
      m_end(eventfd(0, EFD_CLOEXEC)) {
    if (!m_listener.isOpen() || m_end == -1)
        std::abort();
    m_thread = std::thread(&DelayedLine::run, this);
}

DelayedLine::~DelayedLine() {
    ::eventfd_write(m_end, 1);
    m_thread.join();
    ::close(m_end);
}

quint16 DelayedLine::port() const {
    return m_listener.port();
}

void DelayedLine::run() {
    // Not on the processor of the clients and the server, if there is another one.
    Placement::bind(Placement::Apart);
    prctl(PR_SET_TIMERSLACK, 1000); // nanoseconds
    while (!m_isEnding) {
        wait();
        for (const auto& connection : m_connections) {
            connection->requests.send();
            connection->answers.send();
        }
        m_connections.erase(
            std::remove_if(m_connections.begin(), m_connections.end(),
                           [](const auto& connection) { return connection->isOver(); }),
            m_connections.end());
    }
}

/// Waits for an event or until the next chunk is due. Receives what has arrived.
void DelayedLine::wait() {
    std::vector<pollfd> polled = {{m_end, POLLIN, 0}, {m_listener.fd(), POLLIN, 0}};
    std::vector<Stream*> streams = {nullptr, nullptr};
    auto next = Clock::time_point::max();
    const auto add = [&](Stream& stream) {
        if (!stream.isAtEnd) {
            polled.push_back({stream.from.fd(), POLLIN, 0});
            streams.push_back(&stream);
        }
        if (stream.isFull)
            polled.push_back({stream.to.fd(), POLLOUT, 0});
        else if (!stream.chunks.empty())
            next = std::min(next, stream.chunks.front().due);
        streams.resize(polled.size());
    };
    for (const auto& connection : m_connections) {
        add(connection->requests);
        add(connection->answers);
    }
    const auto left = std::chrono::nanoseconds(std::max(next - Clock::now(), Clock::duration(0)));
    const struct timespec limit = {left.count() / 1'000'000'000, left.count() % 1'000'000'000};
    ::ppoll(polled.data(), polled.size(), next == Clock::time_point::max() ? nullptr : &limit,
            nullptr);
    m_isEnding = polled[0].revents != 0;
    for (std::size_t i = 2; i < polled.size(); ++i) {
        if (streams[i] && polled[i].revents != 0)
            streams[i]->receive(m_delay);
    }
    if (polled[1].revents != 0)
        takeConnection();
}

void DelayedLine::takeConnection() {
    auto connection = std::make_unique<Connection>();
    connection->client = acceptedSocket(m_listener);
    connection->server = connectedSocket(m_serverPort);
    if (!connection->client.isOpen() || !connection->server.isOpen())
        return;
    const int on = 1;
    ::setsockopt(connection->server.fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    m_connections.push_back(std::move(connection));
}
