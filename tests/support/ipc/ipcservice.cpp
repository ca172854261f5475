// SPDX-License-Identifier: Apache-2.0
#include "support/ipc/ipcservice.h"

#include "support/suite/logcapture.h"
#include "support/system/isolation.h"

#include <oruio/ipc_server.h>
#include <oruio/posixfs.h>

#include <QByteArray>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <unistd.h>

namespace oru::io::test {

namespace {

class PrivateSharedMemory : public ::testing::Environment {
public:
    void SetUp() override {
        ASSERT_TRUE(enterPrivateSharedMemory());
    }
};

// gtest owns and deletes it.
[[maybe_unused]] ::testing::Environment* const environment =
    ::testing::AddGlobalTestEnvironment(new PrivateSharedMemory);

} // namespace

bool enterPrivateSharedMemory() {
    const bool isPrivate =
        isolate(Namespaces::Mount) && mount("tmpfs", "/dev/shm", "tmpfs", 0, "mode=1777") == 0;
    if (isPrivate)
        return true;
    const int lock = ::open("/dev/shm/oruio-tests.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (lock == -1 || flock(lock, LOCK_EX) != 0)
        return false;
    shm_unlink("/_blk_fsipc");
    return true;
}

bool serviceExists() {
    return access("/dev/shm/_blk_fsipc", F_OK) == 0;
}

ipcwire::Area& makeOrphanedArea(ShmBlock& block) {
    ipcwire::Area& area = ipcwire::areaOf(ipcwire::shmAt(block.base()));
    ipcwire::SharedMutexAttributes().makeMutex(area.control.serverMutex);
    ipcwire::setOwned(area, true);
    return area;
}

bool hasRobustMutexes() {
    void* const page =
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto* const mutex = static_cast<pthread_mutex_t*>(page);
    ipcwire::SharedMutexAttributes().makeMutex(*mutex);
    ChildProcess(std::function<int()>([mutex] { return pthread_mutex_lock(mutex); })).wait();
    const bool isSeen = pthread_mutex_trylock(mutex) == EOWNERDEAD;
    if (isSeen) {
        pthread_mutex_consistent(mutex);
        pthread_mutex_unlock(mutex);
    }
    munmap(page, 4096);
    return isSeen;
}

AreaView::AreaView() : m_block(ipcwire::blockName, ipcwire::areaSize, 0) {}

bool AreaView::isMapped() const {
    return m_block.isValid();
}

IPCShm* AreaView::shm() const {
    return ipcwire::shmAt(m_block.base());
}

ipcwire::Area& AreaView::area() const {
    return ipcwire::areaOf(shm());
}

ServerProcess::ServerProcess(const std::function<QSharedPointer<FS>()>& makeFs,
                             const std::function<void()>& prepare) {
    EXPECT_EQ(pipe2(m_commands, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(m_messages, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(m_readiness, O_CLOEXEC), 0);
    m_process = std::make_unique<ChildProcess>([&] { return serve(makeFs, prepare); });
    ::close(m_commands[0]);
    ::close(m_messages[1]);
    ::close(m_readiness[1]);
}

ServerProcess::ServerProcess(const QString& directory)
    : ServerProcess([directory] { return PosixFS::SPtr::create(directory); }) {}

ServerProcess::~ServerProcess() {
    m_process.reset();
    if (m_commands[1] != -1)
        ::close(m_commands[1]);
    ::close(m_messages[0]);
    ::close(m_readiness[0]);
}

/// Runs in the child, until the server ends.
int ServerProcess::serve(const std::function<QSharedPointer<FS>()>& makeFs,
                         const std::function<void()>& prepare) {
    ::close(m_commands[1]);
    ::close(m_messages[0]);
    ::close(m_readiness[0]);
    LogCapture log("fsipcsrv=12");
    if (prepare)
        prepare();
    IPCServer server(makeFs());
    std::atomic<bool> hasEnded{false};
    std::thread watcher([&] {
        while (server.state() != 2 && !hasEnded)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (!hasEnded)
            (void)!::write(m_readiness[1], "r", 1);
        ::close(m_readiness[1]);
        struct pollfd command = {m_commands[0], POLLIN, 0};
        while (!hasEnded && ::poll(&command, 1, 10) <= 0) {
        }
        server.terminate();
    });
    const int result = server.run(nullptr);
    hasEnded = true;
    watcher.join();
    const QByteArray messages = log.messages().join('\n').toUtf8();
    (void)!::write(m_messages[1], messages.constData(), messages.size());
    return result & 0xff;
}

bool ServerProcess::awaitReady() {
    // The read ends when the child closes its end.
    char ready;
    while (::read(m_readiness[0], &ready, 1) == 1)
        m_isReady = true;
    return m_isReady;
}

int ServerProcess::terminate() {
    ::close(m_commands[1]);
    m_commands[1] = -1;
    messages();
    return m_process->wait();
}

QStringList ServerProcess::messages() {
    char chunk[4096];
    QByteArray all;
    ssize_t count;
    while ((count = ::read(m_messages[0], chunk, sizeof chunk)) > 0)
        all.append(chunk, static_cast<int>(count));
    if (!all.isEmpty())
        m_log += QString::fromUtf8(all).split('\n');
    return m_log;
}

ChildProcess& ServerProcess::process() {
    return *m_process;
}

} // namespace oru::io::test
