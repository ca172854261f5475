// Runs all benchmarks and compares what they measured with the targets.
//
// Takes the options of Google Benchmark. A missed target is reported, and is no error, nor is what
// has to be left out on this machine: only a benchmark that fails makes the exit status 1.
#include "report.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

// What the machine does beside the benchmarks should meet both sides of a comparison alike. So
// there are many rounds, and each runs all benchmarks one after the other, for a short time, in
// another order: the second of two that do the same finds the processor's caches warmer.
constexpr int rounds = 51;
char minTime[] = "--benchmark_min_time=0.01";
char anyOrder[] = "--benchmark_enable_random_interleaving=true";

/// The command line behind the defaults of this program, so that it prevails.
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
