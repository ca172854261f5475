// SPDX-License-Identifier: Apache-2.0
// The file service between processes, with both ends.
#pragma once

#include "floor.h"
#include "helper.h"

#include <oruio/fsipc.h>

#include <QTemporaryDir>

#include <string>

/// A directory on the disk with one clip, served by another process.
class Service {
public:
    /// The only service, started on first use, stopped at the end of the program.
    static Service& instance();

    ~Service();

    /// The connected client.
    oru::io::FS& fs();
    /// The serving process responds on these semaphores too.
    PingPong& pingPong();
    /// And it carries out these orders, for the same clip.
    Floor& floor();

    /// The path of a clip of clipSize bytes, in the client and in the system.
    QString clip() const;
    std::string systemClip() const;
    QString systemDirectory() const;

private:
    Service();
    Q_DISABLE_COPY(Service)

    QTemporaryDir m_directory;
    Floor* m_floor = nullptr;
    Helper m_server;
    oru::io::IPCFS m_client;
};
