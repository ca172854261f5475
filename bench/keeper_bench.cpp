// SPDX-License-Identifier: Apache-2.0
// How long a card takes until a keeper has mounted it, compared with the mount alone.
#include "report.h"

#include "support/system/isolation.h"
#include "support/system/loopdisk.h"
#include "support/system/udevd.h"

#include <oruio/fsswitch.h>
#include <oruio/mediumkeeper.h>
#include <oruio/posixfs.h>

#include <benchmark/benchmark.h>

#include <QCoreApplication>

#include <memory>

namespace {

using namespace oru::io;
using benchmark::State;
using test::LoopDisk;

constexpr int quietMs = 100;
constexpr char slotId[] = "bench-slot";

// Initialised before other threads exist.
const bool isIsolated = test::isolate(test::Namespaces::MountAndNetwork);

/// A card in a slot with a keeper.
class Slot {
public:
    Slot() : m_location("card", FS::SPtr(new PosixFS(m_directory.path())), &m_props) {
        FSSwitch::rootfs()->add(m_directory.path(), m_location.fs());
        m_isReady = m_udevd.problem().isEmpty() && m_card.problem().isEmpty() &&
                    test::runTool({"mkfs.ext4", "-q", m_card.node(1)}).status == 0 &&
                    m_udevd.setIdPath(m_card.name(), slotId) && m_monitor.start();
    }
    ~Slot() {
        m_keeper.unmount();
        m_monitor.stop();
        FSSwitch::rootfs()->remove(m_directory.path());
    }

    static bool isPossible() {
        return isIsolated && LoopDisk::missing().isEmpty() && test::Udevd::missing().isEmpty();
    }
    bool isReady() const {
        return m_isReady;
    }
    /// Queues the events of the card.
    void insert() {
        m_card.sendUevent("add");
        m_card.sendUevent("add", 1);
        m_udevd.settle();
    }
    void remove() {
        m_card.sendUevent("remove", 1);
        m_card.sendUevent("remove");
        m_udevd.settle();
        await(StorageLocation::None);
    }
    /// Runs the event loop.
    void await(StorageLocation::AccessType access) {
        while (m_keeper.access() != access)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    int unmount() {
        return m_keeper.unmount();
    }
    int mount() {
        return m_location.mount(nullptr);
    }

private:
    Q_DISABLE_COPY(Slot)

    int m_argc = 1;
    char m_name[6] = "bench";
    char* m_argv[2] = {m_name, nullptr};
    const QCoreApplication m_application{m_argc, m_argv};
    const test::TempDir m_directory;
    const test::Udevd m_udevd;
    const LoopDisk m_card{20 * LoopDisk::MiB, "label: dos\nstart=1MiB, type=83\n"};
    Properties m_props = {{"blkDevId", slotId}};
    SystemLocation m_location;
    MediumKeeper m_keeper{&m_location};
    MonitorFollower m_monitor{quietMs};
    bool m_isReady = false;
};

/// A slot, or null and the benchmark is skipped.
std::unique_ptr<Slot> openSlot(State& state) {
    if (!Slot::isPossible()) {
        skip(state, "cards: loop disks and a udevd need root");
        return nullptr;
    }
    auto slot = std::make_unique<Slot>();
    if (!slot->isReady())
        state.SkipWithError("the card cannot be made");
    return slot->isReady() ? std::move(slot) : nullptr;
}

void arrivalByKeeper(State& state) {
    const std::unique_ptr<Slot> slot = openSlot(state);
    for (auto _ : state) {
        state.PauseTiming();
        slot->insert();
        state.ResumeTiming();
        slot->await(StorageLocation::Write);
        state.PauseTiming();
        slot->remove();
        state.ResumeTiming();
    }
}

void mountAlone(State& state) {
    const std::unique_ptr<Slot> slot = openSlot(state);
    if (slot) {
        slot->insert();
        slot->await(StorageLocation::Write);
    }
    for (auto _ : state) {
        state.PauseTiming();
        slot->unmount();
        state.ResumeTiming();
        if (slot->mount() != 0)
            state.SkipWithError("mount() failed");
    }
}

BENCHMARK(arrivalByKeeper)->Name("arrival/keeper")->Iterations(2)->UseRealTime();
BENCHMARK(mountAlone)->Name("arrival/mount")->Iterations(2)->UseRealTime();

} // namespace
