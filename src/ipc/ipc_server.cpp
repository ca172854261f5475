#include <oruio/error.h>
#include <oruio/ipc_server.h>

#include "core/errnosaver_p.h"
#include "ipc/ipc_server_p.h"
#include "ipc/ipcwire_p.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "core/log_p.h"
#include "core/notimplemented_p.h"

namespace oru::io {

ORUIO_LOG_CHANNEL("fsipcsrv");

namespace {

using namespace ipcwire;

const unsigned int DBG_MASK = IPCShm::debugMask();

/// How long a server that is alive may keep another one waiting.
constexpr int otherServerTimeoutMs = 100;
constexpr int terminateTimeoutMs = 10'000;
/// The buffers are locked for moments only.
constexpr int resetTimeoutMs = 100;
/// As much as a message shows of an area that the client may be writing to.
constexpr int shownBytes = textSize;
/// How often to begin anew when others begin at the same time.
constexpr int initTries = 5;

struct timespec inMs(int ms) {
    struct timespec deadline;
    IPCShm::setTimeout(&deadline, ms);
    return deadline;
}

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

/// The old one, now the argument, outlives the lock.
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
        // Another server that begins at this moment may have removed it.
        if (created->isValid()) {
            ORUIO_LOG(LogDebug, "Invalid shmblock");
            break;
        }
    }
    errno = EBUSY;
    return nullptr;
}

/// Removes what a server that is no more has left behind. Its client, if there still is one, keeps
/// the memory and finds the server gone; everything in it, mutexes and semaphores that the client
/// may be using among them, stays as it is. \returns 0, or an error number, having said why: EBUSY
/// when a server is there.
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
        const struct timespec deadline = inMs(otherServerTimeoutMs);
        const int error = lockShared(old.control.serverMutex, &deadline);
        if (error == EBUSY || error == ETIMEDOUT) {
            ORUIO_LOG(LogDebug, "Existing active server detected. Aborting");
            return EBUSY;
        }
        if (error == 0) {
            setOwned(old, false);
            // Before anything else: to the old client, whoever holds it is the server.
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

/// Makes the locked block this server's own.
IPCShm* IPCServer::Data::takeOver(const ShmBlock::Access<IPCShm>& access) {
    Area& created = areaOf(access.data());
    if (isOwned(created)) {
        ORUIO_LOG(LogDebug, "Competing server detected. Aborting.");
        errno = EBUSY;
        return nullptr;
    }
    access.block()->removeAtClose();
    if (DBG_MASK & TraceLifecycle)
        ORUIO_LOG(LogDebug, "Initialize FSShm");
    state = Initialising;
    if (!initialiseMutexes(created.control)) {
        const ErrnoSaver kept;
        access.block()->remove();
        return nullptr;
    }
    setBlock(access.block());
    setOwned(created, true);
    if (DBG_MASK & TraceLifecycle)
        ORUIO_LOG(LogDebug, "FSShm ready for use");
    return access.data();
}

/// Initialises the mutexes and takes the server's, for as long as this server lives.
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
    const struct timespec deadline = inMs(otherServerTimeoutMs);
    return works("Unable to lock this shm: %s", lockShared(control.serverMutex, &deadline));
}

int IPCServer::Data::run(Properties* props) {
    const std::unique_lock running(m_running, std::try_to_lock);
    errno = EBUSY;
    liberrno = Ok;
    if (DBG_MASK & TraceLifecycle)
        ORUIO_LOG(LogDebug, "IPC Server initializing");
    int result = -1;
    if (running) {
        result = begin(props) ? serve() : -1;
        if (shm)
            result = tearDown();
        state = Stopped;
    } else {
        ORUIO_LOG(LogDebug, "IPC Server init failed");
    }
    ORUIO_LOG(LogDebug, "IPC Server stopped");
    return result;
}

/// Makes everything ready for the first client, which is kept out until then. \returns false,
/// having said so, when that failed; tearDown() is then still due if there is an area.
bool IPCServer::Data::begin(Properties* props) {
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
        } else if (take(area(), request)) {
            process();
        }
    }
    ORUIO_LOG(LogDebug, "IPC Server stopping");
    // Not while the client may still be reading the answer to its last request.
    if (requestState(area()) != Accepted) {
        take(area(), request);
        answerCancelled(shm);
    }
    return 0;
}

