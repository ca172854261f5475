// How opening and closing a file depends on the number of descriptors in use.
#include "card.h"

#include <oruio/posixfs.h>

#include <benchmark/benchmark.h>

#include <vector>

#include <fcntl.h>

namespace {

using benchmark::State;

/// Files without anything behind them: they fill the library's table, which all adapters share, and
/// leave the system's table alone. That one has costs of its own.
class HollowFS : public oru::io::PosixFS {
public:
    HollowFS() : PosixFS(QString()) {}

    QSharedPointer<oru::io::File> open(QString, int, int) override {
        return QSharedPointer<oru::io::PosixFile>::create(-1);
    }
};

class OpenDescriptors {
public:
    explicit OpenDescriptors(int count) : m_adapter(QSharedPointer<HollowFS>::create()) {
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

// A fixed number of iterations: to find one out, the table would be filled again and again.
constexpr int iterations = 5000;
BENCHMARK_CAPTURE(openCloseBeside, 10, 10)->Name("open_close/10_open")->Iterations(iterations);
BENCHMARK_CAPTURE(openCloseBeside, 100000, 100'000)
    ->Name("open_close/100000_open")
    ->Iterations(iterations);

} // namespace
