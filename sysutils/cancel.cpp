// SPDX-License-Identifier: Apache-2.0
// Cancelling the program, and the point after which it cannot be cancelled.
#include "cancel.h"

#include "progress.h"
#include "status.h"
#include "supervisor.h"

#include <csignal>

namespace {

volatile sig_atomic_t requested = 0;
bool committed = false;

void request(int) {
    requested = 1;
}

void handle(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(signal, &action, nullptr);
}

bool isIgnored(int signal) {
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

} // namespace

void cancel::watch() {
    handle(SIGTERM, request);
    for (const int signal : {SIGINT, SIGHUP}) {
        if (!isIgnored(signal))
            handle(signal, request);
    }
}

bool cancel::isRequested() {
    sigset_t pending;
    sigpending(&pending);
    return !committed && (requested || sigismember(&pending, SIGTERM) == 1 ||
                          sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGHUP) == 1);
}

bool cancel::isCommitted() {
    return committed;
}

void cancel::check() {
    if (isRequested())
        end();
}

void cancel::end() {
    fail(Status::Cancelled, "cancelled before anything was changed");
}

void cancel::commit() {
    if (committed)
        return;
    if (!supervisor::isAlive())
        end();
    check();
    committed = true;
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
        handle(signal, SIG_IGN);
    progress::committed();
}