bool IPCServer::Data::isServing() const {
    return state == Serving && !m_isFinished;
}

/// Answers that the server is about to end.
void IPCServer::Data::answerCancelled(IPCShm* to) {
    errno = ECANCELED;
    liberrno = Ok;
    sendResponse(to, -1, nullptr);
}

/// Answers a request that was made while the server mutex was being released. A client that comes
/// later finds the mutex free and does not wait.
void IPCServer::Data::answerLateRequest(IPCShm* to) {
    Text unanswered;
    if (take(areaOf(to), unanswered))
        answerCancelled(to);
}

/// Gives the area up and removes the block. \returns the result of releasing the server mutex.
int IPCServer::Data::tearDown() {
    closeSession();
    // Before the block: a client that is connecting or leaving holds that until it is answered, or
    // finds that nobody will.
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
    const QSharedPointer<ShmBlock> current = currentBlock();
    if (!current)
        return 0;
    if (!current->lock()) {
        ORUIO_LOG(LogDebug, "Failed to get ShmBlock lock");
        // Nobody would ask again.
        stop(current);
        return 0;
    }
    current->unlock();
    ORUIO_LOG(LogDebug, "Terminate server");
    stop(current);
    IPCShm* const target = shmAt(current->base());
    pthread_mutex_t& serverMutex = areaOf(target).control.serverMutex;
    const struct timespec deadline = inMs(terminateTimeoutMs);
    const int error = lockShared(serverMutex, &deadline);
    if (error == ETIMEDOUT)
        ORUIO_LOG(LogDebug, "NOTICE: Server still active.");
    if (error == 0) {
        pthread_mutex_unlock(&serverMutex);
        // For as long as this thread held it, the server seemed to be there.
        answerLateRequest(target);
    }
    return 0;
}

/// Makes run() end, and wakes it up, if it still serves this block.
void IPCServer::Data::stop(const QSharedPointer<ShmBlock>& current) {
    const std::lock_guard lock(m_blockMutex);
    if (block != current)
        return;
    state = Terminating;
    AreaControl& control = areaOf(shmAt(current->base())).control;
    sem_post(&control.requestSem);
    sem_post(&control.bufferSem);
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
    const struct timespec deadline = inMs(resetTimeoutMs);
    const int locked = lockShared(control.bufferMutex, &deadline);
    control.bufferMap = 0;
    if (locked == 0)
        pthread_mutex_unlock(&control.bufferMutex);
    // Last of all: it lets the next client in.
    setIdle(area());
    if (DBG_MASK & TraceLifecycle)
        ORUIO_LOG(LogDebug, "Session reset %s", result == 0 ? "OK" : "Failed");
    return result;
}

/// Whether there may be a client. Makes the place of one that has died free.
bool IPCServer::Data::isClientConnected() {
    // Who holds the block is just connecting or leaving. Without the block, the moment in which the
    // server has the client mutex would look to a new client like another client.
    if (!block->tryLock())
        return true;
    pthread_mutex_t& clientMutex = area().control.clientMutex;
    const int error = pthread_mutex_trylock(&clientMutex);
    if (error == EOWNERDEAD)
        ORUIO_LOG(LogDebug, "Client crashed. Terminating session.");
    if (error == 0 || error == EOWNERDEAD)
        pthread_mutex_unlock(&clientMutex);
    // Released in the state in which its owner died, it cannot be locked ever again.
    if (error == EOWNERDEAD || error == ENOTRECOVERABLE)
        SharedMutexAttributes().makeMutex(clientMutex);
    block->unlock();
    return error == EBUSY;
}

