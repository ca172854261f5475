// SPDX-License-Identifier: Apache-2.0
#include <oruio/bdmon.h>

#include "core/cancelguard_p.h"
#include "media/bdmon_p.h"

#include <QDeadlineTimer>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <utility>

#include <libudev.h>
#include <poll.h>

#include "core/log_p.h"

namespace oru::io {

ORUIO_SHARED_LOG_CHANNEL(bdmonLogChannel, "libio");

namespace {

const bool ORUIO_UDEVDBG = std::getenv("ORUIO_UDEVDBG") != nullptr;

struct UdevDeleter {
    void operator()(udev* context) const {
        udev_unref(context);
    }
    void operator()(udev_monitor* monitor) const {
        udev_monitor_unref(monitor);
    }
    void operator()(udev_enumerate* enumeration) const {
        udev_enumerate_unref(enumeration);
    }
    void operator()(udev_device* device) const {
        udev_device_unref(device);
    }
};

template <class T>
using UdevPtr = std::unique_ptr<T, UdevDeleter>;

/// Whether both describe the same disk or partition with the same content. The properties that
/// only describe an event, such as SEQNUM, are not compared.
bool isSameDevice(const Properties& one, const Properties& other) {
    static const QStringList compared{
        UDEV_ID_PATH,
        UDEV_DEVTYPE,
        UDEV_DEVNAME,
        UDEV_ID_PART_TABLE_TYPE,
        UDEV_PARTN,
        UDEV_ID_PART_ENTRY_OFFSET,
        UDEV_ID_PART_ENTRY_SIZE,
        UDEV_ID_PART_ENTRY_TYPE,
        UDEV_ID_FS_TYPE,
        UDEV_ID_FS_LABEL,
        QStringLiteral("ID_FS_UUID"),
    };
    return std::all_of(compared.begin(), compared.end(), [&](const QString& key) {
        return valueOf(one, key) == valueOf(other, key);
    });
}

/// Whether both describe the same medium: the kernel gives each a number (DISKSEQ).
bool isSameMedium(const Properties& one, const Properties& other) {
    const QString key = QStringLiteral("DISKSEQ");
    return valueOf(one, key) == valueOf(other, key);
}

/// Collects the events of a batch.
struct Batch {
    const BDMon::EventListSPtr events{new QList<BDMon::Event>};
    const BDMon::EventListByDeviceSPtr eventsByDevice{new QMap<QString, QList<BDMon::Event>>};

    void add(const QString& action, Properties& props) {
        const BDMon::Event event(events->size() + 1, action, new LinuxBD(props));
        events->append(event);
        (*eventsByDevice)[event.dev->m_idPath].append(event);
    }
    void publish() const {
        if (!events->isEmpty())
            Q_EMIT BDMon::instance()->notify(events, eventsByDevice);
    }
};

} // namespace

BDMon::Event::Event(int number, QString what, BlockDevice* device)
    : seq(number), action(std::move(what)), dev(device) {}

class BDMon::Data {
public:
    Data() : context(udev_new()) {
        if (context)
            return;
        std::fputs("Fatal: Failed to create udev context\n", stderr);
        std::exit(1);
    }

    static const char* getProps(udev_device* dev, Properties& props);
    UdevPtr<udev_device> receive(bool& hasOverflowed) const;
    void awaitEvent(unsigned int limitMs) const;
    QList<Properties> present() const;
    void report(Batch& batch, const QString& action, Properties props);
    void reportDifferences(Batch& batch);

    static BDMon bdm_instance;

