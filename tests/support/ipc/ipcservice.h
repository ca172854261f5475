// The file service between processes, in a process of its own, for tests of both ends.
//
// There is one service on a system. So each test program that links this puts itself into a mount
// namespace with shared memory of its own, before its first test; where that is not allowed, the
// programs take turns.
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

/// Whether the service's object is there.
bool serviceExists();
/// Whether a mutex tells of its owner's death here: not under every emulator.
bool ownerDeathIsSeen();

/// Makes the area of a new block one whose server has gone without a word: it has an owner, and
/// nobody holds its mutex.
ipcwire::Area& leaveBehind(ShmBlock& block);

/// The service's area as a bystander sees it. Null data when there is none.
class AreaView {
public:
    AreaView();

    bool isThere() const;
    ipcwire::Area& area() const;
    IPCShm* shm() const;

private:
    ShmBlock m_block;
};

/// A server in a child process.
class ServerProcess {
public:
    /// Serves what `makeFs` makes, after `prepare` has run, both in the child.
    explicit ServerProcess(const std::function<QSharedPointer<FS>()>& makeFs,
                           const std::function<void()>& prepare = {});
    /// Serves a local directory.
    explicit ServerProcess(const QString& directory);
    ~ServerProcess();

    /// Waits until it serves. \returns false when it ended before.
    bool isReady();
    /// Asks it to terminate. \returns run()'s result, as ChildProcess::wait().
    int terminate();
    /// What it logged, once it has terminated.
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
