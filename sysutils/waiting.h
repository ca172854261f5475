// SPDX-License-Identifier: Apache-2.0
// Waiting for descriptors, for a condition, and for signals.
#pragma once

#include <functional>

#include <poll.h>

namespace waiting {

/// Blocks the signals of interest: of a request to cancel and of a child that has ended. They take
/// effect only while wait() waits, so none is lost between a check and the wait that follows it.
void blockSignals();

/// Milliseconds of a clock that the setting of the system's time does not change.
long long now();

/// ppoll(2) with the signals unblocked. \returns its result; -1 also after a signal.
int wait(pollfd* descriptors, nfds_t count, int milliseconds);

/// Repeats the condition until it is true. \returns false after this time, in milliseconds.
/// Ends the program if it is cancelled.
bool until(int milliseconds, const std::function<bool()>& condition);

} // namespace waiting
