// SPDX-License-Identifier: Apache-2.0
#include "support/doubles/faultproxy.h"

#include "support/system/childprocess.h"

#include <QtEndian>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <optional>
#include <utility>

#include <linux/sockios.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace oru::io::test {

// --- Frames and messages ------------------------------------------------------------------------

namespace {

using Clock = std::chrono::steady_clock;
using Kind = FaultProxy::Fault::Kind;
using Message = FaultProxy::Message;

constexpr int prefixSize = 4;
constexpr int smb2HeaderSize = 64;
constexpr int headSize = 256;
constexpr int chunkSize = 256 * 1024;
constexpr quint32 statusPending = 0x103;

/// The field at `offset` of a message.
template <class Int>
Int field(const QByteArray& message, int offset) {
    return qFromLittleEndian<Int>(message.constData() + offset);
}

bool isSmb2(const QByteArray& head) {
    return head.size() >= smb2HeaderSize && head.startsWith("\xfeSMB");
}

Message messageWith(const QByteArray& head, bool fromServer) {
    Message message;
    message.fromServer = fromServer;
    message.head = head;
    if (!isSmb2(head))
        return message;
    message.command = field<quint16>(head, 12);
    message.status = fromServer ? field<quint32>(head, 8) : 0;
    message.messageId = field<quint64>(head, 24);
    const bool transfers =
        message.command == FaultProxy::Read || message.command == FaultProxy::Write;
    if (transfers && head.size() >= smb2HeaderSize + 8)
        message.length = field<quint32>(head, smb2HeaderSize + 4);
    if (transfers && !fromServer && head.size() >= smb2HeaderSize + 16)
        message.offset = field<quint64>(head, smb2HeaderSize + 8);
    return message;
}

int frameSizeAt(const char* frame) {
    return prefixSize + static_cast<int>(qFromBigEndian<quint32>(frame) & 0xffffff);
}

/// The messages of a frame of which `available` bytes have arrived. Empty until the heads of all
/// messages have.
QList<Message> chainAt(const char* frame, int available, bool fromServer) {
    QList<Message> chain;
    const int size = frameSizeAt(frame) - prefixSize;
    int at = 0;
    for (quint32 next = 1; next != 0; at += static_cast<int>(next)) {
        const int headEnd = at + std::min(headSize, size - at);
        if (available < prefixSize + headEnd)
            return {};
        Message message =
            messageWith(QByteArray(frame + prefixSize + at, headEnd - at), fromServer);
        next = isSmb2(message.head) ? field<quint32>(message.head, 20) : 0;
        // The receiver rejects a chain that exceeds its frame.
        if (next >= static_cast<quint32>(size - at))
            next = 0;
        message.at = at;
        message.size = next != 0 ? static_cast<int>(next) : size - at;
        chain.append(message);
    }
    return chain;
}

} // namespace

bool FaultProxy::Message::isInterim() const {
    return fromServer && status == statusPending;
}

// --- One connection -----------------------------------------------------------------------------

namespace {

/// Whether the peer has acknowledged all bytes, or never will.
bool isDelivered(const Socket& socket) {
    int waiting = 0;
    int error = 0;
    socklen_t size = sizeof error;
    return ::ioctl(socket.fd(), SIOCOUTQ, &waiting) == -1 || waiting == 0 ||
           ::getsockopt(socket.fd(), SOL_SOCKET, SO_ERROR, &error, &size) == -1 || error != 0;
}

} // namespace

/// A fault, and the position of its message in the frame.
struct FaultProxy::Strike {
    Fault fault;
    int at = 0;
    int size = 0;
};

/// One direction of a connection.
struct FaultProxy::Stream {
    const Direction direction;
    const Socket& from;
    const Socket& to;
    QByteArray held = {}; // received and not yet sent
    int cleared = 0;      // how many bytes of it, and of bytes still to be received, may be sent
    std::optional<Strike> due = {}; // the fault of the frame after that
    Kind ending = Kind::None;       // happens to the connection when the cleared bytes are sent

    bool hasOutput() const {
        return cleared > 0 && !held.isEmpty();
    }
    /// Sending goes first, so that a slow destination makes the source wait.
    bool wantsInput() const {
        return !hasOutput() && (ending == Kind::None || cleared > 0);
    }

