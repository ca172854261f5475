// SPDX-License-Identifier: Apache-2.0
// A server on a thread of this process, a client that sends the requests a test writes, and a file
// system that blocks a request until the test opens it.
#pragma once

#include "ipc/ipcwire_p.h"
#include "support/doubles/memfs.h"
#include "support/ipc/ipcservice.h"

#include <oruio/ipc_server.h>

#include <QByteArray>
#include <QStringList>

#include <memory>
#include <thread>

#include <semaphore.h>
#include <sys/stat.h>

namespace oru::io::test {

/// A file system in memory. stat() of "/gate" blocks until openGate().
class GatedFS : public MemFS {
public:
    GatedFS();

    int stat(QString path, struct stat& st) override;

    /// Waits until a call of stat() has reached the gate.
    void awaitEntry();
    void openGate();

private:
    sem_t m_entered;
    sem_t m_open;
};

/// A server on a thread of this process.
class RunningServer {
public:
    explicit RunningServer(const QSharedPointer<FS>& fs);
    ~RunningServer();

    /// Waits until run() has returned. \returns its result.
    int join();

    std::unique_ptr<IPCServer> server;

private:
    int m_result = -1000;
    std::thread m_thread;
};

/// Writes any bytes into the request area and reads the answers.
class RawClient {
public:
    RawClient();

    /// Sends a request and waits for its answer. \returns as receive().
    QByteArray ask(const QByteArray& request, int size = -1);
    void send(const QByteArray& request);
    /// Waits for an answer. \returns its bytes up to the first NUL, or its first `size` bytes.
    QByteArray receive(int size = -1);
    ipcwire::Area& area();

private:
    AreaView m_view;
};

/// Removes "Wait for request" from the messages. The server may log the first one before or after a
/// test begins to capture.
QStringList withoutWaits(QStringList messages);
/// Replaces the messages that have the address of an existing area by "Existing Shm".
QStringList withoutAddresses(QStringList messages);

} // namespace oru::io::test
