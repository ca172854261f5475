// SPDX-License-Identifier: Apache-2.0
// Two semaphores that the benchmarks and the serving process share.
#pragma once

#include <semaphore.h>

/// The minimal exchange between two processes: one posts `ping`, the other responds with `pong`.
struct PingPong {
    sem_t ping;
    sem_t pong;
};
