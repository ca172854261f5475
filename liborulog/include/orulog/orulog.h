// The interface of the device's logging service: what a program needs to log through it.
//
// On the device, the service's own liborulog.so.1 offers exactly this; elsewhere its stand-in does.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#define ORULOG_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/// One log message. The writer fills everything but `service`.
struct oruLogMsg {
    void* service;        ///< the service's own
    int32_t channel;      ///< what __oruLogChanReg() returned
    int32_t level;        ///< smaller is more important; 9 failure, 10 warning, 11 notice, 12 debug
    uint32_t tid;         ///< kernel thread id of the writer, gettid(2)
    int32_t line;         ///< source line of the message
    const char* file;     ///< source file of the message, a string constant
    struct timespec time; ///< CLOCK_REALTIME
    char text[256];       ///< the message, NUL-terminated
    int32_t length;       ///< what vsnprintf(3) returned for the text: its length before truncation
};

/// Registers a channel. The strings must live as long as the program.
///
/// \param name, description the channel's name and what it is for
/// \param file, line where it is registered
/// \returns the channel's index in the level table, or -1 when the table is full.
ORULOG_EXPORT int __oruLogChanReg(const char* name, const char* file, int line,
                                  const char* description);

/// The threshold of each channel, at least 1000 entries: messages of a greater level are dropped by
/// their writer. Read anew for every message; may change at any time.
extern ORULOG_EXPORT int* oruLogLevel;

/// A free record, or null when the service has none. Never blocks for long and never allocates.
ORULOG_EXPORT struct oruLogMsg* oruLogMsgAlloc(void);

/// Takes over a record that oruLogMsgAlloc() gave, filled in.
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
