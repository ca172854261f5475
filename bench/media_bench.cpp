// SPDX-License-Identifier: Apache-2.0
// The cost of processing udev's messages and the mount table, compared with libudev and the C
// library alone. The devices are simulated by umockdev, which slows down both sides of a
// comparison. So these benchmarks are a program of their own.
#include "report.h"

#include "support/system/isolation.h"

#include <oruio/bdmon.h>
#include <oruio/mediumkeeper.h>
#include <oruio/storagelocation.h>
#include <oruio/sysutils.h>

#include <benchmark/benchmark.h>

#include <QByteArray>
#include <QDir>
#include <QFile>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include <libudev.h>
#include <mntent.h>
#include <sys/select.h>
#include <umockdev.h>

namespace {

using benchmark::State;
using oru::io::BDMon;
using oru::io::MediumKeeper;
using oru::io::Properties;
using oru::io::SystemLocation;

constexpr int disks = 250;
constexpr int partitionsOfDisk = 3;
constexpr int devices = disks * (1 + partitionsOfDisk);
constexpr int events = 100;
constexpr int mounts = 10'000;

// Initialised before other threads exist.
const bool isIsolated = oru::io::test::isolate(oru::io::test::Namespaces::MountAndNetwork);

/// The simulated system of both sides.
class Media {
public:
    static Media& instance() {
        static Media media;
        return media;
    }
    /// The maximum number of udev's messages in the queue of a socket.
    static int queueLength() {
        QFile limit(QStringLiteral("/proc/sys/net/unix/max_dgram_qlen"));
        return limit.open(QFile::ReadOnly) ? limit.readAll().trimmed().toInt() : 0;
    }
    /// Queues the messages for one update.
    void sendEvents() {
        for (int i = 0; i < events; ++i)
            umockdev_testbed_uevent(m_testbed, m_lastDisk.constData(), "change");
    }

private:
    Media() : m_testbed(umockdev_testbed_new()) {
        for (int i = 0; i < disks; ++i)
            addDisk(i);
        const QString directory = qEnvironmentVariable("UMOCKDEV_DIR") + "/proc";
        QByteArray table;
        for (int i = 0; i < mounts; ++i)
            table += QByteArrayLiteral("/dev/disk") + QByteArray::number(i) + " /media/disk" +
                     QByteArray::number(i) + " vfat rw,noexec,noatime,usefree 0 0\n";
        QFile file(directory + "/mounts");
        if (!QDir().mkpath(directory) || !file.open(QFile::WriteOnly) ||
            file.write(table) != table.size())
            std::abort();
    }
    ~Media() {
        g_object_unref(m_testbed);
    }
    Q_DISABLE_COPY(Media)

    // Without a node in /dev: opening one takes much longer in umockdev than in the kernel.
    void addDisk(int number) {
        const QByteArray name = "disk" + QByteArray::number(number);
        const QByteArray path = "pci-0000:00:14.0-usb-0:" + QByteArray::number(number);
        const auto add = [&](const QByteArray& device, const char* parent, const char* type,
                             const char* partition) {
            char* const added = umockdev_testbed_add_device(
                m_testbed, "block", device.constData(), parent, nullptr, // no attributes
                "DEVTYPE", type, "ID_PATH", path.constData(), "PARTN", partition, "ID_BUS", "usb",
                "ID_MODEL", "Flash_Disk", "ID_FS_TYPE", "vfat", "ID_FS_LABEL", "CLIPS",
                "ID_FS_UUID", "12AB-34CD", "ID_FS_VERSION", "FAT32", "ID_PART_ENTRY_OFFSET", "8192",
                "ID_PART_ENTRY_SIZE", "15523840", "ID_PART_ENTRY_TYPE", "0xc", "ID_PART_TABLE_TYPE",
                "dos", nullptr);
            QByteArray result = added;
            g_free(added);
            return result;
        };
        m_lastDisk = add(name, nullptr, "disk", "0");
        for (int i = 1; i <= partitionsOfDisk; ++i)
            add(name + "p" + QByteArray::number(i), m_lastDisk.constData(), "partition", "1");
    }

