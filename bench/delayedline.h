// SPDX-License-Identifier: Apache-2.0
// A long line to a server on this machine.
#pragma once

#include "support/system/loopback.h"

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

/// Forwards connections to a port of this machine. Holds all bytes for half a round trip in each
/// direction, and limits neither their rate nor how many are on the way.
class DelayedLine {
public:
    using Clock = std::chrono::steady_clock;

    DelayedLine(quint16 serverPort, Clock::duration roundTrip);
    ~DelayedLine();

    quint16 port() const;

private:
    Q_DISABLE_COPY(DelayedLine)
    struct Stream;
    struct Connection;

    void run();
    void takeConnection();
    void wait();

    const quint16 m_serverPort;
    const Clock::duration m_delay; // of one direction
    const oru::io::test::Socket m_listener;
    const int m_end; // an eventfd: the destructor has been called
    bool m_isEnding = false;
    std::vector<std::unique_ptr<Connection>> m_connections;
    std::thread m_thread;
};
