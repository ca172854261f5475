// SPDX-License-Identifier: Apache-2.0
// Waiting by polling, for the thread sanitizer: it does not know pthread_mutex_clocklock(3) and
// sem_clockwait(3).
#pragma once

#include <cerrno>
#include <ctime>

#include <unistd.h>

namespace oru::io::ipcwire {

/// Calls `tryOnce` until it returns another error number than `busy`, or until `deadline` on
/// CLOCK_MONOTONIC. \returns the error number, or ETIMEDOUT.
template <class Try>
int pollUntil(const struct timespec& deadline, int busy, Try tryOnce) {
    for (;;) {
        const int error = tryOnce();
        if (error != busy)
            return error;
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (now.tv_sec > deadline.tv_sec ||
            (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec))
            return ETIMEDOUT;
        constexpr unsigned int pauseUs = 200;
        usleep(pauseUs);
    }
}

} // namespace oru::io::ipcwire
