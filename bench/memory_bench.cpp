// SPDX-License-Identifier: Apache-2.0
// The memory of the serving process while no client is connected.
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

/// Has a private /dev/shm, so that it can run beside another server.
class SeparateHelper : public Helper {
protected:
    void setupChildProcess() override {
        Helper::setupChildProcess();
        if (!enterPrivateMounts())
            _exit(1);
    }
};

/// The resident memory of a process, shared or not, in KiB; 0 if it cannot be read. The service's
/// block is not included, because it is the same memory for server and client.
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
        return skip(state, "memory of a server: running a second server needs root");
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
