// SPDX-License-Identifier: Apache-2.0
// The cost of opening and closing a file, depending on the number of open descriptors.
#include "card.h"

#include <oruio/posixfs.h>

#include <benchmark/benchmark.h>

#include <vector>

#include <fcntl.h>

namespace {

using benchmark::State;

/// Opens files without system descriptors. They fill the library's table, which all adapters share,
/// but not the system's table, whose cost also depends on its size.
class NullFS : public oru::io::PosixFS {
public:
    NullFS() : PosixFS(QString()) {}

    QSharedPointer<oru::io::File> open(QString, int, int) override {
        return QSharedPointer<oru::io::PosixFile>::create(-1);
    }
};

class OpenDescriptors {
public:
    explicit OpenDescriptors(int count) : m_adapter(QSharedPointer<NullFS>::create()) {
        for (int i = 0; i < count; ++i)
            m_descriptors.push_back(m_adapter.open("/", O_RDONLY, 0));
    }

    ~OpenDescriptors() {
        for (const int fd : m_descriptors)
            m_adapter.close(fd);
    }

private:
    Q_DISABLE_COPY(OpenDescriptors)

    oru::io::FDAdapter m_adapter;
    std::vector<int> m_descriptors;
};

void openCloseBeside(State& state, int count) {
    const OpenDescriptors others(count);
    auto& adapter = Card::instance().adapter();
    const char* const path = Card::instance().clip();
    for (auto _ : state) {
        if (adapter.close(adapter.open(path, O_RDONLY, 0)) != 0)
            state.SkipWithError("open or close failed");
    }
}

// A fixed number of iterations: otherwise the framework fills the table several times to choose
// one.
constexpr int iterations = 5000;
BENCHMARK_CAPTURE(openCloseBeside, 10, 10)->Name("open_close/10_open")->Iterations(iterations);
BENCHMARK_CAPTURE(openCloseBeside, 100000, 100'000)
    ->Name("open_close/100000_open")
    ->Iterations(iterations);

} // namespace
