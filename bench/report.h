// The report at the end of a run: each target beside what was measured.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

/// Collects the time that each benchmark took in each round: processor time, or real time where the
/// benchmark asks for that.
class Report : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& context) override;
    void ReportRuns(const std::vector<Run>& runs) override;

    /// Prints the targets as a Markdown table. Those that the run left out are not shown.
    void printTargets() const;

    /// Whether anything was measured: not so if the benchmarks were only listed, or none selected.
    bool hasResults() const;
    /// Whether a benchmark could not run.
    bool hasErrors() const;

private:
    std::map<std::string, std::vector<double>> m_nanoseconds;
    bool m_contextIsShown = false;
    bool m_hasErrors = false;
};
