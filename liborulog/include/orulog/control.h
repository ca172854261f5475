// SPDX-License-Identifier: Apache-2.0
/// \file
/// Controls of the logging stand-in, beside the four operations of orulog.h.
///
/// The service of the device has none of these functions. Programs that must run there use orulog.h
/// only, and configure the stand-in through its environment. It reads two variables when it is
/// loaded:
///
/// - `ORULOG_LEVEL`: thresholds, in the format of oruLogSetThresholds().
/// - `ORULOG_OUTPUT`: the output, in the format of oruLogSetOutput().
///
/// A value that it cannot use is reported on standard error, and the default applies. The variables
/// are ignored in a program that runs with more privileges than its user (secure_getenv(3)).
///
/// Who writes the messages:
///
/// - One thread of the service, which starts with the first message and has all signals blocked.
/// - It writes all queued messages before a normal exit of the process ends.
/// - After that, and when the thread cannot be started, the thread that logs writes its messages
///   itself.
/// - After fork(2), the parent writes what was queued before. The child starts with an empty queue
///   and gets its own thread.
/// - Only one process, with its forked children, should write to a file.
///
/// A line has the time, the level, the channel, the source line, the thread and the message:
///
/// \code{.unparsed}
/// 2024-05-01 12:34:56.123456 warning libio src/fsswitch.cpp:102 [4711] the message
/// \endcode
///
/// - The level is "critical" up to 8, "error" for 9, "warning" for 10, "info" for 11, "debug" for
///   12 and "trace" above.
/// - One newline at the end of a message is removed.
/// - syslog(3) adds the time to its lines.
///
/// Details of the stand-in's operations:
///
/// - __oruLogChanReg() also returns -1 for a null name.
/// - oruLogMsgPush() ignores null, and any other pointer that is not a record from
///   oruLogMsgAlloc().
/// - These two and oruLogMsgAlloc() do not change errno. None of the three is safe in a signal
///   handler.
///
/// Threads: any thread may call any function.
#pragma once

#include <orulog/orulog.h>

/// The number of messages that can be in use at once: being filled in, or not yet written.
#define ORULOG_RECORDS 256
/// The number of channels that can be registered.
#define ORULOG_CHANNELS 1000
/// The default threshold of a channel.
#define ORULOG_DEFAULT_THRESHOLD 10
/// The largest size of a log file in bytes. It is rotated before it grows larger.
#define ORULOG_FILE_SIZE 1048576
/// The number of rotated files that are kept, beside the current one.
#define ORULOG_FILES_KEPT 3

#ifdef __cplusplus
extern "C" {
#endif

/// A function that is called with each message after it has been written.
///
/// \param msg the message; valid during the call only
/// \param channel the name of its channel, "?" for an index that is not registered
/// \param user the pointer given to oruLogSetHook()
///
/// - Calls never overlap.
/// - oruLogMsgAlloc() returns null in a hook. So what the hook logs through the library goes to
///   standard error.
/// - It may call the controls, except oruLogFlush().
/// - It must not throw, and not end its thread or the process.
/// - It may fork(2) only to call exec(3) or _exit(2).
typedef void (*oruLogHook)(const struct oruLogMsg* msg, const char* channel, void* user);

/// Sets the thresholds of channels, registered ones and later ones.
///
/// The argument is a list, separated by commas, without blanks: `10`, `libio=12,stg=11`,
/// `10,libio=12`. Each item is one of:
///
/// - NUMBER: the threshold of all channels;
/// - NAME=NUMBER: the threshold of the channels of this name. It takes precedence over NUMBER, in
///   any order. The last one of a name counts.
///
/// Channels that no item matches keep their threshold.
///
/// \returns 0, or -1 with errno. After -1 nothing has changed.
/// - EINVAL: the argument is null or not such a list;
/// - ENOMEM: not enough memory.
ORULOG_EXPORT int oruLogSetThresholds(const char* text);

/// Selects the output. The argument is one of:
///
/// - `stderr`: standard error, the default.
/// - `syslog`: syslog(3), after openlog(3) with LOG_PID and LOG_USER.
/// - `file:PATH`: this file; messages are appended. A relative PATH starts at the current working
///   directory, and the directory must exist. Before the file grows larger than ORULOG_FILE_SIZE,
///   `.1` is inserted before its extension; the newest ORULOG_FILES_KEPT of such files are kept.
///
/// Returns when no message is being written to the former output any more.
///
/// When an output fails later, the failure is printed on standard error. Messages then go to
/// standard error until the next call.
///
/// \returns 0, or -1 with errno. After -1 the output has not changed.
/// - EINVAL: the argument is null or none of these;
/// - that of open(2) on the file;
/// - EIO: the output could not be set up;
/// - ENOMEM: not enough memory.
ORULOG_EXPORT int oruLogSetOutput(const char* text);

/// Sets the hook that is called with every further message, beside the output. Null removes it.
///
/// `user` is passed to each call of `hook`. Returns when the former hook is not running any more,
/// except when that hook makes the call.
ORULOG_EXPORT void oruLogSetHook(oruLogHook hook, void* user);

/// Waits until all messages pushed before are written and the hook has returned from them.
///
/// \returns 0, or -1 with errno EDEADLK when a hook calls it.
ORULOG_EXPORT int oruLogFlush(void);

#ifdef __cplusplus
}
#endif
