// SPDX-License-Identifier: Apache-2.0
#include "ipc/ipcsync_p.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>

#include <sched.h>
#if defined(__SANITIZE_THREAD__)
#include "ipc/pollingwait_p.h"
#endif

namespace oru::io::ipcwire {

namespace {

using Clock = std::chrono::steady_clock;

/// About as long as a request for a whole data buffer takes.
constexpr auto pollTime = std::chrono::microseconds(300);
/// A yield that takes longer has let another thread run.
constexpr auto longestYield = std::chrono::microseconds(250);
/// A yield that is shorter has let no other thread run: the other end is on another processor.
constexpr auto shortestSwitch = std::chrono::nanoseconds(1500);
constexpr int looksWithoutYield = 256;
constexpr unsigned int mostSkipped = 4096;
/// After so many polls in a row without a slow yield, the processor counts as idle again. A shorter
/// row also happens on a busy one.
constexpr unsigned int enoughGood = 4096;

constexpr long long second = 1'000'000'000;

long long monotonicTime() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * second + now.tv_nsec;
}

struct timespec inMs(int ms) {
    const long long time = monotonicTime() + ms * 1'000'000LL;
    struct timespec result;
    result.tv_sec = static_cast<time_t>(time / second);
    result.tv_nsec = static_cast<long>(time % second);
    return result;
}

/// What the result `error` of locking `mutex` becomes when a mutex of a dead owner is made
/// consistent.
int madeConsistent(pthread_mutex_t& mutex, int error) {
    return error == EOWNERDEAD ? pthread_mutex_consistent(&mutex) : error;
}

// The test programs redirect the calls of the C library to functions that poll in their place.
#if defined(__SANITIZE_THREAD__) && !defined(ORUIO_IPC_TRACE)

int lockUntil(pthread_mutex_t& mutex, const struct timespec& deadline) {
    return pollUntil(deadline, EBUSY, [&] { return pthread_mutex_trylock(&mutex); });
}

int waitUntil(sem_t& semaphore, const struct timespec& deadline) {
    const auto tryOnce = [&] { return sem_trywait(&semaphore) == 0 ? 0 : errno; };
    errno = pollUntil(deadline, EAGAIN, tryOnce);
    return errno == 0 ? 0 : -1;
}

#else

int lockUntil(pthread_mutex_t& mutex, const struct timespec& deadline) {
    return pthread_mutex_clocklock(&mutex, CLOCK_MONOTONIC, &deadline);
}

int waitUntil(sem_t& semaphore, const struct timespec& deadline) {
    return sem_clockwait(&semaphore, CLOCK_MONOTONIC, &deadline);
}

#endif

} // namespace

SharedMutexAttributes::SharedMutexAttributes()
    : m_initError(pthread_mutexattr_init(&m_attributes)) {
    if (m_initError != 0)
        return;
    m_setError = pthread_mutexattr_setrobust(&m_attributes, PTHREAD_MUTEX_ROBUST);
    if (m_setError == 0)
        m_setError = pthread_mutexattr_setpshared(&m_attributes, PTHREAD_PROCESS_SHARED);
}

SharedMutexAttributes::~SharedMutexAttributes() {
    if (m_initError == 0)
        pthread_mutexattr_destroy(&m_attributes);
}

int SharedMutexAttributes::makeMutex(pthread_mutex_t& mutex) const {
    if (m_initError != 0)
        return m_initError;
    return m_setError != 0 ? m_setError : pthread_mutex_init(&mutex, &m_attributes);
}

Deadline::Deadline(int ms) : m_end(monotonicTime() + ms * 1'000'000LL) {}

int Deadline::left() const {
    return static_cast<int>(std::max(m_end - monotonicTime() + 999'999, 0LL) / 1'000'000);
}

int tryLockShared(pthread_mutex_t& mutex) {
    return madeConsistent(mutex, pthread_mutex_trylock(&mutex));
}

int lockShared(pthread_mutex_t& mutex, int ms) {
    return madeConsistent(mutex, lockUntil(mutex, inMs(ms)));
}

int waitFor(sem_t& semaphore) {
    int result;
    do
        result = sem_wait(&semaphore);
    while (result != 0 && errno == EINTR);
    return result;
}

int waitFor(sem_t& semaphore, int ms) {
    const struct timespec deadline = inMs(ms);
    int result;
    do
        result = waitUntil(semaphore, deadline);
    while (result != 0 && errno == EINTR);
    return result;
}

namespace {

/// Pauses the processor for some cycles, in which another thread of the same core runs faster.
void relaxProcessor() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
    asm volatile("yield");
#endif
}

/// Looks at the semaphore a few times without a system call.
bool takeSoon(sem_t& semaphore) {
    bool isTaken = false;
    for (int i = 0; i < looksWithoutYield && !isTaken; ++i) {
        relaxProcessor();
        isTaken = sem_trywait(&semaphore) == 0;
    }
    return isTaken;
}

} // namespace

bool SpinWaiter::take(sem_t& semaphore) {
    if (sem_trywait(&semaphore) == 0)
        return true;
    if (m_toSkip > 0) {
        --m_toSkip;
        return false;
    }
    bool isTaken = false;
    const auto start = Clock::now();
    auto now = start;
    while (!isTaken && now - start < pollTime) {
        const auto before = now;
        sched_yield();
        isTaken = sem_trywait(&semaphore) == 0;
        now = Clock::now();
        if (now - before > longestYield) {
            m_toSkip = m_skipped;
            m_skipped = std::min(2 * m_skipped, mostSkipped);
            m_goodPolls = 0;
            return isTaken;
        }
        if (!isTaken && now - before < shortestSwitch)
            isTaken = takeSoon(semaphore);
    }
    if (++m_goodPolls == enoughGood)
        m_skipped = fewestSkipped;
    return isTaken;
}

} // namespace oru::io::ipcwire
