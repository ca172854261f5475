// SPDX-License-Identifier: Apache-2.0
#include "support/ipc/fakeserver.h"

#include "ipc/ipcsync_p.h"

#include <oruio/error.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <pthread.h>

namespace oru::io::test {

using namespace ipcwire;

FakeServer::FakeServer() {
    AreaControl& control = area().control;
    const SharedMutexAttributes attributes;
    for (pthread_mutex_t* mutex :
         {&control.clientMutex, &control.serverMutex, &control.bufferMutex})
        attributes.makeMutex(*mutex);
    sem_init(&control.requestSem, 1, 0);
    sem_init(&control.responseSem, 1, 0);
    sem_init(&control.bufferSem, 1, dataBuffers);
    setIdle(area());
    setOwned(area(), true);
    sem_init(&m_started, 0, 0);
    m_thread = std::thread([this] { serve(); });
    sem_wait(&m_started);
}

FakeServer::~FakeServer() {
    m_ends = true;
    sem_post(&area().control.requestSem);
    m_thread.join();
}

Area& FakeServer::area() {
    return areaOf(shmAt(m_block.base()));
}

void FakeServer::answer(const QByteArray& bytes) {
    const std::lock_guard lock(m_mutex);
    m_answer = bytes;
}

void FakeServer::setSilent(bool isSilent) {
    m_isSilent = isSilent;
}

QByteArray FakeServer::request() {
    const std::lock_guard lock(m_mutex);
    return m_request.bytes;
}

void FakeServer::serve() {
    pthread_mutex_lock(&area().control.serverMutex);
    sem_post(&m_started);
    while (waitFor(area().control.requestSem) == 0 && !m_ends) {
        const std::lock_guard lock(m_mutex);
        if (!take(area(), m_request) || m_isSilent)
            continue;
        const QByteArray bytes = m_answer.isNull() ? QByteArray("0,0,0", 6) : m_answer;
        m_answer.clear();
        std::memcpy(area().response, bytes.constData(), bytes.size());
        sem_post(&area().control.responseSem);
        if (requestState(area()) == Ending) {
            sem_init(&area().control.responseSem, 1, 0);
            setIdle(area());
        }
    }
    pthread_mutex_unlock(&area().control.serverMutex);
}

void IPCFSWithFakeServer::SetUp() {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
}

QSharedPointer<File> IPCFSWithFakeServer::openAs(int fd) {
    server.answer(QByteArray::number(fd) + QByteArray(",0,0", 5));
    return fs.open("/f", O_RDWR, 0);
}

void IPCFSWithFakeServer::expectBadMessage(long long result) {
    const Error reason;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(reason.sysErrno, EBADMSG) << std::strerror(reason.sysErrno);
    EXPECT_EQ(reason.code, Ok);
    EXPECT_EQ(fs.mkdir("/next", 0755), 0);
}

} // namespace oru::io::test
