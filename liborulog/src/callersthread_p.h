// What a thread of the program must not notice when it writes messages itself.
#pragma once

#include <cerrno>

#include <pthread.h>
#include <signal.h>
#include <time.h>

namespace orulog {

/// Keeps the thread from being killed by SIGPIPE of an output that nobody reads any more, and from
/// being cancelled with an output half written, opened or closed. Leaves errno as it is at the end.
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