    const UdevPtr<udev> context;
    UdevPtr<udev_monitor> monitor; ///< null while stopped
    /// The devices that are present as far as they were reported, by DEVPATH.
    QMap<QString, Properties> known;
};

BDMon BDMon::Data::bdm_instance;

/// Copies the properties of `dev`. \returns its ID_PATH, or null when it has none.
const char* BDMon::Data::getProps(udev_device* dev, Properties& props) {
    const char* idPath = nullptr;
    if (ORUIO_UDEVDBG)
        std::puts("\n*** DEVICE ***");
    udev_list_entry* entry = udev_device_get_properties_list_entry(dev);
    for (; entry; entry = udev_list_entry_get_next(entry)) {
        const char* const name = udev_list_entry_get_name(entry);
        const char* const value = udev_device_get_property_value(dev, name);
        if (UDEV_ID_PATH == QLatin1String(name))
            idPath = value;
        if (ORUIO_UDEVDBG)
            std::printf("  %-20s %s\n", name, value ? value : "");
        props.insert(props.constEnd(), QString::fromUtf8(name), QString::fromUtf8(value));
    }
    if (ORUIO_UDEVDBG)
        std::puts("\n*** END DEVICE ***");
    return idPath;
}

/// The next queued event, or null when there is none. Sets `hasOverflowed` when events were lost.
UdevPtr<udev_device> BDMon::Data::receive(bool& hasOverflowed) const {
    const CancelGuard guard; // libudev is not written to be left in the middle
    UdevPtr<udev_device> device;
    do {
        errno = 0;
        device.reset(udev_monitor_receive_device(monitor.get()));
        // After an overflow (ENOBUFS) the events still queued can be read.
        hasOverflowed = hasOverflowed || (!device && errno == ENOBUFS);
    } while (!device && (errno == ENOBUFS || errno == EINTR));
    return device;
}

/// All block devices of the system that have an ID_PATH, disks before their partitions.
QList<Properties> BDMon::Data::present() const {
    const CancelGuard guard;
    QList<Properties> devices;
    const UdevPtr<udev_enumerate> enumeration(udev_enumerate_new(context.get()));
    udev_enumerate_add_match_subsystem(enumeration.get(), "block");
    udev_enumerate_scan_devices(enumeration.get());
    udev_list_entry* entry = udev_enumerate_get_list_entry(enumeration.get());
    for (; entry; entry = udev_list_entry_get_next(entry)) {
        const UdevPtr<udev_device> device(
            udev_device_new_from_syspath(context.get(), udev_list_entry_get_name(entry)));
        Properties props;
        if (device && getProps(device.get(), props))
            devices.append(props);
    }
    return devices;
}

void BDMon::Data::report(Batch& batch, const QString& action, Properties props) {
    const QString path = valueOf(props, UDEV_DEVPATH);
    if (action == QLatin1String("remove"))
        known.remove(path);
    else
        known[path] = props;
    batch.add(action, props);
}

/// Reports the differences between the known devices and those that are present, as events were
/// lost. Nothing is reported for a device that has not changed.
void BDMon::Data::reportDifferences(Batch& batch) {
    const int before = batch.events->size();
    const auto reportAs = [&](const char* action, Properties props) {
        props[UDEV_ACTION] = QLatin1String(action);
        props.remove(UDEV_SEQNUM);
        report(batch, QLatin1String(action), props);
    };
    QMap<QString, Properties> now;
    for (const Properties& props : present())
        now.insert(valueOf(props, UDEV_DEVPATH), props);
    const QList<Properties> former = known.values();
    for (auto device = former.rbegin(); device != former.rend(); ++device) {
        const auto found = now.constFind(valueOf(*device, UDEV_DEVPATH));
        if (found == now.constEnd() || !isSameMedium(*found, *device))
            reportAs("remove", *device);
    }
    for (const Properties& props : qAsConst(now)) {
        const auto found = known.constFind(valueOf(props, UDEV_DEVPATH));
        if (found == known.constEnd())
            reportAs("add", props);
        else if (!isSameDevice(*found, props))
            reportAs("change", props);
    }
    ORUIO_LOG(LogNotice, "Events of block devices were lost. %d differences found\n",
              batch.events->size() - before);
}

/// Waits until an event is queued, for at most `limitMs` milliseconds.
void BDMon::Data::awaitEvent(unsigned int limitMs) const {
    const QDeadlineTimer deadline(qint64{limitMs});
    struct pollfd poller = {udev_monitor_get_fd(monitor.get()), POLLIN, 0};
    int ready = 0;
    do {
        const qint64 left = deadline.remainingTime();
        ready = ::poll(&poller, 1,
                       static_cast<int>(std::min<qint64>(left, std::numeric_limits<int>::max())));
    } while ((ready == 0 && !deadline.hasExpired()) || (ready < 0 && errno == EINTR));
}

BDMon::BDMon() : m_data(new Data) {
    // For queued connections and QSignalSpy.
    qRegisterMetaType<BlockDevice::SPtr>();
    qRegisterMetaType<EventListSPtr>();
    qRegisterMetaType<EventListByDeviceSPtr>();
}

BDMon::~BDMon() = default;

BDMon* BDMon::instance() {
    return &Data::bdm_instance;
}

int BDMon::update(unsigned int quiescent_ms) {
    if (!isRunning())
        return 0;
    Batch batch;
    bool hasOverflowed = false;
    while (UdevPtr<udev_device> device = m_data->receive(hasOverflowed)) {
        Properties props;
        if (Data::getProps(device.get(), props))
            m_data->report(batch, valueOf(props, UDEV_ACTION), props);
        device.reset();
        m_data->awaitEvent(quiescent_ms);
    }
    if (hasOverflowed)
        m_data->reportDifferences(batch);
    batch.publish();
    return 0;
}

void BDMon::start() {
    if (isRunning())
        return;
    m_data->monitor.reset(udev_monitor_new_from_netlink(m_data->context.get(), "udev"));
    udev_monitor* const monitor = m_data->monitor.get();
    if (!monitor) {
        ORUIO_LOG(LogDebug, "Fatal: Failed to create udev monitor\n");
        std::exit(1);
    }
    udev_monitor_filter_add_match_subsystem_devtype(monitor, "block", nullptr);
    // Receive before enumerating, so that no event is missed. A device that arrives in between may
    // be reported twice.
    if (udev_monitor_enable_receiving(monitor) < 0) {
        // isRunning() must not return true for a monitor that receives nothing.
        ORUIO_LOG(LogFailure, "The udev monitor cannot receive\n");
        m_data->monitor.reset();
        return;
    }

    Batch batch;
    for (const Properties& props : m_data->present())
        m_data->report(batch, QStringLiteral("add"), props);
    batch.publish();
}

void BDMon::stop() {
    const CancelGuard guard;
    m_data->monitor.reset();
    m_data->known.clear();
}

int BDMon::descriptor() const {
    return m_data->monitor ? udev_monitor_get_fd(m_data->monitor.get()) : -1;
}

bool BDMon::isRunning() {
    return m_data->monitor != nullptr;
}

} // namespace oru::io