int IPCServer::Data::getRequest(IPCShm* from) {
    sem_t& requestSem = areaOf(from).control.requestSem;
    // The state comes first: who changes it posts the semaphore afterwards, and that may have been
    // before the semaphore was initialised anew.
    while (isServing()) {
        const bool isConnected = isClientConnected();
        if (m_spinWaiter.take(requestSem))
            break;
        const struct timespec deadline = inMs(clientPollMs);
        if (waitFor(requestSem, isConnected ? &deadline : nullptr) == 0)
            break;
        if (errno == ETIMEDOUT && (DBG_MASK & TraceLifecycle))
            ORUIO_LOG(LogDebug, "Poll for active client");
    }
    return 0;
}

void IPCServer::Data::process() {
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
    // What is answered is what this operation leaves behind, not an earlier one.
    errno = 0;
    liberrno = Ok;
    (this->*(isKnown ? *handler : &Data::rq_notfound))(args);
}

int IPCServer::Data::sendResponse(IPCShm* to, int result, const char* format, ...) {
    char* const text = areaOf(to).response;
    std::size_t used = snprintf(text, textSize, answer::header, result, errno, liberrno);
    if (format) {
        text[used++] = ' ';
        va_list args;
        va_start(args, format);
        used += vsnprintf(text + used, textSize - used, format, args);
        va_end(args);
    }
    const int sent = used < textSize ? 0 : replaceTooLong(to);
    if (DBG_MASK & TraceServer)
        ORUIO_LOG(LogDebug, "Send response '%.*s'", shownBytes, text);
    sem_post(&areaOf(to).control.responseSem);
    return sent;
}

int IPCServer::Data::sendBufResponse(IPCShm* to, int result, const void* data,
                                     unsigned int length) {
    char* const text = areaOf(to).response;
    const std::size_t used = snprintf(text, textSize, answer::header, result, errno, liberrno);
    int sent = 0;
    if (used + length < textSize)
        std::memcpy(text + used + 1, data, length);
    else
        sent = replaceTooLong(to);
    if (DBG_MASK & TraceServer)
        ORUIO_LOG(LogDebug, "Send BufResponse %.*s + %zu bytes", shownBytes, text,
                  std::size_t{length});
    sem_post(&areaOf(to).control.responseSem);
    return sent;
}

int IPCServer::Data::replaceTooLong(IPCShm* to) {
    ORUIO_LOG(LogDebug, "Response '%s' exceeds max %zu", request.bytes, textSize);
    snprintf(areaOf(to).response, textSize, answer::tooLong, -1, E2BIG, liberrno);
    return -1;
}

// --- What requests have in common ---------------------------------------------------------------

int IPCServer::Data::respond(int result) {
    sendResponse(shm, result, nullptr);
    return result;
}

int IPCServer::Data::refuse(int reason) {
    errno = reason;
    liberrno = Ok;
    return respond(-1);
}

/// Whether the session has the descriptor open. One of the server process's own, or of nobody, is
/// none of the client's.
bool IPCServer::Data::isOpen(int fd) {
    if (files.contains(fd))
        return true;
    errno = EINVAL;
    liberrno = NotFound;
    return false;
}

bool IPCServer::Data::isOpen(void* handle) {
    if (dirs.contains(handle))
        return true;
    errno = EINVAL;
    liberrno = NotFound;
    return false;
}

/// The text behind the first one's NUL; null when the request holds none.
const char* IPCServer::Data::secondText(const char* first) const {
    const char* const second = first + std::strlen(first) + 1;
    if (second >= request.end() || !std::memchr(second, '\0', request.end() - second))
        return nullptr;
    return second;
}

/// The data buffer, when `count` bytes are in it; else null with errno EINVAL.
void* IPCServer::Data::dataBuffer(int index, std::size_t count) {
    void* const buffer = count <= dataBufferSize ? shm->databufAddr(index) : nullptr;
    if (!buffer) {
        errno = EINVAL;
        liberrno = Ok;
    }
    return buffer;
}

template <class Operation>
int IPCServer::Data::onPath(const char* args, Operation operation) {
    return args ? respond(operation(args)) : refuse(EINVAL);
}

template <class Operation>
int IPCServer::Data::onTwoTexts(const char* args, Operation operation) {
    const char* const second = args ? secondText(args) : nullptr;
    return second ? respond(operation(args, second)) : refuse(EINVAL);
}

