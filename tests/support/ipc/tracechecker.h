// SPDX-License-Identifier: Apache-2.0
// Checks a record of the file service's steps against the protocol between client and server.
//
// The checker is an automaton for each area: a state of the request, the holders of the mutexes,
// counters for the semaphores, the position of the connected client in its session, and the
// position of the server. A step that the protocol does not allow in this state is refused.
//
// The names of the rules:
//
// OwnResponse     a client takes the response to its own request, or one with ECANCELED
// BufferOnce      a data buffer is reserved once and freed once, by an end that may use it
// WholeRequest    the server executes what the client has published
// NotCancelled    a request that the server has not taken when it is cancelled is not executed
// OwnFiles        a request is executed in the session of its client
// NoWaiter        semaphores are initialised while no client is in a call
// OneClient       the client mutex has one holder; only this process uses the area
// OneServer       one server runs, and no other thread holds its mutex
// Block           the block is held for what needs it, and has one holder
// State           RequestState changes as in the table of the protocol
// Semaphore       nothing is taken that was not posted
// Deaths          an owner is dead only after its process was killed, and does nothing more
// Order           each end takes its steps in order
// End             at the end of the record nothing is left locked, open or unanswered
// Record          the file is a record of steps without holes of living processes
#pragma once

#include "support/ipc/tracerecorder.h"

#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace oru::io::test {

/// What the checker found. Without a rule, the record is accepted.
struct Verdict {
    bool isAccepted() const {
        return rule.empty();
    }

    std::string rule;
    std::size_t index = 0; ///< of the refused event in Trace::events; their number at the end
    std::string message;   ///< the event and the reason
};

/// The processes that may end at any moment, because they are being killed.
class DyingProcesses {
public:
    void add(pid_t process);
    bool contains(pid_t process) const;
    std::size_t count() const;

private:
    std::set<pid_t> m_processes;
};

class AreaChecker;

class TraceChecker {
public:
    TraceChecker();
    ~TraceChecker();

    Verdict check(const Trace& trace);

private:
    void step(const TraceEvent& event);
    void expectOnlyServer(const TraceEvent& event) const;

    DyingProcesses m_dying;
    std::map<std::uint32_t, std::unique_ptr<AreaChecker>> m_areas;
};

/// Checks a record.
Verdict checkTrace(const Trace& trace);
/// As checkTrace() for a file.
Verdict checkTraceFile(const std::string& path);

} // namespace oru::io::test
