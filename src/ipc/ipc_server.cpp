// SPDX-License-Identifier: Apache-2.0
#include <oruio/error.h>
#include <oruio/ipc_server.h>

#include "core/cancelguard_p.h"
#include "core/errnosaver_p.h"
#include "ipc/ipc_server_p.h"
#include "ipc/ipcsync_p.h"
#include "ipc/ipctrace_p.h"
#include "ipc/ipcwire_p.h"
#include "ipc/processgeneration_p.h"

#include <QScopeGuard>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <utility>

#include "core/log_p.h"
#include "core/notimplemented_p.h"

namespace oru::io {

ORUIO_SHARED_LOG_CHANNEL(fsipcsrvLogChannel, "fsipcsrv");

namespace {

using namespace ipcwire;

const unsigned int DBG_MASK = IPCShm::debugMask();

/// How long to wait for the lock of a server that may be alive.
constexpr int otherServerTimeoutMs = 100;
constexpr int terminateTimeoutMs = 10'000;
/// The buffer mutex is held for microseconds only.
constexpr int resetTimeoutMs = 100;
/// How much of a response a log message shows at most.
constexpr int shownBytes = textSize;
/// How often to try again when other servers start at the same time.
constexpr int initTries = 5;

} // namespace

IPCServer::Data::Data(QSharedPointer<FS> fs)
    : FDAdapter(std::move(fs)),
      handlers{
          {op::connect, &Data::rq_connect},   {op::disconnect, &Data::rq_disconnect},
          {op::mkdir, &Data::rq_mkdir},       {op::rmdir, &Data::rq_rmdir},
          {op::statfs, &Data::rq_statfs},     {op::stat, &Data::rq_stat},
          {op::lstat, &Data::rq_lstat},       {op::link, &Data::rq_link},
          {op::symlink, &Data::rq_symlink},   {op::unlink, &Data::rq_unlink},
          {op::readlink, &Data::rq_readlink}, {op::rename, &Data::rq_rename},
          {op::chmod, &Data::rq_chmod},       {op::truncate, &Data::rq_truncate},
          {op::sync, &Data::rq_sync},         {op::opendir, &Data::rq_opendir},
          {op::readdir, &Data::rq_readdir},   {op::rewinddir, &Data::rq_rewinddir},
          {op::closedir, &Data::rq_closedir}, {op::open, &Data::rq_open},
          {op::read, &Data::rq_read},         {op::write, &Data::rq_write},
          {op::pread, &Data::rq_pread},       {op::pwrite, &Data::rq_pwrite},
          {op::lseek, &Data::rq_lseek},       {op::ftruncate, &Data::rq_ftruncate},
          {op::fsync, &Data::rq_fsync},       {op::fdatasync, &Data::rq_fdatasync},
          {op::fstat, &Data::rq_fstat},       {op::fcntl, &Data::rq_fcntl},
          {op::flock, &Data::rq_flock},       {op::fchmod, &Data::rq_fchmod},
          {op::close, &Data::rq_close},
      } {
    ORUIO_LOG(LogDebug, "Serving '%s'", qUtf8Printable(type()));
}

IPCServer::Data::~Data() {
    closeSession();
}

Area& IPCServer::Data::area() {
    return areaOf(shm);
}

QSharedPointer<ShmBlock> IPCServer::Data::currentBlock() {
    const std::lock_guard lock(m_blockMutex);
    return block;
}

/// The old block is the argument then, and is destroyed after the lock has been released.
void IPCServer::Data::setBlock(QSharedPointer<ShmBlock> newBlock) {
    const std::lock_guard lock(m_blockMutex);
    block.swap(newBlock);
}

// --- Beginning and end --------------------------------------------------------------------------

IPCShm* IPCServer::Data::init(Properties*) {
    for (int tries = 0; tries < initTries; ++tries) {
        if (const int error = retirePredecessor()) {
            errno = error;
            return nullptr;
        }
        const auto created =
            QSharedPointer<ShmBlock>::create(blockName, areaSize, ShmBlock::Create);
        if (DBG_MASK & TraceLifecycle)
            ORUIO_LOG(LogDebug, "Create new FSShm: %s", created->isValid() ? "OK" : "failed");
        if (!created->isValid()) {
            ORUIO_LOG(LogDebug, "Invalid shmblock");
            return nullptr;
        }
        m_beginning.emplace(created);
        if (m_beginning->data())
            return takeOver(*m_beginning);
        // Another server that starts at the same time may have removed it.
        if (created->isValid()) {
            ORUIO_LOG(LogDebug, "Invalid shmblock");
            break;
        }
    }
    errno = EBUSY;
    return nullptr;
}

/// Removes the object of a server that has stopped or died. Its client, if there is one, keeps the
/// memory mapped and finds that the server is gone. The content is not changed, as the client may
/// be using the mutexes and semaphores in it. \returns 0 or an error number, which is logged: EBUSY
/// when a server is running.
int IPCServer::Data::retirePredecessor() {
    const auto existing = QSharedPointer<ShmBlock>::create(blockName, areaSize, 0U);
    const ShmBlock::Access<IPCShm> access(existing);
    if (!access.data()) {
        if (!existing->isValid())
            return 0;
        ORUIO_LOG(LogDebug, "Invalid shmblock");
        return EBUSY;
    }
    Area& old = areaOf(access.data());
    if (DBG_MASK & TraceLifecycle)
        ORUIO_LOG(LogDebug, "Existing Shm. Data %p Magic 0x%04x", static_cast<void*>(access.data()),
                  old.control.magic);
    if (isOwned(old)) {
        const int error = lockShared(old.control.serverMutex, otherServerTimeoutMs);
        if (error == EBUSY || error == ETIMEDOUT) {
            ORUIO_LOG(LogDebug, "Existing active server detected. Aborting");
            trace(Step::GiveUp, old, GiveUpBusy);
            return EBUSY;
        }
        if (error == 0) {
            trace(Step::LockServerMutex, old, LockToRetire);
            setOwned(old, false);
            // At once: for the old client, the holder of this mutex is a running server.
            trace(Step::ReleaseServerMutex, old);
            pthread_mutex_unlock(&old.control.serverMutex);
            ORUIO_LOG(LogDebug, "Server crash detected. Resetting.");
        }
    }
    if (existing->remove())
        return 0;
    const int error = errno;
    ORUIO_LOG(LogDebug, "Invalid shmblock");
    return error;
}

/// Makes this the server of the locked block.
IPCShm* IPCServer::Data::takeOver(const ShmBlock::Access<IPCShm>& access) {
    Area& created = areaOf(access.data());
    if (isOwned(created)) {
        ORUIO_LOG(LogDebug, "Competing server detected. Aborting.");
        trace(Step::GiveUp, created, GiveUpBusy);
        errno = EBUSY;
        return nullptr;
    }
    access.block()->removeAtClose();
    if (DBG_MASK & TraceLifecycle)
        ORUIO_LOG(LogDebug, "Initialize FSShm");
    state = Initialising;
    if (!initialiseMutexes(created.control)) {
        const ErrnoSaver saver;
        access.block()->remove();
        return nullptr;
    }
    trace(Step::LockServerMutex, created, LockToServe);
    setBlock(access.block());
    setOwned(created, true);
    if (DBG_MASK & TraceLifecycle)
        ORUIO_LOG(LogDebug, "FSShm ready for use");
    return access.data();
}

/// Initialises the mutexes and locks the server mutex, which stays locked until the server stops.
bool IPCServer::Data::initialiseMutexes(AreaControl& control) {
    const auto works = [](const char* complaint, int error) {
        if (error != 0) {
            ORUIO_LOG(LogDebug, complaint, std::strerror(error));
            errno = error;
        }
        return error == 0;
    };
    const SharedMutexAttributes attributes;
    if (!works("Failed to init mutex attrs: %s", attributes.initError()) ||
        !works("Failed to set mutex attribute properties: %s", attributes.setError()))
        return false;
    for (pthread_mutex_t* mutex :
         {&control.serverMutex, &control.clientMutex, &control.bufferMutex}) {
        if (!works("Failed to init mutexes: %s", attributes.makeMutex(*mutex)))
            return false;
    }
    return works("Unable to lock this shm: %s",
                 lockShared(control.serverMutex, otherServerTimeoutMs));
}

/// Whether this is a child of fork(2), and the server was started by the parent. The locks may be
/// those of a thread that does not exist here, and the block is the parent's.
bool IPCServer::Data::isInherited() const {
    const long long startedIn = m_startedIn;
    return startedIn >= 0 && startedIn != processGeneration();
}

int IPCServer::Data::run(Properties* props) {
    std::unique_lock running(m_running, std::defer_lock);
    if (!isInherited())
        running.try_lock();
    errno = EBUSY;
    liberrno = Ok;
    if (DBG_MASK & TraceLifecycle)
        ORUIO_LOG(LogDebug, "IPC Server initializing");
    int result = -1;
    if (running) {
        m_startedIn = processGeneration();
        // Also when this thread is cancelled while it waits for a request.
        const auto stopping = qScopeGuard([&] {
            if (shm)
                result = tearDown();
            state = Stopped;
        });
        result = begin(props) ? serve() : -1;
    } else {
        ORUIO_LOG(LogDebug, "IPC Server init failed");
    }
    ORUIO_LOG(LogDebug, "IPC Server stopped");
    return result;
}

/// Prepares the area. Clients cannot connect before. \returns false on failure, which is logged. If
/// there is an area then, the caller calls tearDown().
bool IPCServer::Data::begin(Properties* props) {
    const CancelGuard guard;
    shm = init(props);
    const bool isReady = shm && resetSession() == 0;
    release(m_beginning);
    if (!isReady)
        ORUIO_LOG(LogDebug, "IPC Server init failed");
    return isReady;
}

int IPCServer::Data::serve() {
    ORUIO_LOG(LogDebug, "IPC Server Ready");
    int initialising = Initialising;
    state.compare_exchange_strong(initialising, Serving);
    for (;;) {
        if (DBG_MASK & TraceServer)
            ORUIO_LOG(LogDebug, "Wait for request");
        const int error = getRequest(shm);
        if (!isServing())
            break;
        if (error != 0) {
            if (DBG_MASK & TraceServer)
                ORUIO_LOG(LogDebug, "Get request failure %d", error);
            resetSession();
        } else {
            trace(Step::Wake, area());
            if (take(area(), request)) {
                const CancelGuard guard; // the client waits for an answer
                process();
            }
        }
    }
    ORUIO_LOG(LogDebug, "IPC Server stopping");
    // When a request has been accepted, the client may be reading the answer to it.
    const char last = requestState(area());
    trace(Step::Stop, area(), last == Accepted);
    if (last != Accepted) {
        take(area(), request);
        answerCancelled(shm);
    }
    return 0;
}

bool IPCServer::Data::isServing() const {
    return state == Serving && !m_isFinished;
}

/// Answers the current request with ECANCELED, as the server stops.
void IPCServer::Data::answerCancelled(IPCShm* to) {
    errno = ECANCELED;
    liberrno = Ok;
    trace(Step::CancelledResponse, areaOf(to));
    sendResponse(to, -1, nullptr);
}

/// Answers a request that was published while the server mutex was being released. A client that
/// publishes later finds the mutex released and does not wait.
void IPCServer::Data::answerLateRequest(IPCShm* to) {
    Text unanswered;
    if (take(areaOf(to), unanswered))
        answerCancelled(to);
}

/// Releases the area and removes the block. \returns the result of unlocking the server mutex.
int IPCServer::Data::tearDown() {
    const CancelGuard guard;
    closeSession();
    // Before the block is locked: a client that connects or disconnects holds the block until it is
    // answered or finds the server mutex released.
    trace(Step::ReleaseServerMutex, area());
    const int result = pthread_mutex_unlock(&area().control.serverMutex);
    answerLateRequest(shm);
    {
        const ShmBlock::Access<IPCShm> access(block);
        setOwned(area(), false);
        block->remove();
        setBlock({});
    }
    shm = nullptr;
    return result;
}

int IPCServer::Data::terminate() {
    const CancelGuard guard;
    if (isInherited())
        return 0;
    const QSharedPointer<ShmBlock> current = currentBlock();
    if (!current)
        return 0;
    if (!current->lock()) {
        ORUIO_LOG(LogDebug, "Failed to get ShmBlock lock");
        // The caller does not call again, so stop without the lock.
        stop(current);
        return 0;
    }
    current->unlock();
    ORUIO_LOG(LogDebug, "Terminate server");
    stop(current);
    IPCShm* const target = shmAt(current->base());
    pthread_mutex_t& serverMutex = areaOf(target).control.serverMutex;
    const int error = lockShared(serverMutex, terminateTimeoutMs);
    if (error == ETIMEDOUT)
        ORUIO_LOG(LogDebug, "NOTICE: Server still active.");
    if (error == 0) {
        trace(Step::LockServerMutex, areaOf(target), LockToTerminate);
        trace(Step::ReleaseServerMutex, areaOf(target));
        pthread_mutex_unlock(&serverMutex);
        // While this thread held the mutex, clients took it for a running server.
        answerLateRequest(target);
    }
    return 0;
}

/// Makes run() return, and wakes it, if it still serves this block.
void IPCServer::Data::stop(const QSharedPointer<ShmBlock>& current) {
    const std::lock_guard lock(m_blockMutex);
    if (block != current)
        return;
    Area& served = areaOf(shmAt(current->base()));
    trace(Step::Terminate, served);
    state = Terminating;
    sem_post(&served.control.requestSem);
    sem_post(&served.control.bufferSem);
}

void IPCServer::Data::finish() {
    m_isFinished = true;
    terminate();
    const std::lock_guard ended(m_running);
}

// --- The session --------------------------------------------------------------------------------

void IPCServer::Data::closeSession() {
    if (files.isEmpty() && dirs.isEmpty())
        return;
    if (DBG_MASK & TraceLifecycle)
        ORUIO_LOG(LogDebug, "Close Session. %d files %d dirs", files.size(), dirs.size());
    for (const int fd : std::as_const(files))
        close(fd);
    for (void* const handle : std::as_const(dirs))
        closedir(handle);
    files.clear();
    dirs.clear();
}

int IPCServer::Data::resetSession() {
    trace(Step::BeginReset, area());
    closeSession();
    AreaControl& control = area().control;
    constexpr int shared = 1;
    int result = 0;
    if (sem_init(&control.requestSem, shared, 0) != 0 ||
        sem_init(&control.responseSem, shared, 0) != 0 ||
        sem_init(&control.bufferSem, shared, dataBuffers) != 0) {
        ORUIO_LOG(LogDebug, "FATAL: Unable to reinitialize semaphores");
        result = -1;
    }
    const int locked = lockShared(control.bufferMutex, resetTimeoutMs);
    control.bufferMap = 0;
    if (locked == 0)
        pthread_mutex_unlock(&control.bufferMutex);
    trace(Step::SemaphoresInitialised, area());
    // Last: from here on the next client may publish a request.
    setIdle(area());
    if (DBG_MASK & TraceLifecycle)
        ORUIO_LOG(LogDebug, "Session reset %s", result == 0 ? "OK" : "Failed");
    return result;
}

/// \returns whether a client may be connected. Initialises the client mutex of one that has died,
/// so that another can connect.
bool IPCServer::Data::probeClient() {
    // The holder of the block is a client that connects or disconnects. Without the block locked, a
    // new client could find the client mutex locked by this function and take that for a client.
    if (!block->tryLock())
        return true;
    pthread_mutex_t& clientMutex = area().control.clientMutex;
    const int error = pthread_mutex_trylock(&clientMutex);
    if (error == EOWNERDEAD)
        ORUIO_LOG(LogDebug, "Client crashed. Terminating session.");
    if (error == 0 || error == EOWNERDEAD)
        pthread_mutex_unlock(&clientMutex);
    // A robust mutex that is unlocked without pthread_mutex_consistent(3) cannot be locked again.
    if (error == EOWNERDEAD || error == ENOTRECOVERABLE) {
        trace(Step::ClientMutexRemade, area(), error);
        SharedMutexAttributes().makeMutex(clientMutex);
    }
    block->unlock();
    return error == EBUSY;
}

int IPCServer::Data::getRequest(IPCShm* from) {
    sem_t& requestSem = areaOf(from).control.requestSem;
    // Check the state before waiting: stop() changes it before it posts the semaphore, and the post
    // is lost when the semaphore is initialised after it.
    while (isServing()) {
        if (m_spinWaiter.take(requestSem))
            break;
        // Without a client, wait without a time limit.
        if ((probeClient() ? waitFor(requestSem, clientPollMs) : waitFor(requestSem)) == 0)
            break;
        if (errno == ETIMEDOUT && (DBG_MASK & TraceLifecycle))
            ORUIO_LOG(LogDebug, "Poll for active client");
    }
    return 0;
}

void IPCServer::Data::process() {
    trace(Step::Execute, area(), request.bytes);
    const char* args = nullptr;
    if (char* const blank = std::strchr(request.bytes, ' ')) {
        *blank = '\0';
        args = blank + 1;
    }
    const auto handler = handlers.constFind(QString::fromLatin1(request.bytes));
    const bool isKnown = handler != handlers.constEnd();
    if (DBG_MASK & TraceServer)
        ORUIO_LOG(LogDebug, "%s '%s'", isKnown ? "Process" : "Request not supported",
                  request.bytes);
    // So that the answer holds what this operation sets, not what an earlier one left.
    errno = 0;
    liberrno = Ok;
    (this->*(isKnown ? *handler : &Data::rq_notfound))(args);
}

int IPCServer::Data::sendResponse(IPCShm* to, int result, const char* format, ...) {
    char* const text = areaOf(to).response;
    std::size_t used = formatFields(text, textSize, answer::header, result, errno, liberrno);
    if (format) {
        text[used++] = ' ';
        va_list args;
        va_start(args, format);
        used += formatFields(text + used, textSize - used, format, args);
        va_end(args);
    }
    const int sent = used < textSize ? 0 : replaceTooLong(to);
    if (DBG_MASK & TraceServer)
        ORUIO_LOG(LogDebug, "Send response '%.*s'", shownBytes, text);
    trace(Step::Respond, areaOf(to));
    sem_post(&areaOf(to).control.responseSem);
    return sent;
}

int IPCServer::Data::sendBufResponse(IPCShm* to, int result, const void* data,
                                     unsigned int length) {
    char* const text = areaOf(to).response;
    const std::size_t used = formatFields(text, textSize, answer::header, result, errno, liberrno);
    int sent = 0;
    if (used + length < textSize)
        std::memcpy(text + used + 1, data, length);
    else
        sent = replaceTooLong(to);
    if (DBG_MASK & TraceServer)
        ORUIO_LOG(LogDebug, "Send BufResponse %.*s + %zu bytes", shownBytes, text,
                  std::size_t{length});
    trace(Step::Respond, areaOf(to));
    sem_post(&areaOf(to).control.responseSem);
    return sent;
}

int IPCServer::Data::replaceTooLong(IPCShm* to) {
    ORUIO_LOG(LogDebug, "Response '%s' exceeds max %zu", request.bytes, textSize);
    formatFields(areaOf(to).response, textSize, answer::tooLong, -1, E2BIG, liberrno);
    return -1;
}

// --- IPCServer ----------------------------------------------------------------------------------

IPCServer::IPCServer(QSharedPointer<FS> fs) : m_data(std::make_unique<Data>(std::move(fs))) {}

IPCServer::~IPCServer() {
    if (m_data->isInherited())
        static_cast<void>(m_data.release()); // its block would remove the parent's object
    else
        m_data->finish();
}

int IPCServer::ioctl(QString, QString&) {
    return notImplemented();
}

int IPCServer::run(Properties* props) {
    return m_data->run(props);
}

int IPCServer::state() {
    return m_data->state;
}

int IPCServer::terminate() {
    return m_data->terminate();
}

} // namespace oru::io
