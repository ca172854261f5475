// SPDX-License-Identifier: Apache-2.0
#include <oruio/error.h>

#include "core/cancelguard_p.h"
#include "core/errnosaver_p.h"
#include "core/failwith_p.h"
#include "ipc/ipcsession_p.h"
#include "ipc/ipcsync_p.h"
#include "ipc/ipctrace_p.h"
#include "ipc/ipcwire_p.h"
#include "ipc/processgeneration_p.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <thread>

#include <pthread.h>

#include "core/log_p.h"

namespace oru::io {

ORUIO_LOG_ON(fsipcLogChannel);

namespace {

using namespace ipcwire;

const unsigned int DBG_MASK = IPCShm::debugMask();

/// How long to sleep between two looks at the state of the request area.
constexpr auto pollPause = std::chrono::microseconds(500);
/// How long to wait for an answer before the next look for the server. Another process that looks
/// for the server holds its mutex for a moment, as a server does: that costs one interval.
constexpr int probeIntervalMs = 250;

} // namespace

IPCFS::Data::~Data() {
    end();
}

Area& IPCFS::Data::area() {
    return areaOf(shm);
}

int IPCFS::Data::init(Properties*) {
    const CancelGuard guard;
    if (DBG_MASK & TraceLifecycle)
        ORUIO_LOG(LogDebug, "Client connecting");
    const auto found = QSharedPointer<ShmBlock>::create(blockName, areaSize, 0U);
    if (!found->isValid())
        reason = errno == EPROTO ? Unavailable::OtherAbi : Unavailable::NoServer;
    else
        reason = Unavailable::Busy;
    const ShmBlock::Access<IPCShm> access(found);
    if (!access.data()) {
        ORUIO_LOG(LogDebug, "No IPC Server found.");
        return failWith(ENOTCONN);
    }
    block = found;
    shm = access.data();
    m_generation = processGeneration();
    int result = -1;
    if (!isOwned(area()) || lockClientMutex()) {
        reason = Unavailable::NoAnswer;
        result = sendConnect();
    } else {
        failWith(ENOTCONN);
    }
    if (result != 0) {
        leave();
        return result;
    }
    state = Connected;
    reason = Unavailable::None;
    ++session;
    ORUIO_LOG(LogDebug, "IPC Client Ready");
    return 0;
}

/// Makes this the one client. \returns false when there is no server, or another client; which one
/// is logged.
bool IPCFS::Data::lockClientMutex() {
    const int server = probeServer();
    if (server != EBUSY) {
        reason = Unavailable::NoServer;
        ORUIO_LOG(LogDebug, "Server not online: %s",
                  server == 0 ? "shm unlocked" : std::strerror(server));
        trace(Step::GiveUp, area(), GiveUpNoServer);
        return false;
    }
    if (DBG_MASK & TraceLifecycle)
        ORUIO_LOG(LogDebug, "Detected Server online");
    switch (const int error = m_clientMutex.acquire(area().control.clientMutex)) {
    case 0:
        trace(Step::LockClientMutex, area());
        break;
    case EOWNERDEAD:
        trace(Step::LockClientMutex, area(), error);
        ORUIO_LOG(LogDebug, "Client crash detected. Continuing.");
        break;
    case EBUSY:
        trace(Step::GiveUp, area(), GiveUpBusy);
        ORUIO_LOG(LogDebug, "Existing client detected. Aborting.");
        return false;
    default:
        trace(Step::GiveUp, area(), GiveUpBusy);
        ORUIO_LOG(LogDebug, "Client lock failed: %s. Aborting.", std::strerror(error));
        return false;
    }
    countSession(area());
    return true;
}

/// Sends "connect". \returns its result.
int IPCFS::Data::sendConnect() {
    int result = -1;
    if (!m_clientMutex.isHeld()) {
        // No server owns the area. A client of the last one may still wait for a response in it.
        // This client does not wait: it could take that response.
        post(op::connect, sizeof op::connect);
        logServerGone(probeServer());
        failWith(ENOTCONN);
    } else if (endPredecessor()) {
        result = call(nullptr, op::connect, nullptr);
    } else {
        failWith(ENOTCONN);
    }
    if (result != 0)
        ORUIO_LOG(LogDebug, "No response from server");
    return result;
}

/// Ends the previous client's session, if that client did not. \returns whether the area is idle.
/// If so, no request of the previous client will be executed, and no answer to one will come.
bool IPCFS::Data::endPredecessor() {
    cancel(area());
    const auto isSettled = [this] {
        const char now = requestState(area());
        return now != Copying && now != Ending;
    };
    if (!await(isSettled))
        return false;
    const char settled = requestState(area());
    trace(Step::Settled, area(), settled);
    if (settled == Idle)
        return true;
    setDone(area());
    post(op::disconnect, sizeof op::disconnect);
    return awaitIdle();
}

/// Waits until the server has ended the session. \returns whether it has.
bool IPCFS::Data::awaitIdle() {
    const bool isIdle = await([this] { return requestState(area()) == Idle; });
    if (isIdle)
        trace(Step::Settled, area(), Idle);
    return isIdle;
}

void IPCFS::Data::end() {
    if (state != Connected)
        return;
    const CancelGuard guard;
    const ErrnoSaver saver;
    if (m_generation != processGeneration()) {
        verifySession(); // it fails, and drops what was inherited; the block's mutex is the
                         // parent's
        return;
    }
    const ShmBlock::Access<IPCShm> access(block);
    if (!verifySession())
        return;
    post(op::disconnect, sizeof op::disconnect);
    // The next client must not begin before the server has closed this session.
    awaitIdle();
    leave();
    reason = Unavailable::None;
}

/// Checks that the session exists, and leaves it otherwise. \returns whether it exists. It does not
/// in a child of fork(2), nor when the state of the request area is not the one that this client
/// left.
bool IPCFS::Data::verifySession() {
    if (m_generation == processGeneration() && requestState(area()) == Done)
        return true;
    ORUIO_LOG(LogDebug, "Session lost. Stopping client");
    leave();
    return false;
}

/// Releases the client mutex and the block without a request to the server.
void IPCFS::Data::leave() {
    const ErrnoSaver saver;
    state = NotConnected;
    if (m_clientMutex.isHeld()) {
        cancel(area());
        trace(Step::ReleaseClientMutex, area());
    }
    m_clientMutex.release();
    shm = nullptr;
    block.reset();
}

/// Looks for a server. \returns EBUSY when there is one, 0 when it has stopped, EOWNERDEAD when it
/// has died; the area is then marked as not owned.
int IPCFS::Data::probeServer() {
    AreaControl& control = area().control;
    const int error = pthread_mutex_trylock(&control.serverMutex);
    if (error == 0 || error == EOWNERDEAD)
        trace(Step::ServerGone, area(), error);
    if (error == EOWNERDEAD) {
        setOwned(area(), false);
        pthread_mutex_consistent(&control.serverMutex);
    }
    if (error == 0 || error == EOWNERDEAD)
        pthread_mutex_unlock(&control.serverMutex);
    return error;
}

/// Waits until `condition` holds, while there is a server, for as long as an answer may take.
/// \returns whether it holds.
template <class Condition>
bool IPCFS::Data::await(Condition condition) {
    constexpr int yields = 200;
    const auto isMetAtLast = [&](GiveUpReason failure) {
        const bool isMet = condition();
        if (!isMet)
            trace(Step::GiveUp, area(), failure);
        return isMet;
    };
    const Deadline deadline(answerTimeoutMs);
    for (int round = 0; !condition(); ++round) {
        if (probeServer() != EBUSY) {
            reason = Unavailable::NoServer;
            return isMetAtLast(GiveUpNoServer);
        }
        if (deadline.left() == 0)
            return isMetAtLast(GiveUpNoAnswer);
        if (round < yields)
            std::this_thread::yield();
        else
            std::this_thread::sleep_for(pollPause);
    }
    return true;
}

// --- Exchanges ----------------------------------------------------------------------------------

int IPCFS::Data::sendRequest(const char* name, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = send(name, nullptr, 0, format, args);
    va_end(args);
    return result;
}

int IPCFS::Data::sendBufRequest(const char* name, const void* data, std::size_t length,
                                const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = send(name, data, length, format, args);
    va_end(args);
    return result;
}

int IPCFS::Data::send(const char* name, const void* data, std::size_t length, const char* format,
                      va_list args) {
    const bool greets = std::strcmp(name, op::connect) == 0;
    if (!shm || (state != Connected && !greets) || (state == Connected && !verifySession()))
        return failWith(ENOTCONN);

    char text[textSize];
    std::size_t used = std::min(std::strlen(name), textSize - 1);
    std::memcpy(text, name, used);
    text[used] = '\0';
    if (format && used + 1 < textSize) {
        text[used++] = ' ';
        used += formatFields(text + used, textSize - used, format, args);
    }
    if (used + length >= textSize) {
        ORUIO_LOG(LogDebug, "Request '%s' exceeds max %zu", text, textSize);
        return failWith(E2BIG);
    }
    if (length > 0)
        std::memcpy(text + used + 1, data, length);
    post(text, used + 1 + length);
    return 0;
}

void IPCFS::Data::post(const char* text, std::size_t length) {
    publish(area(), text, length);
    if (DBG_MASK & TraceClient)
        ORUIO_LOG(LogDebug, "Send request '%s'", text);
    trace(Step::Post, area());
    sem_post(&area().control.requestSem);
}

int IPCFS::Data::getResponse(const char** payload) {
    if (!shm)
        return failWith(ENOTCONN);
    if (!awaitResponse()) {
        leave();
        return failWith(ENOTCONN);
    }
    trace(Step::TakeResponse, area());
    copyResponse(area(), m_response);
    setDone(area());
    const int result = parseResponse(payload);
    // The server's file system may have lost a connection of its own.
    if (result < 0 && (errno == ENOTCONN || errno == ESHUTDOWN))
        end();
    return result;
}

/// Waits for the answer, and looks for the server every now and then. \returns false when no answer
/// will come; the reason is logged.
bool IPCFS::Data::awaitResponse() {
    sem_t& responseSem = area().control.responseSem;
    if (const int server = probeServer(); server != EBUSY) {
        logServerGone(server);
        return false;
    }
    if (m_spinWaiter.take(responseSem))
        return true;
    const Deadline deadline(answerTimeoutMs);
    while (waitFor(responseSem, std::min(deadline.left(), probeIntervalMs)) != 0) {
        if (errno != ETIMEDOUT || deadline.left() == 0) {
            reason = Unavailable::NoAnswer;
            trace(Step::GiveUp, area(), GiveUpNoAnswer);
            ORUIO_LOG(LogDebug, "Response wait error: %s. Disconnecting.", std::strerror(errno));
            return false;
        }
        if (const int server = probeServer(); server != EBUSY) {
            if (sem_trywait(&responseSem) == 0)
                return true; // its last answer
            logServerGone(server);
            return false;
        }
    }
    return true;
}

/// `probed` is the result of probeServer().
void IPCFS::Data::logServerGone(int probed) {
    reason = Unavailable::NoServer;
    trace(Step::GiveUp, area(), GiveUpNoServer);
    if (probed == EOWNERDEAD)
        ORUIO_LOG(LogDebug, "Server crashed.");
    ORUIO_LOG(LogDebug, "Server offline. Stopping client");
}

int IPCFS::Data::parseResponse(const char** payload) {
    int result = 0;
    int systemError = 0;
    int libraryError = 0;
    FieldReader header(m_response.bytes);
    header.number(result).separator(',').number(systemError).separator(',').number(libraryError);
    const bool isWhole = header.isGood() && (header.atEnd() || *header.rest() == ' ');
    if (!isWhole || result < -1 || libraryError < Ok) {
        ORUIO_LOG(LogDebug, "Malformed response '%s'", m_response.bytes);
        return failWith(EBADMSG);
    }
    if (DBG_MASK & TraceClient)
        ORUIO_LOG(LogDebug, "Got response: '%s'", m_response.bytes);
    if (payload)
        *payload = header.rest() + 1;
    errno = systemError;
    liberrno = static_cast<ErrorCode>(libraryError);
    return result;
}

int IPCFS::Data::call(const char** payload, const char* name, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = callWith(payload, name, format, args);
    va_end(args);
    return result;
}

int IPCFS::Data::callForRecord(void* record, std::size_t size, const char* name, const char* format,
                               ...) {
    const char* payload = nullptr;
    va_list args;
    va_start(args, format);
    const int result = callWith(&payload, name, format, args);
    va_end(args);
    if (result < 0)
        return result;
    const bool isRecord = result == 0 && payload[-1] == '\0' && payload + size <= m_response.end();
    if (!isRecord)
        return failWith(EBADMSG);
    std::memcpy(record, payload, size);
    return 0;
}

int IPCFS::Data::callWith(const char** payload, const char* name, const char* format,
                          va_list args) {
    const CancelGuard guard; // for the length of the exchange
    return send(name, nullptr, 0, format, args) == 0 ? getResponse(payload) : -1;
}

int IPCFS::Data::reserveBuffer() {
    if (state != Connected || !verifySession())
        return failWith(ENOTCONN);
    liberrno = Ok;
    return shm->allocDataBuf(bufferTimeoutS);
}

void IPCFS::Data::releaseBuffer(int index) {
    const ErrnoSaver saver;
    if (shm)
        shm->freeDataBuf(index);
}

void* IPCFS::Data::buffer(int index) {
    return shm->databufAddr(index);
}

} // namespace oru::io
