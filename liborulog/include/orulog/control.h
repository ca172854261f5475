// SPDX-License-Identifier: Apache-2.0
/// \file
/// The functions that control the logging stand-in. They are additional to the interface in
/// orulog.h.
///
/// The logging service of the device has none of these functions. A program that must also run on
/// the device uses orulog.h only, and configures the stand-in through environment variables. The
/// stand-in reads two variables when it is loaded:
///
/// - `ORULOG_LEVEL`: thresholds, in the format of oruLogSetThresholds().
/// - `ORULOG_OUTPUT`: the output, in the format of oruLogSetOutput().
///
/// If the stand-in cannot use a value, it prints this on standard error and uses the default. It
/// ignores the variables in a program that runs with more privileges than its user
/// (secure_getenv(3)).
///
/// The thread that writes the messages:
///
/// - The stand-in has one thread, which writes the messages. It starts at the first message and
///   blocks all signals.
/// - At a normal exit of the process, the thread writes all queued messages and then ends.
/// - After that, or if the thread cannot be started, each thread that logs writes its own messages.
/// - After fork(2), the parent writes the messages that were queued before. The child starts with
///   an empty queue, and with its first message starts its own thread.
/// - Only one process and its forked children should write to one log file.
///
/// A line of output contains the time, level, channel, source file and line, thread and message:
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
/// How the stand-in implements the functions of orulog.h:
///
/// - __oruLogChanReg() also returns -1 for a null name.
/// - oruLogMsgPush() ignores null and every pointer that is not a record from oruLogMsgAlloc().
/// - __oruLogChanReg(), oruLogMsgAlloc() and oruLogMsgPush() do not change errno. None of the three
///   may be called in a signal handler.
///
/// Threads: any thread may call any function.
#pragma once

#include <orulog/orulog.h>

/// The number of records that can be in use at once: records that are being filled in, and records
/// that are not yet written.
#define ORULOG_RECORDS 256
/// The number of channels that can be registered.
#define ORULOG_CHANNELS 1000
/// The default threshold of a channel.
#define ORULOG_DEFAULT_THRESHOLD 10
/// The largest size of a log file in bytes. It is rotated before it grows larger.
#define ORULOG_FILE_SIZE 1048576
/// The number of rotated files that are kept. The current file is not counted.
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
/// - Calls of the hook never overlap.
/// - In a hook oruLogMsgAlloc() returns null. So messages that liboruio logs during the call go to
///   standard error.
/// - The hook may call the functions of this header except oruLogFlush().
/// - The hook must not throw an exception, and must not end its thread or the process.
/// - After fork(2) in the hook, the child may only call exec(3) or _exit(2).
typedef void (*oruLogHook)(const struct oruLogMsg* msg, const char* channel, void* user);

/// Sets the thresholds of channels, both of registered ones and of those that are registered later.
///
/// The argument is a list, separated by commas, without blanks: `10`, `libio=12,stg=11`,
/// `10,libio=12`. Each item is one of:
///
/// - NUMBER: the threshold of all channels;
/// - NAME=NUMBER: the threshold of the channels with this name. It takes precedence over NUMBER, in
///   any order of the items. If the same name occurs several times, its last item counts.
///
/// A channel keeps its threshold if no item matches it.
///
/// \returns 0, or -1 with errno. After -1 nothing has changed.
/// - EINVAL: the argument is null, or it is not a list of this format;
/// - ENOMEM: not enough memory.
ORULOG_EXPORT int oruLogSetThresholds(const char* text);

/// Selects the output. The argument is one of:
///
/// - `stderr`: standard error, the default.
/// - `syslog`: syslog(3), after openlog(3) with LOG_PID and LOG_USER.
/// - `file:PATH`: messages are appended to this file. A relative PATH starts at the current working
///   directory. The directory must exist. Before the file grows larger than ORULOG_FILE_SIZE, it is
///   renamed and a new file is started: `log.txt` becomes `log.1.txt`, and a former `log.1.txt`
///   becomes `log.2.txt`. The newest ORULOG_FILES_KEPT of the renamed files are kept.
///
/// Returns when no message is being written to the former output any more.
///
/// If an output fails later, the failure is printed on standard error. Messages then go to standard
/// error until the next call of this function.
///
/// \returns 0, or -1 with errno. After -1 the output has not changed.
/// - EINVAL: the argument is null, is not one of these outputs, or has an empty PATH;
/// - any errno of open(2) on the file;
/// - EIO: the output could not be set up;
/// - ENOMEM: not enough memory.
ORULOG_EXPORT int oruLogSetOutput(const char* text);

/// Sets the hook that is called with every further message. Messages still go to the output. Null
/// removes the hook.
///
/// `user` is passed to each call of `hook`. The function returns when the former hook is no longer
/// running. If the former hook itself calls this function, it returns at once.
ORULOG_EXPORT void oruLogSetHook(oruLogHook hook, void* user);

/// Waits until all messages that were pushed before are written, and the hook has returned for each
/// of them.
///
/// \returns 0, or -1 with errno EDEADLK when a hook calls it.
ORULOG_EXPORT int oruLogFlush(void);

#ifdef __cplusplus
}
#endif
