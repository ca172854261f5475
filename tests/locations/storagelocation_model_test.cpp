// SPDX-License-Identifier: Apache-2.0
// SystemLocation compared with a model over random events and operations.
#include <oruio/error.h>
#include <oruio/fsswitch.h>
#include <oruio/storagelocation.h>

#include "support/doubles/memfs.h"
#include "support/doubles/memorymount.h"
#include "support/doubles/openlocation.h"
#include "support/doubles/scripteddevice.h"
#include "support/suite/logcapture.h"
#include "support/suite/qtprint.h"
#include "support/system/isolated.h"
#include "support/system/mounts.h"
#include "support/system/tempdir.h"

#include <QDir>
#include <QSet>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace oru::io {
namespace {

using test::Device;
using test::LocationState;
using test::MemFS;
using test::MemoryMount;
using test::OpenLocation;

constexpr char slotId[] = "platform-slot-1";
constexpr char efiSystemPartition[] = "c12a7328-f81f-11d2-ba4b-00a0c93ec93b";

// --- The model ----------------------------------------------------------------------------------

/// The expected effect of a call.
struct Answer {
    int result = 0;
    std::optional<ErrorCode> reason = {}; ///< in liberrno if the call fails; none: unchanged
    QString call = {};                    ///< the call of a device
    bool isUnmounted = false;             ///< whether the mount point is unmounted
};

/// The results of the devices and of the kernel.
struct Outcome {
    int result = 0;
    ErrorCode reason = Ok;
    bool isBusy = false; ///< the mount can only be unmounted lazily
};

/// The documented behaviour of a location: its disk and selected partition, its access, and whether
/// it has mounted something.
class Model {
public:
    explicit Model(bool hasFS) : m_hasFS(hasFS) {}

    // Operations. `mountPoints` are those of the location's file system in the root switch.

    Answer enable() {
        m_isEnabled = true;
        return {};
    }
    Answer disable() {
        if (isInUse())
            return {-1};
        m_isEnabled = false;
        return {};
    }
    Answer check(const Outcome& outcome) const {
        return chosen() ? asked(chosen(), "fsck", {}, outcome) : refused(NotFound);
    }
    Answer format(const Properties& props, const Outcome& outcome) const {
        if (m_isMounted || !m_disk)
            return refused(NotFound);
        if (m_disk->m_writeProtected)
            return refused(NotImplemented);
        return asked(m_disk, "format", props, outcome);
    }
    Answer isWriteProtected() const {
        return {m_disk && m_part && m_disk->m_writeProtected};
    }
    Answer mount(Properties props, const QStringList& mountPoints, const Outcome& outcome) {
        m_isMounted = m_isMounted && isInUse();
        const bool isReadOnly = props.contains("readonly");
        if (!chosen() || !completed(props, mountPoints, isReadOnly))
            return refused(NotFound);
        Answer answer = askedToMount(props, outcome);
        m_isMountOk = outcome.result >= 0;
        if (m_isMountOk) {
            m_access = isReadOnly ? "Read" : "Write";
            m_isMounted = true;
        } else {
            m_access = "None";
            answer.result = -1;
            answer.reason = NotFound;
        }
        return answer;
    }
    Answer mkReadOnly(const QStringList& mountPoints, const Outcome& outcome) {
        Properties props;
        if (!m_isPresent)
            return refused(NotFound);
        if (m_access == "Read")
            return {};
        return completed(props, mountPoints, true) ? mount(props, mountPoints, outcome)
                                                   : refused(NotFound);
    }
    Answer mkWriteable(const QStringList& mountPoints, const Outcome& outcome) const {
        Properties props;
        if (m_isPresent && m_access == "Write")
            return {};
        if (m_disk && m_disk->m_writeProtected)
            return refused(NotImplemented);
        if (!chosen() || !completed(props, mountPoints, false))
            return refused(NotFound);
        return askedToMount(props, outcome);
    }
    Answer umount(Properties props, const QStringList& mountPoints, const Outcome& outcome) {
        if (!m_isMounted)
            return {};
        if (!m_hasFS || !completed(props, mountPoints, false))
            return refused(NotFound);
        if (outcome.isBusy && !props.contains("lazy"))
            return {-1};
        if (isInUse())
            m_access = "Presence";
        m_isMounted = false;
        m_isMountOk = false;
        Answer answer;
        answer.isUnmounted = true;
        return answer;
    }
    Answer fixFSType() const {
        return {m_disk && m_part};
    }

    // Events.

