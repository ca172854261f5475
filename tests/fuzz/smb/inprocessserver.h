// SPDX-License-Identifier: Apache-2.0
// The server's end of a share's connection, in the thread of the client.
//
// It takes its turn when the client waits in poll(2), so that a session needs no other thread and
// never waits for the clock: when the client waits for something that the server will not send, the
// server closes the connection. The program replaces connect(2), and the library's poll(2).
#pragma once

#include "support/system/loopback.h"

#include <QByteArray>
#include <QList>

namespace oru::io::test {

/// Serves the connections of this process to `address`, one at a time. One server exists at a time.
class InProcessServer {
public:
    static constexpr const char* address = "127.0.0.1:1";
    static constexpr quint16 port = 1;

    InProcessServer();
    virtual ~InProcessServer();
    static InProcessServer* current();

    /// Replaces what `client` refers to by a connection to this server.
    virtual bool connectClient(int client);
    /// Receives the requests that have arrived, and sends answers. \returns whether it moved any
    /// bytes.
    bool turn();
    /// Goes on although nothing has arrived.
    void carryOn();

protected:
    /// Answers a frame, which is given without its prefix.
    virtual void answer(const QByteArray& frame) = 0;
    /// Called when the client waits and everything has been sent. Closes, unless overridden.
    virtual void idle();

    /// Sends bytes, in a later turn than the previous ones if those are `followed` by a pause.
    void send(const QByteArray& bytes, bool isFollowedByPause = false);
    /// Closes the connection after the last byte.
    void close();

private:
    Q_DISABLE_COPY(InProcessServer)
    struct Piece {
        QByteArray bytes;
        bool isFollowedByPause;
    };

    bool receive();
    bool transmit();

    Socket m_socket;
    QByteArray m_received;
    QList<Piece> m_pieces;
    bool m_isClosing = false;
};

} // namespace oru::io::test
