// SPDX-License-Identifier: Apache-2.0
// Keepers over random events, exchanges and calls, compared with the mount table of the kernel.
//
// ORUIO_KEEPER_STEPS and ORUIO_KEEPER_SEED: the number of steps and the seed of the one run.
#include "keptslot.h"

#include "support/suite/qtprint.h"
#include "support/system/isolated.h"

#include <oruio/fsnfs.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace oru::io {
namespace {

using test::KeptSlot;

unsigned number(const char* variable, unsigned normally) {
    const char* const value = std::getenv(variable);
    return value ? static_cast<unsigned>(std::strtoul(value, nullptr, 10)) : normally;
}

/// Random numbers, with the seed for the report of a failure.
class Chance {
public:
    explicit Chance(unsigned seed) : m_random(seed) {}

    unsigned below(unsigned limit) {
        return static_cast<unsigned>(m_random() % limit);
    }
    bool onceIn(unsigned times) {
        return below(times) == 0;
    }

private:
    std::mt19937 m_random;
};

/// A file that keeps its file system busy while it is open.
class OpenFile {
public:
    ~OpenFile() {
        close();
    }
    void open(const QString& directory) {
        close();
        m_fd = ::open(qPrintable(directory + "/."), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    void close() {
        if (m_fd != -1)
            ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd = -1;
};

MediumKeeper::Policy impatient() {
    MediumKeeper::Policy policy;
    policy.firstRetryMs = 0;
    policy.longestRetryMs = 0;
    policy.probeMs = 0;
    return policy;
}

// --- a slot -------------------------------------------------------------------------------------

class RandomSlot {
public:
    explicit RandomSlot(unsigned seed) : m_chance(seed) {}

    /// One event, exchange or call. \returns what it was.
    QString step() {
        QString did;
        switch (m_chance.below(14)) {
        case 0:
        case 1:
            did = insert();
            break;
        case 2:
            did = remove();
            break;
        case 3:
            did = remove() + ", " + insert(); // two batches
            break;
        case 4:
        case 5:
        case 6:
            did = repeat();
            break;
        case 7:
            did = addSibling();
            break;
        case 8:
        case 9:
            did = callKeeper();
            break;
        case 10:
            did = callLocation();
            break;
        case 11:
            did = disturbMounts();
            break;
        case 12:
            m_slot.failure = m_slot.failure ? 0 : EIO;
            did = m_slot.failure ? "mounts fail" : "mounts succeed";
            break;
        default:
            m_chance.onceIn(2) ? m_file.open(m_slot.path) : m_file.close();
            did = "file";
        }
        m_slot.keeper.step();
        return did;
    }
    QString problem() {
        const QString untruth = m_slot.untruth();
        if (!untruth.isEmpty())
            return untruth;
        const auto state = m_slot.keeper.state();
        const bool isAsWanted = (state == MediumKeeper::Mounted) == m_isWanted || m_isAdopted;
        if (m_slot.isMountable() && !isAsWanted)
            return QStringLiteral("it should%1 be mounted, the state is %2")
                .arg(m_isWanted ? "" : " not")
                .arg(state);
        return {};
    }

private:
    BDMon::Event event(const QString& action, int part) {
        return m_slot.event(
            action, m_name + (part ? QString::number(part) : QString()), static_cast<quint32>(part),
            part ? static_cast<quint64>(1000 * part) : m_size, part ? "ext4" : "", m_isProtected);
    }
    QString insert() {
        if (!m_slot.present.isEmpty())
            return "nothing";
        // Another medium of the same name, or of another name.
        m_size += 8;
        m_name = m_chance.onceIn(2) ? "/dev/disk" : "/dev/other";
        m_isProtected = m_chance.onceIn(5);
        m_isWanted = true;
        m_isAdopted = false;
        QList<BDMon::Event> events{event("add", 0)};
        for (unsigned part = 1 + m_chance.below(2); part > 0; --part) {
            events.insert(static_cast<int>(m_chance.below(2)),
                          event("add", static_cast<int>(part)));
            if (m_chance.onceIn(3)) {
                test::deliver(events);
                events.clear();
                events.append(event("add", 0));
            }
        }
        test::deliver(events);
        return "insert " + m_name;
    }
    QString remove() {
        QList<BDMon::Event> events;
        for (const BlockDevice::SPtr& device : m_slot.present.values()) {
            if (device->m_partNum != 0)
                events.append(event("remove", static_cast<int>(device->m_partNum)));
        }
        if (m_slot.present.isEmpty() && events.isEmpty())
            return "nothing";
        events.append(event("remove", 0));
        if (m_chance.onceIn(3))
            events = {events.last()}; // events of the partitions were lost
        test::deliver(events);
        return "remove";
    }
    QString repeat() {
        if (m_slot.present.isEmpty())
            return "nothing";
        QList<BDMon::Event> events;
        for (const BlockDevice::SPtr& device : m_slot.present.values())
            events.append(
                event(m_chance.onceIn(3) ? "change" : "add", static_cast<int>(device->m_partNum)));
        test::deliver(events);
        return "report again";
    }
    QString addSibling() {
        if (m_slot.present.isEmpty())
            return "nothing";
        const int part = 3 + static_cast<int>(m_chance.below(2));
        const bool isThere = m_slot.present.contains(m_name + QString::number(part));
        test::deliver({event(isThere ? "remove" : "add", part)});
        return QStringLiteral("%1 sibling %2").arg(isThere ? "remove" : "add").arg(part);
    }
    QString callKeeper() {
        const bool isLazy = m_chance.onceIn(2);
        const auto wanted = m_chance.onceIn(2) ? StorageLocation::Read : StorageLocation::Write;
        if (m_chance.onceIn(2)) {
            m_slot.keeper.mount(wanted);
            m_isWanted = true;
            m_isAdopted = false;
            return QStringLiteral("mount ") + StorageLocation::straccess(wanted);
        }
        if (m_slot.keeper.unmount(isLazy) == 0)
            m_isWanted = m_isAdopted = false;
        return "unmount";
    }
    QString callLocation() {
        SystemLocation& location = m_slot.location;
        const std::vector<std::function<void()>> calls{
            [&] { location.mount(nullptr); },
            [&] { location.mkReadOnly(); },
            [&] { location.mkWriteable(); },
            [&] { location.umount(nullptr); },
            [&] { location.accessChange(StorageLocation::Write); },
            [&] {
                for (const BlockDevice::SPtr& device : m_slot.present)
                    location.addBlockDevice(device);
            },
            [&] {
                for (const BlockDevice::SPtr& device : m_slot.present)
                    location.removeBlockDevice(device);
            }};
        const unsigned which = m_chance.below(static_cast<unsigned>(calls.size()));
        calls[which]();
        // What it has mounted against the wish stays mounted.
        m_isAdopted = !m_isWanted;
        return QStringLiteral("call %1 of the location").arg(which);
    }
    QString disturbMounts() {
        const QByteArray path = QFile::encodeName(m_slot.path);
        if (m_chance.onceIn(2))
            umount2(path.constData(), MNT_DETACH);
        else
            ::mount("foreign", path.constData(), "tmpfs", 0, nullptr);
        return "mount(2) or umount2(2) by another program";
    }

    Chance m_chance;
    KeptSlot m_slot{impatient()};
    OpenFile m_file;
    QString m_name = "/dev/disk";
    quint64 m_size = 100'000;
    bool m_isProtected = false;
    bool m_isWanted = true;
    bool m_isAdopted = false; ///< may have been mounted by others, against the wish
};

// --- a share ------------------------------------------------------------------------------------

/// An export that a tmpfs stands in for.
class MountingNfs : public NFS {
public:
    using NFS::NFS;

    int connect(Properties) override {
        disconnect();
        if (!isServed)
            return 32;
        return ::mount("export", qPrintable(mountPoint()), "tmpfs", isProtected ? MS_RDONLY : 0,
                       nullptr);
    }
    bool isConnected() override {
        return isServed && isMounted();
    }
    bool isMounted() const {
        return !test::devicesAt(mountPoint()).isEmpty();
    }

    bool isServed = true; ///< whether the server answers
    bool isProtected = false;
};

class RandomShare {
public:
    explicit RandomShare(unsigned seed) : m_chance(seed) {}

    QString step() {
        QString did;
        switch (m_chance.below(6)) {
        case 0:
            m_fs->isServed = !m_fs->isServed;
            did = m_fs->isServed ? "server up" : "server down";
            break;
        case 1:
            if (m_fs->isMounted())
                umount2(qPrintable(m_directory.path()), MNT_DETACH);
            did = "umount2(2) by another program";
            break;
        case 2:
            did = "mount";
            m_isWanted = true;
            m_keeper.mount(m_chance.onceIn(3) ? StorageLocation::Read : StorageLocation::Write);
            break;
        case 3:
            did = "unmount";
            if (m_keeper.unmount(m_chance.onceIn(2)) == 0)
                m_isWanted = false;
            break;
        case 4:
            m_chance.onceIn(2) ? m_file.open(m_directory.path()) : m_file.close();
            did = "file";
            break;
        default:
            did = "server exports it otherwise";
            m_fs->isProtected = !m_fs->isProtected;
        }
        m_keeper.step();
        m_keeper.step(); // notices and connects again
        return did;
    }
    QString problem() {
        const bool isUp = m_fs->isServed && m_isWanted;
        const auto access = m_keeper.access();
        if (access != m_location.access())
            return "the location says otherwise";
        if ((m_keeper.state() == MediumKeeper::Mounted) != isUp ||
            (access >= StorageLocation::Read) != isUp)
            return QStringLiteral("state %1, access %2")
                .arg(m_keeper.state())
                .arg(StorageLocation::straccess(access));
        if (m_fs->isMounted() != isUp)
            return QStringLiteral("%1 mounts").arg(test::devicesAt(m_directory.path()).size());
        return {};
    }

private:
    Chance m_chance;
    const test::TempDir m_directory;
    const QSharedPointer<MountingNfs> m_fs{new MountingNfs(m_directory.path())};
    Properties m_props = {{"target", "server:/export"}};
    RemoteLocation m_location{"share", m_fs, &m_props};
    OpenFile m_file;
    MediumKeeper m_keeper{&m_location, impatient()};
    bool m_isWanted = true;
};

/// Stops at the first step after which the keeper and the kernel differ.
template <class Place>
void run(unsigned steps) {
    const test::FreshRootSwitch rootSwitch;
    const unsigned seed = number("ORUIO_KEEPER_SEED", std::random_device()());
    Place place(seed);
    QStringList history;
    const unsigned last = number("ORUIO_KEEPER_STEPS", steps);
    for (unsigned step = 0; step < last; ++step) {
        history += place.step();
        const QString problem = place.problem();
        ASSERT_EQ(problem, "")
            << "seed " << seed << " step " << step << ": "
            << history.mid(std::max(0, history.size() - 12)).join("; ").toStdString();
    }
}

} // namespace

using MediumKeeperModel = test::Isolated;

TEST_F(MediumKeeperModel, RandomEventsOfSlot_AsTheKernelSays) {
    run<RandomSlot>(150);
}

TEST_F(MediumKeeperModel, RandomEventsOfShare_AsTheKernelSays) {
    run<RandomShare>(100);
}

} // namespace oru::io
