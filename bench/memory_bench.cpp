// How much memory the serving process takes while nothing is connected.
#include "helper.h"
#include "mounts.h"
#include "report.h"

#include <benchmark/benchmark.h>

#include <fstream>
#include <sstream>
#include <string>

#include <unistd.h>

namespace {

using benchmark::State;

/// With an own /dev/shm, so that it need not be the system's only server.
class SeparateHelper : public Helper {
protected:
    void setupChildProcess() override {
        Helper::setupChildProcess();
        if (!enterPrivateMounts())
            _exit(1);
    }
};

/// What of a process is in memory, shared with others or not, except for the service's block, which
/// is the same memory for server and client. In KiB; 0 when it cannot be read.
double residentKibi(qint64 process) {
    std::ifstream mappings("/proc/" + std::to_string(process) + "/smaps");
    bool isBlock = false;
    double sum = 0;
    for (std::string line; std::getline(mappings, line);) {
        std::istringstream words(line);
        std::string first;
        double kibi = 0;
        words >> first;
        if (first.back() != ':')
            isBlock = line.find("/dev/shm/_blk_") != std::string::npos;
        else if (first == "Rss:" && !isBlock && words >> kibi)
            sum += kibi;
    }
    return sum;
}

void resident(State& state, const char* program) {
    if (!hasPrivateMounts())
        return leaveOut(state, "memory of a server: no privilege to run one beside another");
    for (auto _ : state) {
        SeparateHelper helper;
        const bool isReady = helper.startUntilReady(program, {"/"});
        state.counters[residentCounter] = residentKibi(helper.processId());
        if (!isReady)
            state.SkipWithError("the program does not run");
    }
}

BENCHMARK_CAPTURE(resident, server, ORUIO_BENCH_SERVER)->Name("resident/server")->Iterations(1);
BENCHMARK_CAPTURE(resident, empty, ORUIO_BENCH_EMPTY)->Name("resident/empty")->Iterations(1);

} // namespace
