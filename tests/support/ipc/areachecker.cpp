// SPDX-License-Identifier: Apache-2.0
// The steps that both ends take.
#include "support/ipc/areachecker.h"

namespace oru::io::test {

using namespace ipcwire;

AreaChecker::AreaChecker(const DyingProcesses& dying) : m_dying(dying) {}

void AreaChecker::step(const TraceEvent& event) {
    require(m_gone.count(event.process) == 0, "Deaths", "the process has been found dead");
    // A thread that takes another step has done what it traced before.
    m_posting.erase(event.thread);
    if (m_undo && m_undo->thread == event.thread)
        m_undo.reset();
    switch (event.step) {
    case Step::LockBlock:
        return lockBlock(event);
    case Step::UnlockBlock:
        return unlockBlock(event);
    case Step::FreeBuffer:
        return freeBuffer(event);
    case Step::Retire:
        return retire(event);
    case Step::GiveUp:
        return giveUp(event);
    default:
        require(clientStep(event) || serverStep(event), "Record", "unknown step");
    }
}

void AreaChecker::finish() const {
    const auto isDying = [this](pid_t process) { return m_dying.contains(process); };
    require(!m_client || isDying(m_client->process), "End", "a session is open");
    require(!m_block.isHeld || isDying(m_block.process), "End", "the block is locked");
    require(m_serverMutex == 0 || isDying(m_serverMutexProcess), "End",
            "the server mutex is locked");
    const bool isServerDead = m_server.isDead || isDying(m_server.process);
    require(m_takers.empty() || isServerDead, "End", "a request is not answered");
    require(m_terminators.empty() || isServerDead, "End", "a call of terminate() has not returned");
    require(!isNamed() || isServerDead, "End", "a server is running");
}

bool AreaChecker::isNamed() const {
    return m_server.phase != ServerPhase::None && !m_isRetired;
}

/// Whether no server takes requests any more, or may end at any moment.
bool AreaChecker::isServerStopping() const {
    return m_server.phase >= ServerPhase::Stopping || m_server.isDead ||
           m_dying.contains(m_server.process);
}

/// Another process has found that this one is dead. \returns whether it can be.
bool AreaChecker::isDead(pid_t process) {
    if (!m_dying.contains(process))
        return false;
    m_gone.insert(process);
    if (process == m_server.process)
        m_server.isDead = true;
    return true;
}

void AreaChecker::lockBlock(const TraceEvent& event) {
    require(!m_isRetired || m_dying.contains(m_retirer), "Block", "the block has been removed");
    require(!m_block.isHeld || isDead(m_block.process), "Block", "another thread has locked it");
    m_block = {true, event.process, event.thread, Purpose::None};
}

void AreaChecker::unlockBlock(const TraceEvent& event) {
    require(m_block.isHeld && m_block.thread == event.thread, "Block", "it has not been locked");
    const bool isHolder = m_client && m_client->process == event.process;
    switch (m_block.purpose) {
    case Purpose::None: // terminate() and probeClient()
        require(event.process == m_server.process, "Order", "the block was locked for nothing");
        break;
    case Purpose::Connect:
        require(!isHolder || m_client->phase == ClientPhase::Greeted, "Order",
                "the client has not connected yet");
        if (isHolder)
            m_client->phase = ClientPhase::InSession;
        break;
    case Purpose::Disconnect:
        require(!isHolder, "Order", "the client mutex has not been released");
        break;
    case Purpose::Serve:
        require(m_server.phase == ServerPhase::Loop, "Order", "the area has not been initialised");
        break;
    case Purpose::Attempt:
    case Purpose::Retire:
        break;
    }
    m_block.isHeld = false;
}

void AreaChecker::retire(const TraceEvent& event) {
    require(m_block.isHeld && m_block.thread == event.thread, "Block", "it is not locked");
    const bool isStopped =
        m_server.phase == ServerPhase::None || m_server.phase == ServerPhase::Released;
    require(isStopped || m_server.isDead || m_dying.contains(m_server.process), "OneServer",
            "the server is running");
    require(!m_isRetired || m_dying.contains(m_retirer), "Order", "it has been removed before");
    m_isRetired = true;
    m_retirer = event.process;
    m_block.purpose = Purpose::Retire;
}

void AreaChecker::giveUp(const TraceEvent& event) {
    const bool isBlockHolder = m_block.isHeld && m_block.thread == event.thread;
    if (event.value == GiveUpNoServer)
        require(m_finders.erase(event.thread) == 1, "Order", "the server was not found gone");
    const bool isAttempt =
        isBlockHolder && (m_block.purpose == Purpose::None || m_block.purpose == Purpose::Attempt);
    if (isAttempt) {
        m_block.purpose = Purpose::Attempt;
        return;
    }
    Client& client = holder(event);
    require(client.phase == ClientPhase::Settling || client.phase == ClientPhase::AwaitingIdle ||
                client.phase == ClientPhase::Waiting,
            "Order", "the client is not waiting");
    client.phase = ClientPhase::GaveUp;
}

void AreaChecker::freeBuffer(const TraceEvent& event) {
    const unsigned int bit = 1U << event.index;
    require(event.value == 1 && (m_bufferMap & bit), "BufferOnce", "it is not reserved");
    if (takes(event, TakerPhase::Executing)) {
        require(m_taken.kind == RequestKind::Write && m_taken.buffer == event.index &&
                    !m_taken.isBufferFreed,
                "BufferOnce", "it is not the buffer of the request");
        m_taken.isBufferFreed = true;
    } else {
        Client& client = holder(event);
        require(client.phase == ClientPhase::InSession, "Order", "a request is outstanding");
        require(client.bufferPhase != BufferPhase::None && client.buffer == event.index,
                "BufferOnce", "it is not the client's");
        client.bufferPhase = BufferPhase::None;
        client.buffer = -1;
    }
    m_bufferMap &= ~bit;
    ++m_buffers;
}

} // namespace oru::io::test
