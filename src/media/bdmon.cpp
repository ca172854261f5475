#include <oruio/bdmon.h>
#include <oruio/error.h>
#include <oruio/sysutils.h>

#include "core/mounttable_p.h"
#include "core/systemtext_p.h"

#include <QDeadlineTimer>
#include <QDir>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>

#include <fcntl.h>
#include <libudev.h>
#include <linux/fs.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/log_p.h"

ORUIO_LOG_CHANNEL("libio");

namespace oru::io {

const QString UDEV_ID_PATH = QStringLiteral("ID_PATH");
const QString UDEV_DEVTYPE = QStringLiteral("DEVTYPE");
const QString UDEV_DEVNAME = QStringLiteral("DEVNAME");
const QString UDEV_ID_PART_TABLE_TYPE = QStringLiteral("ID_PART_TABLE_TYPE");
const QString UDEV_PARTN = QStringLiteral("PARTN");
const QString UDEV_ID_PART_ENTRY_OFFSET = QStringLiteral("ID_PART_ENTRY_OFFSET");
const QString UDEV_ID_PART_ENTRY_SIZE = QStringLiteral("ID_PART_ENTRY_SIZE");
const QString UDEV_ID_FS_TYPE = QStringLiteral("ID_FS_TYPE");
const QString UDEV_ID_FS_LABEL = QStringLiteral("ID_FS_LABEL");
const QString UDEV_ACTION = QStringLiteral("ACTION");
const QString UDEV_SEQNUM = QStringLiteral("SEQNUM");
const QString UDEV_DEVPATH = QStringLiteral("DEVPATH");
const QString UDEV_ID_PART_ENTRY_TYPE = QStringLiteral("ID_PART_ENTRY_TYPE");

namespace {

const bool ORUIO_UDEVDBG = std::getenv("ORUIO_UDEVDBG") != nullptr;

/// Opens for reading. Whatever is there, nothing is waited for but a block device's medium, which
/// O_NONBLOCK would take for present. \returns a descriptor, or -1 with errno.
int openToRead(const QString& path) {
    return withPath(path, [](const char* p) {
        struct stat st;
        if (::stat(p, &st) != 0)
            return -1;
        const int flags = S_ISBLK(st.st_mode) ? 0 : O_NONBLOCK;
        return ::open(p, O_RDONLY | O_CLOEXEC | O_NOCTTY | flags);
    });
}

QString textOf(const Properties& props, const QString& key) {
    const auto property = props.constFind(key);
    return property == props.constEnd() ? QString() : property->toString();
}

/// The text of `key` in `props`, which may be null.
QString textOf(const Properties* props, const QString& key) {
    return props ? textOf(*props, key) : QString();
}

/// Whether `props`, which may be null, has `key` and its value is true.
bool isSet(const Properties* props, const QString& key) {
    return props && props->value(key).toBool();
}

} // namespace

// --- BlockDevice --------------------------------------------------------------------------------

BlockDevice::~BlockDevice() = default;

quint64 BlockDevice::capacity() const {
    return m_totalBlocks * m_blkSize;
}

bool BlockDevice::isMountable() const {
    return !m_fsType.isEmpty();
}

// --- LinuxBD ------------------------------------------------------------------------------------

namespace {

/// Sets what a device node tells of itself.
void readGeometry(BlockDevice& device, bool isDisk) {
    device.m_blkSize = 512;
    const int fd = openToRead(device.m_devName);
    if (fd == -1)
        return;
    unsigned int physical = 0;
    if (::ioctl(fd, BLKPBSZGET, &physical) == 0 && physical > 0)
        device.m_blkSize = physical;
    quint64 bytes = 0;
    if (isDisk && ::ioctl(fd, BLKGETSIZE64, &bytes) == 0)
        device.m_totalBlocks = bytes / device.m_blkSize;
    ::close(fd);
}

/// Only SD cards have a switch that the kernel tells of.
void probeWriteProtection(BlockDevice& card) {
    const QString key = QStringLiteral("WRITE_PROTECTED");
    card.m_devPath = QStringLiteral("/sys") + card.m_devPath + QStringLiteral("/ro");
    const int fd = openToRead(card.m_devPath);
    if (fd <= 0) {
        ORUIO_LOG(LogNotice, "Cannot access() /sys dev path: %s\n",
                  card.m_devPath.toUtf8().constData());
        card.m_props[key] = false;
    } else {
        char state = 0;
        if (::read(fd, &state, 1) == 1) {
            card.m_writeProtected = state == '1';
            card.m_props[key] = card.m_writeProtected;
        }
        if (card.m_writeProtected)
            ORUIO_LOG(LogNotice, "%s is write protected\n", card.m_devName.toUtf8().constData());
    }
    if (fd != -1)
        ::close(fd);
}

} // namespace

LinuxBD::LinuxBD(Properties& udevProps) {
    const auto text = [&](const QString& key) { return textOf(udevProps, key); };
    m_props = udevProps;
    m_idPath = text(UDEV_ID_PATH);
    m_partNum = text(UDEV_PARTN).toUInt();

    m_devName = text(UDEV_DEVNAME);
    ORUIO_LOG(LogDebug, "Dev path: %s", m_devName.toUtf8().constData());
    const bool isDisk = text(UDEV_DEVTYPE) == QLatin1String("disk");
    readGeometry(*this, isDisk);
    if (!isDisk) {
        m_startBlock = text(UDEV_ID_PART_ENTRY_OFFSET).toULongLong();
        m_totalBlocks = text(UDEV_ID_PART_ENTRY_SIZE).toULongLong();
    }

    m_fsType = text(UDEV_ID_FS_TYPE);
    m_fsLabel = text(UDEV_ID_FS_LABEL);
    m_partTableType = text(UDEV_ID_PART_TABLE_TYPE);
    m_seqNum = text(UDEV_SEQNUM).toInt();
    m_action = text(UDEV_ACTION);
    m_devPath = text(UDEV_DEVPATH);
    m_partEntryType = text(UDEV_ID_PART_ENTRY_TYPE);
    if (m_devPath.contains(QLatin1String("mmcblk")))
        probeWriteProtection(*this);
}

LinuxBD::~LinuxBD() = default;

int LinuxBD::mount(QString mountPoint, const Properties* props) {
    liberrno = Ok;
    // Else another directory would be made than the one to mount on.
    if (!checkQtEncoding(mountPoint))
        return -1;
    if (mountPoint.isEmpty() || !QDir(mountPoint).mkpath(QStringLiteral("."))) {
        errno = ENOENT;
        return -1;
    }
    unsigned long flags = MS_MGC_VAL | MS_NOATIME | MS_NOEXEC;
    if (isSet(props, QStringLiteral("readonly")))
        flags |= MS_RDONLY;
    if (isSet(props, QStringLiteral("remount")))
        flags |= MS_REMOUNT;

    const bool isExfat = m_fsType == QLatin1String("exfat");
    const bool isFat = m_fsType == QLatin1String("vfat") || m_fsType == QLatin1String("fat");
    SystemText type;
    if (!toSystem(isExfat ? QStringLiteral("ufsd") : m_fsType, type))
        return -1;
    const char* const data = isExfat ? "nls=utf8" : isFat ? "usefree" : nullptr;
    return withPaths(m_devName, mountPoint, [&](const char* device, const char* directory) {
        ORUIO_LOG(LogDebug, "mount %s %s %s flags 0x%x %s\n", device, directory, type.constData(),
                  static_cast<unsigned int>(flags), data ? data : "<>");
        const int result = ::mount(device, directory, type.constData(), flags, data);
        if (result != 0) {
            ORUIO_LOG(LogWarning, "mount of %s to %s as %s failed: %s\n", device, directory,
                      type.constData(), std::strerror(errno));
        }
        return result;
    });
}

int LinuxBD::umount(const Properties* props) {
    liberrno = Ok;
    MountTable mounts;
    int result = mounts.isRead() ? 0 : -1;
    const QByteArray device = m_devName.toUtf8();
    const MountTable::Mount* mount = nullptr;
    while (result == 0 && (mount = mounts.next())) {
        if (device != mount->device && device != mount->mountPoint)
            continue;
        ORUIO_LOG(LogDebug, "umount device '%s' from '%s'", device.constData(), mount->mountPoint);
        result = umountPath(mount->mountPoint, props);
    }
    m_umountFailed = result != 0;
    return result;
}

int LinuxBD::fsck(const Properties* props) {
    liberrno = Ok;
    const QString retries = QStringLiteral("retries");
    const int runs =
        props && props->contains(retries) ? props->value(retries).toInt() : FSCK_RETRIES;
    return SysCmd("fsck")
        .addArg(m_fsType, "-t")
        .addArg(m_devName)
        .addArg(textOf(props, QStringLiteral("cmd_opts")))
        .exec(runs);
}

int LinuxBD::mkfs(const Properties* props) {
    liberrno = Ok;
    return SysCmd("mkfs")
        .addArg(textOf(props, QStringLiteral("fs_type")), "-t")
        .addArg(m_devName)
        .addArg(textOf(props, QStringLiteral("cmd_opts")))
        .exec(1);
}

int LinuxBD::format(const Properties* props) {
    liberrno = Ok;
    const bool kills = props && props->contains(QStringLiteral("kill"));
    return SysCmd("format").addArg(QString(), kills ? "-k" : nullptr).addArg(m_devName).exec(1);
}

Properties LinuxBD::props() {
    return m_props;
}

// --- BDMon --------------------------------------------------------------------------------------

namespace {

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

/// A batch in the making.
struct Batch {
    BDMon::EventListSPtr events = BDMon::EventListSPtr::create();
    BDMon::EventListByDeviceSPtr eventsByDevice = BDMon::EventListByDeviceSPtr::create();

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
    UdevPtr<udev_device> receive() const;
    void awaitEvent(unsigned int limitMs) const;

