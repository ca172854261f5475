// SPDX-License-Identifier: Apache-2.0
// Block devices and what can be done to them.

#include <oruio/bdmon.h>
#include <oruio/error.h>
#include <oruio/sysutils.h>

#include "core/cancelguard_p.h"
#include "core/mounttable_p.h"
#include "core/systemtext_p.h"
#include "media/bdmon_p.h"
#include "media/maintenancerun_p.h"

#include <QDir>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "core/log_p.h"

namespace oru::io {

ORUIO_LOG_ON(bdmonLogChannel);

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

/// Opens a file for reading without blocking, for example on a FIFO. Block devices are opened
/// without O_NONBLOCK, as that succeeds without a medium. \returns a descriptor, or -1 with errno.
int openToRead(const QString& path) {
    return withPath(path, [](const char* p) {
        struct stat st;
        if (::stat(p, &st) != 0)
            return -1;
        const int flags = S_ISBLK(st.st_mode) ? 0 : O_NONBLOCK;
        return ::open(p, O_RDONLY | O_CLOEXEC | O_NOCTTY | flags);
    });
}

/// The string of `key` in `props`, which may be null.
QString optionOf(const Properties* props, const QString& key) {
    return props ? valueOf(*props, key) : QString();
}

/// Whether `key` is true in `props`, which may be null.
bool isSet(const Properties* props, const QString& key) {
    return props && props->value(key).toBool();
}

/// Reads the block size of a device node, and the size of a disk.
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

/// What names the medium of an event: the device node and the udev properties.
struct Medium {
    explicit Medium(const BlockDevice& device) : node(device.m_devName), props(device.m_props) {}

