// The file service between processes, with both of its ends.
#pragma once

#include "helper.h"
#include "ping_pong.h"

#include <oruio/fsipc.h>

#include <QTemporaryDir>

#include <string>

/// A directory on the disk that another process serves, with one clip in it.
class Service {
public:
    /// The one service, begun on first use and ended with the program.
    static Service& instance();

    ~Service();

    /// The client, connected.
    oru::io::FS& fs();
    /// What the serving process plays as well.
    PingPong& pingPong();

    /// A clip of clipSize bytes, as the client and as the system know it.
    QString clip() const;
    std::string systemClip() const;
    QString systemDirectory() const;

private:
    Service();
    Q_DISABLE_COPY(Service)

    QTemporaryDir m_directory;
    PingPong* m_pingPong = nullptr;
    Helper m_server;
    oru::io::IPCFS m_client;
};
