// The report at the end of a run: each target beside what was measured.
#pragma once

#include "targets.h"

#include <benchmark/benchmark.h>

#include <map>
#include <set>
#include <string>
#include <vector>

/// The user counter of a benchmark that measures memory, in KiB.
constexpr char residentCounter[] = "resident";

/// Ends a benchmark that cannot run on this machine, which is no error. `why` is shown once.
void leaveOut(benchmark::State& state, const std::string& why);

/// Collects what each benchmark measured in each round: memory; else bytes per second, where it
/// counts bytes; else nanoseconds, of processor time, or of real time where it asks for that. Of
/// benchmarks that count bytes also the processor time of their thread per GiB.
class Report : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& context) override;
    void ReportRuns(const std::vector<Run>& runs) override;

    /// Prints the targets as a Markdown table. Those that the run left out are not shown.
    void printTargets() const;

    /// Whether anything was measured: not so if the benchmarks were only listed, or none selected.
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
    std::set<std::string> m_leftOut;
    bool m_contextIsShown = false;
    bool m_hasErrors = false;
};
