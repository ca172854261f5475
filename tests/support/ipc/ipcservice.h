// SPDX-License-Identifier: Apache-2.0
// A server of the file service in a child process, and access to the service's area.
//
// A system has one service. Before its first test, a program that links this enters a mount
// namespace with its own /dev/shm. Without the privilege for that, the programs run one at a time.
#pragma once

#include "support/system/childprocess.h"

#include <oruio/fs.h>
#include <oruio/fsipc.h>

#include <QStringList>

#include <functional>
#include <memory>

#include "ipc/ipcsync_p.h"
#include "ipc/ipcwire_p.h"

namespace oru::io::test {

/// Gives this process its own /dev/shm, or the system's /dev/shm exclusively until it ends. Test
/// programs with gtest's main() call it. \returns false on failure.
bool enterPrivateSharedMemory();
/// Whether the service's object exists.
bool serviceExists();
/// Whether locking a robust mutex whose owner has died fails with EOWNERDEAD. Some emulators do not
/// support that.
bool hasRobustMutexes();

/// Sets the area of a new block to the state after a server has vanished: it is marked as owned,
/// and the server mutex is free.
ipcwire::Area& makeOrphanedArea(ShmBlock& block);

/// The service's area, mapped without a session.
class AreaView {
public:
    AreaView();

    bool isMapped() const;
    ipcwire::Area& area() const;
    IPCShm* shm() const;

private:
    ShmBlock m_block;
};

/// A server in a child process.
class ServerProcess {
public:
    /// Serves the file system that `makeFs` returns. Both functions run in the child, `prepare`
    /// first.
    explicit ServerProcess(const std::function<QSharedPointer<FS>()>& makeFs,
                           const std::function<void()>& prepare = {});
    /// Serves a local directory.
    explicit ServerProcess(const QString& directory);
    ~ServerProcess();

    /// Waits until the server serves. \returns false when it has ended instead.
    bool awaitReady();
    /// Terminates the server. \returns the result of run(), as ChildProcess::wait().
    int terminate();
    /// The messages that the server has logged. Valid once it has terminated.
    QStringList messages();
    ChildProcess& process();

private:
    int serve(const std::function<QSharedPointer<FS>()>& makeFs,
              const std::function<void()>& prepare);

    int m_commands[2]; // the child terminates when the test closes its end
    int m_messages[2];
    int m_readiness[2];
    bool m_isReady = false;
    std::unique_ptr<ChildProcess> m_process;
    QStringList m_log;
};

} // namespace oru::io::test
