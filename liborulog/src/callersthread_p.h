// SPDX-License-Identifier: Apache-2.0
// Protection of a thread of the program that writes messages itself: from SIGPIPE and cancellation.
#pragma once

#include <cerrno>

#include <pthread.h>
#include <signal.h>
#include <time.h>

namespace orulog {

/// Blocks SIGPIPE and thread cancellation in its scope. The destructor does not change errno.
///
/// - SIGPIPE: the reader of an output may have closed it.
/// - Cancellation: it could interrupt writing, opening or closing an output.
class CallersThread {
public:
    CallersThread() {
        sigset_t pending;
        sigpending(&pending);
        m_wasPending = sigismember(&pending, SIGPIPE);
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_mask);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_cancelState);
    }

    ~CallersThread() {
        const int savedErrno = errno;
        const timespec atOnce{};
        while (!m_wasPending && sigtimedwait(&m_pipe, nullptr, &atOnce) == -1 && errno == EINTR)
            continue;
        pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
        pthread_setcancelstate(m_cancelState, nullptr);
        errno = savedErrno;
    }

    CallersThread(const CallersThread&) = delete;
    CallersThread& operator=(const CallersThread&) = delete;

private:
    sigset_t m_pipe;
    sigset_t m_mask;
    bool m_wasPending;
    int m_cancelState;
};

} // namespace orulog
