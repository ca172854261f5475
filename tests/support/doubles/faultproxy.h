// SPDX-License-Identifier: Apache-2.0
// A TCP proxy between an SMB2 client and its server that injects faults at chosen messages.
//
//     FaultProxy proxy(server.port());
//     proxy.on({FaultProxy::Request, FaultProxy::Write, 2}, FaultProxy::Fault::reset(1000));
//     // ... The connection of the second WRITE request breaks after 1000 bytes of it.
//
// The connection carries frames: four bytes with the length of the rest, then an SMB2 message or a
// chain of messages (a compound). The proxy chooses the fault of a frame when it has the head of
// the last message, and forwards bytes as they arrive: it does not delay large messages. A fault at
// one message applies to its whole frame.
#pragma once

#include "support/system/loopback.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace oru::io::test {

/// Listens on its own port, and makes one connection to the server for each connection it accepts.
/// All functions may be called from any thread, but not from an editor.
class FaultProxy {
public:
    enum Direction { Request, Response };

    enum Command {
        Opaque = -2, ///< not a plain SMB2 message, such as an encrypted one
        Any = -1,    ///< in triggers only
        Negotiate = 0,
        SessionSetup = 1,
        Logoff = 2,
        TreeConnect = 3,
        TreeDisconnect = 4,
        Create = 5,
        Close = 6,
        Flush = 7,
        Read = 8,
        Write = 9,
        Lock = 10,
        Ioctl = 11,
        Cancel = 12,
        Echo = 13,
        QueryDirectory = 14,
        ChangeNotify = 15,
        QueryInfo = 16,
        SetInfo = 17,
    };

    /// A received message. A fault may have kept it from its destination.
    struct Message {
        bool fromServer = false;
        int connection = 0; ///< counts from 1
        int command = Opaque;
        quint32 status = 0; ///< of a response
        quint64 messageId = 0;
        quint32 length = 0; ///< READ and WRITE: the bytes requested or transferred
        quint64 offset = 0; ///< READ and WRITE requests: the offset in the file
        int at = 0;         ///< where it begins in its frame; not 0 for later messages of a chain
        int size = 0;
        QByteArray head; ///< its first bytes, at most 256

        /// Whether this is an interim response: the final one follows.
        bool isInterim() const;
    };

    /// A future message, counted over all connections. Interim responses do not count.
    struct Trigger {
        Direction direction;
        int command;
        int occurrence = 1; ///< 1 is the next message of this kind
    };

    /// What happens at a message. `bytes` of its frame, with the prefix, still pass.
    struct Fault {
        /// Resets both connections (RST).
        static Fault reset(int bytes = 0);
        /// Closes both connections (FIN).
        static Fault close(int bytes = 0);
        /// Forwards nothing more in either direction, and keeps both connections.
        static Fault freeze(int bytes = 0);
        /// Forwards the bytes of the server one by one from now on, `intervalMs` apart.
        static Fault dribble(int intervalMs = 0);
        /// Lets `editor` change the message and its length.
        static Fault edit(std::function<void(QByteArray& message)> editor);
        /// Discards the frame.
        static Fault drop();

        enum class Kind { None, Reset, Close, Freeze, Dribble, Edit, Drop };
        Kind kind = Kind::None;
        int amount = 0; ///< bytes or ms
        std::function<void(QByteArray& message)> editor;
    };

    explicit FaultProxy(quint16 serverPort);
    ~FaultProxy();

    quint16 port() const;
    /// "127.0.0.1:PORT".
    QString address() const;

    /// Arms a fault, which strikes once. When several are due at one frame, the first one strikes;
    /// the others strike at the next frame that fits.
    void on(const Trigger& trigger, const Fault& fault);
    /// The number of faults that have not struck yet.
    int armed() const;
    /// Disarms all faults.
    void disarm();

    /// All messages since the construction or the last clear(), in the order of arrival.
    QList<Message> messages() const;
    /// The messages of one direction and command.
    QList<Message> messages(Direction direction, int command) const;
    void clear();

    /// How new connections are handled; open ones are not affected. The initial mode is accept().
    void accept();
    void refuse();         ///< the port does not listen
    void silence();        ///< accepted, without a connection to the server
    void resetOnConnect(); ///< accepted and reset at once

    /// Resets all connections.
    void dropConnections();
    /// The number of connections accepted so far.
    int connections() const;
    /// The number of connections that neither the client has closed nor the proxy has reset.
    int openConnections() const;
    /// Waits until openConnections() is 0. \returns false after `seconds`.
    bool waitUntilClosed(double seconds = 10) const;

private:
    Q_DISABLE_COPY(FaultProxy)
    struct Strike;
    struct Stream;
    struct Connection;
    struct Armed {
        Trigger trigger;
        Fault fault;
    };
    enum class Mode { Accept, Refuse, Silence, Reset };

    void perform(const std::function<void()>& work) const;
    void setMode(Mode mode);
    void run();
    void wait();
    void takeConnections();
    void transfer(Connection& connection, Stream& stream);
    void decide(Connection& connection, Stream& stream);
    Strike strikeAt(const QList<Message>& chain);

    const quint16 m_serverPort;
    const Socket m_reservation; // reserves the port while it does not listen

    // Used by the proxy thread only; other threads go through perform().
    Socket m_listener;
    Mode m_mode = Mode::Refuse;
    bool m_isEnding = false;
    std::vector<Armed> m_armed;
    QList<Message> m_messages;
    int m_accepted = 0;
    std::vector<std::unique_ptr<Connection>> m_connections;

    mutable std::mutex m_turn; // serialises calls of perform()
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_isDone;
    mutable const std::function<void()>* m_work = nullptr; // guarded by m_mutex
    const int m_wakeup;
    std::thread m_thread;
};

} // namespace oru::io::test
