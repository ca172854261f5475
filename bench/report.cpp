// SPDX-License-Identifier: Apache-2.0
#include "report.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <ostream>

namespace {

/// The start of the error message of a skipped benchmark.
constexpr char skippedPrefix[] = "skipped: ";

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

constexpr char speedCounter[] = "bytes_per_second";

/// The result of a run, in the unit of the report.
double result(const benchmark::BenchmarkReporter::Run& run) {
    const auto resident = run.counters.find(residentCounter);
    if (resident != run.counters.end())
        return resident->second;
    const auto speed = run.counters.find(speedCounter);
    if (speed != run.counters.end())
        return speed->second / (1 << 20);
    const bool isReal = !run.run_name.time_type.empty(); // or measured by the benchmark itself
    const double time = isReal ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
    return time / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9;
}

/// The processor time of a run per GiB, in milliseconds.
double processorTime(const benchmark::BenchmarkReporter::Run& run, double speed) {
    const double gibiBytes = speed * run.real_accumulated_time / (1 << 30);
    return run.cpu_accumulated_time * 1e3 / gibiBytes;
}

const char* unitOf(const Target& target) {
    switch (target.kind) {
    case Target::SpeedAtLeast:
    case Target::Speed:
        return "MiB/s";
    case Target::MemoryAtMost:
    case Target::MemoryRatioAtMost:
        return "KiB";
    case Target::ProcessorTime:
        return "ms/GiB";
    default:
        return "ns";
    }
}

bool hasLimit(const Target& target) {
    return target.limit > 0;
}

bool isDifference(const Target& target) {
    return target.kind == Target::DifferenceAtMost || target.kind == Target::MemoryAtMost;
}

const char* relation(const Target& target) {
    switch (target.kind) {
    case Target::RatioAbove:
        return "above";
    case Target::RatioAtLeast:
    case Target::SpeedAtLeast:
        return "at least";
    default:
        return "at most";
    }
}

double value(const Target& target, double measured, double reference) {
    return isDifference(target) ? measured - reference : measured / reference;
}

bool isMet(const Target& target, double value) {
    switch (target.kind) {
    case Target::RatioAbove:
        return value > target.limit;
    case Target::RatioAtLeast:
    case Target::SpeedAtLeast:
        return value >= target.limit;
    default:
        return value <= target.limit;
    }
}

std::string number(const char* format, double value, const char* unit) {
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return *unit ? std::string(text) + ' ' + unit : text;
}

/// The median over the rounds: other load on the machine changes between rounds more than within
/// one.
double medianValue(const Target& target, const std::vector<double>& measured,
                   const std::vector<double>& reference) {
    std::vector<double> values;
    for (std::size_t round = 0; round < std::min(measured.size(), reference.size()); ++round)
        values.push_back(value(target, measured[round], reference[round]));
    return median(values);
}

void printRow(const Target& target, const std::vector<double>& measured,
              const std::vector<double>& reference) {
    const double result = medianValue(target, measured, reference);
    const char* const unit = unitOf(target);
    const char* const resultUnit = isDifference(target) ? unit : "";
    const std::string limit =
        hasLimit(target) ? relation(target) + (' ' + number("%g", target.limit, resultUnit))
                         : "none";
    const char* const verdict = !hasLimit(target) ? "-" : isMet(target, result) ? "met" : "MISSED";
    std::printf("| %-68s | %13s | %13s | %10s | %-16s | %-7s |\n", target.what,
                number("%.1f", median(measured), unit).c_str(),
                number("%.1f", median(reference), unit).c_str(),
                number(isDifference(target) ? "%.1f" : "%.3f", result, resultUnit).c_str(),
                limit.c_str(), verdict);
}

} // namespace

void skip(benchmark::State& state, const std::string& why) {
    state.SkipWithError((skippedPrefix + why).c_str());
}

bool Report::ReportContext(const Context& context) {
    if (!m_contextIsShown)
        PrintBasicContext(&GetErrorStream(), context);
    m_contextIsShown = true;
    return true;
}

void Report::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        if (run.error_occurred)
            reportError(run);
        else if (run.run_type == Run::RT_Iteration)
            keep(run);
    }
}

void Report::keep(const Run& run) {
    const std::string& name = run.run_name.function_name;
    m_results[name].push_back(result(run));
    const auto speed = run.counters.find(speedCounter);
    if (speed != run.counters.end())
        m_processorTimes[name].push_back(processorTime(run, speed->second));
}

const Report::Results& Report::resultsFor(const Target& target) const {
    return target.kind == Target::ProcessorTime ? m_processorTimes : m_results;
}

void Report::reportError(const Run& run) {
    if (run.error_message.rfind(skippedPrefix, 0) != 0) {
        GetErrorStream() << run.benchmark_name().c_str() << ": " << run.error_message << '\n';
        m_hasErrors = true;
    } else if (m_skipped.insert(run.error_message).second) {
        GetErrorStream() << run.error_message << '\n';
    }
}

void Report::printTargets() const {
    std::printf("| %-68s | %13s | %13s | %-10s | %-16s | %-7s |\n", "what", "measured", "reference",
                "result", "target", "verdict");
    std::puts("|---|---:|---:|---:|---|---|");
    for (const Target& target : targets()) {
        const Results& results = resultsFor(target);
        const auto measured = results.find(target.measured);
        const auto reference = results.find(target.reference);
        if (measured != results.end() && reference != results.end())
            printRow(target, measured->second, reference->second);
    }
}

bool Report::hasResults() const {
    return !m_results.empty();
}

bool Report::hasErrors() const {
    return m_hasErrors;
}
