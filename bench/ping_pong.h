// What the benchmarks and the serving process share beside the service itself.
#pragma once

#include <semaphore.h>
#include <sys/mman.h>

/// The least that an exchange between two processes takes: one posts `ping`, the other answers with
/// `pong`.
struct PingPong {
    sem_t ping;
    sem_t pong;
};

/// The one in a file of shared memory. \returns null when that fails.
inline PingPong* mapPingPong(int fd) {
    void* const address =
        mmap(nullptr, sizeof(PingPong), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return address == MAP_FAILED ? nullptr : static_cast<PingPong*>(address);
}
