// A TCP proxy between an SMB2 client and its server that makes chosen messages go wrong.
//
//     FaultProxy proxy(server.port());
//     proxy.on({FaultProxy::Request, FaultProxy::Write, 2}, FaultProxy::Fault::reset(1000));
//     // ... The connection of the second WRITE request breaks after 1000 bytes of it.
//
// What travels are frames: four bytes with the length of the rest, then an SMB2 message or a chain
// of them (a compound). The proxy decides about a frame once the head of its last message has come,
// and passes its bytes as they come. So a large message is never held up; and what a fault does to
// a message it does to the whole frame that has it.
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

/// Takes connections on a port of its own and passes them on to the server, one for one. All
/// functions may be called from any thread, except by an Edit fault.
class FaultProxy {
public:
    enum Direction { Request, Response };

    enum Command {
        Opaque = -2, ///< not a plain SMB2 message; an encrypted one, for example
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

    /// A message that has come; a fault may have kept it from its destination.
    struct Message {
        bool fromServer = false;
        int connection = 0; ///< counts from 1
        int command = Opaque;
        quint32 status = 0; ///< of a response
        quint64 messageId = 0;
        quint32 length = 0; ///< of READ and WRITE: how much is asked for, or was transferred
        quint64 offset = 0; ///< of a READ or WRITE request: where in the file
        int at = 0;         ///< where it begins in its frame; not 0 for the later ones of a chain
        int size = 0;
        QByteArray head; ///< its first bytes, at most 256

        /// Whether a response only says that the real one comes later.
        bool isInterim() const;
    };

    /// A moment to come, counted over all connections. Interim responses do not count.
    struct Trigger {
        Direction direction;
        int command;
        int occurrence = 1; ///< 1 is the next message of this kind
    };

    /// What happens at a message. `bytes` is how much of its frame still passes, with its prefix.
    struct Fault {
        /// Both ends get RST.
        static Fault reset(int bytes = 0);
        /// Both ends get FIN.
        static Fault close(int bytes = 0);
        /// Nothing more passes in either direction, while both ends remain connected.
        static Fault freeze(int bytes = 0);
        /// From here on the server's bytes go to the client one by one, so many ms apart.
        static Fault dribble(int intervalMs = 0);
        /// `editor` may change the message; its length, too.
        static Fault edit(std::function<void(QByteArray& message)> editor);
        /// The frame does not reach its destination.
        static Fault drop();

        enum class Kind { None, Reset, Close, Freeze, Dribble, Edit, Drop };
        Kind kind = Kind::None;
        int amount = 0; ///< of bytes or ms
        std::function<void(QByteArray& message)> editor;
    };

    explicit FaultProxy(quint16 serverPort);
    ~FaultProxy();

    quint16 port() const;
    /// "127.0.0.1:PORT".
    QString address() const;

    /// Arms a fault, which strikes once. Of several that are due at one frame the first one
    /// strikes, the others do at the next frame that fits them.
    void on(const Trigger& trigger, const Fault& fault);
    /// How many faults have not struck yet.
    int armed() const;
    /// Disarms them.
    void disarm();

    /// All messages since the beginning or the last clear(), in the order they came.
    QList<Message> messages() const;
    /// Those of one kind.
    QList<Message> messages(Direction direction, int command) const;
    void clear();

    /// What becomes of new connections; those that are there go on. accept() is the state to begin
    /// with, and ends the others.
    void accept();
    void refuse();         ///< nobody listens on the port
    void silence();        ///< they are accepted, and nothing more
    void resetOnConnect(); ///< they are accepted and reset at once

    /// Resets all connections.
    void dropConnections();
    /// How many were accepted so far.
    int connections() const;
    /// How many the client has not closed, and the proxy has not reset.
    int openConnections() const;
    /// Waits until there are none of them. \returns whether it came to that.
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
    const Socket m_reservation; // keeps the port while nobody listens on it

    // The thread's own; others reach it through perform().
    Socket m_listener;
    Mode m_mode = Mode::Refuse;
    bool m_isEnding = false;
    std::vector<Armed> m_armed;
    QList<Message> m_messages;
    int m_accepted = 0;
    std::vector<std::unique_ptr<Connection>> m_connections;

    mutable std::mutex m_turn; // of those that call perform()
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_isDone;
    mutable const std::function<void()>* m_work = nullptr; // guarded by m_mutex
    const int m_wakeup;
    std::thread m_thread;
};

} // namespace oru::io::test