template <class Number, class Operation>
int IPCServer::Data::onNumberAndPath(const char* args, Operation operation) {
    Number number = 0;
    FieldReader fields(args);
    if (!fields.number(number).separator(' ').isGood())
        return refuse(EINVAL);
    return respond(operation(number, fields.rest()));
}

template <class Operation>
int IPCServer::Data::onFile(const char* args, Operation operation) {
    int fd = -1;
    if (!FieldReader(args).number(fd).isGood())
        return refuse(EINVAL);
    return respond(isOpen(fd) ? operation(fd) : -1);
}

template <class Number, class Operation>
int IPCServer::Data::onFileAndNumber(const char* args, Operation operation) {
    int fd = -1;
    Number number = 0;
    if (!FieldReader(args).number(fd).separator(' ').number(number).isGood())
        return refuse(EINVAL);
    return respond(isOpen(fd) ? operation(fd, number) : -1);
}

template <class Record, class Operation>
int IPCServer::Data::forRecord(Operation operation) {
    Record record = {};
    const int result = operation(record);
    if (result != 0)
        return respond(result);
    sendBufResponse(shm, result, &record, sizeof record);
    return result;
}

template <class Record, class Operation>
int IPCServer::Data::onPathForRecord(const char* args, Operation operation) {
    if (!args)
        return refuse(EINVAL);
    return forRecord<Record>([&](Record& record) { return operation(args, record); });
}

/// \returns the handle, null when it is none of this session.
void* IPCServer::Data::openHandle(const char* args) {
    void* handle = nullptr;
    FieldReader(args).pointer(handle);
    return isOpen(handle) ? handle : nullptr;
}

/// The arguments of the operations on a data buffer.
struct IPCServer::Data::Transfer {
    int fd = -1;
    int index = -1;
    std::size_t count = 0;
    unsigned long long offset = 0;

    bool read(const char* args, bool hasOffset) {
        FieldReader fields(args);
        fields.number(fd).separator(' ').number(index).separator(' ').number(count);
        if (hasOffset)
            fields.separator(' ').number(offset);
        return fields.isGood();
    }
};

/// Moves the transfer's data with `operation`. \returns its count, or -1.
template <class Operation>
ssize_t IPCServer::Data::move(const Transfer& transfer, Operation operation) {
    void* const buffer = dataBuffer(transfer.index, transfer.count);
    if (!buffer || !isOpen(transfer.fd))
        return -1;
    return operation(buffer, static_cast<unsigned int>(transfer.count));
}

/// As move(), and the buffer is free then.
template <class Operation>
int IPCServer::Data::moveOut(const Transfer& transfer, Operation operation) {
    const ssize_t count = move(transfer, operation);
    if (transfer.index >= 0) {
        const ErrnoSaver kept;
        shm->freeDataBuf(transfer.index);
    }
    return respondCount(count);
}

int IPCServer::Data::respondCount(ssize_t count) {
    const int result = count < 0 ? -1 : 0;
    sendResponse(shm, result, answer::count, count);
    return result;
}

// --- Requests -----------------------------------------------------------------------------------

int IPCServer::Data::rq_connect(const char*) {
    respond(0);
    if (DBG_MASK & TraceLifecycle)
        ORUIO_LOG(LogDebug, "Client connected OK");
    return 0;
}

int IPCServer::Data::rq_disconnect(const char*) {
    respond(0);
    resetSession();
    return 0;
}

int IPCServer::Data::rq_mkdir(const char* args) {
    return onNumberAndPath<int>(args,
                                [this](int mode, const char* path) { return mkdir(path, mode); });
}

int IPCServer::Data::rq_rmdir(const char* args) {
    return onPath(args, [this](const char* path) { return rmdir(path); });
}

int IPCServer::Data::rq_statfs(const char* args) {
    return onPathForRecord<struct statfs>(
        args, [this](const char* path, struct statfs& st) { return statfs(path, &st); });
}

int IPCServer::Data::rq_stat(const char* args) {
    return onPathForRecord<struct stat>(
        args, [this](const char* path, struct stat& st) { return stat(path, &st); });
}

