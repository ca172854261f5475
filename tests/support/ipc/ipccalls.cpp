// SPDX-License-Identifier: Apache-2.0
#include "support/ipc/ipccalls.h"

#include "support/ipc/tracerecorder.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fstream>
#include <string>
#include <utility>

#include <pthread.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>
#if defined(__SANITIZE_THREAD__)
#include "ipc/pollingwait_p.h"
#endif

namespace oru::io::test {

namespace {

std::atomic<int> passed{0};
std::atomic<int> deadly{0};
std::atomic<int> waitLimitMs{0};
std::atomic<int> sleepLimitMs{0};
std::atomic<pid_t> exemptProcess{0};
std::atomic<bool> isLimited{false};
std::atomic<double> lastWait{0};
std::atomic<double> lastLock{0};
std::atomic<long long> clockSeconds{0};
std::atomic<long> clockNanoseconds{-1};
/// How far CLOCK_MONOTONIC of the calling thread is ahead, in nanoseconds: by the waits that the
/// limit has ended.
thread_local long long skippedTime = 0;

/// Counts down the calls of one function until something is to happen.
struct Plan {
    std::atomic<const char*> function{nullptr};
    std::atomic<int> count{0};

    void set(const char* name, int calls) {
        count = calls;
        function = name;
    }
    bool isDue(const char* name) {
        const char* const planned = function;
        return planned && std::string(planned) == name && --count == 0;
    }
};

Plan death;
Plan failure;
Plan action;
std::function<void()> actionToRun;
std::atomic<bool> diesAfter{false};
std::atomic<int> failureError{0};

void die() {
    recordDeath();
    ::kill(getpid(), SIGKILL);
    pause();
}

void point() {
    if (++passed == deadly)
        die();
}

bool fails(const char* function) {
    const bool isDue = failure.isDue(function);
    if (isDue)
        errno = failureError;
    return isDue;
}

/// Makes the call, unless it is to fail or the process is to die before it.
template <class Result, class Call>
Result watched(const char* function, Result failed, Call call) {
    if (action.isDue(function))
        actionToRun();
    const bool isDue = death.isDue(function);
    if (isDue && !diesAfter)
        die();
    point();
    const Result result = fails(function) ? failed : call();
    point();
    if (isDue)
        die();
    return result;
}

/// As watched(), for functions that return an error number.
template <class Call>
int watchedErrno(const char* function, Call call) {
    return watched<int>(function, failureError, call);
}

} // namespace

void dieAtPoint(int number) {
    passed = 0;
    deadly = number;
}

void dieAtCall(const char* function, int count, bool after) {
    diesAfter = after;
    death.set(function, count);
}

void runAtCall(const char* function, int count, std::function<void()> run) {
    actionToRun = std::move(run);
    action.set(function, count);
}

void failCall(const char* function, int count, int error) {
    failureError = error;
    failure.set(function, count);
}

void setClock(long long seconds, long nanoseconds) {
    clockSeconds = seconds;
    clockNanoseconds = nanoseconds;
}

double skippedSeconds() {
    return static_cast<double>(skippedTime) / 1e9;
}

double lastSemaphoreTimeoutSeconds() {
    return lastWait;
}

double lastMutexTimeoutSeconds() {
    return lastLock;
}

/// Keeps errno.
bool isExemptProcessAlive() {
    const int error = errno;
    char state = 'X';
    if (const pid_t process = exemptProcess) {
        std::ifstream status("/proc/" + std::to_string(process) + "/stat");
        std::string line;
        std::getline(status, line);
        const size_t nameEnd = line.rfind(')');
        if (nameEnd != std::string::npos && nameEnd + 2 < line.size())
            state = line[nameEnd + 2];
    }
    errno = error;
    return state != 'X' && state != 'Z';
}

void limitSemaphoreWaits(int ms) {
    waitLimitMs = ms;
}

void limitSleeps(int ms) {
    sleepLimitMs = ms;
}

void exemptWaitsFor(pid_t process) {
    exemptProcess = process;
}

bool isLastWaitLimited() {
    return isLimited;
}

} // namespace oru::io::test

