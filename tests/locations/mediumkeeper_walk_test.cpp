// SPDX-License-Identifier: Apache-2.0
// A walk over the states of a kept slot: in each of them the keeper says what is so, and leaves it
// when it can.
#include "keptslot.h"

#include "support/suite/qtprint.h"
#include "support/system/isolated.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace oru::io {
namespace {

using test::KeptSlot;

struct Operation {
    std::string name;
    std::function<void(KeptSlot&)> run;
};
using Sequence = std::vector<const Operation*>;

BDMon::Event diskEvent(KeptSlot& slot, const QString& action) {
    return slot.event(action, "/dev/disk", 0, 100'000, "");
}
BDMon::Event partitionEvent(KeptSlot& slot, const QString& action, int number) {
    return slot.event(action, QStringLiteral("/dev/disk%1").arg(number), quint32(number),
                      number == 1 ? 5000 : 9000, "ext4");
}

/// What udev reports.
std::vector<Operation> plugging() {
    const auto disk = [](const char* action) {
        return [=](KeptSlot& slot) { test::deliver({diskEvent(slot, action)}); };
    };
    const auto partition = [](const char* action, int number) {
        return [=](KeptSlot& slot) { test::deliver({partitionEvent(slot, action, number)}); };
    };
    return {
        {"+disk", disk("add")},
        {"+1", partition("add", 1)},
        {"+2", partition("add", 2)},
        {"-1", partition("remove", 1)},
        {"-2", partition("remove", 2)},
        {"-disk", disk("remove")},
        {"~1", partition("change", 1)},
        {"exchange",
         [](KeptSlot& slot) {
             test::deliver({partitionEvent(slot, "remove", 1), diskEvent(slot, "remove"),
                            diskEvent(slot, "add"), partitionEvent(slot, "add", 1)});
         }},
        {"protected",
         [](KeptSlot& slot) {
             const auto gone = diskEvent(slot, "remove");
             test::deliver({gone, slot.event("add", "/dev/disk", 0, 90'000, "", true),
                            slot.event("add", "/dev/disk1", 1, 5000, "ext4", true)});
         }},
    };
}

/// What is done to the location without its keeper, and to the mount point by other programs.
std::vector<Operation> disturbances() {
    const auto call = [](auto operation) {
        return [=](KeptSlot& slot) {
            operation(slot);
            slot.keeper.step();
        };
    };
    return {
        {"mount", call([](KeptSlot& slot) { slot.location.mount(nullptr); })},
        {"mount ro", call([](KeptSlot& slot) {
             Properties props = {{"readonly", true}};
             slot.location.mount(&props);
         })},
        {"mkReadOnly", call([](KeptSlot& slot) { slot.location.mkReadOnly(); })},
        {"mkWriteable", call([](KeptSlot& slot) { slot.location.mkWriteable(); })},
        {"umount", call([](KeptSlot& slot) { slot.location.umount(nullptr); })},
        {"raw add", call([](KeptSlot& slot) {
             for (const BlockDevice::SPtr& device : slot.present)
                 slot.location.addBlockDevice(device);
         })},
        {"raw remove", call([](KeptSlot& slot) {
             for (const BlockDevice::SPtr& device : slot.present)
                 slot.location.removeBlockDevice(device);
         })},
        {"umount(2)", call([](KeptSlot& slot) {
             umount2(QFile::encodeName(slot.path).constData(), MNT_DETACH);
         })},
        {"mount(2)", call([](KeptSlot& slot) {
             ::mount("other", QFile::encodeName(slot.path).constData(), "tmpfs", 0, nullptr);
         })},
        {"mounts fail", call([](KeptSlot& slot) { slot.failure = slot.failure ? 0 : EIO; })},
    };
}

/// Runs every sequence of operations that leads to a state not seen before.
class Walk {
public:
    explicit Walk(std::vector<Operation> operations) : m_operations(std::move(operations)) {
        // A repeated attempt is due at once.
        m_policy.firstRetryMs = 0;
        m_policy.longestRetryMs = 0;
    }

    void run(size_t longest) {
        visit({});
        while (!m_waiting.empty() && !testing::Test::HasFailure()) {
            const Sequence sequence = m_waiting.front();
            m_waiting.pop_front();
            if (sequence.size() >= longest)
                continue;
            for (const Operation& operation : m_operations) {
                Sequence next = sequence;
                next.push_back(&operation);
                visit(next);
            }
        }
    }
    size_t states() const {
        return m_seen.size();
    }

private:
    void visit(const Sequence& sequence) {
        KeptSlot slot(m_policy);
        std::string names;
        for (const Operation* operation : sequence) {
            operation->run(slot);
            names += operation->name + "; ";
        }
        if (!m_seen.emplace(describe(slot), names).second)
            return;
        m_waiting.push_back(sequence);
        EXPECT_EQ(slot.untruth(), "") << names << describe(slot);
        if (slot.isMountable()) {
            slot.keeper.step(); // the repeated attempt
            EXPECT_EQ(slot.keeper.state(), MediumKeeper::Mounted) << names << describe(slot);
        }
        // A good medium is the way out of every state.
        slot.failure = 0;
        test::deliver({diskEvent(slot, "remove"), diskEvent(slot, "add"),
                       partitionEvent(slot, "add", 1), partitionEvent(slot, "add", 2)});
        EXPECT_EQ(slot.keeper.access(), StorageLocation::Write) << names;
        EXPECT_EQ(slot.untruth(), "") << names << "a good medium";
    }
    static std::string describe(KeptSlot& slot) {
        QString mounts;
        for (const test::Mount& mount : slot.mountsHere())
            mounts += ' ' + mount.device + '(' + mount.options.first() + ')';
        return test::stateString(slot.location.state()).toStdString() + " keeper " +
               std::to_string(slot.keeper.state()) + ' ' + slot.keeper.reason().toStdString() +
               " present " + QStringList(slot.present.keys()).join(' ').toStdString() + " kernel" +
               mounts.toStdString() + (slot.failure ? " failing" : "");
    }

    const std::vector<Operation> m_operations;
    MediumKeeper::Policy m_policy;
    std::map<std::string, std::string> m_seen; ///< the first sequence that led to a state
    std::deque<Sequence> m_waiting;
};

/// ORUIO_KEEPER_DEPTH: the longest sequence.
size_t longestSequence(size_t normally) {
    const char* const wanted = std::getenv("ORUIO_KEEPER_DEPTH");
    return wanted ? std::strtoul(wanted, nullptr, 10) : normally;
}

} // namespace

using MediumKeeperWalk = test::Isolated;
using MediumKeeperMountPoint = test::Isolated;

TEST_F(MediumKeeperMountPoint, RootDirectory_FailsAndStaysMounted) {
    const test::FreshRootSwitch rootSwitch;
    const test::TempDir directory;
    const QString link = directory / "root";
    ASSERT_TRUE(QFile::link("/", link));
    Properties props = {{"blkDevId", "slot"}};
    SystemLocation location("slot", FS::SPtr(new PosixFS(link)), &props);
    FSSwitch::rootfs()->add(link, location.fs());
    MediumKeeper keeper(&location);
    const QStringList before = test::devicesAt("/");
    test::deliver({BDMon::Event(1, "add", new test::MountingDevice("/dev/disk", 0, 9000, "ext4"))});
    keeper.step();
    EXPECT_EQ(keeper.state(), MediumKeeper::Failed);
    EXPECT_EQ(keeper.reason(), "the location has no mount point");
    EXPECT_EQ(location.access(), StorageLocation::Presence);
    EXPECT_EQ(test::devicesAt("/"), before);
}

TEST_F(MediumKeeperWalk, EveryStateByEvents_TrueAndLeft) {
    const test::FreshRootSwitch rootSwitch;
    Walk walk(plugging());
    walk.run(longestSequence(3));
    EXPECT_GT(walk.states(), 8U);
    RecordProperty("states", static_cast<int>(walk.states()));
}

TEST_F(MediumKeeperWalk, EveryStateByEventsAndCallsOfOthers_TrueAndLeft) {
    const test::FreshRootSwitch rootSwitch;
    std::vector<Operation> all = plugging();
    for (const Operation& operation : disturbances())
        all.push_back(operation);
    Walk walk(all);
    walk.run(longestSequence(2));
    EXPECT_GT(walk.states(), 20U);
    RecordProperty("states", static_cast<int>(walk.states()));
}

} // namespace oru::io