int IPCServer::Data::rq_lstat(const char* args) {
    return onPathForRecord<struct stat>(
        args, [this](const char* path, struct stat& st) { return lstat(path, &st); });
}

int IPCServer::Data::rq_link(const char* args) {
    return onTwoTexts(args, [this](const char* from, const char* to) { return link(from, to); });
}

int IPCServer::Data::rq_symlink(const char* args) {
    return onTwoTexts(
        args, [this](const char* target, const char* path) { return symlink(target, path); });
}

int IPCServer::Data::rq_unlink(const char* args) {
    return onPath(args, [this](const char* path) { return unlink(path); });
}

int IPCServer::Data::rq_readlink(const char* args) {
    if (!args)
        return refuse(EINVAL);
    std::array<char, linkTextSize + 1> text = {};
    const int result = readlink(args, text.data(), linkTextSize);
    sendResponse(shm, result, answer::text, text.data());
    return result;
}

int IPCServer::Data::rq_rename(const char* args) {
    return onTwoTexts(args, [this](const char* from, const char* to) { return rename(from, to); });
}

int IPCServer::Data::rq_chmod(const char* args) {
    return onNumberAndPath<int>(args,
                                [this](int mode, const char* path) { return chmod(path, mode); });
}

int IPCServer::Data::rq_truncate(const char* args) {
    return onNumberAndPath<unsigned long long>(
        args, [this](unsigned long long length, const char* path) {
            return truncate(path, static_cast<long long>(length));
        });
}

int IPCServer::Data::rq_sync(const char*) {
    sync();
    return respond(0);
}

int IPCServer::Data::rq_opendir(const char* args) {
    if (!args)
        return refuse(EINVAL);
    void* const handle = opendir(args);
    const int result = handle ? 0 : -1;
    if (handle)
        dirs.append(handle);
    sendResponse(shm, result, answer::handle, handle);
    return result;
}

int IPCServer::Data::rq_readdir(const char* args) {
    void* const handle = openHandle(args);
    if (!handle)
        return respond(-1);
    const struct dirent* const entry = readdir(handle);
    if (!entry) {
        errno = -1;
        return respond(-1);
    }
    // The system's entries are only as long as their names.
    struct dirent record = {};
    const std::size_t length = strnlen(entry->d_name, sizeof record.d_name - 1);
    std::memcpy(&record, entry, offsetof(struct dirent, d_name) + length);
    sendBufResponse(shm, 0, &record, sizeof record);
    return 0;
}

int IPCServer::Data::rq_rewinddir(const char* args) {
    void* const handle = openHandle(args);
    if (!handle)
        return respond(-1);
    rewinddir(handle);
    return respond(0);
}

int IPCServer::Data::rq_closedir(const char* args) {
    void* const handle = openHandle(args);
    if (!handle)
        return respond(-1);
    closedir(handle);
    respond(0);
    dirs.removeOne(handle);
    return 0;
}

int IPCServer::Data::rq_open(const char* args) {
    int flags = 0;
    int mode = 0;
    FieldReader fields(args);
    if (!fields.number(flags).separator(' ').number(mode).separator(' ').isGood())
        return refuse(EINVAL);
    const int fd = open(fields.rest(), flags, mode);
    if (fd >= 0)
        files.append(fd);
    return respond(fd);
}

int IPCServer::Data::rq_read(const char* args) {
    Transfer transfer;
    if (!transfer.read(args, false))
        return refuse(EINVAL);
    const ssize_t count = move(transfer, [&](void* buffer, unsigned int length) {
        return read(transfer.fd, buffer, length);
    });
    const int result = count < 0 ? -1 : 0;
    sendResponse(shm, result, answer::bufferAndCount, transfer.index, count);
    return result;
}

int IPCServer::Data::rq_write(const char* args) {
    Transfer transfer;
    if (!transfer.read(args, false))
        return refuse(EINVAL);
    return moveOut(transfer, [&](const void* buffer, unsigned int length) {
        return write(transfer.fd, buffer, length);
    });
}

