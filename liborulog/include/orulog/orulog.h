// SPDX-License-Identifier: Apache-2.0
/// \file
/// The interface of the logging service, for programs that log through it.
///
/// On the device, the service's own liborulog.so.1 exports exactly these symbols. On other systems
/// a stand-in, a replacement of the same name, exports them too (orulog/control.h).
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <time.h>

/// Exports a function or variable from liborulog.so.1.
#define ORULOG_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/// One log message. The caller fills in all fields except `service`.
struct oruLogMsg {
    void* service;        ///< used by the service only
    int32_t channel;      ///< the result of __oruLogChanReg()
    int32_t level;        ///< 9 failure, 10 warning, 11 notice, 12 debug; lower is more severe
    uint32_t tid;         ///< kernel thread id of the caller, gettid(2)
    int32_t line;         ///< source line of the message
    const char* file;     ///< source file of the message, a string constant
    struct timespec time; ///< CLOCK_REALTIME
    char text[256];       ///< the message, NUL-terminated
    int32_t length;       ///< result of vsnprintf(3): the length of the message before truncation
};

/// Registers a channel. The strings must live as long as the program.
///
/// \param name the name of the channel
/// \param file, line the source file and line of the call
/// \param description what the channel is for
/// \returns the index of the channel in oruLogLevel, or -1 when the table is full.
ORULOG_EXPORT int __oruLogChanReg(const char* name, const char* file, int line,
                                  const char* description);

/// The thresholds of the channels, by channel index; at least 1000 entries. The caller does not log
/// a message whose level is greater than the threshold of its channel.
///
/// A threshold may change at any time, so read it for every message.
extern ORULOG_EXPORT int* oruLogLevel;

/// Returns a free record, or null when all records are in use. Never blocks for long, and never
/// allocates memory.
ORULOG_EXPORT struct oruLogMsg* oruLogMsgAlloc(void);

/// Passes a record from oruLogMsgAlloc() to the service. The caller has filled in the record and
/// must not use it after this call.
ORULOG_EXPORT void oruLogMsgPush(struct oruLogMsg* msg);

#ifdef __cplusplus
}
#endif

#if defined(__cplusplus) && defined(__arm__)
static_assert(offsetof(oruLogMsg, channel) == 4, "logging service record");
static_assert(offsetof(oruLogMsg, level) == 8, "logging service record");
static_assert(offsetof(oruLogMsg, tid) == 12, "logging service record");
static_assert(offsetof(oruLogMsg, line) == 16, "logging service record");
static_assert(offsetof(oruLogMsg, file) == 20, "logging service record");
static_assert(offsetof(oruLogMsg, time) == 24, "logging service record");
static_assert(offsetof(oruLogMsg, text) == 32, "logging service record");
static_assert(offsetof(oruLogMsg, length) == 288, "logging service record");
static_assert(sizeof(oruLogMsg) == 292, "logging service record");
#endif
