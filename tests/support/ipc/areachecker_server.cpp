// SPDX-License-Identifier: Apache-2.0
// The steps of the server, and of terminate().
#include "support/ipc/areachecker.h"

#include <algorithm>
#include <cerrno>

namespace oru::io::test {

using namespace ipcwire;

bool AreaChecker::serverStep(const TraceEvent& event) {
    switch (event.step) {
    case Step::LockServerMutex:
        lockServerMutex(event);
        return true;
    case Step::ReleaseServerMutex:
        releaseServerMutex(event);
        return true;
    case Step::BeginReset:
        beginReset(event);
        return true;
    case Step::SemaphoresInitialised:
        semaphoresInitialised(event);
        return true;
    case Step::Idle:
        idle(event);
        return true;
    case Step::ClientMutexRemade:
        clientMutexRemade(event);
        return true;
    case Step::Terminate:
        terminate(event);
        return true;
    case Step::Stop:
        stop(event);
        return true;
    default:
        return takerStep(event);
    }
}

bool AreaChecker::takerStep(const TraceEvent& event) {
    switch (event.step) {
    case Step::Wake:
        wake(event);
        return true;
    case Step::Accept:
        accept(event);
        return true;
    case Step::Copied:
        copied(event);
        return true;
    case Step::Execute:
        execute(event);
        return true;
    case Step::CancelledResponse:
        cancelledResponse(event);
        return true;
    case Step::Respond:
        respond(event);
        return true;
    default:
        return false;
    }
}

/// Whether this thread is taking a request and has come to `phase`.
bool AreaChecker::takes(const TraceEvent& event, TakerPhase phase) const {
    const auto taker = m_takers.find(event.thread);
    return taker != m_takers.end() && taker->second.phase == phase;
}

/// A step of the thread in run(), between two requests.
void AreaChecker::expectServer(const TraceEvent& event) const {
    require(m_server.phase != ServerPhase::None && m_server.thread == event.thread, "OneServer",
            "the thread is not the server");
    require(m_takers.count(event.thread) == 0, "Order", "a request is not answered");
}

void AreaChecker::lockServerMutex(const TraceEvent& event) {
    const bool isBlockHolder = m_block.isHeld && m_block.thread == event.thread;
    require(m_serverMutex == 0 || isDead(m_serverMutexProcess), "OneServer", "it is locked");
    if (event.value == LockToTerminate) {
        require(m_terminators.erase(event.thread) == 1, "Order", "the server was not terminated");
    } else if (event.value == LockToRetire) {
        require(isBlockHolder, "Block", "it is not locked");
        require(isServerStopping(), "OneServer", "the server is running");
        m_server.isDead = true;
        m_block.purpose = Purpose::Retire;
    } else {
        require(isBlockHolder, "Block", "it is not locked");
        require(m_server.phase == ServerPhase::None, "OneServer", "the area had a server before");
        m_server.process = event.process;
        m_server.thread = event.thread;
        m_server.phase = ServerPhase::Starting;
        m_block.purpose = Purpose::Serve;
    }
    m_serverMutex = event.thread;
    m_serverMutexProcess = event.process;
}

void AreaChecker::releaseServerMutex(const TraceEvent& event) {
    require(m_serverMutex == event.thread, "OneServer", "the thread has not locked it");
    m_serverMutex = 0;
    if (m_server.thread != event.thread)
        return;
    expectServer(event);
    require(m_server.phase == ServerPhase::Answered, "Order", "the server has not stopped");
    m_server.phase = ServerPhase::Released;
}

void AreaChecker::beginReset(const TraceEvent& event) {
    expectServer(event);
    if (m_client && !m_dying.contains(m_client->process)) {
        const ClientPhase phase = m_client->phase;
        const bool isEnding =
            phase == ClientPhase::Published && m_request.kind == RequestKind::Disconnect;
        const bool isInCall = phase >= ClientPhase::MustEnd && phase <= ClientPhase::InSession;
        require(isEnding || !isInCall, "NoWaiter", "a client is in a call");
    }
    require(m_server.phase == ServerPhase::Starting ||
                (m_server.phase == ServerPhase::Loop && m_server.mustReset),
            "Order", "no session has ended");
    m_openSession.reset();
    m_server.phase = ServerPhase::Resetting;
}

void AreaChecker::semaphoresInitialised(const TraceEvent& event) {
    expectServer(event);
    require(m_server.phase == ServerPhase::Resetting, "Order", "no reset has begun");
    m_server.phase = ServerPhase::SemaphoresInitialised;
    // A post that was traced and has woken nobody may come later.
    m_requests = std::min(m_requests, static_cast<int>(m_posting.size()));
    m_responses = 0;
    m_isResponseCancelled = false;
    m_buffers = dataBuffers + static_cast<int>(m_terminators.size());
    m_bufferMap = 0;
}

void AreaChecker::idle(const TraceEvent& event) {
    expectServer(event);
    require(m_server.phase == ServerPhase::SemaphoresInitialised, "Order",
            "the semaphores have not been initialised");
    require(!m_server.mustReset || m_state == Ending, "State", "no session has ended");
    m_server.phase = ServerPhase::Loop;
    m_server.mustReset = false;
    m_state = Idle;
}

void AreaChecker::wake(const TraceEvent& event) {
    expectServer(event);
    require((m_server.phase == ServerPhase::Loop || m_server.phase == ServerPhase::Woken) &&
                !m_server.mustReset,
            "Order", "the server does not wait");
    require(m_requests > 0, "Semaphore", "no request was posted");
    --m_requests;
    m_server.phase = ServerPhase::Woken;
}

void AreaChecker::accept(const TraceEvent& event) {
    const bool isServer = m_server.thread == event.thread;
    require(event.process == m_server.process, "OneServer", "the process is not the server");
    require(m_takers.count(event.thread) == 0, "Order", "a request is not answered");
    const bool isCancelling = !isServer || m_server.phase >= ServerPhase::Stopping;
    if (isCancelling) {
        require(m_server.isTold && m_server.phase != ServerPhase::Answered, "Order",
                "the server is not stopping");
        // A client that has taken the last response sets the state as well.
        require(isPublished(m_state) || m_state == Done, "State", "nothing is published");
    } else {
        require(m_server.phase == ServerPhase::Woken, "Order", "the server was not woken");
        require(isPublished(m_state), "State", "nothing is published");
        m_server.phase = ServerPhase::Loop;
    }
    m_takers[event.thread] = {TakerPhase::Copying, isCancelling};
    m_undo.reset();
    m_state = Copying;
    m_taken = m_request;
}

void AreaChecker::copied(const TraceEvent& event) {
    require(takes(event, TakerPhase::Copying), "Order", "no request was accepted");
    require(event.text == m_taken.text, "WholeRequest", "another request was published");
    const bool isEnd = event.kind == RequestKind::Disconnect;
    require(event.value == (isEnd ? Ending : Accepted), "State", "not the state of this request");
    m_takers[event.thread].phase = TakerPhase::Copied;
    m_state = static_cast<char>(event.value);
}

void AreaChecker::execute(const TraceEvent& event) {
    require(takes(event, TakerPhase::Copied) && !m_takers[event.thread].isCancelling, "Order",
            "no request was copied");
    require(event.text == m_taken.text, "WholeRequest", "another request was published");
    require(!m_request.isCancelled || m_request.number != m_taken.number, "NotCancelled",
            "the request was cancelled");
    if (event.kind == RequestKind::Connect) {
        require(!m_openSession, "OwnFiles", "the last session has not ended");
        m_openSession = m_taken.session;
    } else if (event.kind != RequestKind::Disconnect) {
        require(m_openSession == m_taken.session, "OwnFiles", "another session is open");
    }
    m_takers[event.thread].phase = TakerPhase::Executing;
}

void AreaChecker::cancelledResponse(const TraceEvent& event) {
    if (m_takers.count(event.thread) == 0) {
        // The last response, without a request.
        expectServer(event);
        require(m_server.phase == ServerPhase::Stopping, "Order", "the server is not stopping");
    } else {
        require(takes(event, TakerPhase::Copied) && m_takers[event.thread].isCancelling, "Order",
                "the request is not to be cancelled");
    }
    m_takers[event.thread] = {TakerPhase::Cancelling, true};
}

void AreaChecker::respond(const TraceEvent& event) {
    if (takes(event, TakerPhase::Cancelling)) {
        m_isResponseCancelled = true;
        if (m_server.thread == event.thread && m_server.phase == ServerPhase::Stopping)
            m_server.phase = ServerPhase::Answered;
    } else {
        require(takes(event, TakerPhase::Executing), "Order", "no request was executed");
        require(m_taken.kind != RequestKind::Write || m_taken.isBufferFreed, "BufferOnce",
                "the buffer of the request was not freed");
        m_server.mustReset = m_taken.kind == RequestKind::Disconnect;
        m_response = m_taken.number;
    }
    m_takers.erase(event.thread);
    ++m_responses;
}

void AreaChecker::clientMutexRemade(const TraceEvent& event) {
    expectServer(event);
    require(m_block.isHeld && m_block.thread == event.thread, "Block", "it is not locked");
    if (m_client)
        require(isDead(m_client->process), "Deaths", "the client has not been killed");
    else
        require(m_dying.count() > 0, "Deaths", "no process has died");
    m_client.reset();
}

void AreaChecker::terminate(const TraceEvent& event) {
    require(event.process == m_server.process, "OneServer", "the process is not the server");
    require(m_terminators.insert(event.thread).second, "Order",
            "the thread is in a call of terminate()");
    m_server.isTold = true;
    m_posting.insert(event.thread);
    ++m_requests;
    ++m_buffers;
}

void AreaChecker::stop(const TraceEvent& event) {
    expectServer(event);
    require(m_server.isTold, "Order", "the server was not terminated");
    require((m_server.phase == ServerPhase::Loop || m_server.phase == ServerPhase::Woken) &&
                !m_server.mustReset,
            "Order", "the server is not waiting");
    // The state was read before this step: the client may have set it to Done after that.
    require(event.value == 1 || m_state != Accepted, "State",
            "the client may be reading a response");
    m_server.phase = event.value == 1 ? ServerPhase::Answered : ServerPhase::Stopping;
    m_openSession.reset();
}

} // namespace oru::io::test
