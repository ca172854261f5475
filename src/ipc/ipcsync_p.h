// SPDX-License-Identifier: Apache-2.0
// Mutexes and semaphores in shared memory, and how the two ends of the file service wait on them.
#pragma once

#include <pthread.h>
#include <semaphore.h>

namespace oru::io::ipcwire {

/// The attributes of robust, process-shared mutexes.
class SharedMutexAttributes {
public:
    SharedMutexAttributes();
    ~SharedMutexAttributes();
    SharedMutexAttributes(const SharedMutexAttributes&) = delete;
    SharedMutexAttributes& operator=(const SharedMutexAttributes&) = delete;

    /// The error number of pthread_mutexattr_init(3); 0 on success.
    int initError() const {
        return m_initError;
    }
    /// The error number of pthread_mutexattr_setrobust(3) or pthread_mutexattr_setpshared(3).
    int setError() const {
        return m_setError;
    }
    /// Initialises `mutex`. \returns 0 or an error number.
    int makeMutex(pthread_mutex_t& mutex) const;

private:
    pthread_mutexattr_t m_attributes;
    int m_initError;
    int m_setError = 0;
};

// All waits are measured on CLOCK_MONOTONIC: a recorder without a battery-powered clock sets its
// clock while it records.

/// How much is left of a time-out.
class Deadline {
public:
    explicit Deadline(int ms);

    /// \returns milliseconds, rounded up; 0 after the deadline.
    int left() const;

private:
    const long long m_end; // in nanoseconds
};

/// Locks `mutex` without waiting. A mutex whose owner died is made consistent. \returns 0 or an
/// error number.
int tryLockShared(pthread_mutex_t& mutex);
/// As tryLockShared(), waiting up to `ms` milliseconds.
int lockShared(pthread_mutex_t& mutex, int ms);

/// sem_wait(3), continued after a signal handler.
int waitFor(sem_t& semaphore);
/// As sem_timedwait(3), continued after a signal handler, for up to `ms` milliseconds.
int waitFor(sem_t& semaphore, int ms);

/// Polls a semaphore for a moment, yielding the processor, before a thread blocks on it. One object
/// serves one thread.
///
/// To block and to be woken takes longer than most exchanges. On a busy processor, however, a yield
/// lasts a whole time slice. After such a yield the next waits skip the polling: 16 at first, twice
/// as many each time.
class SpinWaiter {
public:
    /// \returns whether the semaphore was taken.
    bool take(sem_t& semaphore);

private:
    static constexpr unsigned int fewestSkipped = 16;
    unsigned int m_toSkip = 0;              // waits left that do not poll
    unsigned int m_skipped = fewestSkipped; // how many to skip after the next slow yield
    unsigned int m_goodPolls = 0;           // polls in a row without a slow yield
};

} // namespace oru::io::ipcwire
