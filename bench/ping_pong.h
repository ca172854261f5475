// SPDX-License-Identifier: Apache-2.0
// Two semaphores that the benchmarks and the serving process share.
#pragma once

#include <semaphore.h>
#include <sys/mman.h>

/// The minimal exchange between two processes: one posts `ping`, the other responds with `pong`.
struct PingPong {
    sem_t ping;
    sem_t pong;
};

/// Maps the PingPong in a file of shared memory. \returns null on failure.
inline PingPong* mapPingPong(int fd) {
    void* const address =
        mmap(nullptr, sizeof(PingPong), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return address == MAP_FAILED ? nullptr : static_cast<PingPong*>(address);
}
