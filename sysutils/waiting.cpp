// SPDX-License-Identifier: Apache-2.0
// Waiting for descriptors, for a condition, and for signals.
#include "waiting.h"

#include "cancel.h"

#include <csignal>
#include <ctime>

namespace {

constexpr int intervalMs = 10;

} // namespace

void waiting::blockSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int each : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
        sigaddset(&signals, each);
    sigprocmask(SIG_SETMASK, &signals, nullptr);
}

long long waiting::now() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<long long>(time.tv_sec) * 1000 + time.tv_nsec / 1'000'000;
}

int waiting::wait(pollfd* descriptors, nfds_t count, int milliseconds) {
    const timespec time = {milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
    sigset_t none;
    sigemptyset(&none);
    return ppoll(descriptors, count, milliseconds < 0 ? nullptr : &time, &none);
}

bool waiting::until(int milliseconds, const std::function<bool()>& condition) {
    const long long deadline = now() + milliseconds;
    while (!condition()) {
        cancel::check();
        if (now() >= deadline)
            return false;
        wait(nullptr, 0, intervalMs);
    }
    return true;
}
