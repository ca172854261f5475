// SPDX-License-Identifier: Apache-2.0
// A mutex that a child of fork(2) can use.
#include "core/forksafemutex_p.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

namespace oru::io {

namespace {

void shortPause() {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

/// \returns the exit status of the child, which is `inChild(...)`.
template <typename InChild>
int forked(InChild inChild) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        _exit(inChild());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

TEST(ForkSafeMutex, HeldByAnotherThread_ForkWaits) {
    ForkSafeMutex mutex;
    int data = 0;
    std::atomic<bool> isHeld{false};
    std::atomic<bool> hasForked{false};
    std::thread writer([&] {
        {
            const std::lock_guard lock(mutex);
            data = 1;
            isHeld = true;
            shortPause();
            data = 2;
        }
        while (!hasForked)
            std::this_thread::yield();
    });
    while (!isHeld)
        std::this_thread::yield();
    EXPECT_EQ(forked([&] {
                  const std::lock_guard lock(mutex);
                  return data;
              }),
              2);
    hasForked = true;
    writer.join();
}

TEST(ForkSafeMutex, ReaderInAnotherThread_ChildFindsItUnlocked) {
    ForkSafeMutex mutex;
    std::atomic<bool> isReading{false};
    std::atomic<bool> hasForked{false};
    std::thread reader([&] {
        const std::lock_guard lock(mutex);
        mutex.setReading();
        isReading = true;
        while (!hasForked)
            std::this_thread::yield();
    });
    while (!isReading)
        std::this_thread::yield();
    EXPECT_EQ(forked([&] {
                  const std::lock_guard lock(mutex);
                  return 5;
              }),
              5);
    hasForked = true;
    reader.join();
}

TEST(ForkSafeMutex, ForkingThreadIsReader_HoldsItInTheChildUntilItUnlocks) {
    ForkSafeMutex mutex;
    mutex.lock();
    mutex.setReading();
    EXPECT_EQ(forked([&] {
                  std::atomic<bool> isLocked{false};
                  std::thread other([&] {
                      const std::lock_guard lock(mutex);
                      isLocked = true;
                  });
                  shortPause();
                  const bool wasLocked = isLocked;
                  mutex.unlock();
                  other.join();
                  return wasLocked ? 6 : 5;
              }),
              5);
    mutex.unlock();
}

// fork(2) prepares the newest mutex first.
TEST(ForkSafeMutex, ReaderUnlocksWhileForkWaitsForAnother_NoOtherThreadLocksUntilTheFork) {
    ForkSafeMutex awaited;
    ForkSafeMutex table;
    int data = 0;
    std::atomic<int> holders{0};
    std::atomic<bool> hasForked{false};
    std::thread slow([&] {
        {
            const std::lock_guard lock(awaited);
            ++holders;
            for (int i = 0; i < 4; ++i)
                shortPause();
        }
        while (!hasForked)
            std::this_thread::yield();
    });
    std::thread readerThenWriter([&] {
        table.lock();
        table.setReading();
        ++holders;
        shortPause();
        table.unlock();
        table.lock();
        data = 1; // a change that is complete only after the fork
        while (!hasForked)
            shortPause();
        data = 2;
        table.unlock();
    });
    while (holders < 2)
        std::this_thread::yield();
    EXPECT_EQ(forked([&] {
                  const std::lock_guard lock(table);
                  return data;
              }),
              0);
    hasForked = true;
    slow.join();
    readerThenWriter.join();
    EXPECT_EQ(data, 2);
}

} // namespace oru::io
