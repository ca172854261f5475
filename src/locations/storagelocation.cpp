// SPDX-License-Identifier: Apache-2.0
#include <oruio/error.h>
#include <oruio/fsnfs.h>
#include <oruio/fssmb.h>
#include <oruio/fsswitch.h>
#include <oruio/storagelocation.h>
#include <oruio/sysutils.h>

#include "core/mounttable_p.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>

#include "core/log_p.h"
#include "core/notimplemented_p.h"

ORUIO_LOG_CHANNEL("stg");

namespace oru::io {

namespace {

/// \returns -1 with liberrno NotFound.
int notFound() {
    liberrno = NotFound;
    return -1;
}

/// disable() of a location that is mounted: logs and \returns -1.
int refuseToDisable(const char* name) {
    ORUIO_LOG(LogFailure, "%s: disable of mounted media fails\n", name);
    return -1;
}

} // namespace

// --- StorageLocation ----------------------------------------------------------------------------

StorageLocation::StorageLocation(const char* name, FS::SPtr fs, Properties* props)
    : m_name(strdup(name ? name : "")), m_fs(std::move(fs)),
      m_props(props ? *props : Properties()) {
    // For queued connections and QSignalSpy.
    qRegisterMetaType<StorageLocation*>();
    qRegisterMetaType<StorageLocation*>("StorageLocation*");
    qRegisterMetaType<AccessType>();
}

StorageLocation::~StorageLocation() {
    std::free(m_name);
}

const char* StorageLocation::name() {
    return m_name;
}

FS::SPtr StorageLocation::fs() {
    return m_fs;
}

StorageLocation::AccessType StorageLocation::access() {
    return m_access;
}

void StorageLocation::accessChange(AccessType t) {
    m_access = t;
}

const char* StorageLocation::straccess(AccessType t) {
    switch (t) {
    case None:
        return "None";
    case Presence:
        return "Presence";
    case Read:
        return "Read";
    case Write:
        return "Write";
    }
    return "Invalid";
}

int StorageLocation::enable() {
    m_enabled = true;
    return 0;
}

int StorageLocation::disable() {
    m_enabled = false;
    return 0;
}

int StorageLocation::check() {
    return notImplemented();
}

int StorageLocation::mkReadOnly() {
    return notImplemented();
}

int StorageLocation::mkWriteable() {
    return notImplemented();
}

int StorageLocation::mount(Properties*) {
    return notImplemented();
}

int StorageLocation::umount(Properties*) {
    return notImplemented();
}

bool StorageLocation::isWriteProtected() {
    return false;
}

bool StorageLocation::isSuccess(int result) const {
    constexpr int nothingToCheck = 1;
    return result == 0 || (result == nothingToCheck && qobject_cast<const RemoteLocation*>(this));
}

// --- SystemLocation -----------------------------------------------------------------------------

namespace {

const QString mountPointKey = QStringLiteral("mountPoint");
const QString readonlyKey = QStringLiteral("readonly");

/// The GUID partition type of EFI system partitions.
constexpr char efiSystemPartition[] = "c12a7328-f81f-11d2-ba4b-00a0c93ec93b";

bool isWholeDisk(const BlockDevice& device) {
    return device.m_partNum == 0;
}

} // namespace

SystemLocation::SystemLocation(const char* name, FS::SPtr fs, Properties* props)
    : StorageLocation(name, std::move(fs), props),
      m_blkDevId(m_props.value(QStringLiteral("blkDevId")).toString()) {
    // For slots invoked by name.
    qRegisterMetaType<BlockDevice::SPtr>("BlockDevice::SPtr");
}

SystemLocation::~SystemLocation() = default;

int SystemLocation::enable() {
    return StorageLocation::enable();
}

int SystemLocation::disable() {
    return m_access >= Read ? refuseToDisable(m_name) : StorageLocation::disable();
}

int SystemLocation::check() {
    return selectedPart() ? selectedPart()->fsck(nullptr) : notFound();
}

int SystemLocation::mkReadOnly() {
    if (!m_present)
        return notFound();
    if (m_access == Read)
        return 0;
    Properties opts;
    return mountOptions(opts, nullptr, true) ? mount(&opts) : notFound();
}

int SystemLocation::mkWriteable() {
    if (m_present && m_access == Write)
        return 0;
    if (m_blkDevWhole && m_blkDevWhole->m_writeProtected) {
        ORUIO_LOG(LogFailure, "%s: is write protected; cannot make writable\n", m_name);
        return notImplemented(); // programs recognise write protection by this
    }
    Properties opts;
    if (!selectedPart() || !mountOptions(opts, nullptr, false))
        return notFound();
    return selectedPart()->mount(opts[mountPointKey].toString(), &opts);
}

int SystemLocation::mount(Properties* props) {
    if (m_access < Read)
        m_mounted = false;
    Properties opts;
    if (!selectedPart() || !mountOptions(opts, props, props && props->contains(readonlyKey)))
        return notFound();
    const int result = selectedPart()->mount(opts[mountPointKey].toString(), &opts);
    m_mountOk = result >= 0;
    if (!m_mountOk) {
        accessChange(None);
        return notFound();
    }
    accessChange(opts[readonlyKey].toBool() ? Read : Write);
    m_mounted = true;
    return result;
}

int SystemLocation::umount(Properties* props) {
    if (!m_mounted)
        return 0;
    Properties opts;
    if (!m_fs || !mountOptions(opts, props, false))
        return notFound();
    SystemText mountPoint;
    if (!tableMountPoint(opts[mountPointKey].toString(), mountPoint))
        return notFound();
    const int result = umountPath(mountPoint.constData(), &opts);
    if (result != 0)
        return result;
    if (m_access > Presence)
        accessChange(Presence);
    m_mountOk = false;
    m_mounted = false;
    return result;
}

bool SystemLocation::isWriteProtected() {
    return m_blkDevWhole && m_blkDevPart && m_blkDevWhole->m_writeProtected;
}

int SystemLocation::format(Properties* props) {
    ORUIO_LOG(LogNotice, "mounted: %s blkdev: %s\n", m_mounted ? "T" : "F",
              m_blkDevWhole ? m_blkDevWhole->m_devName.toUtf8().constData() : "NA");
    if (m_mounted) {
        ORUIO_LOG(LogFailure, "%s:Format request while device is mounted fails\n", m_name);
        return notFound();
    }
    if (!m_blkDevWhole) {
        ORUIO_LOG(LogFailure, "%s: has no block device data; cannot format\n", m_name);
        return notFound();
    }
    if (m_blkDevWhole->m_writeProtected) {
        ORUIO_LOG(LogFailure, "%s: is write protected; cannot format\n", m_name);
        return notImplemented(); // as in mkWriteable()
    }
    return m_blkDevWhole->format(props);
}

bool SystemLocation::matchesId(QString id) {
    return m_blkDevId == id;
}

int SystemLocation::logBDEvent(BDMon::Event& ev) {
    const BlockDevice& device = *ev.dev;
    const auto text = [](const QString& field) { return field.toUtf8(); };
    ORUIO_LOG(LogDebug, "%s:  Sequence Number: %d Action: %s\n", m_name, device.m_seqNum,
              text(device.m_action).constData());
    ORUIO_LOG(LogDebug, "%s: '%s' [%u] --> '%s'\n", m_name, text(device.m_idPath).constData(),
              device.m_partNum, text(device.m_devName).constData());
    ORUIO_LOG(LogDebug, "%s:  StartBlock: %llu  TotalBlocks: %llu  BlkSize: %llu\n", m_name,
              device.m_startBlock, device.m_totalBlocks, device.m_blkSize);
    ORUIO_LOG(LogDebug, "%s:  PartitionType: '%s'  FSType: '%s'\n", m_name,
              text(device.m_partTableType).constData(), text(device.m_fsType).constData());
    ORUIO_LOG(LogDebug, "%s:  FSLabel: '%s'   Mountable: %s\n", m_name,
              text(device.m_fsLabel).constData(), device.isMountable() ? "Yes" : "No");
    return 0;
}

int SystemLocation::processBDEvents(BDMon::EventListSPtr events) {
    if (!events)
        return 0;
    for (BDMon::Event& event : *events) {
        if (!event.dev || !matchesId(event.dev->m_idPath))
            continue;
        const QByteArray node = event.dev->m_devName.toUtf8();
        if (event.action == QLatin1String("add")) {
            logBDEvent(event);
            ORUIO_LOG(LogNotice, "%s device add: %s\n", m_name, node.constData());
            if (event.dev->m_partEntryType == QLatin1String(efiSystemPartition))
                ORUIO_LOG(LogNotice, "%s skipping EFI system partition\n", m_name);
            else
                addBlockDevice(event.dev);
        } else if (event.action == QLatin1String("remove")) {
            logBDEvent(event);
            ORUIO_LOG(LogNotice, "%s device remove: %s\n", m_name, node.constData());
            removeBlockDevice(event.dev);
        }
    }
    return 0;
}

BlockDevice::SPtr& SystemLocation::selectedPart() {
    return m_blkDevPart ? m_blkDevPart : m_blkDevWhole;
}

bool SystemLocation::fixFSType() {
    if (!m_blkDevWhole || !m_blkDevPart)
        return false;
    if (m_blkDevPart->m_fsType.isEmpty())
        m_blkDevPart->m_fsType = QStringLiteral("exfat");
    return true;
}

bool SystemLocation::mountOptions(Properties& opts, Properties* props, bool readonly) {
    if (props)
        opts = *props;
    if (!opts.contains(mountPointKey)) {
        const QStringList mountPoints = FSSwitch::rootfs()->getMountPoints(m_fs);
        if (!m_fs || mountPoints.isEmpty())
            return false;
        opts[mountPointKey] = mountPoints.first();
    }
    opts[readonlyKey] = readonly;
    if (m_mounted)
        opts[QStringLiteral("remount")] = true;
    return true;
}

void SystemLocation::addBlockDevice(BlockDevice::SPtr spbd) {
    if (!spbd || spbd->m_idPath != m_blkDevId)
        return;
    if (isWholeDisk(*spbd)) {
        m_blkDevWhole = spbd;
        m_blkDevPart.clear();
    }
    const bool isLargest = !m_blkDevPart || spbd->capacity() > m_blkDevPart->capacity();
    if (spbd->isMountable() && isLargest)
        m_blkDevPart = spbd;
    if (spbd->m_writeProtected)
        m_writeProtected = true;
    m_present = true;
    accessChange(Presence);
}

void SystemLocation::removeBlockDevice(BlockDevice::SPtr spbd) {
    if (!spbd || spbd->m_idPath != m_blkDevId)
        return;
    m_present = false;
    if (isWholeDisk(*spbd))
        m_blkDevWhole.clear();
    m_blkDevPart.clear();
    accessChange(None);
}

// --- RemoteLocation -----------------------------------------------------------------------------

namespace {

/// Calls `operation` with the file system as the class that can connect. \returns its result, or
/// `otherwise` when the file system is of no such class. A new kind of share needs one more line
/// here.
template <class Result, class Operation>
Result withConnectable(const FS::SPtr& fs, Result otherwise, Operation operation) {
    if (auto* const share = dynamic_cast<Smb2FS*>(fs.data()))
        return operation(*share);
    if (auto* const nfs = dynamic_cast<NFS*>(fs.data()))
        return operation(*nfs);
    return otherwise;
}

int connectShare(const FS::SPtr& fs, const Properties& props) {
    return withConnectable(fs, -1, [&](auto& share) { return share.connect(props); });
}

int disconnectShare(const FS::SPtr& fs) {
    return withConnectable(fs, 0, [](auto& share) { return share.disconnect(); });
}

bool isShareConnected(const FS::SPtr& fs, bool otherwise) {
    return withConnectable(fs, otherwise, [](auto& share) { return share.isConnected(); });
}

/// The name of the file that probe() creates. Several devices may probe one share at a time.
QString markerName() {
    const char* const serial = std::getenv("SERIAL_NUMBER");
    return QStringLiteral("ORU-write-check-") + QString::fromUtf8(serial ? serial : "unknown");
}

/// Creates a file and removes it. \returns whether it could be created.
bool tryToWrite(FS& fs, const QString& marker) {
    fs.unlink(marker); // of an earlier probe
    const bool isCreated = !fs.open(marker, O_RDWR | O_CREAT, 0666).isNull();
    fs.unlink(marker);
    return isCreated;
}

} // namespace

RemoteLocation::RemoteLocation(const char* name, FS::SPtr fs, Properties* props)
    : StorageLocation(name, std::move(fs), props) {}

RemoteLocation::~RemoteLocation() = default;

int RemoteLocation::enable() {
    return StorageLocation::enable();
}

int RemoteLocation::disable() {
    return m_access >= Read ? refuseToDisable(m_name) : StorageLocation::disable();
}

int RemoteLocation::check() {
    return 1;
}

int RemoteLocation::mount(Properties* props) {
    const int result = connectShare(m_fs, props ? *props : m_props);
    accessChange(result == 0 ? Write : None);
    return result;
}

int RemoteLocation::umount(Properties*) {
    const int result = disconnectShare(m_fs);
    if (result == 0)
        accessChange(None);
    return result;
}

int RemoteLocation::probe(bool* writable, QString* subdir, bool noConnect) {
    int result = 0;
    if (!noConnect && !isShareConnected(m_fs, false))
        result = connectShare(m_fs, m_props);
    // Also after a positive result: the exit status of the program that should mount an export.
    if (result != 0) {
        disconnectShare(m_fs);
        return result;
    }
    if (writable && m_fs) {
        QString marker = subdir ? *subdir + '/' + markerName() : markerName();
        // A local directory appends the path to its root as it is, so it needs a slash.
        if (m_fs.dynamicCast<PosixFS>())
            marker.prepend('/');
        *writable = tryToWrite(*m_fs, marker);
    }
    return result;
}

void RemoteLocation::setProperties(Properties& props) {
    m_props = props;
}

bool RemoteLocation::ping() {
    return isShareConnected(m_fs, true);
}

} // namespace oru::io
