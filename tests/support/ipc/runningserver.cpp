// SPDX-License-Identifier: Apache-2.0
#include "support/ipc/runningserver.h"

#include "support/system/childprocess.h"

#include <oruio/fsipc.h>

#include <gtest/gtest.h>

#include <ctime>
#include <utility>

namespace oru::io::test {

using namespace ipcwire;

GatedFS::GatedFS() {
    sem_init(&m_entered, 0, 0);
    sem_init(&m_open, 0, 0);
}

int GatedFS::stat(QString path, struct stat& st) {
    if (path == "/gate") {
        sem_post(&m_entered);
        sem_wait(&m_open);
    }
    return MemFS::stat(std::move(path), st);
}

void GatedFS::awaitEntry() {
    sem_wait(&m_entered);
}

void GatedFS::openGate() {
    sem_post(&m_open);
}

RunningServer::RunningServer(const QSharedPointer<FS>& fs)
    : server(std::make_unique<IPCServer>(fs)),
      m_thread([this] { m_result = server->run(nullptr); }) {
    EXPECT_TRUE(eventually([this] { return server->state() == 2; }));
}

RunningServer::~RunningServer() {
    if (server)
        server->terminate();
    join();
}

int RunningServer::join() {
    if (m_thread.joinable())
        m_thread.join();
    return m_result;
}

RawClient::RawClient() {
    EXPECT_TRUE(m_view.isMapped());
}

QByteArray RawClient::ask(const QByteArray& request, int size) {
    send(request);
    return receive(size);
}

void RawClient::send(const QByteArray& request) {
    publish(area(), request.constData(), request.size() + 1);
    sem_post(&area().control.requestSem);
}

QByteArray RawClient::receive(int size) {
    constexpr int timeoutMs = 20'000;
    if (waitFor(area().control.responseSem, timeoutMs) != 0)
        return "no answer";
    Text response;
    copyResponse(area(), response);
    setDone(area());
    return size < 0 ? QByteArray(response.bytes) : QByteArray(response.bytes, size);
}

Area& RawClient::area() {
    return m_view.area();
}

QStringList withoutWaits(QStringList messages) {
    messages.removeAll("fsipcsrv 12 Wait for request");
    return messages;
}

QStringList withoutAddresses(QStringList messages) {
    for (QString& message : messages) {
        if (message.contains("Existing Shm. Data 0x"))
            message = "Existing Shm";
    }
    return messages;
}

} // namespace oru::io::test
