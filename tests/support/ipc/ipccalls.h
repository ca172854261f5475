// SPDX-License-Identifier: Apache-2.0
// Wrappers of the C library calls that the file service makes, in test programs that link the
// service's objects (see CMakeLists.txt in tests/ipc): they kill the process at a chosen call, make
// a call fail, or shorten waits.
#pragma once

#include <functional>

#include <sys/types.h>

namespace oru::io::test {

/// Kills this process at the `point`-th point from now on (1 is the next). Each call is two points,
/// before and after it. Waits for semaphores, and attempts to lock a mutex that is held, are not
/// counted: their number varies from run to run.
void dieAtPoint(int point);

/// Kills this process at the `count`-th call of `function` from now on, before or after the call.
void dieAtCall(const char* function, int count, bool after);

/// Runs `action` before the `count`-th call of `function` from now on.
void runAtCall(const char* function, int count, std::function<void()> action);

/// The `count`-th call of `function` from now on fails with `error`.
void failCall(const char* function, int count, int error);

/// Sets the time that CLOCK_REALTIME returns from now on. Negative nanoseconds restore the system's
/// time.
void setClock(long long seconds, long nanoseconds);

/// The time-out of the last sem_clockwait(3), in seconds from its call.
double lastSemaphoreTimeoutSeconds();
/// The time-out of the last pthread_mutex_clocklock(3), in seconds from its call.
double lastMutexTimeoutSeconds();

/// Limits every sem_clockwait(3) to `ms` milliseconds. 0 removes the limit. After a wait that the
/// limit has ended, CLOCK_MONOTONIC of the waiting thread is ahead by the time that was skipped.
void limitSemaphoreWaits(int ms);
/// How far CLOCK_MONOTONIC of the calling thread is ahead by now.
double skippedSeconds();
/// Limits every nanosleep(2) to `ms` milliseconds: connect() pauses for a second after it has
/// failed. 0 removes the limit.
void limitSleeps(int ms);
/// The limit of semaphore waits does not apply while `process`, the server, is alive: on a busy
/// machine its answers may take longer. 0 removes the exception.
void exemptWaitsFor(pid_t process);
/// Whether the limit has shortened the last sem_clockwait(3), which may not have returned yet.
bool isLastWaitLimited();

} // namespace oru::io::test
