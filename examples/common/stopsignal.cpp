// SPDX-License-Identifier: Apache-2.0
#include "stopsignal.h"

#include <atomic>
#include <csignal>

#include <semaphore.h>

namespace stopsignal {

namespace {

std::atomic<bool> requested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler may not take a lock");

sem_t arrival; // sem_post(3) may be called in a signal handler

void request(int) {
    requested = true;
    sem_post(&arrival);
}

} // namespace

void install() {
    sem_init(&arrival, 0, 0);
    struct sigaction action = {};
    action.sa_handler = request;
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

bool isRequested() {
    return requested;
}

void clear() {
    requested = false;
}

void wait() {
    // The semaphore may have been posted for a request that was cleared.
    while (!requested)
        sem_wait(&arrival);
}

} // namespace stopsignal
