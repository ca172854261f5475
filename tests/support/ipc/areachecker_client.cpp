// SPDX-License-Identifier: Apache-2.0
// The steps of clients.
#include "support/ipc/areachecker.h"

#include <cerrno>

namespace oru::io::test {

using namespace ipcwire;

namespace {

/// Stands for the first letter of a published request.
constexpr char published = 'p';

} // namespace

bool AreaChecker::clientStep(const TraceEvent& event) {
    switch (event.step) {
    case Step::ServerGone:
        serverGone(event);
        return true;
    case Step::LockClientMutex:
        lockClientMutex(event);
        return true;
    case Step::CountSession:
        countSession(event);
        return true;
    case Step::ReleaseClientMutex:
        releaseClientMutex(event);
        return true;
    case Step::ReserveBuffer:
        reserveBuffer(event);
        return true;
    case Step::FillBuffer:
        fillBuffer(event);
        return true;
    default:
        return clientExchange(event);
    }
}

bool AreaChecker::clientExchange(const TraceEvent& event) {
    switch (event.step) {
    case Step::Cancel:
        cancel(event);
        return true;
    case Step::Settled:
        settled(event);
        return true;
    case Step::Publish:
        publish(event);
        return true;
    case Step::Post:
        post(event);
        return true;
    case Step::TakeResponse:
        takeResponse(event);
        return true;
    case Step::Done:
        done(event);
        return true;
    default:
        return false;
    }
}

/// The client, which takes this step.
AreaChecker::Client& AreaChecker::holder(const TraceEvent& event) {
    require(m_client && m_client->process == event.process, "OneClient",
            "the process does not hold the client mutex");
    require(m_client->phase == ClientPhase::Locked || m_client->session == event.session,
            "OneClient", "another session has begun");
    return *m_client;
}

void AreaChecker::enter(const TraceEvent& event, ClientPhase from, ClientPhase to) {
    Client& client = holder(event);
    require(client.phase == from, "Order", "not the client's next step");
    client.phase = to;
}

/// The thread holds the server mutex for a moment.
void AreaChecker::serverGone(const TraceEvent& event) {
    if (m_serverMutex != 0)
        require(isDead(m_serverMutexProcess), "OneServer", "the server mutex is locked");
    else
        require(event.value != EOWNERDEAD || m_dying.count() > 0, "Deaths", "no process has died");
    m_serverMutex = 0;
    m_finders.insert(event.thread);
}

void AreaChecker::lockClientMutex(const TraceEvent& event) {
    require(m_block.isHeld && m_block.thread == event.thread, "Block", "it is not locked");
    if (m_client) {
        require(event.value == EOWNERDEAD, "OneClient", "another client holds the mutex");
        require(isDead(m_client->process), "Deaths", "the client has not been killed");
    } else {
        require(event.value != EOWNERDEAD || m_dying.count() > 0, "Deaths", "no process has died");
    }
    m_client.emplace();
    m_client->process = event.process;
    m_block.purpose = Purpose::Connect;
}

void AreaChecker::countSession(const TraceEvent& event) {
    enter(event, ClientPhase::Locked, ClientPhase::Counted);
    // A client that was killed may have counted its session without a record.
    const std::size_t unrecorded = m_dying.count() - m_deathsCounted;
    const std::uint32_t counted = m_sessions ? event.session - *m_sessions : 1;
    require(counted >= 1 && counted <= 1 + unrecorded, "OneClient", "a session was not counted");
    m_deathsCounted = m_dying.count();
    m_sessions = event.session;
    m_client->session = event.session;
}

void AreaChecker::cancel(const TraceEvent& event) {
    Client& client = holder(event);
    switch (client.phase) {
    case ClientPhase::Counted:
        client.phase = ClientPhase::Settling;
        break;
    case ClientPhase::InSession: // the session is lost
        require(isServerStopping(), "Order", "the server serves the session");
        client.phase = ClientPhase::Leaving;
        break;
    default:
        require(client.phase == ClientPhase::GaveUp || client.phase == ClientPhase::Ended, "Order",
                "the client is not leaving");
        client.phase = ClientPhase::Leaving;
    }
    if (m_block.isHeld && m_block.thread == event.thread && m_block.purpose == Purpose::None)
        m_block.purpose = Purpose::Attempt;
    // If nothing is cancelled although a request is published, the server has taken it, and has not
    // traced this yet; or a client has died before it published; or after it cancelled. Settled
    // decides which.
    if (event.value == 0)
        return;
    require(m_state == published || isServerStopping(), "State", "nothing is published");
    m_state = Done;
    m_request.isCancelled = true;
}

void AreaChecker::settled(const TraceEvent& event) {
    const auto found = static_cast<char>(event.value);
    Client& client = holder(event);
    if (found != m_state && !isServerStopping()) {
        const bool isUndone = m_undo && m_undo->state == found && m_dying.contains(m_undo->process);
        const bool isCancelled = m_state == published && found == Done && m_dying.count() > 0;
        require(isUndone || isCancelled, "State", "the state is another one");
        m_request.isCancelled = m_request.isCancelled || m_state == published;
    }
    m_state = found;
    m_undo.reset();
    if (client.phase == ClientPhase::AwaitingIdle) {
        require(found == Idle, "State", "the area is not idle");
        client.phase = client.isConnected ? ClientPhase::Ended : ClientPhase::Ready;
        return;
    }
    require(client.phase == ClientPhase::Settling, "Order", "the client is not waiting");
    require(found == Idle || found == Accepted || found == Done, "State", "it is not settled");
    client.phase = found == Idle ? ClientPhase::Ready : ClientPhase::MustEnd;
}

void AreaChecker::done(const TraceEvent& event) {
    Client& client = holder(event);
    if (client.phase == ClientPhase::MustEnd) {
        require(m_state == Accepted || m_state == Done || isServerStopping(), "State",
                "the server owns the area");
        client.phase = ClientPhase::MayEnd;
    } else {
        require(client.phase == ClientPhase::Taken, "Order", "no response was taken");
        require(m_state == Accepted || isServerStopping(), "State", "no request was accepted");
        if (m_request.kind != RequestKind::Connect)
            client.phase = ClientPhase::InSession;
        else
            client.phase = client.isCancelled ? ClientPhase::GaveUp : ClientPhase::Greeted;
        client.isConnected = true;
    }
    m_undo = Undo{event.thread, event.process, m_state};
    m_state = Done;
}

void AreaChecker::publish(const TraceEvent& event) {
    if (!m_client || m_client->process != event.process ||
        (m_client->isConnected && event.kind == RequestKind::Connect))
        return publishWithoutServer(event);
    Client& client = holder(event);
    char expected = Done;
    if (client.phase == ClientPhase::Ready) {
        require(event.kind == RequestKind::Connect, "Order", "the client has not connected");
        expected = Idle;
    } else if (client.phase == ClientPhase::MayEnd) {
        require(event.kind == RequestKind::Disconnect, "OwnFiles",
                "the predecessor's session has not ended");
    } else {
        require(client.phase == ClientPhase::InSession, "Order", "a request is outstanding");
        publishInSession(event);
    }
    require(m_state == expected || isServerStopping(), "State", "the server owns the area");
    client.phase = ClientPhase::Published;
    m_undo = Undo{event.thread, event.process, m_state};
    m_state = published;
    m_request = {event.number + 1, event.session, event.kind, event.index,
                 event.text,       false,         false};
}

/// A client that finds an area without a server, or before its server initialises it, sends
/// "connect" without the client mutex.
void AreaChecker::publishWithoutServer(const TraceEvent& event) {
    const bool isWithoutServer = m_server.phase == ServerPhase::None || isServerStopping();
    require(m_block.isHeld && m_block.thread == event.thread &&
                event.kind == RequestKind::Connect && isWithoutServer,
            "OneClient", "the process does not hold the client mutex");
    m_block.purpose = Purpose::Attempt;
    m_state = published;
}

void AreaChecker::publishInSession(const TraceEvent& event) {
    if (event.kind == RequestKind::Disconnect) {
        const bool isLocked = m_block.isHeld && m_block.thread == event.thread;
        require(isLocked || isServerStopping(), "Block", "it is not locked");
        if (isLocked)
            m_block.purpose = Purpose::Disconnect;
    } else {
        require(event.kind != RequestKind::Connect, "Order", "the client is connected");
        useBuffer(event);
    }
}

void AreaChecker::useBuffer(const TraceEvent& event) {
    BufferPhase needed = BufferPhase::None;
    if (event.kind == RequestKind::Write)
        needed = BufferPhase::Filled;
    else if (event.kind == RequestKind::Read)
        needed = BufferPhase::Reserved;
    require(m_client->bufferPhase == needed, "BufferOnce", "not the buffer of this request");
    require(needed == BufferPhase::None || m_client->buffer == event.index, "BufferOnce",
            "it is another buffer");
    if (event.kind == RequestKind::Read)
        m_client->bufferPhase = BufferPhase::Lent;
    if (event.kind == RequestKind::Write) {
        m_client->bufferPhase = BufferPhase::None; // the server frees it
        m_client->buffer = -1;
    }
}

void AreaChecker::post(const TraceEvent& event) {
    ++m_requests;
    m_posting.insert(event.thread);
    const bool isAttempt =
        m_block.isHeld && m_block.thread == event.thread && m_block.purpose == Purpose::Attempt;
    if (!isAttempt)
        enter(event, ClientPhase::Published,
              m_request.kind == RequestKind::Disconnect ? ClientPhase::AwaitingIdle
                                                        : ClientPhase::Waiting);
}

void AreaChecker::takeResponse(const TraceEvent& event) {
    enter(event, ClientPhase::Waiting, ClientPhase::Taken);
    require(m_responses > 0, "Semaphore", "no response was posted");
    --m_responses;
    m_client->isCancelled = m_isResponseCancelled;
    require(m_response == m_request.number || m_isResponseCancelled, "OwnResponse",
            "it is not the response to the client's request");
}

void AreaChecker::reserveBuffer(const TraceEvent& event) {
    Client& client = holder(event);
    require(client.phase == ClientPhase::InSession && client.bufferPhase == BufferPhase::None,
            "Order", "the client is using a buffer");
    require(m_buffers > 0, "Semaphore", "no buffer is free");
    --m_buffers;
    if (event.value != 0) {
        require(m_server.isTold || m_server.isDead, "BufferOnce", "no buffer was found");
        return;
    }
    const unsigned int bit = 1U << event.index;
    require(!(m_bufferMap & bit), "BufferOnce", "it has been reserved");
    m_bufferMap |= bit;
    client.buffer = event.index;
    client.bufferPhase = BufferPhase::Reserved;
}

void AreaChecker::fillBuffer(const TraceEvent& event) {
    Client& client = holder(event);
    require(client.bufferPhase == BufferPhase::Reserved && client.buffer == event.index,
            "BufferOnce", "the client has not reserved it");
    client.bufferPhase = BufferPhase::Filled;
}

void AreaChecker::releaseClientMutex(const TraceEvent& event) {
    require(holder(event).phase == ClientPhase::Leaving, "Order", "the client is not leaving");
    m_client.reset();
}

} // namespace oru::io::test
