#include "report.h"

#include "targets.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <ostream>

namespace {

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

double value(const Target& target, double measured, double reference) {
    return target.kind == Target::DifferenceAtMost ? measured - reference : measured / reference;
}

bool isMet(const Target& target, double value) {
    return target.kind == Target::RatioAbove ? value > target.limit : value <= target.limit;
}

void printRow(const Target& target, double measured, double reference) {
    const double result = value(target, measured, reference);
    const bool isDifference = target.kind == Target::DifferenceAtMost;
    char resultText[32];
    char limitText[32];
    std::snprintf(resultText, sizeof resultText, isDifference ? "%.1f ns" : "%.3f", result);
    std::snprintf(limitText, sizeof limitText, isDifference ? "%s %g ns" : "%s %g",
                  target.kind == Target::RatioAbove ? "above" : "at most", target.limit);
    std::printf("| %-68s | %9.1f | %9.1f | %9s | %-15s | %-7s |\n", target.what, measured,
                reference, resultText, limitText, isMet(target, result) ? "met" : "MISSED");
}

} // namespace

bool Report::ReportContext(const Context& context) {
    if (!m_contextIsShown)
        PrintBasicContext(&GetErrorStream(), context);
    m_contextIsShown = true;
    return true;
}

void Report::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        if (run.error_occurred) {
            GetErrorStream() << run.benchmark_name().c_str() << ": " << run.error_message << '\n';
            m_hasErrors = true;
        } else if (run.run_type == Run::RT_Iteration) {
            const bool real = run.run_name.time_type == "real_time";
            const double time = real ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
            const double perSecond = benchmark::GetTimeUnitMultiplier(run.time_unit);
            m_nanoseconds[run.run_name.function_name].push_back(time / perSecond * 1e9);
        }
    }
}

void Report::printTargets() const {
    std::printf("| %-68s | %9s | %9s | %-9s | %-15s | %-7s |\n", "what", "ns", "beside ns",
                "result", "target", "verdict");
    std::puts("|---|---:|---:|---:|---|---|");
    for (const Target& target : targets()) {
        const auto measured = m_nanoseconds.find(target.measured);
        const auto reference = m_nanoseconds.find(target.reference);
        if (measured != m_nanoseconds.end() && reference != m_nanoseconds.end())
            printRow(target, median(measured->second), median(reference->second));
    }
}

bool Report::hasResults() const {
    return !m_nanoseconds.empty();
}

bool Report::hasErrors() const {
    return m_hasErrors;
}
