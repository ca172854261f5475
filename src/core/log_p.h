// SPDX-License-Identifier: Apache-2.0
// Logging to the device's logging service, one channel per unit.
//
// Include last, and only in sources: everything here has internal linkage, so that each source has
// its own LOG_CHAN. Follow the include with ORUIO_LOG_CHANNEL("name"), or with one of the macros
// for a unit of several sources; then log with ORUIO_LOG(level, format, ...). Logging never fails
// visibly and leaves errno as it is.
#pragma once

#include <orulog/orulog.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include <sys/syscall.h>
#include <unistd.h>

namespace oru::io {

// The levels of the service. A message is logged when its level is at most its channel's threshold.
enum LogLevel : int {
    LogFailure = 9,
    LogWarning = 10,
    LogNotice = 11,
    LogDebug = 12,
};

/// Whether `level` is within the threshold of `channel`.
static inline bool isLogged(int channel, int level) {
    constexpr int channels = 1000;
    // Other threads may change the threshold at any time.
    return channel >= 0 && channel < channels &&
           level <= __atomic_load_n(&oruLogLevel[channel], __ATOMIC_RELAXED);
}

/// Formats a message that is within the threshold into a record of the service and pushes it. When
/// the service has no record, prints the bare message on standard error.
__attribute__((format(printf, 5, 6))) static inline void
__oruLog(int channel, int level, const char* file, int line, const char* format, ...) {
    if (!isLogged(channel, level))
        return;

    const int savedErrno = errno;
    va_list args;
    va_start(args, format);
    if (oruLogMsg* msg = oruLogMsgAlloc()) {
        clock_gettime(CLOCK_REALTIME, &msg->time);
        msg->channel = channel;
        msg->level = level;
        msg->line = line;
        msg->file = file;
        msg->tid = static_cast<decltype(msg->tid)>(syscall(SYS_gettid));
        msg->length = vsnprintf(msg->text, sizeof msg->text, format, args);
        oruLogMsgPush(msg);
    } else {
        // The message overwrites the prefix and is cut as if it followed it. So standard error gets
        // the message alone, cut to the length that its readers know.
        char text[sizeof msg->text];
        const int prefix = snprintf(text, sizeof text, "LOG DROP: %s:%d: ", file, line);
        const auto used = std::clamp<size_t>(prefix, 0, sizeof text - 1);
        vsnprintf(text, sizeof text - used, format, args);
        fputs(text, stderr);
    }
    va_end(args);
    errno = savedErrno;
}

} // namespace oru::io

/// Registers the source file's channel while the library is loaded.
#define ORUIO_LOG_CHANNEL(name)                                                                    \
    static const int LOG_CHAN = __oruLogChanReg(name, __FILE__, __LINE__, name)

/// Registers the channel of a unit that has several sources. `handle` is declared in a private
/// header of the unit, as an `extern const int`.
#define ORUIO_SHARED_LOG_CHANNEL(handle, name)                                                     \
    const int handle = __oruLogChanReg(name, __FILE__, __LINE__, name);                            \
    static const int& LOG_CHAN = handle

/// Logs on a channel that another source of the unit registers.
#define ORUIO_LOG_ON(handle) static const int& LOG_CHAN = handle

/// The arguments are evaluated only if the message is logged.
#define ORUIO_LOG(level, ...)                                                                      \
    do {                                                                                           \
        if (isLogged(LOG_CHAN, level))                                                             \
            __oruLog(LOG_CHAN, level, __FILE__, __LINE__, __VA_ARGS__);                            \
    } while (false)