    void plug(const Device& device) {
        if (device->m_idPath != slotId)
            return;
        const bool isDisk = device->m_partNum == 0;
        if (isDisk) {
            m_disk = device;
            m_part.clear();
        }
        const auto size = [](const Device& of) { return of->m_totalBlocks * of->m_blkSize; };
        const bool hasFiles = !device->m_fsType.isEmpty();
        if (hasFiles && (!m_part || size(device) > size(m_part)))
            m_part = device;
        m_wasProtected = m_wasProtected || device->m_writeProtected;
        m_isPresent = true;
        m_access = "Presence";
    }
    void unplug(const Device& device) {
        if (device->m_idPath != slotId)
            return;
        m_isPresent = false;
        if (device->m_partNum == 0)
            m_disk.clear();
        m_part.clear();
        m_access = "None";
    }
    void handleEvent(const QString& action, const Device& device) {
        if (action == "add" && device->m_partEntryType != efiSystemPartition)
            plug(device);
        else if (action == "remove")
            unplug(device);
    }
    void accessChange(StorageLocation::AccessType access) {
        m_access = StorageLocation::straccess(access);
    }

    LocationState state() const {
        const auto yesOrNo = [](bool is) { return QString(is ? "yes" : "no"); };
        const auto node = [](const Device& device) {
            return device ? device->m_devName : QString("-");
        };
        return {{"access", m_access},
                {"disk", node(m_disk)},
                {"enabled", yesOrNo(m_isEnabled)},
                {"mounted", yesOrNo(m_isMounted)},
                {"mountOk", yesOrNo(m_isMountOk)},
                {"part", node(m_part)},
                {"present", yesOrNo(m_isPresent)},
                {"protected", yesOrNo(m_wasProtected)},
                {"selected", node(chosen())}};
    }

private:
    static Answer refused(ErrorCode reason) {
        return {-1, reason};
    }
    /// The call of a device, with its result.
    static Answer asked(const Device& device, const QString& call, const Properties& props,
                        const Outcome& outcome) {
        return {outcome.result, outcome.reason, test::callString(device->m_devName, call, props)};
    }
    Answer askedToMount(const Properties& props, const Outcome& outcome) const {
        return asked(chosen(), "mount " + props["mountPoint"].toString(), props, outcome);
    }
    /// Completes the properties of a mount. \returns whether there is a mount point.
    bool completed(Properties& props, const QStringList& mountPoints, bool isReadOnly) const {
        if (!props.contains("mountPoint")) {
            if (mountPoints.isEmpty())
                return false;
            props["mountPoint"] = mountPoints.first();
        }
        props["readonly"] = isReadOnly;
        if (m_isMounted)
            props["remount"] = true;
        return true;
    }
    bool isInUse() const {
        return m_access == "Read" || m_access == "Write";
    }
    Device chosen() const {
        return m_part ? m_part : m_disk;
    }

    const bool m_hasFS;
    Device m_disk;
    Device m_part;
    QString m_access = "None";
    bool m_isEnabled = false;
    bool m_isPresent = false;
    bool m_isMounted = false;
    bool m_isMountOk = false;
    bool m_wasProtected = false;
};

// --- The walk -----------------------------------------------------------------------------------

/// Whether a tmpfs is mounted at the mount point for each umount().
enum class Mounts { No, Real };

class Walk {
public:
    Walk(unsigned seed, Mounts mounts)
        : m_random(seed), m_mounts(mounts), m_fs(seed % 4 == 0 ? nullptr : new MemFS),
          m_model(!m_fs.isNull()) {
        for (int i = 0; i < 14; ++i)
            m_devices += makeDevice(i);
        QObject::connect(&m_location, &StorageLocation::accessChanged, [this] { ++m_signals; });
    }

    /// Stops at the first step after which location and model differ.
    void run(int steps) {
        while (steps-- > 0 && !::testing::Test::HasFailure()) {
            step();
            const LocationState state = m_model.state();
            m_visited.insert(state["access"] + state["mounted"]);
        }
    }
    /// The devices, and the last 60 steps with the resulting state.
    std::string history() const {
        QStringList lines;
        for (const Device& device : m_devices)
            lines += QStringLiteral("%1: %2, number %3, %4 bytes, file system '%5'%6%7")
                         .arg(device->m_devName, device->m_idPath)
                         .arg(device->m_partNum)
                         .arg(device->capacity())
                         .arg(device->m_fsType, device->m_writeProtected ? ", protected" : "",
                              device->m_partEntryType == efiSystemPartition ? ", EFI" : "");
        lines += m_history.mid(m_history.size() - 60);
        return '\n' + lines.join('\n').toStdString() + '\n';
    }
    /// The number of different pairs of access() and mounted state that occurred.
    int visited() const {
        return m_visited.size();
    }

private:
    unsigned below(unsigned limit) {
        return static_cast<unsigned>(m_random() % limit);
    }
    bool onceIn(unsigned times) {
        return below(times) == 0;
    }
    template <class Choice>
    Choice oneOf(const std::vector<Choice>& choices) {
        return choices[below(static_cast<unsigned>(choices.size()))];
    }

