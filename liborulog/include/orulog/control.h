// Controls of the logging service's stand-in, beside the four operations of orulog.h.
//
// The device's own service has none of these: programs that must run there use orulog.h only, and
// set up the stand-in through its environment. When it is loaded it reads
//
//     ORULOG_LEVEL    thresholds, as oruLogSetThresholds() takes them
//     ORULOG_OUTPUT   where messages go, as oruLogSetOutput() takes it
//
// What it cannot use of them it names on standard error, and then works as if they were not set.
// They are not read in a program that runs with more rights than its user.
//
// Messages are written by one thread of the service, which starts with the first message and has
// all signals blocked. Those that are queued when the process exits normally are written before it
// ends; from then on, and when the thread cannot be started, the thread that logs writes its own.
// A forked child starts with an empty queue and gets a thread of its own: what was queued before
// the fork, the parent writes. Without forking, only one process should write to a file.
//
// A line holds the time, the level, the channel, the place in the source, the thread and the text:
//
//     2024-05-01 12:34:56.123456 warning libio src/fsswitch.cpp:102 [4711] the message
//
// with "critical" for levels up to 8, "error" for 9, "warning" for 10, "info" for 11, "debug" for
// 12 and "trace" above. A newline at the end of the text is not doubled. The system log gets its
// time from its own service.
//
// Of the operations, __oruLogChanReg() also returns -1 for a null name, and oruLogMsgPush() ignores
// null and whatever else is no record that its caller has: both leave errno alone. So does
// oruLogMsgAlloc(). None of these three is safe in a signal handler.
//
// All functions may be called from any thread.
#pragma once

#include <orulog/orulog.h>

/// Messages that can be under way at once: taken by their writer, or not yet written.
#define ORULOG_RECORDS 256
/// Channels that can be registered.
#define ORULOG_CHANNELS 1000
/// The threshold of channels that nothing else is said about.
#define ORULOG_DEFAULT_THRESHOLD 10
/// Bytes that a log file may have before it is rotated.
#define ORULOG_FILE_SIZE 1048576
/// Rotated files that are kept beside the one being written.
#define ORULOG_FILES_KEPT 3

#ifdef __cplusplus
extern "C" {
#endif

/// Sees a message when it has been written.
///
/// \param msg the message as its writer left it; valid during the call only
/// \param channel the name of its channel, "?" for an index that is not registered
/// \param user what oruLogSetHook() was given
///
/// Calls never overlap. The service gives no record to a hook: what it logs goes to standard error
/// like that of any writer who gets none. It may use the controls, except oruLogFlush(). It must
/// not throw, end its thread or the process, nor fork other than to exec or _exit.
typedef void (*oruLogHook)(const struct oruLogMsg* msg, const char* channel, void* user);

/// Sets thresholds, of channels that are registered and of those still to come.
///
/// \param text a list with commas and without blanks, of which each item is NUMBER, for every
/// channel, or NAME=NUMBER, for all channels of that name: `10`, `libio=12,stg=11`,
/// `10,libio=12`. Names go before numbers wherever they stand; of equal names the last counts.
/// Channels that the text does not cover keep their threshold.
/// \returns 0; or -1 with errno EINVAL when `text` is null or anything else, or ENOMEM. Then
/// nothing has changed.
ORULOG_EXPORT int oruLogSetThresholds(const char* text);

/// Chooses where messages go.
///
/// \param text
/// - `stderr`: standard error, which is also the default;
/// - `syslog`: syslog(3), after openlog(3) with LOG_PID and LOG_USER;
/// - `file:PATH`: the end of this file. A relative PATH counts from the present working directory;
///   the directory must exist. Before the file exceeds ORULOG_FILE_SIZE it is renamed to have `.1`
///   before its extension; the ORULOG_FILES_KEPT newest of these are kept.
/// \returns 0; or -1 with errno EINVAL when `text` is null or anything else, what open(2) says of
/// the file, EIO or ENOMEM. Then messages go where they went before.
///
/// Returns when no message is being written to the former output any more. When an output fails
/// later on, that is said on standard error, where messages then go until this is called again.
ORULOG_EXPORT int oruLogSetOutput(const char* text);

/// Makes `hook` see every message from now on, beside the output; null for none.
///
/// Returns when the former hook is not running any more, unless it makes the call itself.
ORULOG_EXPORT void oruLogSetHook(oruLogHook hook, void* user);

/// Waits until every message that was pushed before has been written and seen by the hook.
///
/// \returns 0; or -1 with errno EDEADLK when a hook calls it.
ORULOG_EXPORT int oruLogFlush(void);

#ifdef __cplusplus
}
#endif