using oru::io::test::fails;
using oru::io::test::skippedTime;
using oru::io::test::watched;
using oru::io::test::watchedErrno;

// With --wrap, the linker redirects the service's calls to these functions. Their symbols must be
// visible to it.
#pragma GCC visibility push(default)
extern "C" {

int __real_shm_open(const char* name, int flags, mode_t mode);
int __wrap_shm_open(const char* name, int flags, mode_t mode) {
    return watched("shm_open", -1, [=] { return __real_shm_open(name, flags, mode); });
}

int __real_shm_unlink(const char* name);
int __wrap_shm_unlink(const char* name) {
    return watched("shm_unlink", -1, [=] { return __real_shm_unlink(name); });
}

int __real_ftruncate64(int fd, off_t size);
int __wrap_ftruncate64(int fd, off_t size) {
    return watched("ftruncate", -1, [=] { return __real_ftruncate64(fd, size); });
}

void* __real_mmap64(void* address, size_t size, int protection, int flags, int fd, off_t offset);
void* __wrap_mmap64(void* address, size_t size, int protection, int flags, int fd, off_t offset) {
    return watched("mmap", MAP_FAILED,
                   [=] { return __real_mmap64(address, size, protection, flags, fd, offset); });
}

int __real_munmap(void* address, size_t size);
int __wrap_munmap(void* address, size_t size) {
    return watched("munmap", -1, [=] { return __real_munmap(address, size); });
}

int __real_flock(int fd, int operation);
int __wrap_flock(int fd, int operation) {
    return watched("flock", -1, [=] { return __real_flock(fd, operation); });
}

int __real_pthread_mutexattr_init(pthread_mutexattr_t* attributes);
int __wrap_pthread_mutexattr_init(pthread_mutexattr_t* attributes) {
    return watchedErrno("pthread_mutexattr_init",
                        [=] { return __real_pthread_mutexattr_init(attributes); });
}

int __real_pthread_mutexattr_setrobust(pthread_mutexattr_t* attributes, int robust);
int __wrap_pthread_mutexattr_setrobust(pthread_mutexattr_t* attributes, int robust) {
    return watchedErrno("pthread_mutexattr_setrobust",
                        [=] { return __real_pthread_mutexattr_setrobust(attributes, robust); });
}

int __real_pthread_mutexattr_setpshared(pthread_mutexattr_t* attributes, int shared);
int __wrap_pthread_mutexattr_setpshared(pthread_mutexattr_t* attributes, int shared) {
    return watchedErrno("pthread_mutexattr_setpshared",
                        [=] { return __real_pthread_mutexattr_setpshared(attributes, shared); });
}

int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    return watchedErrno("pthread_mutex_init",
                        [=] { return __real_pthread_mutex_init(mutex, attributes); });
}

int __real_clock_gettime(clockid_t clock, struct timespec* time);