    QString node;
    Properties props;
};

/// The DISKSEQ of the event: a number that the kernel gives to each medium when it appears. Empty
/// when udev did not report it.
QString diskSequence(const Medium& medium) {
    return valueOf(medium.props, QStringLiteral("DISKSEQ"));
}

/// Reads the sequence number of the medium that the node has now. \returns whether it is known.
bool readDiskSequence(const QString& node, quint64& sequence) {
    const int fd = openToRead(node);
    if (fd == -1)
        return false;
    constexpr unsigned long getDiskSequence = _IOR(0x12, 128, std::uint64_t); // BLKGETDISKSEQ
    const bool isKnown = ::ioctl(fd, getDiskSequence, &sequence) == 0;
    ::close(fd);
    return isKnown;
}

/// Reads the device number of the node. \returns whether it is a block device.
bool readDeviceNumber(const QString& node, dev_t& number) {
    struct stat st = {};
    const int result = withPath(node, [&st](const char* p) { return ::stat(p, &st); });
    number = st.st_rdev;
    return result == 0 && S_ISBLK(st.st_mode);
}

/// Whether another medium or device has got the node since the event. Where that cannot be known,
/// it has not.
bool isExchanged(const Medium& medium) {
    bool isNumber = false;
    const quint64 wanted = diskSequence(medium).toULongLong(&isNumber);
    quint64 found = 0;
    if (isNumber && readDiskSequence(medium.node, found))
        return found != wanted;
    bool isMajor = false;
    bool isMinor = false;
    const unsigned int major = valueOf(medium.props, QStringLiteral("MAJOR")).toUInt(&isMajor);
    const unsigned int minor = valueOf(medium.props, QStringLiteral("MINOR")).toUInt(&isMinor);
    dev_t number = 0;
    return isMajor && isMinor && readDeviceNumber(medium.node, number) &&
           number != makedev(major, minor);
}

/// Checks that the node still is the device of the event, before an operation that would change
/// another one. \returns false with errno ENODEV when it is not.
bool checkIdentity(const Medium& medium) {
    if (!isExchanged(medium))
        return true;
    ORUIO_LOG(LogWarning, "%s is another device now\n", medium.node.toUtf8().constData());
    errno = ENODEV;
    return false;
}

/// The command on the device of the event only. The maintenance program gets the sequence number of
/// the medium.
MaintenanceTask taskOf(const BlockDevice& device, const SysCmd& command, int runs) {
    const Medium medium(device);
    MaintenanceTask task = {command, runs, {}, [medium] { return checkIdentity(medium); }};
    const QString sequence = diskSequence(medium);
    if (!sequence.isEmpty())
        task.environment[QStringLiteral("ORUIO_DISKSEQ")] = sequence;
    return task;
}

/// Reads the write-protect switch. The kernel reports it for SD cards only.
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

MaintenanceTask fsckTask(const BlockDevice& device, const Properties* props) {
    const QString retries = QStringLiteral("retries");
    const int runs =
        props && props->contains(retries) ? props->value(retries).toInt() : FSCK_RETRIES;
    return taskOf(device,
                  SysCmd("fsck")
                      .addArg(device.m_fsType, "-t")
                      .addArg(device.m_devName)
                      .addArg(optionOf(props, QStringLiteral("cmd_opts"))),
                  runs);
}

MaintenanceTask mkfsTask(const BlockDevice& device, const Properties* props) {
    return taskOf(device,
                  SysCmd("mkfs")
                      .addArg(optionOf(props, QStringLiteral("fs_type")), "-t")
                      .addArg(device.m_devName)
                      .addArg(optionOf(props, QStringLiteral("cmd_opts"))),
                  1);
}

MaintenanceTask formatTask(const BlockDevice& device, const Properties* props) {
    const bool kills = props && props->contains(QStringLiteral("kill"));
    return taskOf(
        device, SysCmd("format").addArg(QString(), kills ? "-k" : nullptr).addArg(device.m_devName),
        1);
}

BlockDevice::~BlockDevice() = default;

quint64 BlockDevice::capacity() const {
    return m_totalBlocks * m_blkSize;
}

bool BlockDevice::isMountable() const {
    return !m_fsType.isEmpty();
}

LinuxBD::LinuxBD(Properties& udevProps) {
    const CancelGuard guard; // no descriptor of a device stays open
    const auto property = [&](const QString& key) { return valueOf(udevProps, key); };
    m_props = udevProps;
    m_idPath = property(UDEV_ID_PATH);
    m_partNum = property(UDEV_PARTN).toUInt();

    m_devName = property(UDEV_DEVNAME);
    ORUIO_LOG(LogDebug, "Dev path: %s", m_devName.toUtf8().constData());
    const bool isDisk = property(UDEV_DEVTYPE) == QLatin1String("disk");
    readGeometry(*this, isDisk);
    if (!isDisk) {
        m_startBlock = property(UDEV_ID_PART_ENTRY_OFFSET).toULongLong();
        m_totalBlocks = property(UDEV_ID_PART_ENTRY_SIZE).toULongLong();
    }

    m_fsType = property(UDEV_ID_FS_TYPE);
    m_fsLabel = property(UDEV_ID_FS_LABEL);
    m_partTableType = property(UDEV_ID_PART_TABLE_TYPE);
    m_seqNum = property(UDEV_SEQNUM).toInt();
    m_action = property(UDEV_ACTION);
    m_devPath = property(UDEV_DEVPATH);
    m_partEntryType = property(UDEV_ID_PART_ENTRY_TYPE);
    if (m_devPath.contains(QLatin1String("mmcblk")))
        probeWriteProtection(*this);
}

LinuxBD::~LinuxBD() = default;

int LinuxBD::mount(QString mountPoint, const Properties* props) {
    liberrno = Ok;
    // QDir must create the directory that mount(2) then uses.
    if (!checkQtEncoding(mountPoint))
        return -1;
    const bool isRemount = isSet(props, QStringLiteral("remount"));
    if (!mountPoint.isEmpty() && !isRemount && !checkIdentity(Medium(*this)))
        return -1;
    if (mountPoint.isEmpty() || !QDir(mountPoint).mkpath(QStringLiteral("."))) {
        errno = ENOENT;
        return -1;
    }
    unsigned long flags = MS_MGC_VAL | MS_NOATIME | MS_NOEXEC;
    if (isSet(props, QStringLiteral("readonly")))
        flags |= MS_RDONLY;
    if (isRemount)
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
    int result = -1;
    int reason = 0;
    {
        MountTable mounts;
        const QByteArray device = m_devName.toUtf8();
        result = mounts.isRead() ? 0 : -1;
        const MountTable::Mount* mount = nullptr;
        while (result == 0 && (mount = mounts.next())) {
            if (device != mount->device && device != mount->mountPoint)
                continue;
            ORUIO_LOG(LogDebug, "umount device '%s' from '%s'", device.constData(),
                      mount->mountPoint);
            result = umountPath(mount->mountPoint, props);
        }
        reason = errno;
    }
    errno = reason; // freeing the table may change it
    m_umountFailed = result != 0;
    return result;
}

int LinuxBD::fsck(const Properties* props) {
    liberrno = Ok;
    return runToEnd(fsckTask(*this, props));
}

int LinuxBD::mkfs(const Properties* props) {
    liberrno = Ok;
    return runToEnd(mkfsTask(*this, props));
}

int LinuxBD::format(const Properties* props) {
    liberrno = Ok;
    return runToEnd(formatTask(*this, props));
}

Properties LinuxBD::props() {
    return m_props;
}

} // namespace oru::io
