// SPDX-License-Identifier: Apache-2.0
#include "ipc/ipcsync_p.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

#include <sched.h>

namespace oru::io::ipcwire {

namespace {

using Clock = std::chrono::steady_clock;

/// About as long as a request for a whole data buffer takes.
constexpr auto pollTime = std::chrono::microseconds(300);
/// A yield that takes longer has let another thread run.
constexpr auto longestYield = std::chrono::microseconds(250);
constexpr unsigned int mostSkipped = 4096;
/// After so many polls in a row without a slow yield, the processor counts as idle again. A shorter
/// row also happens on a busy one.
constexpr unsigned int enoughGood = 4096;

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

int lockShared(pthread_mutex_t& mutex, const struct timespec* deadline) {
    int error =
        deadline ? pthread_mutex_timedlock(&mutex, deadline) : pthread_mutex_trylock(&mutex);
    if (error == EOWNERDEAD)
        error = pthread_mutex_consistent(&mutex);
    return error;
}

int waitFor(sem_t& semaphore, const struct timespec* deadline) {
    int result;
    do
        result = deadline ? sem_timedwait(&semaphore, deadline) : sem_wait(&semaphore);
    while (result != 0 && errno == EINTR);
    return result;
}

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
    }
    if (++m_goodPolls == enoughGood)
        m_skipped = fewestSkipped;
    return isTaken;
}

} // namespace oru::io::ipcwire
