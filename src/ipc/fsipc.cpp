#include <oruio/error.h>
#include <oruio/fsipc.h>

#include "core/errnosaver_p.h"
#include "core/systemtext_p.h"
#include "ipc/fsipc_p.h"
#include "ipc/ipcwire_p.h"

#include <QMutex>
#include <QVector>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "core/log_p.h"
#include "core/notimplemented_p.h"

namespace oru::io {

ORUIO_LOG_CHANNEL("fsipc");

namespace {

using namespace ipcwire;

const unsigned int DBG_MASK = IPCShm::debugMask();

constexpr int lockTimeoutMs = 10'000;

/// Objects appear and become valid while somebody else creates them: how often, and how long apart,
/// to look.
constexpr int openTries = 20;
constexpr auto openPause = std::chrono::microseconds(500);
/// How long to try for the lock of one who creates, with the same pause.
constexpr auto creationTimeout = std::chrono::seconds(1);

/// Refuses a call for this reason.
int refused(int reason) {
    liberrno = Ok;
    errno = reason;
    return -1;
}

bool isIn(const void* buf, unsigned int len) {
    if (buf || len == 0)
        return true;
    refused(EFAULT);
    return false;
}

} // namespace

// --- ShmBlock -----------------------------------------------------------------------------------

namespace {

BlockHeader& headerAt(void* base) {
    return *static_cast<BlockHeader*>(base);
}

std::uint32_t magicAt(const void* base) {
    return __atomic_load_n(&static_cast<const BlockHeader*>(base)->magic, __ATOMIC_ACQUIRE);
}

/// Whether this is a block of a program of another word size, whose header has the size elsewhere:
/// behind the mutex of a 32-bit system, of x86-64 or of 64-bit ARM.
bool isOfOtherAbi(const void* base, std::uint32_t size) {
    constexpr std::size_t sizeOffsets[] = {28, 48, 56};
    return magicAt(base) == magic &&
           std::any_of(std::begin(sizeOffsets), std::end(sizeOffsets), [&](std::size_t offset) {
               std::uint32_t found = 0;
               if (offset == offsetof(BlockHeader, size) || offset + sizeof found > size)
                   return false;
               std::memcpy(&found, static_cast<const char*>(base) + offset, sizeof found);
               return found == size;
           });
}

void setMagic(void* base, std::uint32_t value) {
    __atomic_store_n(&headerAt(base).magic, value, __ATOMIC_RELEASE);
}

/// Keeps others from initialising the same object. They do so at once, unless the processor is
/// busy with something else; one that was stopped in the middle must not hold the others up for
/// ever.
class CreationLock {
public:
    explicit CreationLock(int fd) : m_fd(fd) {
        const auto deadline = std::chrono::steady_clock::now() + creationTimeout;
        while (!(m_isHeld = ::flock(fd, LOCK_EX | LOCK_NB) == 0) &&
               std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(openPause);
    }
    ~CreationLock() {
        if (m_isHeld)
            ::flock(m_fd, LOCK_UN);
    }
    CreationLock(const CreationLock&) = delete;
    CreationLock& operator=(const CreationLock&) = delete;

    bool isHeld() const {
        return m_isHeld;
    }

private:
    const int m_fd;
    bool m_isHeld = false;
};

struct stat statusOf(int fd) {
    struct stat st = {};
    ::fstat(fd, &st);
    return st;
}

} // namespace

ShmBlock::ShmBlock(const char* name, unsigned int size, unsigned int flags)
    : m_name(nullptr), m_size(size + blockOverhead), m_flags(flags) {
    const bool fits = m_size >= sizeof(BlockHeader) && m_size > size;
    if (!fits || asprintf(&m_name, blockNameFormat, name) == -1) {
        m_name = nullptr;
        return;
    }
    if (!(m_flags & Create)) {
        openExisting();
        return;
    }
    for (int tries = 0; tries < openTries && !create(); ++tries)
        std::this_thread::sleep_for(openPause);
}

ShmBlock::~ShmBlock() {
    if ((m_flags & RemoveAtClose) && isValid())
        remove();
    unmap();
    if (m_descriptor > 0)
        ::close(m_descriptor);
    std::free(m_name);
}

int ShmBlock::openObject() const {
    for (int tries = 0; tries < openTries; ++tries) {
        const int fd = shm_open(m_name, O_RDWR, 0666);
        if (fd != -1)
            return fd;
        std::this_thread::sleep_for(openPause);
    }
    return -1;
}

void ShmBlock::openExisting() {
    const int fd = openObject();
    if (fd == -1)
        return;
    if (map(fd) && !isReady(fd)) {
        // Another process may be about to make it so.
        std::this_thread::sleep_for(openPause);
        if (!isReady(fd))
            unmap();
    }
    ::close(fd);
}

/// \returns false when the object was removed by somebody else meanwhile, so that there is another
/// one to be made.
bool ShmBlock::create() {
    int fd = openObject();
    const bool isNew = fd == -1;
    if (isNew)
        fd = shm_open(m_name, O_RDWR | O_CREAT, 0666);
    if (fd == -1) {
        const ErrnoSaver kept;
        perror(m_name);
        return true;
    }
    const bool isDone = !map(fd) || initialise(fd);
    // The descriptor of an object that this block has made stays open as long as the block.
    if (isNew && m_base)
        m_descriptor = fd;
    else
        ::close(fd);
    return isDone;
}

/// Maps the object before it has its size, and lets a creator see to that.
bool ShmBlock::map(int fd) {
    const struct stat object = statusOf(fd);
    m_object = object.st_ino;
    void* const address = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    m_base = address == MAP_FAILED ? nullptr : address;
    // To cut an object to the size that it has would wipe the end of its last page.
    const bool resize = (m_flags & Create) && object.st_size != static_cast<off_t>(m_size);
    if (m_base && (!resize || ftruncate(fd, m_size) == 0))
        return true;
    const ErrnoSaver kept;
    perror("ShmBlock mmap error");
    unmap();
    return false;
}

void ShmBlock::unmap() {
    if (m_base)
        munmap(m_base, m_size);
    m_base = nullptr;
}

/// Whether the object has the size and the header of this block. An object that is shorter must not
/// be touched.
bool ShmBlock::isReady(int fd) const {
    return statusOf(fd).st_size >= static_cast<off_t>(m_size) && isValid() &&
           headerAt(m_base).size == m_size;
}

/// Initialises the header unless it is valid. \returns false as create() does.
bool ShmBlock::initialise(int fd) {
    const CreationLock lock(fd);
    const bool isRemoved = statusOf(fd).st_nlink == 0;
    if (isRemoved || !lock.isHeld() || (!isReady(fd) && !initialiseHeader()))
        unmap();
    return !isRemoved;
}

bool ShmBlock::initialiseHeader() {
    // Those who use it would not get over that.
    if (isOfOtherAbi(m_base, m_size)) {
        errno = EBUSY;
        return false;
    }
    headerAt(m_base).size = m_size;
    setMagic(m_base, 0);
    if (const int error = SharedMutexAttributes().makeMutex(headerAt(m_base).mutex)) {
        errno = error;
        return false;
    }
    setMagic(m_base, magic);
    return true;
}

bool ShmBlock::isValid() const {
    return m_base && magicAt(m_base) == magic;
}

void* ShmBlock::base() const {
    return m_base;
}

void* ShmBlock::lock() {
    if (!isValid())
        return nullptr;
    const struct timespec deadline = abstime(lockTimeoutMs);
    return lockedData(lockShared(headerAt(m_base).mutex, &deadline));
}

void* ShmBlock::tryLock() {
    return isValid() ? lockedData(lockShared(headerAt(m_base).mutex, nullptr)) : nullptr;
}

/// What a lock that was taken with this result gives.
void* ShmBlock::lockedData(int lockResult) {
    if (lockResult != 0)
        return nullptr;
    if (isValid())
        return shmAt(m_base);
    // Its holder until now has removed the object.
    pthread_mutex_unlock(&headerAt(m_base).mutex);
    return nullptr;
}

int ShmBlock::unlock() {
    if (!m_base)
        return 0;
    // Also when the holder has removed the object: memory with a robust mutex that its thread still
    // holds must not be unmapped.
    const int result = pthread_mutex_unlock(&headerAt(m_base).mutex);
    return isValid() ? result : 0;
}

void ShmBlock::removeAtClose() {
    m_flags |= RemoveAtClose;
}

bool ShmBlock::remove() {
    if (!m_base)
        return true;
    // In this order, whoever finds the header invalid finds the name free: an object that has its
    // name and no header would be initialised anew under those who still use it.
    if (isNamed() && shm_unlink(m_name) != 0 && errno != ENOENT)
        return false;
    setMagic(m_base, 0);
    return true;
}

/// Whether the name leads to this block's object. When nobody can look, for want of descriptors,
/// the header tells: while it is valid, only the holder of the lock takes the name away.
bool ShmBlock::isNamed() const {
    const int named = shm_open(m_name, O_RDWR, 0666);
    if (named == -1)
        return errno != ENOENT && isValid();
    const bool isThisOne = statusOf(named).st_ino == m_object;
    ::close(named);
    return isThisOne;
}

struct timespec ShmBlock::abstime(int ms) {
    constexpr long second = 1'000'000'000;
    struct timespec time;
    clock_gettime(CLOCK_REALTIME, &time);
    time.tv_sec += ms / 1000;
    time.tv_nsec += ms % 1000 * 1'000'000L;
    if (time.tv_nsec > second) {
        ++time.tv_sec;
        time.tv_nsec -= second;
    }
    return time;
}

// --- IPCShm -------------------------------------------------------------------------------------

unsigned int IPCShm::size() {
    return areaSize;
}

unsigned int IPCShm::debugMask() {
    unsigned int mask = 0;
    const char* const text = getenv("IO_IPCDBG");
    return text && sscanf(text, "%x", &mask) == 1 ? mask : 0;
}

struct timespec* IPCShm::setTimeout(struct timespec* ts, unsigned long long ms) {
    constexpr long second = 1'000'000'000;
    clock_gettime(CLOCK_REALTIME, ts);
    const long nanoseconds = ts->tv_nsec + static_cast<long>(ms % 1000) * 1'000'000;
    const auto seconds = ms / 1000 + nanoseconds / second;
    const auto room =
        static_cast<unsigned long long>(std::numeric_limits<time_t>::max() - ts->tv_sec);
    ts->tv_sec += static_cast<time_t>(std::min(seconds, room));
    ts->tv_nsec = nanoseconds % second;
    return ts;
}

void* IPCShm::databufAddr(int index) {
    return index >= 0 && index < dataBuffers ? areaOf(this).buffers[index] : nullptr;
}

int IPCShm::allocDataBuf(unsigned int timeout) {
    AreaControl& control = areaOf(this).control;
    struct timespec deadline;
    setTimeout(&deadline, timeout * 1000ULL);
    if (waitFor(control.bufferSem, &deadline) != 0)
        return -1;
    if (const int error = lockShared(control.bufferMutex, &deadline)) {
        sem_post(&control.bufferSem);
        errno = error;
        return -1;
    }
    int index = 0;
    while (index < dataBuffers && (control.bufferMap & (1U << index)))
        ++index;
    if (index < dataBuffers)
        control.bufferMap |= 1U << index;
    pthread_mutex_unlock(&control.bufferMutex);
    if (index < dataBuffers)
        return index;
    errno = EAGAIN;
    return -1;
}

int IPCShm::freeDataBuf(int index) {
    if (index < 0 || index >= dataBuffers) {
        errno = EINVAL;
        return -1;
    }
    AreaControl& control = areaOf(this).control;
    struct timespec deadline;
    setTimeout(&deadline, lockTimeoutMs);
    if (const int error = lockShared(control.bufferMutex, &deadline)) {
        errno = error;
        return -1;
    }
    const bool wasTaken = control.bufferMap & (1U << index);
    control.bufferMap &= ~(1U << index);
    pthread_mutex_unlock(&control.bufferMutex);
    if (wasTaken)
        sem_post(&control.bufferSem);
    return 0;
}

// --- The session --------------------------------------------------------------------------------

namespace {

/// Counts the forks that led to this process.
std::atomic<unsigned int> forks{0};
[[maybe_unused]] const int forkHandler =
    pthread_atfork(nullptr, nullptr, [] { forks.fetch_add(1, std::memory_order_relaxed); });

/// Tells a process from those that it was forked from.
unsigned int thisProcess() {
    return forks.load(std::memory_order_relaxed);
}

/// The thread's number in the system, without asking it each time.
pid_t currentThread() {
    thread_local pid_t thread = 0;
    thread_local unsigned int knownProcess = 0;
    const unsigned int process = thisProcess();
    if (thread == 0 || knownProcess != process) {
        thread = static_cast<pid_t>(syscall(SYS_gettid));
        knownProcess = process;
    }
    return thread;
}

/// Whether it is a thread of this process, which has not ended.
bool isAlive(pid_t thread) {
    return thread == currentThread() || syscall(SYS_tgkill, getpid(), thread, 0) == 0;
}

/// Blocks whose client mutex is held by another thread than the one that left the session. To unmap
/// memory that a thread's list of robust mutexes leads through would take the thread down.
class DeferredUnmap {
public:
    void add(const QSharedPointer<ShmBlock>& block, pid_t owner) {
        const QMutexLocker lock(&m_mutex);
        m_kept.append({block, owner, thisProcess()});
    }