int IPCServer::Data::rq_pread(const char* args) {
    Transfer transfer;
    if (!transfer.read(args, true))
        return refuse(EINVAL);
    return respondCount(move(transfer, [&](void* buffer, unsigned int length) {
        return pread(transfer.fd, buffer, length, static_cast<long long>(transfer.offset));
    }));
}

int IPCServer::Data::rq_pwrite(const char* args) {
    Transfer transfer;
    if (!transfer.read(args, true))
        return refuse(EINVAL);
    return moveOut(transfer, [&](const void* buffer, unsigned int length) {
        return pwrite(transfer.fd, buffer, length, static_cast<long long>(transfer.offset));
    });
}

int IPCServer::Data::rq_lseek(const char* args) {
    int fd = -1;
    long long offset = 0;
    int whence = 0;
    FieldReader fields(args);
    if (!fields.number(fd).separator(' ').number(offset).separator(' ').number(whence).isGood())
        return refuse(EINVAL);
    const long long position = isOpen(fd) ? lseek(fd, offset, whence) : -1;
    const int result = position < 0 ? -1 : 0;
    sendResponse(shm, result, answer::position, position);
    return result;
}

int IPCServer::Data::rq_ftruncate(const char* args) {
    return onFileAndNumber<long long>(
        args, [this](int fd, long long length) { return ftruncate(fd, length); });
}

int IPCServer::Data::rq_fsync(const char* args) {
    return onFile(args, [this](int fd) { return fsync(fd); });
}

int IPCServer::Data::rq_fdatasync(const char* args) {
    return onFile(args, [this](int fd) { return fdatasync(fd); });
}

int IPCServer::Data::rq_fstat(const char* args) {
    int fd = -1;
    FieldReader fields(args);
    if (!fields.number(fd).isGood())
        return refuse(EINVAL);
    if (!isOpen(fd))
        return respond(-1);
    // With more arguments it asks whether the descriptor is good, and has no use for the record.
    if (!fields.atEnd()) {
        struct stat unused;
        return respond(fstat(fd, &unused));
    }
    return forRecord<struct stat>([&](struct stat& st) { return fstat(fd, &st); });
}

int IPCServer::Data::rq_fcntl(const char* args) {
    int fd = -1;
    int command = -1;
    FieldReader fields(args);
    if (!fields.number(fd).separator(' ').number(command).isGood())
        return refuse(EINVAL);
    const int lockCommand = platformLockCommand(command);
    if (lockCommand == -1 && !isIntegerCommand(command))
        return refuse(EOPNOTSUPP);
    if (!isOpen(fd))
        return respond(-1);
    if (lockCommand != -1) {
        const char* const payload = fields.rest() + 1;
        struct flock lock;
        if (!fields.atEnd() || payload + sizeof lock > request.end())
            return refuse(EINVAL);
        std::memcpy(&lock, payload, sizeof lock);
        return respond(fcntl(fd, lockCommand, &lock));
    }
    int argument = 0;
    if (!fields.separator(' ').number(argument).isGood())
        return refuse(EINVAL);
    return respond(fcntl(fd, command, static_cast<std::intptr_t>(argument)));
}

int IPCServer::Data::rq_flock(const char* args) {
    return onFileAndNumber<int>(args,
                                [this](int fd, int operation) { return flock(fd, operation); });
}

int IPCServer::Data::rq_fchmod(const char* args) {
    // Clients are written for a service that takes the mode for a lock operation; the mode of an
    // open file is set by path.
    return onFileAndNumber<int>(args, [this](int fd, int mode) { return flock(fd, mode); });
}

int IPCServer::Data::rq_close(const char* args) {
    int fd = -1;
    const int result = onFile(args, [&](int open) { return close(fd = open); });
    files.removeOne(fd);
    return result;
}

int IPCServer::Data::rq_notfound(const char*) {
    return refuse(EOPNOTSUPP);
}

// --- IPCServer ----------------------------------------------------------------------------------

IPCServer::IPCServer(QSharedPointer<FS> fs) : m_data(std::make_unique<Data>(std::move(fs))) {}

IPCServer::~IPCServer() {
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