    void receive() {
        const int before = held.size();
        held.resize(before + chunkSize);
        const ssize_t count = ::recv(from.fd(), held.data() + before, chunkSize, MSG_DONTWAIT);
        const bool isLater = count == -1 && (errno == EAGAIN || errno == EINTR);
        held.resize(before + static_cast<int>(std::max<ssize_t>(count, 0)));
        if (count > 0 || isLater)
            return;
        ending = count == 0 ? Kind::Close : Kind::Reset;
        cleared = held.size(); // an incomplete frame passes unchanged
    }

    /// Applies a fault to the frame after the cleared bytes. \returns false when it needs more
    /// bytes of the frame first.
    bool apply(const Strike& strike, int frameSize) {
        const Fault& fault = strike.fault;
        switch (fault.kind) {
        case Kind::None:
        case Kind::Dribble:
            cleared += frameSize;
            break;
        case Kind::Reset:
        case Kind::Close:
        case Kind::Freeze:
            cleared += std::min(fault.amount, frameSize);
            ending = fault.kind;
            break;
        case Kind::Edit:
        case Kind::Drop:
            if (held.size() < cleared + frameSize)
                return false;
            if (fault.kind == Kind::Drop)
                held.remove(cleared, frameSize);
            else
                edit(strike, frameSize);
        }
        return true;
    }

    void edit(const Strike& strike, int frameSize) {
        const int begin = cleared + prefixSize + strike.at;
        QByteArray message = held.mid(begin, strike.size);
        strike.fault.editor(message);
        held.replace(begin, strike.size, message);
        const int edited = frameSize - strike.size + message.size();
        qToBigEndian(static_cast<quint32>(edited - prefixSize), held.data() + cleared);
        cleared += edited;
    }
};

/// A connection of a client, and its connection to the server.
struct FaultProxy::Connection {
    const int number;
    Socket client;
    Socket server;
    Stream requests{Request, client, server};
    Stream responses{Response, server, client};
    bool isFrozen = false; // nothing is forwarded any more
    bool clientHasClosed = false;
    int dribbleMs = -1; // -1: the bytes of the server are not delayed
    Clock::time_point nextByte = {};

    explicit Connection(int connectionNumber) : number(connectionNumber) {}

    bool isOver() const {
        return !client.isOpen() || (isFrozen && clientHasClosed);
    }
    bool isOpen() const {
        return client.isOpen() && !clientHasClosed;
    }
    bool dribbles(const Stream& stream) const {
        return dribbleMs >= 0 && stream.direction == Response;
    }
    /// Whether it waits for time to pass.
    bool waitsForTime() const {
        return !isFrozen && ((dribbles(responses) && responses.hasOutput()) ||
                             requests.ending != Kind::None || responses.ending != Kind::None);
    }

    pollfd clientEnd() const {
        const int closing = clientHasClosed ? 0 : POLLRDHUP;
        return end(client, requests, responses, closing);
    }
    pollfd serverEnd() const {
        return end(server, responses, requests, 0);
    }
    pollfd end(const Socket& socket, const Stream& in, const Stream& out, int events) const {
        if (!isFrozen && in.wantsInput())
            events |= POLLIN;
        if (!isFrozen && out.hasOutput() && !dribbles(out))
            events |= POLLOUT;
        // poll() always reports POLLHUP and POLLERR: an end without requested events is left out.
        return {events != 0 ? socket.fd() : -1, static_cast<short>(events), 0};
    }