    Device makeDevice(int index) {
        const bool isForeign = onceIn(8);
        const quint32 number = index < 4 ? 0 : 1 + below(3);
        const quint64 blocks = 100 * (1 + below(4));
        Device device = test::makeDevice(isForeign ? "platform-slot-2" : slotId, number, blocks,
                                         oneOf<QString>({"", "vfat", "ext4"}));
        device->m_devName = QStringLiteral("%1%2").arg(index < 4 ? "disk" : "part").arg(index);
        device->m_blkSize = oneOf<quint64>({512, 512, 512, 4096});
        device->m_writeProtected = onceIn(6);
        device->m_partEntryType = onceIn(6) ? efiSystemPartition : "0x83";
        return device;
    }
    Device anyDevice() {
        return m_devices[static_cast<int>(below(static_cast<unsigned>(m_devices.size())))];
    }
    /// Random properties; the operation need not use them.
    Properties anyProperties() {
        Properties props;
        if (onceIn(3))
            props["readonly"] = onceIn(2);
        if (onceIn(5))
            props["mountPoint"] = m_elsewhere.path();
        if (onceIn(4))
            props["lazy"] = onceIn(2);
        if (onceIn(8))
            props["remount"] = onceIn(2);
        if (onceIn(8))
            props["kill"] = 1;
        return props;
    }
    QStringList mountPoints() const {
        return FSSwitch::rootfs()->getMountPoints(m_fs);
    }

    void step() {
        switch (below(16)) {
        case 0:
        case 1:
        case 2:
            sendEvents();
            break;
        case 3:
            plugOrUnplug();
            break;
        case 4:
            changeSwitch();
            break;
        case 5:
            changeAccess();
            break;
        case 6:
        case 7:
        case 8:
            unmount();
            break;
        default:
            operate();
        }
        EXPECT_EQ(test::stateString(m_location.state()), test::stateString(m_model.state()));
        EXPECT_EQ(m_signals, 0);
    }

    // Events

    void sendEvents() {
        auto events = BDMon::EventListSPtr::create();
        QStringList sent;
        for (unsigned count = below(4); count > 0; --count) {
            BDMon::Event event(1, oneOf<QString>({"add", "add", "add", "remove", "change", ""}),
                               nullptr);
            const Device device = anyDevice();
            event.dev = device;
            events->append(event);
            m_model.handleEvent(event.action, device);
            sent += event.action + ' ' + device->m_devName;
        }
        expect("events: " + sent.join(", "), {}, {},
               [&] { return m_location.processBDEvents(events); });
    }
    void plugOrUnplug() {
        const Device device = anyDevice();
        const bool isAdded = !onceIn(3);
        isAdded ? m_model.plug(device) : m_model.unplug(device);
        expect((isAdded ? "plug " : "unplug ") + device->m_devName, {}, {}, [&] {
            isAdded ? m_location.addBlockDevice(device) : m_location.removeBlockDevice(device);
            return 0;
        });
    }
    void changeSwitch() {
        const QString mountPoint = oneOf<QString>({m_here.path(), m_there.path()});
        const bool isAdded = !onceIn(3);
        note((isAdded ? "add mount point " : "remove mount point ") + mountPoint);
        if (!isAdded)
            FSSwitch::rootfs()->remove(mountPoint);
        else if (m_fs)
            FSSwitch::rootfs()->add(mountPoint, m_fs);
    }
    void changeAccess() {
        const auto access = static_cast<StorageLocation::AccessType>(1 + below(4));
        m_model.accessChange(access);
        expect(QStringLiteral("access is changed to ") + StorageLocation::straccess(access), {}, {},
               [&] {
                   m_location.accessChange(access);
                   return 0;
               });
    }

    // Operations