    UMockdevTestbed* const m_testbed;
    QByteArray m_lastDisk;
};

/// Counts the events that the monitor reports.
class Received {
public:
    Received()
        : m_connection(QObject::connect(
              BDMon::instance(), &BDMon::notify,
              [this](const BDMon::EventListSPtr& batch) { count += batch->size(); })) {}
    ~Received() {
        QObject::disconnect(m_connection);
    }
    int count = 0;

private:
    Q_DISABLE_COPY(Received)
    const QMetaObject::Connection m_connection;
};

/// Reads every property. \returns whether there is an ID_PATH.
bool readProperties(udev_device* device) {
    bool hasPath = false;
    udev_list_entry* entry = udev_device_get_properties_list_entry(device);
    for (; entry; entry = udev_list_entry_get_next(entry)) {
        const char* const name = udev_list_entry_get_name(entry);
        benchmark::DoNotOptimize(udev_device_get_property_value(device, name));
        hasPath = hasPath || std::strcmp(name, "ID_PATH") == 0;
    }
    return hasPath;
}

udev_monitor* openMonitor(udev* context) {
    udev_monitor* const monitor = udev_monitor_new_from_netlink(context, "udev");
    udev_monitor_filter_add_match_subsystem_devtype(monitor, "block", nullptr);
    udev_monitor_enable_receiving(monitor);
    return monitor;
}

void startByLibrary(State& state) {
    Media::instance();
    Received received;
    for (auto _ : state) {
        BDMon::instance()->start();
        BDMon::instance()->stop();
    }
    if (received.count != static_cast<int>(state.iterations()) * devices)
        state.SkipWithError("devices are missing");
}

void startByLibudev(State& state) {
    Media::instance();
    udev* const context = udev_new();
    int found = 0;
    for (auto _ : state) {
        udev_monitor* const monitor = openMonitor(context);
        udev_enumerate* const present = udev_enumerate_new(context);
        udev_enumerate_add_match_subsystem(present, "block");
        udev_enumerate_scan_devices(present);
        udev_list_entry* entry = udev_enumerate_get_list_entry(present);
        for (; entry; entry = udev_list_entry_get_next(entry)) {
            udev_device* const device =
                udev_device_new_from_syspath(context, udev_list_entry_get_name(entry));
            found += readProperties(device);
            udev_device_unref(device);
        }
        udev_enumerate_unref(present);
        udev_monitor_unref(monitor);
    }
    udev_unref(context);
    if (found != static_cast<int>(state.iterations()) * devices)
        state.SkipWithError("devices are missing");
}

bool hasQueue(State& state) {
    const bool result = isIsolated && Media::queueLength() > events;
    if (!result)
        skip(state, "udev's messages: a longer queue for them needs root");
    return result;
}

void updateByLibrary(State& state) {
    if (!hasQueue(state))
        return;
    Media& media = Media::instance();
    BDMon::instance()->start();
    Received received;
    for (auto _ : state) {
        state.PauseTiming();
        media.sendEvents();
        state.ResumeTiming();
        BDMon::instance()->update(0);
    }
    BDMon::instance()->stop();
    if (received.count != static_cast<int>(state.iterations()) * events)
        state.SkipWithError("events are missing");
}

/// The keepers are of other slots than the disk of the events.
void updateWithKeepers(State& state) {
    constexpr int keepers = 8;
    std::vector<std::unique_ptr<SystemLocation>> slots;
    std::vector<std::unique_ptr<MediumKeeper>> kept;
    for (int i = 0; i < keepers; ++i) {
        Properties props = {{"blkDevId", "pci-0000:00:1f.2-ata-" + QString::number(i)}};
        slots.push_back(std::make_unique<SystemLocation>("slot", nullptr, &props));
        kept.push_back(std::make_unique<MediumKeeper>(slots.back().get()));
    }
    updateByLibrary(state);
}

void updateByLibudev(State& state) {
    if (!hasQueue(state))
        return;
    Media& media = Media::instance();
    udev* const context = udev_new();
    udev_monitor* const monitor = openMonitor(context);
    int found = 0;
    for (auto _ : state) {
        state.PauseTiming();
        media.sendEvents();
        state.ResumeTiming();
        while (udev_device* const device = udev_monitor_receive_device(monitor)) {
            found += readProperties(device);
            udev_device_unref(device);
            const int fd = udev_monitor_get_fd(monitor);
            fd_set readable;
            FD_ZERO(&readable);
            FD_SET(fd, &readable);
            timeval noWait = {0, 0};
            select(fd + 1, &readable, nullptr, nullptr, &noWait);
        }
    }
    udev_monitor_unref(monitor);
    udev_unref(context);
    if (found != static_cast<int>(state.iterations()) * events)
        state.SkipWithError("events are missing");
}

void tableByLibrary(State& state) {
    Media::instance();
    for (auto _ : state) {
        if (oru::io::umountPath("/media/none", nullptr) != 0)
            state.SkipWithError("umountPath failed");
    }
}

void tableByGetmntent(State& state) {
    Media::instance();
    for (auto _ : state) {
        FILE* const table = std::fopen("/proc/mounts", "re");
        int lines = 0;
        while (const mntent* mount = getmntent(table)) {
            benchmark::DoNotOptimize(std::strcmp(mount->mnt_dir, "/media/none"));
            ++lines;
        }
        endmntent(table);
        if (lines != mounts)
            state.SkipWithError("lines are missing");
    }
}

BENCHMARK(startByLibrary)->Name("start/library")->Iterations(1);
BENCHMARK(startByLibudev)->Name("start/libudev")->Iterations(1);
BENCHMARK(updateByLibrary)->Name("update/library")->Iterations(4);
BENCHMARK(updateWithKeepers)->Name("update/8_keepers")->Iterations(4);
BENCHMARK(updateByLibudev)->Name("update/libudev")->Iterations(4);
BENCHMARK(tableByLibrary)->Name("mount_table/library");
BENCHMARK(tableByGetmntent)->Name("mount_table/getmntent");

} // namespace
