// SPDX-License-Identifier: Apache-2.0
#include "ipc/processgeneration_p.h"

#include <atomic>

#include <pthread.h>

namespace oru::io {

namespace {

std::atomic<unsigned int> forks{0};
[[maybe_unused]] const int forkHandler =
    pthread_atfork(nullptr, nullptr, [] { forks.fetch_add(1, std::memory_order_relaxed); });

} // namespace

unsigned int processGeneration() {
    return forks.load(std::memory_order_relaxed);
}

} // namespace oru::io