    /// Sends the cleared bytes that the destination accepts.
    void pass(Stream& stream) {
        const int available = std::min(stream.cleared, stream.held.size());
        const bool isSlow = dribbles(stream);
        int sent = 0;
        while (sent < available && (!isSlow || Clock::now() >= nextByte)) {
            const int size = isSlow ? 1 : available - sent;
            const ssize_t count =
                ::send(stream.to.fd(), stream.held.constData() + sent,
                       static_cast<std::size_t>(size), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (count == -1 && errno != EAGAIN && errno != EINTR)
                return finish(Kind::Reset);
            if (count == -1)
                break;
            sent += static_cast<int>(count);
            nextByte = Clock::now() + std::chrono::milliseconds(dribbleMs);
        }
        stream.held.remove(0, sent);
        stream.cleared -= sent;
        // RST would discard bytes that are not delivered yet.
        const bool isPassed =
            stream.cleared == 0 && (stream.ending != Kind::Reset || isDelivered(stream.to));
        if (isPassed && stream.ending != Kind::None)
            finish(stream.ending);
    }

    void finish(Kind kind) {
        isFrozen = true;
        if (kind == Kind::Reset) {
            client.reset();
            server.reset();
        } else if (kind == Kind::Close) {
            ::shutdown(client.fd(), SHUT_WR);
            ::shutdown(server.fd(), SHUT_WR);
        }
    }
};

// --- Interface ----------------------------------------------------------------------------------

FaultProxy::Fault FaultProxy::Fault::reset(int bytes) {
    return {Kind::Reset, bytes, {}};
}

FaultProxy::Fault FaultProxy::Fault::close(int bytes) {
    return {Kind::Close, bytes, {}};
}

FaultProxy::Fault FaultProxy::Fault::freeze(int bytes) {
    return {Kind::Freeze, bytes, {}};
}

FaultProxy::Fault FaultProxy::Fault::dribble(int intervalMs) {
    return {Kind::Dribble, intervalMs, {}};
}

FaultProxy::Fault FaultProxy::Fault::edit(std::function<void(QByteArray&)> editor) {
    return {Kind::Edit, 0, std::move(editor)};
}

FaultProxy::Fault FaultProxy::Fault::drop() {
    return {Kind::Drop, 0, {}};
}

FaultProxy::FaultProxy(quint16 serverPort)
    : m_serverPort(serverPort), m_reservation(boundSocket()),
      m_wakeup(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    setMode(Mode::Accept);
    if (!m_listener.isOpen() || m_wakeup == -1)
        std::abort();
    m_thread = std::thread(&FaultProxy::run, this);
}

FaultProxy::~FaultProxy() {
    perform([this] { m_isEnding = true; });
    m_thread.join();
    ::close(m_wakeup);
}

quint16 FaultProxy::port() const {
    return m_reservation.port();
}

QString FaultProxy::address() const {
    return QStringLiteral("127.0.0.1:%1").arg(port());
}

void FaultProxy::on(const Trigger& trigger, const Fault& fault) {
    perform([&] { m_armed.push_back({trigger, fault}); });
}

int FaultProxy::armed() const {
    std::size_t count = 0;
    perform([&] { count = m_armed.size(); });
    return static_cast<int>(count);
}

void FaultProxy::disarm() {
    perform([this] { m_armed.clear(); });
}

QList<Message> FaultProxy::messages() const {
    QList<Message> all;
    perform([&] { all = m_messages; });
    return all;
}

QList<Message> FaultProxy::messages(Direction direction, int command) const {
    QList<Message> chosen;
    for (const Message& message : messages()) {
        if (message.fromServer == (direction == Response) && message.command == command)
            chosen.append(message);
    }
    return chosen;
}

void FaultProxy::clear() {
    perform([this] { m_messages.clear(); });
}

void FaultProxy::accept() {
    perform([this] { setMode(Mode::Accept); });
}

void FaultProxy::refuse() {
    perform([this] { setMode(Mode::Refuse); });
}

void FaultProxy::silence() {
    perform([this] { setMode(Mode::Silence); });
}

void FaultProxy::resetOnConnect() {
    perform([this] { setMode(Mode::Reset); });
}

void FaultProxy::dropConnections() {
    perform([this] {
        for (const auto& connection : m_connections)
            connection->finish(Kind::Reset);
    });
}

int FaultProxy::connections() const {
    int count = 0;
    perform([&] { count = m_accepted; });
    return count;
}

int FaultProxy::openConnections() const {
    std::ptrdiff_t count = 0;
    perform([&] {
        count = std::count_if(m_connections.begin(), m_connections.end(),
                              [](const auto& connection) { return connection->isOpen(); });
    });
    return static_cast<int>(count);
}

bool FaultProxy::waitUntilClosed(double seconds) const {
    return eventually([this] { return openConnections() == 0; }, seconds);
}

// --- The thread ---------------------------------------------------------------------------------

/// Runs `work` on the proxy thread, and waits for it.
void FaultProxy::perform(const std::function<void()>& work) const {
    const std::lock_guard<std::mutex> turn(m_turn);
    std::unique_lock<std::mutex> lock(m_mutex);
    m_work = &work;
    ::eventfd_write(m_wakeup, 1);
    m_isDone.wait(lock, [this] { return !m_work; });
}

void FaultProxy::setMode(Mode mode) {
    m_mode = mode;
    if (mode == Mode::Refuse)
        m_listener.close();
    else if (!m_listener.isOpen())
        m_listener = listeningSocket(port(), SOCK_NONBLOCK);
}

void FaultProxy::run() {
    // The threads of the test handle signals.
    sigset_t signals;
    sigfillset(&signals);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    while (!m_isEnding) {
        wait();
        takeConnections();
        for (const auto& connection : m_connections) {
            transfer(*connection, connection->requests);
            transfer(*connection, connection->responses);
        }
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_work) {
                (*std::exchange(m_work, nullptr))();
                m_isDone.notify_all();
            }
        }
        m_connections.erase(
            std::remove_if(m_connections.begin(), m_connections.end(),
                           [](const auto& connection) { return connection->isOver(); }),
            m_connections.end());
    }
}

