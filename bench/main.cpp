// SPDX-License-Identifier: Apache-2.0
// Runs all benchmarks and compares the results with the targets.
//
// Takes the options of Google Benchmark. The exit status is 1 only if a benchmark fails. A missed
// target and a benchmark that this machine cannot run are reported, but are not errors.
#include "report.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

// Other load on the machine should affect both sides of a comparison equally. So there are many
// rounds, and each runs all benchmarks for a short time. The order differs between rounds, because
// the second of two similar benchmarks finds the processor's caches warmer.
constexpr int rounds = 51;
char minTime[] = "--benchmark_min_time=0.01";
char anyOrder[] = "--benchmark_enable_random_interleaving=true";

/// The command line, after the defaults of this program, so that it overrides them.
std::vector<char*> withDefaults(int argc, char* argv[]) {
    std::vector<char*> arguments{argv[0], minTime, anyOrder};
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    return arguments;
}

} // namespace

int main(int argc, char* argv[]) {
    std::vector<char*> arguments = withDefaults(argc, argv);
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
        return 1;

    Report report;
    int round = 0;
    do
        benchmark::RunSpecifiedBenchmarks(&report);
    while (++round < rounds && report.hasResults() && !report.hasErrors());
    if (report.hasResults())
        report.printTargets();
    benchmark::Shutdown();
    return report.hasErrors() ? 1 : 0;
}
