// Stands between the file service's sources and the C library, in test programs that compile those
// sources in (see oruio_ipc_test() in CMakeLists.txt): kills the process at a chosen call, makes a
// call fail, or shortens waits.
#pragma once

#include <functional>

namespace oru::io::test {

/// Kills this process at the `point`-th point from now on (1 is the next). Each call is two points,
/// before and after it; waits for semaphores and attempts at a mutex that somebody holds are none,
/// as their number is a matter of chance.
void dieAtPoint(int point);
/// The points passed since dieAtPoint().
int pointsPassed();

/// Kills this process at the `count`-th call of `function` from now on, before or after the call.
void dieAtCall(const char* function, int count, bool after);

/// Runs `action` before the `count`-th call of `function` from now on.
void atCall(const char* function, int count, std::function<void()> action);

/// The `count`-th call of `function` from now on fails with `error`.
void failCall(const char* function, int count, int error);

/// What CLOCK_REALTIME tells from now on; negative nanoseconds give it back its own time.
void setClock(long long seconds, long nanoseconds);

/// For how many seconds the last wait for a semaphore with a deadline was to go on at most.
double lastWaitSeconds();
/// The same of the last attempt at a mutex.
double lastLockSeconds();

/// No wait for a semaphore with a deadline takes longer than this. 0 is as long as it takes.
void shortenWaits(int ms);
/// Whether that has shortened the last such wait, which may still go on.
bool isLastWaitShortened();

} // namespace oru::io::test