static long long nanoseconds(const struct timespec& time) {
    return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

static struct timespec timeOf(long long nanoseconds) {
    struct timespec time;
    time.tv_sec = static_cast<time_t>(nanoseconds / 1'000'000'000);
    time.tv_nsec = static_cast<long>(nanoseconds % 1'000'000'000);
    return time;
}

static long long realNow() {
    struct timespec now;
    __real_clock_gettime(CLOCK_MONOTONIC, &now);
    return nanoseconds(now);
}

int __wrap_clock_gettime(clockid_t clock, struct timespec* time) {
    if (clock == CLOCK_MONOTONIC) {
        *time = timeOf(realNow() + skippedTime);
        return 0;
    }
    const long fixed = oru::io::test::clockNanoseconds;
    if (clock != CLOCK_REALTIME || fixed < 0)
        return __real_clock_gettime(clock, time);
    time->tv_sec = static_cast<time_t>(oru::io::test::clockSeconds);
    time->tv_nsec = fixed;
    return 0;
}

int __real_nanosleep(const struct timespec* time, struct timespec* left);
int __wrap_nanosleep(const struct timespec* time, struct timespec* left) {
    if (oru::io::test::action.isDue("nanosleep"))
        oru::io::test::actionToRun();
    const long long limit = oru::io::test::sleepLimitMs * 1'000'000LL;
    if (limit == 0 || nanoseconds(*time) <= limit)
        return __real_nanosleep(time, left);
    const struct timespec shorter = timeOf(limit);
    return __real_nanosleep(&shorter, left);
}

int __real_pthread_mutex_trylock(pthread_mutex_t* mutex);
int __real_pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock,
                                   const struct timespec* deadline);
int __wrap_pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock,
                                   const struct timespec* deadline) {
    const long long end = nanoseconds(*deadline) - skippedTime;
    oru::io::test::lastLock = static_cast<double>(end - realNow()) / 1e9;
    const struct timespec realDeadline = timeOf(end);
    return watchedErrno("pthread_mutex_clocklock", [=, &realDeadline] {
#if defined(__SANITIZE_THREAD__)
        static_cast<void>(clock);
        static_cast<void>(realDeadline);
        return oru::io::ipcwire::pollUntil(*deadline, EBUSY,
                                           [=] { return __real_pthread_mutex_trylock(mutex); });
#else
        return __real_pthread_mutex_clocklock(mutex, clock, &realDeadline);
#endif
    });
}

int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex) {
    if (fails("pthread_mutex_trylock"))
        return errno;
    const int error = __real_pthread_mutex_trylock(mutex);
    if (error == EBUSY)
        return error;
    return watchedErrno("pthread_mutex_trylock", [=] { return error; });
}

int __real_pthread_mutex_consistent(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_consistent(pthread_mutex_t* mutex) {
    return watchedErrno("pthread_mutex_consistent",
                        [=] { return __real_pthread_mutex_consistent(mutex); });
}

int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    return watchedErrno("pthread_mutex_unlock", [=] { return __real_pthread_mutex_unlock(mutex); });
}

int __real_sem_init(sem_t* semaphore, int shared, unsigned int value);
int __wrap_sem_init(sem_t* semaphore, int shared, unsigned int value) {
    return watched("sem_init", -1, [=] { return __real_sem_init(semaphore, shared, value); });
}

int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*function)(void*), void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*function)(void*), void* argument) {
    return watchedErrno("pthread_create", [=] {
        return __real_pthread_create(thread, attributes, function, argument);
    });
}

int __real_sem_post(sem_t* semaphore);
int __wrap_sem_post(sem_t* semaphore) {
    return watched("sem_post", -1, [=] { return __real_sem_post(semaphore); });
}

#if defined(__SANITIZE_THREAD__)
static int realClockWait(sem_t* semaphore, clockid_t, const struct timespec* deadline) {
    const auto tryOnce = [=] { return sem_trywait(semaphore) == 0 ? 0 : errno; };
    const struct timespec shown = timeOf(nanoseconds(*deadline) + skippedTime);
    errno = oru::io::ipcwire::pollUntil(shown, EAGAIN, tryOnce);
    return errno == 0 ? 0 : -1;
}
#else
int __real_sem_clockwait(sem_t* semaphore, clockid_t clock, const struct timespec* deadline);
static int realClockWait(sem_t* semaphore, clockid_t clock, const struct timespec* deadline) {
    return __real_sem_clockwait(semaphore, clock, deadline);
}
#endif
int __wrap_sem_clockwait(sem_t* semaphore, clockid_t clock, const struct timespec* deadline) {
    if (fails("sem_clockwait"))
        return -1;
    const long long end = nanoseconds(*deadline) - skippedTime;
    oru::io::test::lastWait = static_cast<double>(end - realNow()) / 1e9;
    const long long longest = oru::io::test::waitLimitMs * 1'000'000LL;
    int result = -1;
    bool isLimited = false;
    do {
        const long long limit = realNow() + longest;
        isLimited = longest > 0 && limit < end;
        oru::io::test::isLimited = isLimited;
        const struct timespec until = timeOf(isLimited ? limit : end);
        result = realClockWait(semaphore, clock, &until);
    } while (result != 0 && errno == ETIMEDOUT && isLimited &&
             oru::io::test::isExemptProcessAlive());
    if (result != 0 && errno == ETIMEDOUT && isLimited)
        skippedTime += end - realNow();
    return result;
}
}
#pragma GCC visibility pop
