// SPDX-License-Identifier: Apache-2.0
// The report at the end of a run: the result for each target.
#pragma once

#include "targets.h"

#include <benchmark/benchmark.h>

#include <map>
#include <set>
#include <string>
#include <vector>

/// The user counter of a benchmark that measures memory, in KiB.
constexpr char residentCounter[] = "resident";

/// Skips a benchmark that cannot run on this machine, which is not an error. `why` is printed once.
void skip(benchmark::State& state, const std::string& why);

/// Collects one result per benchmark and round:
/// - memory, if the benchmark has residentCounter
/// - bytes per second, if it counts bytes; and the processor time of its thread per GiB
/// - otherwise nanoseconds, of real time with UseRealTime(), else of processor time
class Report : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& context) override;
    void ReportRuns(const std::vector<Run>& runs) override;

    /// Prints the targets as a Markdown table, without those whose benchmarks did not run.
    void printTargets() const;

    /// Whether there are results. There are none if benchmarks were only listed, or none selected.
    bool hasResults() const;
    /// Whether a benchmark failed.
    bool hasErrors() const;

private:
    using Results = std::map<std::string, std::vector<double>>;

    void reportError(const Run& run);
    void keep(const Run& run);
    const Results& resultsFor(const Target& target) const;

    Results m_results;
    Results m_processorTimes; // in milliseconds per GiB
    std::set<std::string> m_skipped;
    bool m_contextIsShown = false;
    bool m_hasErrors = false;
};
