// SPDX-License-Identifier: Apache-2.0
#include "core/forksafemutex_p.h"

#include <chrono>
#include <new>
#include <thread>

#include <pthread.h>

namespace oru::io {

/// All mutexes of the process, as a list.
class ForkSafeMutex::Registry {
public:
    /// Never destroyed, as mutexes of other static objects may outlive it.
    static Registry& instance() {
        static auto* const registry = new Registry;
        return *registry;
    }

    void add(ForkSafeMutex& mutex) {
        const std::lock_guard lock(m_mutex);
        mutex.m_next = m_first;
        if (m_first)
            m_first->m_previous = &mutex;
        m_first = &mutex;
    }
    void remove(ForkSafeMutex& mutex) {
        const std::lock_guard lock(m_mutex);
        (mutex.m_previous ? mutex.m_previous->m_next : m_first) = mutex.m_next;
        if (mutex.m_next)
            mutex.m_next->m_previous = mutex.m_previous;
    }

    /// Locked from the begin of a fork(2) to its end.
    std::mutex& mutex() {
        return m_mutex;
    }

private:
    Registry() {
        pthread_atfork([] { instance().beforeFork(); },
                       [] { instance().afterFork(&ForkSafeMutex::afterForkInParent); },
                       [] { instance().afterFork(&ForkSafeMutex::afterForkInChild); });
    }

    void beforeFork() {
        m_mutex.lock();
        for (ForkSafeMutex* mutex = m_first; mutex; mutex = mutex->m_next)
            mutex->prepare();
    }
    void afterFork(void (ForkSafeMutex::*restore)()) {
        for (ForkSafeMutex* mutex = m_first; mutex; mutex = mutex->m_next)
            (mutex->*restore)();
        m_mutex.unlock();
    }

    std::mutex m_mutex; // guards the list
    ForkSafeMutex* m_first = nullptr;
};

ForkSafeMutex::ForkSafeMutex() {
    Registry::instance().add(*this);
}

ForkSafeMutex::~ForkSafeMutex() {
    Registry::instance().remove(*this);
}

void ForkSafeMutex::endReading() {
    // Otherwise a thread could lock this mutex and change the data while a fork(2) still waits for
    // another mutex.
    const std::lock_guard lock(Registry::instance().mutex());
    m_isReading.store(false, std::memory_order_relaxed);
}

void ForkSafeMutex::prepare() {
    constexpr auto pause = std::chrono::microseconds(100);
    while (!(m_isHeldForFork = m_mutex.try_lock()) && !m_isReading.load(std::memory_order_acquire))
        std::this_thread::sleep_for(pause);
}

void ForkSafeMutex::afterForkInParent() {
    if (m_isHeldForFork)
        m_mutex.unlock();
}

void ForkSafeMutex::afterForkInChild() {
    if (m_isHeldForFork) {
        m_mutex.unlock();
        return;
    }
    if (pthread_equal(m_reader, pthread_self()))
        return; // it still holds the mutex and will unlock it
    new (&m_mutex) std::mutex;
    m_isReading.store(false, std::memory_order_relaxed);
}

} // namespace oru::io
