// SPDX-License-Identifier: Apache-2.0
// A mutex that a child of fork(2) can use.
#pragma once

#include <atomic>
#include <mutex>

#include <pthread.h>

namespace oru::io {

/// A mutex whose data is consistent in a child of fork(2), where the other threads do not exist.
///
/// fork(2) waits until no thread holds a mutex of this type. It does not wait for a holder that
/// called setReading(): such a holder may take long, or be the forking thread itself. In the child
/// the mutex is initialised again instead, unless the forking thread is the holder and stays it.
///
/// While a thread holds a mutex of this type, it must not lock, create or destroy another one,
/// unless it has called setReading().
class ForkSafeMutex {
public:
    ForkSafeMutex();
    ~ForkSafeMutex();
    ForkSafeMutex(const ForkSafeMutex&) = delete;
    ForkSafeMutex& operator=(const ForkSafeMutex&) = delete;

    void lock() {
        m_mutex.lock();
    }
    void unlock() {
        if (m_isReading.load(std::memory_order_relaxed))
            endReading();
        m_mutex.unlock();
    }
    /// For the holder, until it unlocks: the data is not changed any more. unlock() then waits for
    /// the end of a fork(2) that has begun.
    void setReading() {
        m_reader = pthread_self();
        m_isReading.store(true, std::memory_order_release);
    }

private:
    class Registry;

    void endReading();
    void prepare();
    void afterForkInParent();
    void afterForkInChild();

    std::mutex m_mutex;
    std::atomic<bool> m_isReading{false};
    pthread_t m_reader = {}; // valid while m_isReading
    bool m_isHeldForFork = false;
    ForkSafeMutex* m_previous = nullptr; // guarded by the registry's mutex
    ForkSafeMutex* m_next = nullptr;
};

} // namespace oru::io