    void operate() {
        const Outcome outcome =
            oneOf<Outcome>({{0, Ok}, {0, Ok}, {3, Ok}, {-1, Ok}, {-1, NotImplemented}, {-2, Ok}});
        Properties props = anyProperties();
        Properties* const given = props.isEmpty() && onceIn(2) ? nullptr : &props;
        switch (below(10)) {
        case 0:
            return expect("enable", m_model.enable(), {}, [&] { return m_location.enable(); });
        case 1:
            return expect("disable", m_model.disable(), {}, [&] { return m_location.disable(); });
        case 2:
            return expect("check", m_model.check(outcome), outcome,
                          [&] { return m_location.check(); });
        case 3:
            return expect(test::callString("whole", "format", props),
                          m_model.format(props, outcome), outcome,
                          [&] { return m_location.format(given); });
        case 4:
            return expect("isWriteProtected", m_model.isWriteProtected(), {},
                          [&] { return int(m_location.isWriteProtected()); });
        case 5:
            return expect("fixFSType", m_model.fixFSType(), {},
                          [&] { return int(m_location.fixFSType()); });
        case 6:
            return expect("mkReadOnly", m_model.mkReadOnly(mountPoints(), outcome), outcome,
                          [&] { return m_location.mkReadOnly(); });
        case 7:
            return expect("mkWriteable", m_model.mkWriteable(mountPoints(), outcome), outcome,
                          [&] { return m_location.mkWriteable(); });
        default:
            return expect(test::callString("chosen", "mount", props),
                          m_model.mount(props, mountPoints(), outcome), outcome,
                          [&] { return m_location.mount(given); });
        }
    }
    void unmount() {
        const Properties given = anyProperties();
        const QString mountPoint = given.value("mountPoint", mountPoints().value(0)).toString();
        const QString directory = QDir(mountPoint).path(); // without a trailing slash
        Outcome outcome;
        std::unique_ptr<MemoryMount> mount;
        if (m_mounts == Mounts::Real && !mountPoint.isEmpty()) {
            outcome.isBusy = onceIn(2);
            mount = std::make_unique<MemoryMount>(directory, outcome.isBusy ? MemoryMount::Busy
                                                                            : MemoryMount::Idle);
            ASSERT_TRUE(mount->isSetUp());
        }
        Properties props = given;
        const Answer answer = m_model.umount(given, mountPoints(), outcome);
        expect(test::callString(outcome.isBusy ? "busy:" : "idle:", "umount", given), answer,
               outcome, [&] { return m_location.umount(&props); });
        if (mount) {
            EXPECT_EQ(test::devicesAt(directory).isEmpty(), answer.isUnmounted);
        }
    }

    // Comparing

    void note(const QString& step) {
        m_history += QStringLiteral("%1: %2").arg(m_history.size() + 1).arg(step);
    }
    void expect(const QString& step, const Answer& answer, const Outcome& outcome,
                const std::function<int()>& call) {
        note(step +
             QStringLiteral("; devices return %1 (%2)").arg(outcome.result).arg(outcome.reason));
        for (const Device& device : m_devices) {
            device->result = outcome.result;
            device->reason = outcome.reason;
        }
        constexpr ErrorCode before = LibraryFailure;
        liberrno = before;
        EXPECT_EQ(call(), answer.result);
        if (answer.result == -1) {
            EXPECT_EQ(liberrno, answer.reason.value_or(before));
        }
        EXPECT_EQ(test::takeCalls(m_devices).join(", "), answer.call);
        m_history.last() += " -> " + test::stateString(m_location.state());
    }

    std::mt19937 m_random;
    const Mounts m_mounts;
    const test::LogCapture m_quiet{"stg=0"};
    const test::FreshRootSwitch m_rootSwitch;
    const test::TempDir m_here;
    const test::TempDir m_there;
    const test::TempDir m_elsewhere;
    const FS::SPtr m_fs;
    Properties m_props = {{"blkDevId", slotId}};
    QList<Device> m_devices;
    OpenLocation m_location{"card", m_fs, &m_props};
    Model m_model;
    int m_signals = 0;
    QStringList m_history;
    QSet<QString> m_visited;
};

void expectEqualOnWalk(unsigned seed, Mounts mounts) {
    Walk walk(seed, mounts);
    walk.run(5000);
    ASSERT_FALSE(::testing::Test::HasFailure()) << "seed " << seed << walk.history();
    EXPECT_EQ(walk.visited(), 8); // four kinds of access, each with and without a mount
}

class SystemLocationModel : public ::testing::TestWithParam<unsigned> {};
class SystemLocationModelMounts : public test::Isolated,
                                  public ::testing::WithParamInterface<unsigned> {};

TEST_P(SystemLocationModel, RandomWalk_EqualsModelAtEachStep) {
    expectEqualOnWalk(GetParam(), Mounts::No);
}

TEST_P(SystemLocationModelMounts, RandomWalk_EqualsModelAtEachStep) {
    expectEqualOnWalk(GetParam(), Mounts::Real);
}

INSTANTIATE_TEST_SUITE_P(Seeds, SystemLocationModel, ::testing::Range(1U, 9U));
INSTANTIATE_TEST_SUITE_P(Seeds, SystemLocationModelMounts, ::testing::Range(1U, 9U));

} // namespace
} // namespace oru::io
