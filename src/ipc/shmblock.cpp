// SPDX-License-Identifier: Apache-2.0
#include <oruio/fsipc.h>

#include "core/cancelguard_p.h"
#include "core/errnosaver_p.h"
#include "ipc/ipcsync_p.h"
#include "ipc/ipctrace_p.h"
#include "ipc/ipcwire_p.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace oru::io {

using namespace ipcwire;

// --- ShmBlock -----------------------------------------------------------------------------------

namespace {

constexpr int lockTimeoutMs = 10'000;

/// Another process may be creating the object: how often, and how far apart, to look for it.
constexpr int openTries = 20;
constexpr auto openPause = std::chrono::microseconds(500);
/// How long to wait for another process that initialises the object.
constexpr auto creationTimeout = std::chrono::seconds(1);

BlockHeader& headerAt(void* base) {
    return *static_cast<BlockHeader*>(base);
}

std::uint32_t magicAt(const void* base) {
    return __atomic_load_n(&static_cast<const BlockHeader*>(base)->magic, __ATOMIC_ACQUIRE);
}

/// Whether a program of another ABI made this block. There the field of the size follows a mutex of
/// another size: that of a 32-bit system, of x86-64 or of 64-bit ARM.
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

/// Keeps other processes from initialising the same object, which takes them microseconds. Waits
/// for a limited time only, as a process may be stopped in the middle of it.
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

/// Traces a step with a block, if it is the file service's.
void traceBlock(Step step, void* base, unsigned int size) {
    if (size == areaSize + blockOverhead)
        trace(step, areaOf(shmAt(base)));
}

struct stat statusOf(int fd) {
    struct stat st = {};
    ::fstat(fd, &st);
    return st;
}

} // namespace

ShmBlock::ShmBlock(const char* name, unsigned int size, unsigned int flags)
    : m_name(nullptr), m_size(size + blockOverhead), m_flags(flags) {
    const CancelGuard guard;
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
    const CancelGuard guard;
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
    int error = errno;
    if (map(fd) && !isReady(fd)) {
        // Another process may be initialising it.
        std::this_thread::sleep_for(openPause);
        if (!isReady(fd)) {
            const bool isWhole = statusOf(fd).st_size >= static_cast<off_t>(m_size);
            error = isWhole && isOfOtherAbi(m_base, m_size) ? EPROTO : EINVAL;
            unmap();
        }
    } else if (!m_base) {
        error = errno;
    }
    ::close(fd);
    errno = error;
}

/// \returns false when another process has removed the object in the meantime. Then call it again.
bool ShmBlock::create() {
    int fd = openObject();
    const bool isNew = fd == -1;
    if (isNew)
        fd = shm_open(m_name, O_RDWR | O_CREAT, 0666);
    if (fd == -1) {
        const ErrnoSaver saver;
        perror(m_name);
        return true;
    }
    const bool isDone = !map(fd) || initialise(fd);
    // The descriptor of an object that this block has created stays open as long as the block.
    if (isNew && m_base)
        m_descriptor = fd;
    else
        ::close(fd);
    return isDone;
}

/// Maps the object. With Create, also gives it its size.
bool ShmBlock::map(int fd) {
    const struct stat object = statusOf(fd);
    m_object = object.st_ino;
    void* const address = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    m_base = address == MAP_FAILED ? nullptr : address;
    // ftruncate(2) to the size that the object has would zero the rest of its last page.
    const bool resize = (m_flags & Create) && object.st_size != static_cast<off_t>(m_size);
    if (m_base && (!resize || ftruncate(fd, m_size) == 0))
        return true;
    const ErrnoSaver saver;
    perror("ShmBlock mmap error");
    unmap();
    return false;
}

void ShmBlock::unmap() {
    if (m_base)
        munmap(m_base, m_size);
    m_base = nullptr;
}

/// Whether the object has the size and the header of this block. To access an object that is
/// shorter would raise SIGBUS.
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
    // It may be in use: to initialise it would break the service there.
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
    return lockedData(lockShared(headerAt(m_base).mutex, lockTimeoutMs));
}

void* ShmBlock::tryLock() {
    return isValid() ? lockedData(tryLockShared(headerAt(m_base).mutex)) : nullptr;
}

/// The user data, if the lock was taken and the block is still valid; otherwise null, unlocked.
void* ShmBlock::lockedData(int lockResult) {
    if (lockResult != 0)
        return nullptr;
    if (isValid()) {
        traceBlock(Step::LockBlock, m_base, m_size);
        return shmAt(m_base);
    }
    // The previous holder of the lock has removed the object.
    pthread_mutex_unlock(&headerAt(m_base).mutex);
    return nullptr;
}

int ShmBlock::unlock() {
    if (!m_base)
        return 0;
    traceBlock(Step::UnlockBlock, m_base, m_size);
    // Also when the object has been removed: memory with a robust mutex that a thread still holds
    // must not be unmapped.
    const int result = pthread_mutex_unlock(&headerAt(m_base).mutex);
    return isValid() ? result : 0;
}

void ShmBlock::removeAtClose() {
    m_flags |= RemoveAtClose;
}

bool ShmBlock::remove() {
    if (!m_base)
        return true;
    const CancelGuard guard;
    traceBlock(Step::Retire, m_base, m_size);
    // In this order, a process that finds the header invalid also finds the name free. An object
    // with a name and without a valid header would be initialised again while others still use it.
    if (isNamed() && shm_unlink(m_name) != 0 && errno != ENOENT)
        return false;
    setMagic(m_base, 0);
    return true;
}

/// Whether the name leads to this block's object. When it cannot be opened (EMFILE), the header
/// decides: while it is valid, only the holder of the lock removes the name.
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
    const int ms = static_cast<int>(std::min<unsigned int>(timeout, INT_MAX / 1000)) * 1000;
    if (waitFor(control.bufferSem, ms) != 0)
        return -1;
    if (const int error = lockShared(control.bufferMutex, lockTimeoutMs)) {
        sem_post(&control.bufferSem);
        errno = error;
        return -1;
    }
    int index = 0;
    while (index < dataBuffers && (control.bufferMap & (1U << index)))
        ++index;
    if (index < dataBuffers)
        control.bufferMap |= 1U << index;
    trace(Step::ReserveBuffer, areaOf(this), index < dataBuffers ? 0 : EAGAIN, index);
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
    if (const int error = lockShared(control.bufferMutex, lockTimeoutMs)) {
        errno = error;
        return -1;
    }
    const bool wasTaken = control.bufferMap & (1U << index);
    control.bufferMap &= ~(1U << index);
    trace(Step::FreeBuffer, areaOf(this), wasTaken, index);
    pthread_mutex_unlock(&control.bufferMutex);
    if (wasTaken)
        sem_post(&control.bufferSem);
    return 0;
}

} // namespace oru::io
