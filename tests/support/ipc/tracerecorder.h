// SPDX-License-Identifier: Apache-2.0
// Records the steps of the file service in a file that all processes of a test map.
//
// A record is written without locks: a process claims the next place with one atomic addition,
// writes the record, and then marks it as valid. A process that is killed in between leaves an
// empty place. Readers skip it: a step that is traced before its action has not happened then, and
// one that is traced after its action has happened without a record. The checker accepts both of a
// process that dies.
#pragma once

#include "ipc/ipctrace_p.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace oru::io::test {

/// The kind of a request, as far as the protocol distinguishes them.
enum class RequestKind : std::uint8_t { None, Connect, Disconnect, Read, Write, Other };

/// One step. Its place in the file is its number.
struct TraceEvent {
    std::uint32_t isValid; // set last
    std::int32_t process;
    std::int32_t thread;
    std::uint32_t area;    // the areas are numbered from 1 in the order of their first steps
    std::uint32_t session; // Area::sessions
    std::int32_t value;    // the argument that ipctrace_p.h describes
    std::int32_t index;    // of a data buffer, or -1
    ipcwire::Step step;
    RequestKind kind;
    std::uint8_t unused[2];
    std::uint64_t text; // a hash of the request
    std::uint64_t number;
    std::uint64_t reserved[2];
};
static_assert(sizeof(TraceEvent) == 64);

/// Records the steps of this process, and of the children that it creates later, in a new file with
/// room for `capacity` events. Later steps are counted, but not recorded. With no room, `path` is
/// not used. If the environment variable ORUIO_IPC_TRACE_FILE is set when a program starts, the
/// program records in this file, which must exist.
bool startTrace(const std::string& path, std::uint64_t capacity);
/// Records nothing more in this process.
void stopTrace();

/// Records that `process` may end from now on. Call this before the signal is sent. By default, the
/// calling process.
void recordDeath(pid_t process = 0);

/// How many steps have been traced, by all processes: all of them, or those of one step. `value`
/// selects those with a value other than 0.
std::uint64_t tracedSteps();
std::uint64_t tracedSteps(ipcwire::Step step, bool hasValue);

struct Trace {
    std::vector<TraceEvent> events;
    bool isComplete = false; ///< the file had room for all events
    std::size_t holes = 0;   ///< places that were claimed and not filled
};
/// Reads a file. \returns an empty trace when it is not a trace.
Trace readTrace(const std::string& path);

/// Runs `action` when this process traces `step` for the `count`-th time from now on, after the
/// step has been recorded. Each step has one action. An action changes the area as a defect of the
/// code would.
void runAtStep(ipcwire::Step step, int count, std::function<void()> action);

/// Kills this process at the `point`-th point from now on (1 is the next). Each step is three
/// points: before it claims its place in the record, before it writes the record, and after that.
void dieAtTracePoint(int point);

/// Delays about one step in `steps`, before or after its record, by up to 200 microseconds: so the
/// processes meet in more orders. 0: no delays.
void delaySteps(unsigned int steps);

/// For messages.
std::string nameOf(ipcwire::Step step);
std::string describe(const TraceEvent& event);

} // namespace oru::io::test
