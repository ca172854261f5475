// SPDX-License-Identifier: Apache-2.0
// Threads that a test cancels.
#pragma once

#include <QtGlobal>

#include <functional>
#include <utility>

#include <pthread.h>

namespace oru::io::test {

/// A thread that runs a function and can be cancelled.
class CancellableThread {
public:
    explicit CancellableThread(std::function<void()> work) : m_work(std::move(work)) {
        pthread_create(&m_thread, nullptr, &run, this);
    }
    void cancel() {
        pthread_cancel(m_thread);
    }
    /// \returns whether it was cancelled, and did not return.
    bool join() {
        void* result = nullptr;
        pthread_join(m_thread, &result);
        return result == PTHREAD_CANCELED;
    }
    /// Whether the local objects of its function were destroyed.
    bool wasUnwound() const {
        return m_wasUnwound;
    }

private:
    Q_DISABLE_COPY(CancellableThread)

    struct Local {
        bool& wasDestroyed;
        ~Local() {
            wasDestroyed = true;
        }
    };

    static void* run(void* self) {
        auto& thread = *static_cast<CancellableThread*>(self);
        const Local local{thread.m_wasUnwound};
        thread.m_work();
        return nullptr;
    }

    const std::function<void()> m_work;
    bool m_wasUnwound = false;
    pthread_t m_thread;
};

} // namespace oru::io::test
