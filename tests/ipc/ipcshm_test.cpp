// SPDX-License-Identifier: Apache-2.0
// IPCShm: the data buffers of the service's area, deadlines, and the debug mask.

#include "ipc/ipcsync_p.h"
#include "ipc/ipcwire_p.h"
#include "support/ipc/elapsed.h"
#include "support/ipc/ipccalls.h"

#include <oruio/fsipc.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <thread>

#include <semaphore.h>

namespace oru::io {

using namespace ipcwire;
using test::Clock;
using test::secondsSince;

TEST(IPCShm, Size_Is0x205000) {
    EXPECT_EQ(IPCShm::size(), 0x205000U);
}

TEST(IPCShm, DebugMask_ReadsHexadecimalFromTheEnvironment) {
    setenv("IO_IPCDBG", "7", 1);
    EXPECT_EQ(IPCShm::debugMask(), 7U);
    setenv("IO_IPCDBG", "0x1F", 1);
    EXPECT_EQ(IPCShm::debugMask(), 31U);
    setenv("IO_IPCDBG", "ten", 1);
    EXPECT_EQ(IPCShm::debugMask(), 0U);
    setenv("IO_IPCDBG", "", 1);
    EXPECT_EQ(IPCShm::debugMask(), 0U);
    unsetenv("IO_IPCDBG");
    EXPECT_EQ(IPCShm::debugMask(), 0U);
}

TEST(IPCShm, SetTimeout_ReturnsNormalisedTime) {
    test::setClock(100, 999'000'000);
    struct timespec time;
    EXPECT_EQ(IPCShm::setTimeout(&time, 1), &time);
    EXPECT_EQ(time.tv_sec, 101);
    EXPECT_EQ(time.tv_nsec, 0);
    IPCShm::setTimeout(&time, 86'400'500);
    EXPECT_EQ(time.tv_sec, 100 + 86'401);
    EXPECT_EQ(time.tv_nsec, 499'000'000);
    IPCShm::setTimeout(&time, ~0ULL);
    EXPECT_GT(time.tv_sec, 1'000'000'000);
    EXPECT_LT(time.tv_nsec, 1'000'000'000);
    test::setClock(0, -1);
}

class IPCShmBuffers : public ::testing::Test {
protected:
    IPCShmBuffers() {
        AreaControl& control = areaOf(shm).control;
        SharedMutexAttributes().makeMutex(control.bufferMutex);
        sem_init(&control.bufferSem, 1, dataBuffers);
        control.bufferMap = 0;
    }

    int freeBuffers() {
        int value = -1;
        sem_getvalue(&areaOf(shm).control.bufferSem, &value);
        return value;
    }

    std::unique_ptr<Area> area = std::make_unique<Area>();
    IPCShm* const shm = reinterpret_cast<IPCShm*>(area.get());
};

TEST_F(IPCShmBuffers, Addresses_AreOneMebibyteApart) {
    auto* const first = static_cast<char*>(shm->databufAddr(0));
    auto* const second = static_cast<char*>(shm->databufAddr(1));
    EXPECT_EQ(first, area->buffers[0]);
    EXPECT_EQ(second - first, 1 << 20);
    EXPECT_EQ(shm->databufAddr(2), nullptr);
    EXPECT_EQ(shm->databufAddr(-1), nullptr);
}

TEST_F(IPCShmBuffers, Alloc_ReturnsLowestFreeBuffer) {
    EXPECT_EQ(shm->allocDataBuf(2), 0);
    EXPECT_EQ(area->control.bufferMap, 1U);
    EXPECT_EQ(shm->allocDataBuf(2), 1);
    EXPECT_EQ(area->control.bufferMap, 3U);
    EXPECT_EQ(shm->freeDataBuf(0), 0);
    EXPECT_EQ(area->control.bufferMap, 2U);
    EXPECT_EQ(shm->allocDataBuf(2), 0);
    EXPECT_EQ(freeBuffers(), 0);
}

TEST_F(IPCShmBuffers, BothTaken_AllocFailsAfterTheTimeout) {
    ASSERT_EQ(shm->allocDataBuf(2), 0);
    ASSERT_EQ(shm->allocDataBuf(2), 1);
    const auto start = Clock::now();
    errno = 0;
    EXPECT_EQ(shm->allocDataBuf(2), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(secondsSince(start), 1.9);
    EXPECT_LT(secondsSince(start), 4);
}

TEST_F(IPCShmBuffers, FreedDuringAlloc_AllocReturnsIt) {
    ASSERT_EQ(shm->allocDataBuf(2), 0);
    ASSERT_EQ(shm->allocDataBuf(2), 1);
    int got = -1;
    std::thread waiter([&] { got = shm->allocDataBuf(30); });
    EXPECT_EQ(shm->freeDataBuf(1), 0);
    waiter.join();
    EXPECT_EQ(got, 1);
}

TEST_F(IPCShmBuffers, FreeOfInvalidIndex_FailsWithEINVAL) {
    for (const int index : {2, -1, 1000}) {
        errno = 0;
        EXPECT_EQ(shm->freeDataBuf(index), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(freeBuffers(), 2);
}

TEST_F(IPCShmBuffers, FreedTwice_PostsTheSemaphoreOnce) {
    ASSERT_EQ(shm->allocDataBuf(2), 0);
    EXPECT_EQ(shm->freeDataBuf(0), 0);
    EXPECT_EQ(shm->freeDataBuf(0), 0);
    EXPECT_EQ(freeBuffers(), 2);
}

TEST_F(IPCShmBuffers, SemaphoreAboveFreeBuffers_AllocFailsWithEAGAINAndDecrementsIt) {
    area->control.bufferMap = 3;
    EXPECT_EQ(shm->allocDataBuf(2), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(freeBuffers(), 1);
}

TEST_F(IPCShmBuffers, MutexNotReleased_FailsWithETIMEDOUT) {
    test::failCall("pthread_mutex_clocklock", 1, ETIMEDOUT);
    EXPECT_EQ(shm->allocDataBuf(1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(freeBuffers(), 2);
    test::failCall("pthread_mutex_clocklock", 1, ETIMEDOUT);
    EXPECT_EQ(shm->freeDataBuf(0), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

} // namespace oru::io
