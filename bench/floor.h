// SPDX-License-Identifier: Apache-2.0
// The least that a transfer between two processes can do: one system call and one copy, without a
// protocol.
#pragma once

#include "ipc/ipcwire_p.h"
#include "ping_pong.h"

#include <atomic>
#include <cstddef>

#include <sys/mman.h>

/// The path of a file of the serving process. Its lseek() does nothing.
constexpr char idleFilePath[] = "/idle";

/// Memory that the benchmarks and the serving process share. The client changes the order, and the
/// server sets it back to Idle when it has carried it out. Both poll it: nothing is faster.
struct Floor {
    enum Order : int {
        Idle,
        Rewind, ///< lseek(2) to the start of the clip
        Read,   ///< read(2) of the next piece into `bytes`
        Write,  ///< write(2) of `bytes` to the next piece
        End,    ///< poll no more, until the next `begin`
    };
    static constexpr int size = 1 << 20;
    static constexpr std::size_t pageSize = 4096;
    static constexpr std::size_t bufferOffset =
        (sizeof(oru::io::ipcwire::BlockHeader) + oru::io::ipcwire::buffersOffset) % pageSize;

    PingPong pingPong;
    sem_t begin; // the server begins to poll the order
    std::atomic<int> order;
    /// As far into a page as the service's data buffers are: copies between addresses with the same
    /// offset in a cache line are faster.
    alignas(pageSize) char gap[bufferOffset];
    char bytes[size];

    /// Client: gives an order and waits until it has been carried out.
    void carryOut(Order what) {
        order.store(what, std::memory_order_release);
        while (order.load(std::memory_order_acquire) != Idle) {
        }
    }
};

/// Maps the Floor in a file of shared memory. \returns null on failure.
inline Floor* mapFloor(int fd) {
    void* const address = mmap(nullptr, sizeof(Floor), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return address == MAP_FAILED ? nullptr : static_cast<Floor*>(address);
}
