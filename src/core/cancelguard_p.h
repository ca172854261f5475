// SPDX-License-Identifier: Apache-2.0
// Deferring the cancellation of a thread.
#pragma once

#include <pthread.h>

namespace oru::io {

/// Holds off pthread_cancel(3) of the calling thread until it is destroyed.
///
/// A cancelled thread unwinds its stack from a cancellation point, such as close(2). That must not
/// happen in a destructor, where unwinding ends the process, nor in the middle of an exchange with
/// a server or a program, which would leave the other end waiting.
class CancelGuard {
public:
    CancelGuard() {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_state);
    }
    ~CancelGuard() {
        pthread_setcancelstate(m_state, nullptr);
    }
    CancelGuard(const CancelGuard&) = delete;
    CancelGuard& operator=(const CancelGuard&) = delete;

private:
    int m_state = PTHREAD_CANCEL_ENABLE;
};

} // namespace oru::io
