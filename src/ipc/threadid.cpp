// SPDX-License-Identifier: Apache-2.0
#include "ipc/threadid_p.h"

#include <atomic>

#include <csignal>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace oru::io {

namespace {

std::atomic<unsigned int> forks{0};
[[maybe_unused]] const int forkHandler =
    pthread_atfork(nullptr, nullptr, [] { forks.fetch_add(1, std::memory_order_relaxed); });

} // namespace

unsigned int processGeneration() {
    return forks.load(std::memory_order_relaxed);
}

pid_t currentThread() {
    thread_local pid_t thread = 0;
    thread_local unsigned int cachedIn = 0;
    const unsigned int generation = processGeneration();
    if (thread == 0 || cachedIn != generation) {
        thread = static_cast<pid_t>(syscall(SYS_gettid));
        cachedIn = generation;
    }
    return thread;
}

bool isAlive(pid_t thread) {
    return thread == currentThread() || syscall(SYS_tgkill, getpid(), thread, 0) == 0;
}

} // namespace oru::io