    static BDMon bdm_instance;

    const UdevPtr<udev> context;
    UdevPtr<udev_monitor> monitor; ///< null while stopped
};

BDMon BDMon::Data::bdm_instance;

/// Copies the properties of `dev`. \returns its ID_PATH, null when it has none.
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

/// The next event that is queued; null when there is none.
UdevPtr<udev_device> BDMon::Data::receive() const {
    UdevPtr<udev_device> device;
    do {
        errno = 0;
        device.reset(udev_monitor_receive_device(monitor.get()));
        // When the queue was too short for all, what it holds is still to be had.
    } while (!device && (errno == ENOBUFS || errno == EINTR));
    return device;
}

/// Waits until an event is queued, for no longer than `limitMs`.
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
    // For connections across threads, and for QSignalSpy.
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
    while (UdevPtr<udev_device> device = m_data->receive()) {
        Properties props;
        if (Data::getProps(device.get(), props))
            batch.add(textOf(props, UDEV_ACTION), props);
        device.reset();
        m_data->awaitEvent(quiescent_ms);
    }
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
    // From here on nothing is missed; what comes until all is enumerated may be told of twice.
    if (udev_monitor_enable_receiving(monitor) < 0) {
        // One that hears nothing must not look as if it were running.
        ORUIO_LOG(LogFailure, "The udev monitor cannot receive\n");
        m_data->monitor.reset();
        return;
    }

    const UdevPtr<udev_enumerate> present(udev_enumerate_new(m_data->context.get()));
    udev_enumerate_add_match_subsystem(present.get(), "block");
    udev_enumerate_scan_devices(present.get());
    Batch batch;
    udev_list_entry* entry = udev_enumerate_get_list_entry(present.get());
    for (; entry; entry = udev_list_entry_get_next(entry)) {
        const UdevPtr<udev_device> device(
            udev_device_new_from_syspath(m_data->context.get(), udev_list_entry_get_name(entry)));
        Properties props;
        if (device && Data::getProps(device.get(), props))
            batch.add(QStringLiteral("add"), props);
    }
    batch.publish();
}

void BDMon::stop() {
    m_data->monitor.reset();
}

bool BDMon::isRunning() {
    return m_data->monitor != nullptr;
}

} // namespace oru::io
