// SPDX-License-Identifier: Apache-2.0
// A server that gives the answers a test prepares, on a thread of this process, and a test case
// with a client that is connected to it.
#pragma once

#include "ipc/ipcwire_p.h"

#include <oruio/fsipc.h>

#include <QByteArray>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include <semaphore.h>
#include <sys/stat.h>

namespace oru::io::test {

/// Takes each request and answers "0,0,0", or what answer() has set.
class FakeServer {
public:
    FakeServer();
    ~FakeServer();

    ipcwire::Area& area();
    /// Sets the bytes that answer the next request. Later requests are answered "0,0,0".
    void answer(const QByteArray& bytes);
    /// From now on, takes requests without answering them.
    void setSilent(bool isSilent = true);
    /// The last request.
    QByteArray request();

private:
    void serve();

    ShmBlock m_block{ipcwire::blockName, ipcwire::areaSize,
                     ShmBlock::Create | ShmBlock::RemoveAtClose};
    std::mutex m_mutex; // guards m_request and m_answer
    ipcwire::Text m_request = {};
    QByteArray m_answer;
    std::atomic<bool> m_ends{false};
    std::atomic<bool> m_isSilent{false};
    sem_t m_started;
    std::thread m_thread;
};

class IPCFSWithFakeServer : public ::testing::Test {
protected:
    void SetUp() override;

    /// Opens a file for which the server returns the descriptor `fd`.
    QSharedPointer<File> openAs(int fd);
    /// Expects -1 with errno EBADMSG, and a session that continues.
    void expectBadMessage(long long result);

    FakeServer server;
    IPCFS fs;
    struct stat st;
};

} // namespace oru::io::test
