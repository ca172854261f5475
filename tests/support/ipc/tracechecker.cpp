// SPDX-License-Identifier: Apache-2.0
#include "support/ipc/tracechecker.h"

#include "support/ipc/areachecker.h"

namespace oru::io::test {

using namespace ipcwire;

void DyingProcesses::add(pid_t process) {
    m_processes.insert(process);
}

bool DyingProcesses::contains(pid_t process) const {
    return m_processes.count(process) == 1;
}

std::size_t DyingProcesses::count() const {
    return m_processes.size();
}

TraceChecker::TraceChecker() = default;
TraceChecker::~TraceChecker() = default;

void TraceChecker::step(const TraceEvent& event) {
    if (event.step == Step::Death) {
        m_dying.add(event.value);
        return;
    }
    if (event.step == Step::LockServerMutex && event.value == LockToServe)
        expectOnlyServer(event);
    auto& area = m_areas[event.area];
    if (!area)
        area = std::make_unique<AreaChecker>(m_dying);
    area->step(event);
}

void TraceChecker::expectOnlyServer(const TraceEvent& event) const {
    for (const auto& [number, area] : m_areas)
        require(number == event.area || !area->isNamed(), "OneServer",
                "another area has a server and a name");
}

Verdict TraceChecker::check(const Trace& trace) {
    std::size_t index = 0;
    try {
        require(!trace.events.empty(), "Record", "the record is empty");
        for (; index < trace.events.size(); ++index)
            step(trace.events[index]);
        for (const auto& [number, area] : m_areas) {
            if (trace.isComplete)
                area->finish();
        }
        // A process that is killed leaves one hole for each of its threads at most.
        constexpr std::size_t threads = 16;
        require(trace.holes <= m_dying.count() * threads, "Record", "a place was not filled");
    } catch (const Refusal& refusal) {
        const std::string place =
            index < trace.events.size() ? describe(trace.events[index]) : "the end";
        return {refusal.rule, index, place + ": " + refusal.rule + ": " + refusal.reason};
    }
    return {};
}

Verdict checkTrace(const Trace& trace) {
    return TraceChecker().check(trace);
}

Verdict checkTraceFile(const std::string& path) {
    return checkTrace(readTrace(path));
}

} // namespace oru::io::test