    /// Lets go of those that nothing leads to any more: this thread's own, those of threads that
    /// have ended, and those of the process that this one was forked from.
    void sweep() {
        const QMutexLocker lock(&m_mutex);
        const auto isFree = [](const Kept& kept) {
            if (kept.process != thisProcess())
                return true;
            pthread_mutex_t& clientMutex = areaOf(shmAt(kept.block->base())).control.clientMutex;
            return kept.owner == currentThread() ? pthread_mutex_unlock(&clientMutex) == 0
                                                 : !isAlive(kept.owner);
        };
        m_kept.erase(std::remove_if(m_kept.begin(), m_kept.end(), isFree), m_kept.end());
    }

private:
    struct Kept {
        QSharedPointer<ShmBlock> block;
        pid_t owner;
        unsigned int process;
    };

    QMutex m_mutex; // guards m_kept
    QVector<Kept> m_kept;
};

DeferredUnmap& deferredUnmap() {
    // Never destroyed: threads may outlive the statics.
    static auto* const blocks = new DeferredUnmap;
    return *blocks;
}

} // namespace

IPCFS::Data::~Data() {
    end();
}

Area& IPCFS::Data::area() {
    return areaOf(shm);
}

int IPCFS::Data::init(Properties*) {
    if (DBG_MASK & TraceLifecycle)
        ORUIO_LOG(LogDebug, "Client connecting");
    deferredUnmap().sweep();
    const ShmBlock::Access<IPCShm> access(
        QSharedPointer<ShmBlock>::create(blockName, areaSize, 0U));
    if (!access.data()) {
        ORUIO_LOG(LogDebug, "No IPC Server found.");
        return refused(ENOTCONN);
    }
    block = access.block();
    shm = access.data();
    int result = refused(ENOTCONN);
    if (!isOwned(area()) || enter())
        result = greet();
    if (result != 0) {
        leave();
        return result;
    }
    state = Connected;
    ++session;
    ORUIO_LOG(LogDebug, "IPC Client Ready");
    return 0;
}

/// Takes the place of the one client. \returns false, having said why, when there is no server or
/// another client.
bool IPCFS::Data::enter() {
    const int server = probeServer();
    if (server != EBUSY) {
        ORUIO_LOG(LogDebug, "Server not online: %s",
                  server == 0 ? "shm unlocked" : std::strerror(server));
        return false;
    }
    if (DBG_MASK & TraceLifecycle)
        ORUIO_LOG(LogDebug, "Detected Server online");
    const int error = pthread_mutex_trylock(&area().control.clientMutex);
    // Before anything else: this ends a session that still takes the mutex for its own.
    if (error == 0 || error == EOWNERDEAD)
        m_areaSession = beginSession(area());
    switch (error) {
    case 0:
        break;
    case EOWNERDEAD:
        ORUIO_LOG(LogDebug, "Client crash detected. Continuing.");
        pthread_mutex_consistent(&area().control.clientMutex);
        break;
    case EBUSY:
        ORUIO_LOG(LogDebug, "Existing client detected. Aborting.");
        return false;
    default:
        ORUIO_LOG(LogDebug, "Client lock failed: %s. Aborting.", std::strerror(error));
        return false;
    }
    m_holdsClientMutex = true;
    m_owner = currentThread();
    m_process = thisProcess();
    return true;
}

/// The result of the first exchange. An area that nobody owns is not this client's to clear up.
int IPCFS::Data::greet() {
    int result = -1;
    if (m_holdsClientMutex && !endPredecessor())
        refused(ENOTCONN);
    else
        result = call(nullptr, op::connect, nullptr);
    if (result != 0)
        ORUIO_LOG(LogDebug, "No response from server");
    return result;
}

/// Ends the session of a client that has not done so itself. \returns whether the area is idle:
/// then no request of that client will be carried out, and no answer to one will come, any more.
bool IPCFS::Data::endPredecessor() {
    cancel(area());
    const auto isSettled = [this] {
        const char now = requestState(area());
        return now != Copying && now != Ending;
    };
    if (!await(isSettled))
        return false;
    if (requestState(area()) == Idle)
        return true;
    setDone(area());
    post(op::disconnect, sizeof op::disconnect);
    return await([this] { return requestState(area()) == Idle; });
}

void IPCFS::Data::end() {
    if (state != Connected)
        return;
    const ErrnoSaver kept;
    if (m_process != thisProcess()) {
        holdsSession(); // it never does; and the block's mutex is the parent's matter
        return;
    }
    const ShmBlock::Access<IPCShm> access(block);
    if (!holdsSession())
        return;
    post(op::disconnect, sizeof op::disconnect);
    // The next client must not begin while the server is still busy with this one.
    await([this] { return requestState(area()) == Idle; });
    leave();
}

/// Whether the session is still this client's. It is not in a child of fork(2), and when the thread
/// that began it has ended and another process, or the server, has drawn the conclusion.
bool IPCFS::Data::holdsSession() {
    m_holdsClientMutex = m_process == thisProcess() && holdsClientMutex();
    if (m_holdsClientMutex && requestState(area()) == Done)
        return true;
    ORUIO_LOG(LogDebug, "Session lost. Stopping client");
    leave();
    return false;
}

/// Whether the client mutex is held for this session. This thread takes it over from one that has
/// ended.
bool IPCFS::Data::holdsClientMutex() {
    pthread_mutex_t& clientMutex = area().control.clientMutex;
    const int error = pthread_mutex_trylock(&clientMutex);
    // The owner, alive or dead, may be that of a later session.
    const bool isLast = isLastSession();
    if (error == EBUSY)
        return isLast && isAlive(m_owner);
    if (error == EOWNERDEAD) {
        pthread_mutex_consistent(&clientMutex);
        if (isLast) {
            m_owner = currentThread();
            return true;
        }
    }
    if (error == 0 || error == EOWNERDEAD)
        pthread_mutex_unlock(&clientMutex);
    return false;
}

/// Whether no other client has begun one since.
bool IPCFS::Data::isLastSession() {
    return lastSession(area()) == m_areaSession;
}

/// Lets go of the client mutex and the block, whatever the server does and the area says.
void IPCFS::Data::leave() {
    const ErrnoSaver kept;
    state = NotConnected;
    if (m_holdsClientMutex && isLastSession())
        cancel(area());
    if (m_owner != 0 && m_process == thisProcess()) {
        if (m_owner == currentThread())
            pthread_mutex_unlock(&area().control.clientMutex);
        else if (isAlive(m_owner))
            deferredUnmap().add(block, m_owner);
    }
    m_holdsClientMutex = false;
    m_owner = 0;
    shm = nullptr;
    block.reset();
}

/// Whether a server is there: EBUSY when it is. When not, 0 if the server has left, EOWNERDEAD if
/// it has died, which the area then shows.
int IPCFS::Data::probeServer() {
    AreaControl& control = area().control;
    const int error = pthread_mutex_trylock(&control.serverMutex);
    if (error == EOWNERDEAD) {
        setOwned(area(), false);
        pthread_mutex_consistent(&control.serverMutex);
    }
    if (error == 0 || error == EOWNERDEAD)
        pthread_mutex_unlock(&control.serverMutex);
    return error;
}

/// Waits until `condition` holds, as long as there is a server and it may take for an answer.
template <class Condition>
bool IPCFS::Data::await(Condition condition) {
    using Clock = std::chrono::steady_clock;
    constexpr int yields = 200;
    const auto deadline = Clock::now() + std::chrono::milliseconds(answerTimeoutMs);
    for (int round = 0; !condition(); ++round) {
        if (probeServer() != EBUSY || Clock::now() > deadline)
            return condition();
        if (round < yields)
            std::this_thread::yield();
        else
            std::this_thread::sleep_for(openPause);
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
    if (!shm || (state != Connected && !greets) || (state == Connected && !holdsSession()))
        return refused(ENOTCONN);

    char text[textSize];
    std::size_t used = std::min(std::strlen(name), textSize - 1);
    std::memcpy(text, name, used);
    text[used] = '\0';
    if (format && used + 1 < textSize) {
        text[used++] = ' ';
        used += vsnprintf(text + used, textSize - used, format, args);
    }
    if (used + length >= textSize) {
        ORUIO_LOG(LogDebug, "Request '%s' exceeds max %zu", text, textSize);
        return refused(E2BIG);
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
    sem_post(&area().control.requestSem);
}

int IPCFS::Data::getResponse(const char** payload) {
    if (!shm)
        return refused(ENOTCONN);
    const int server = probeServer();
    if (server == EBUSY) {
        const int result = awaitResponse(payload);
        // The answer may say that what the server serves is not connected any more.
        if (errno == ENOTCONN || errno == ESHUTDOWN)
            end();
        return result;
    }
    if (server == EOWNERDEAD)
        ORUIO_LOG(LogDebug, "Server crashed.");
    ORUIO_LOG(LogDebug, "Server offline. Stopping client");
    leave();
    return refused(ENOTCONN);
}

namespace {

/// \returns false, with errno, when that takes too long.
bool waitUntilPosted(sem_t& responseSem) {
    struct timespec deadline;
    IPCShm::setTimeout(&deadline, answerTimeoutMs);
    return waitFor(responseSem, &deadline) == 0;
}

} // namespace

int IPCFS::Data::awaitResponse(const char** payload) {
    sem_t& responseSem = area().control.responseSem;
    if (!m_spinWaiter.take(responseSem) && !waitUntilPosted(responseSem)) {
        ORUIO_LOG(LogDebug, "Response wait error: %s. Disconnecting.", std::strerror(errno));
        leave();
        return refused(ENOTCONN);
    }
    if (m_holdsClientMutex && !isLastSession()) {
        sem_post(&responseSem); // it was for another client
        ORUIO_LOG(LogDebug, "Session lost. Stopping client");
        leave();
        return refused(ENOTCONN);
    }
    copyResponse(area(), m_response);
    setDone(area());
    return parseResponse(payload);
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
        return refused(EBADMSG);
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
        return refused(EBADMSG);
    std::memcpy(record, payload, size);
    return 0;
}

int IPCFS::Data::callWith(const char** payload, const char* name, const char* format,
                          va_list args) {
    return send(name, nullptr, 0, format, args) == 0 ? getResponse(payload) : -1;
}

int IPCFS::Data::reserveBuffer() {
    if (state != Connected || !holdsSession())
        return refused(ENOTCONN);
    liberrno = Ok;
    return shm->allocDataBuf(bufferTimeoutS);
}

void IPCFS::Data::releaseBuffer(int index) {
    const ErrnoSaver kept;
    if (shm)
        shm->freeDataBuf(index);
}

void* IPCFS::Data::buffer(int index) {
    return shm->databufAddr(index);
}

// --- Path operations ----------------------------------------------------------------------------

IPCFS::IPCFS() : FS(QStringLiteral("IPCFS")), m_data(new Data) {}

IPCFS::~IPCFS() {
    m_data->end();
}

int IPCFS::connect(unsigned int tries, Properties* props) {
    for (unsigned int i = 0; i < tries && !isConnected(); ++i) {
        if (m_data->init(props) == 0)
            break;
        const ErrnoSaver kept;
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    if (isConnected())
        return 0;
    return tries == 0 ? refused(ENOTCONN) : -1;
}

int IPCFS::disconnect() {
    m_data->end();
    return 0;
}

bool IPCFS::isConnected() {
    return state() == Data::Connected;
}

int IPCFS::state() {
    return m_data->state;
}

int IPCFS::addWatch(QString) {
    return notImplemented();
}

int IPCFS::remWatch(QString) {
    return notImplemented();
}

QSharedPointer<File> IPCFS::open(QString path, int flags, int mode) {
    liberrno = Ok;
    const int fd = withPath(path, [=](const char* p) {
        return m_data->call(nullptr, op::open, args::open, flags, mode, p);
    });
    if (fd < 0)
        return {};
    return QSharedPointer<Data::File>::create(fd, m_data.data());
}

QSharedPointer<Directory> IPCFS::opendir(QString path) {
    liberrno = Ok;
    const char* payload = nullptr;
    const int result = withPath(path, [this, &payload](const char* p) {
        return m_data->call(&payload, op::opendir, args::path, p);
    });
    if (result != 0)
        return {};
    void* handle = nullptr;
    if (!FieldReader(payload).pointer(handle).isGood() || !handle) {
        refused(EBADMSG);
        return {};
    }
    return QSharedPointer<Data::Dir>::create(handle, m_data.data());
}

int IPCFS::lstat(QString path, struct stat& st) {
    liberrno = Ok;
    return withPath(path, [this, &st](const char* p) {
        return m_data->callForRecord(&st, sizeof st, op::lstat, args::path, p);
    });
}

int IPCFS::stat(QString path, struct stat& st) {
    liberrno = Ok;
    return withPath(path, [this, &st](const char* p) {
        return m_data->callForRecord(&st, sizeof st, op::stat, args::path, p);
    });
}

int IPCFS::statfs(QString path, struct statfs& st) {
    liberrno = Ok;
    return withPath(path, [this, &st](const char* p) {
        return m_data->callForRecord(&st, sizeof st, op::statfs, args::path, p);
    });
}

int IPCFS::link(QString oldPath, QString newPath) {
    liberrno = Ok;
    return withPaths(oldPath, newPath, [this](const char* from, const char* to) {
        return m_data->call(nullptr, op::link, args::twoTexts, from, '\0', to);
    });
}

int IPCFS::unlink(QString path) {
    liberrno = Ok;
    return withPath(
        path, [this](const char* p) { return m_data->call(nullptr, op::unlink, args::path, p); });
}

int IPCFS::mkdir(QString path, int mode) {
    liberrno = Ok;
    return withPath(path, [=](const char* p) {
        return m_data->call(nullptr, op::mkdir, args::modeAndPath, mode, p);
    });
}

int IPCFS::rmdir(QString path) {
    liberrno = Ok;
    return withPath(
        path, [this](const char* p) { return m_data->call(nullptr, op::rmdir, args::path, p); });
}

int IPCFS::rename(QString oldPath, QString newPath) {
    liberrno = Ok;
    return withPaths(oldPath, newPath, [this](const char* from, const char* to) {
        return m_data->call(nullptr, op::rename, args::twoTexts, from, '\0', to);
    });
}

void IPCFS::sync() {
    m_data->call(nullptr, op::sync, nullptr);
}

int IPCFS::getxattr(QString, QString, void*, unsigned int) {
    return notImplemented();
}

int IPCFS::setxattr(QString, QString, void*, unsigned int, int) {
    return notImplemented();
}

int IPCFS::removexattr(QString, QString) {
    return notImplemented();
}

int IPCFS::listxattr(QString, QVector<QString>&) {
    return notImplemented();
}

int IPCFS::listxattr(QString, char*, unsigned int) {
    return notImplemented();
}

int IPCFS::symlink(QString target, QString linkPath) {
    liberrno = Ok;
    return withPaths(target, linkPath, [this](const char* to, const char* p) {
        return m_data->call(nullptr, op::symlink, args::twoTexts, to, '\0', p);
    });
}

int IPCFS::readlink(QString path, QString& target) {
    std::array<char, linkTextSize> text;
    const int length = readlink(std::move(path), text.data(), linkTextSize);
    if (length >= 0)
        target = decoded(text.data(), length);
    return length;
}

int IPCFS::readlink(QString path, char* buf, unsigned int size) {
    if (!isIn(buf, size))
        return -1;
    liberrno = Ok;
    const char* payload = nullptr;
    const int result = withPath(path, [this, &payload](const char* p) {
        return m_data->call(&payload, op::readlink, args::path, p);
    });
    if (result < 0)
        return result;
    const auto length = std::min<std::size_t>(std::strlen(payload), size);
    std::fill(std::copy_n(payload, length, buf), buf + size, '\0');
    return static_cast<int>(length);
}

int IPCFS::truncate(QString path, long long length) {
    liberrno = Ok;
    return withPath(path, [=](const char* p) {
        return m_data->call(nullptr, op::truncate, args::lengthAndPath,
                            static_cast<unsigned long long>(length), p);
    });
}

int IPCFS::chmod(QString path, int mode) {
    liberrno = Ok;
    return withPath(path, [=](const char* p) {
        return m_data->call(nullptr, op::chmod, args::modeAndPath, mode, p);
    });
}

int IPCFS::ioctl(QString, QString&) {
    ORUIO_LOG(LogDebug, "'ioctl' Not implemented");
    return notImplemented();
}

// --- Files --------------------------------------------------------------------------------------

IPCFS::Data::File::File(int fd, Data* data)
    : oru::io::File(QStringLiteral("IPCFile")), m_fd(fd), m_data(data), m_session(data->session) {}

IPCFS::Data::File::~File() {
    const ErrnoSaver kept;
    File::close();
}

bool IPCFS::Data::File::isValid() {
    if (m_fd > 0 && m_session == m_data->session)
        return true;
    refused(EBADF);
    return false;
}

/// Gets up to `len` bytes, at most a data buffer of them. `request` makes the exchange for a data
/// buffer and a count, and reads the count that came out of the answer's payload.
template <class Request>
int IPCFS::Data::File::fetch(void* buf, unsigned int len, Request request) {
    if (!isValid() || !isIn(buf, len))
        return -1;
    const std::size_t wanted = std::min(len, dataBufferSize);
    const int index = m_data->reserveBuffer();
    if (index < 0)
        return -1;
    ssize_t count = -1;
    if (request(index, wanted, count) != 0)
        count = -1;
    else if (count < 0 || static_cast<std::size_t>(count) > wanted)
        count = refused(EBADMSG);
    else if (!m_data->shm)
        count = refused(ENOTCONN);
    else if (count > 0)
        std::memcpy(buf, m_data->buffer(index), count);
    m_data->releaseBuffer(index);
    return static_cast<int>(count);
}

int IPCFS::Data::File::read(void* buf, unsigned int len) {
    return fetch(buf, len, [this](int index, std::size_t wanted, ssize_t& count) {
        const char* payload = nullptr;
        const int result = m_data->call(&payload, op::read, args::transfer, m_fd, index, wanted);
        int answered = -1;
        const bool isGood =
            result == 0 &&
            FieldReader(payload).number(answered).separator(' ').number(count).isGood();
        if (isGood && answered != index)
            count = -1;
        return result;
    });
}

int IPCFS::Data::File::pread(void* buf, unsigned int len, long long offset) {
    return fetch(buf, len, [=](int index, std::size_t wanted, ssize_t& count) {
        const char* payload = nullptr;
        const int result = m_data->call(&payload, op::pread, args::transferAt, m_fd, index, wanted,
                                        static_cast<unsigned long long>(offset));
        if (result == 0)
            FieldReader(payload).number(count);
        return result;
    });
}

/// Hands over up to `len` bytes, at most a data buffer of them. `request` sends the request for a
/// data buffer and a count. The server releases the buffer.
template <class Request>
int IPCFS::Data::File::deliver(const void* buf, unsigned int len, Request request) {
    if (!isValid() || !isIn(buf, len))
        return -1;
    const std::size_t offered = std::min(len, dataBufferSize);
    const int index = m_data->reserveBuffer();
    if (index < 0)
        return -1;
    if (offered > 0)
        std::memcpy(m_data->buffer(index), buf, offered);
    if (request(index, offered) != 0) {
        m_data->releaseBuffer(index);
        return -1;
    }
    const char* payload = nullptr;
    if (m_data->getResponse(&payload) != 0)
        return -1;
    ssize_t count = -1;
    FieldReader(payload).number(count);
    if (count < 0 || static_cast<std::size_t>(count) > offered)
        return refused(EBADMSG);
    return static_cast<int>(count);
}

int IPCFS::Data::File::write(const void* buf, unsigned int len) {
    return deliver(buf, len, [this](int index, std::size_t offered) {
        return m_data->sendRequest(op::write, args::transfer, m_fd, index, offered);
    });
}

int IPCFS::Data::File::pwrite(const void* buf, unsigned int len, long long offset) {
    return deliver(buf, len, [=](int index, std::size_t offered) {
        return m_data->sendRequest(op::pwrite, args::transferAt, m_fd, index, offered,
                                   static_cast<unsigned long long>(offset));
    });
}

long long IPCFS::Data::File::lseek(long long offset, int whence) {
    const char* payload = nullptr;
    if (!isValid() || m_data->call(&payload, op::lseek, args::lseek, m_fd, offset, whence) != 0)
        return -1;
    long long position = -1;
    if (!FieldReader(payload).number(position).isGood() || position < 0)
        return refused(EBADMSG);
    return position;
}

int IPCFS::Data::File::fstat(struct stat& st) {
    return isValid() ? m_data->callForRecord(&st, sizeof st, op::fstat, args::fd, m_fd) : -1;
}

int IPCFS::Data::File::ftruncate(long long length) {
    return isValid() ? m_data->call(nullptr, op::ftruncate, args::fdAndLength, m_fd, length) : -1;
}

int IPCFS::Data::File::fsync() {
    return isValid() ? m_data->call(nullptr, op::fsync, args::fd, m_fd) : -1;
}

int IPCFS::Data::File::fdatasync() {
    return isValid() ? m_data->call(nullptr, op::fdatasync, args::fd, m_fd) : -1;
}

int IPCFS::Data::File::fcntl(int cmd, ...) {
    va_list arguments;
    va_start(arguments, cmd);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (!isValid())
        return -1;
    const int lockCommand = wireLockCommand(cmd);
    if (lockCommand != -1) {
        if (!isIn(argument, sizeof(struct flock)))
            return -1;
        return m_data->sendBufRequest(op::fcntl, argument, sizeof(struct flock), args::fdAndNumber,
                                      m_fd, lockCommand) == 0
                   ? m_data->getResponse()
                   : -1;
    }
    if (!isIntegerCommand(cmd))
        return refused(EOPNOTSUPP);
    // Under this name servers only look whether the descriptor is good, and clients rely on it:
    // flags and duplicates of a descriptor are the server process's own affair.
    return m_data->call(nullptr, op::fstat, args::fdAndTwoNumbers, m_fd, cmd,
                        static_cast<int>(reinterpret_cast<std::intptr_t>(argument)));
}

int IPCFS::Data::File::flock(int operation) {
    return isValid() ? m_data->call(nullptr, op::flock, args::fdAndNumber, m_fd, operation) : -1;
}

int IPCFS::Data::File::fchmod(int mode) {
    return isValid() ? m_data->call(nullptr, op::fchmod, args::fdAndNumber, m_fd, mode) : -1;
}

int IPCFS::Data::File::close() {
    if (!isValid())
        return -1;
    const int result = m_data->call(nullptr, op::close, args::fd, m_fd);
    m_fd = -1;
    return result;
}

int IPCFS::Data::File::ioctl(QString, QString&) {
    ORUIO_LOG(LogDebug, "'file::ioctl' Not implemented");
    return notImplemented();
}

// --- Directories --------------------------------------------------------------------------------

IPCFS::Data::Dir::Dir(void* handle, Data* data)
    : Directory(QStringLiteral("IPCDirectory")), m_handle(handle), m_data(data),
      m_session(data->session) {}

IPCFS::Data::Dir::~Dir() {
    const ErrnoSaver kept;
    Dir::closedir();
}

bool IPCFS::Data::Dir::isValid() {
    if (m_handle && m_session == m_data->session)
        return true;
    refused(EBADF);
    return false;
}

struct dirent* IPCFS::Data::Dir::readdir() {
    if (!isValid() ||
        m_data->callForRecord(&m_entry, sizeof m_entry, op::readdir, args::handle, m_handle) != 0)
        return nullptr;
    m_entry.d_name[sizeof m_entry.d_name - 1] = '\0';
    return &m_entry;
}

int IPCFS::Data::Dir::rewinddir() {
    return isValid() ? m_data->call(nullptr, op::rewinddir, args::handle, m_handle) : 0;
}

int IPCFS::Data::Dir::closedir() {
    if (!isValid())
        return 0;
    const int result = m_data->call(nullptr, op::closedir, args::handle, m_handle);
    if (result == 0)
        m_handle = nullptr;
    return result;
}

int IPCFS::Data::Dir::ioctl(QString, QString&) {
    ORUIO_LOG(LogDebug, "'dir::ioctl' Not implemented");
    return notImplemented();
}

} // namespace oru::io
