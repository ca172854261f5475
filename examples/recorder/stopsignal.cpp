#include "stopsignal.h"

#include <atomic>
#include <csignal>

namespace stopsignal {

namespace {

std::atomic<bool> requested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler may not take a lock");

void request(int) {
    requested = true;
}

} // namespace

void install() {
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

} // namespace stopsignal