/// Waits for an event.
void FaultProxy::wait() {
    std::vector<pollfd> ends = {{m_wakeup, POLLIN, 0}, {m_listener.fd(), POLLIN, 0}};
    const std::size_t others = ends.size();
    int timeoutMs = -1;
    for (const auto& connection : m_connections) {
        ends.push_back(connection->clientEnd());
        ends.push_back(connection->serverEnd());
        if (connection->waitsForTime())
            timeoutMs = 1;
    }
    ::poll(ends.data(), ends.size(), timeoutMs);
    for (std::size_t i = 0; i < m_connections.size(); ++i) {
        if (ends[others + 2 * i].revents & (POLLRDHUP | POLLHUP | POLLERR))
            m_connections[i]->clientHasClosed = true;
    }
    eventfd_t ignored;
    ::eventfd_read(m_wakeup, &ignored);
}

void FaultProxy::takeConnections() {
    while (m_listener.isOpen()) {
        Socket client = acceptedSocket(m_listener, SOCK_NONBLOCK);
        if (!client.isOpen())
            return;
        auto connection = std::make_unique<Connection>(++m_accepted);
        connection->client = std::move(client);
        connection->isFrozen = m_mode == Mode::Silence;
        if (m_mode == Mode::Accept)
            connection->server = connectedSocket(m_serverPort, SOCK_NONBLOCK);
        if (m_mode == Mode::Silence || connection->server.isOpen())
            m_connections.push_back(std::move(connection));
        else
            connection->client.reset();
    }
}

void FaultProxy::transfer(Connection& connection, Stream& stream) {
    if (connection.isFrozen)
        return;
    if (stream.wantsInput())
        stream.receive();
    decide(connection, stream);
    connection.pass(stream);
}

/// Clears received frames for sending, and applies faults that are due.
void FaultProxy::decide(Connection& connection, Stream& stream) {
    while (stream.ending == Kind::None && stream.held.size() - stream.cleared >= prefixSize) {
        const char* const frame = stream.held.constData() + stream.cleared;
        if (!stream.due) {
            QList<Message> chain =
                chainAt(frame, stream.held.size() - stream.cleared, stream.direction == Response);
            if (chain.isEmpty())
                return;
            for (Message& message : chain)
                message.connection = connection.number;
            m_messages += chain;
            stream.due = strikeAt(chain);
        }
        if (stream.due->fault.kind == Kind::Dribble)
            connection.dribbleMs = stream.due->fault.amount;
        if (!stream.apply(*stream.due, frameSizeAt(frame)))
            return;
        stream.due.reset();
    }
}

/// The fault that is due at these messages. Counts them for all armed faults.
FaultProxy::Strike FaultProxy::strikeAt(const QList<Message>& chain) {
    Strike strike;
    for (const Message& message : chain) {
        const auto isDue = [&](Armed& armed) {
            const Trigger& trigger = armed.trigger;
            const bool fits = message.fromServer == (trigger.direction == Response) &&
                              (trigger.command == message.command || trigger.command == Any);
            return fits && !message.isInterim() && --armed.trigger.occurrence <= 0;
        };
        for (auto armed = m_armed.begin(); armed != m_armed.end();) {
            if (isDue(*armed) && strike.fault.kind == Kind::None) {
                strike = {armed->fault, message.at, message.size};
                armed = m_armed.erase(armed);
            } else {
                ++armed;
            }
        }
    }
    return strike;
}

} // namespace oru::io::test
