// SPDX-License-Identifier: Apache-2.0
// The medium of a slot.
#include "locations/kept_p.h"
#include "locations/mountpoint_p.h"
#include "locations/slotcontents_p.h"
#include "locations/uncleanfs_p.h"

#include <oruio/maintenancejob.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/mount.h>

namespace oru::io {

namespace {

const QString readonlyKey = QStringLiteral("readonly");

class KeptMedium : public Kept {
public:
    KeptMedium(SystemLocation& kept, const MediumKeeper::Policy& chosen)
        : Kept(kept, chosen), m_location(kept) {}

    bool take(const BDMon::EventListByDeviceSPtr& events) override;
    int step() override;
    void stepBusy() override;
    int mount(StorageLocation::AccessType access) override;
    int unmount(bool lazy) override;
    MaintenanceJob::SPtr makeCheck() override;
    MaintenanceJob::SPtr makeFormat(const Properties* props) override;
    bool isCheckDue() const override;
    void noteCheck(int status, const QString& why) override;

private:
    enum class Check { Due, Passed, Failed };

    void beginMedium();
    void passOn();
    int stepUnmounted();
    bool isMounted();
    bool isOfMedium(const KernelMount& mount);
    void unmountOthers();
    QString mountPoint() const;
    QList<BlockDevice::SPtr> offered() const;
    void handOver();
    void assumeType();
    bool hasArrived() const;
    bool canBeMounted() const;
    bool isIdle();
    int failToMount(int error, const QString& why);
    int tryToMount();

    SystemLocation& m_location;
    SlotContents m_slot;
    unsigned int m_generation = 0;       ///< of the medium that is kept
    QList<BlockDevice::SPtr> m_handed;   ///< what the location has been given
    BlockDevice::SPtr m_handedSelection; ///< what it selected of that
    BlockDevice::SPtr m_mountedDevice;
    KernelMount m_mount; ///< of m_mountedDevice
    bool m_isReadOnly = false;
    Check m_check = Check::Due;
    QString m_checkFailure;
};

// --- events -------------------------------------------------------------------------------------

bool KeptMedium::take(const BDMon::EventListByDeviceSPtr& events) {
    bool isConcerned = false;
    for (auto disk = events->begin(); disk != events->end(); ++disk) {
        if (!m_location.matchesId(disk.key()))
            continue;
        m_slot.take(disk.value(), m_mountedDevice);
        isConcerned = true;
    }
    return isConcerned;
}

/// What the policy wants of a medium that has just been inserted.
void KeptMedium::beginMedium() {
    m_generation = m_slot.generation();
    m_wanted = initiallyWanted();
    m_check = policy.check == MediumKeeper::Policy::Check::Never ? Check::Passed : Check::Due;
    m_retry.reset();
}

int KeptMedium::step() {
    if (m_slot.generation() != m_generation)
        beginMedium();
    unmountOthers();
    if (!isMounted())
        return stepUnmounted();
    setAccess(m_isReadOnly ? StorageLocation::Read : StorageLocation::Write);
    setState(MediumKeeper::Mounted);
    return policy.probeMs;
}

void KeptMedium::stepBusy() {
    passOn();
}

/// Makes the location know what is in the slot, of which nothing is mounted.
void KeptMedium::passOn() {
    handOver();
    setAccess(m_slot.hasMedium() ? StorageLocation::Presence : StorageLocation::None);
}

int KeptMedium::stepUnmounted() {
    Properties lazy = {{"lazy", true}};
    m_location.umount(&lazy); // it may not know yet
    passOn();
    if (!m_slot.hasMedium()) {
        setState(MediumKeeper::Absent);
        return never;
    }
    if (!hasArrived()) {
        setState(MediumKeeper::Arriving);
        return static_cast<int>(std::max<qint64>(policy.arrivalMs - m_slot.age(), 0));
    }
    assumeType();
    if (m_wanted == StorageLocation::None) {
        setState(MediumKeeper::Present);
        return never;
    }
    if (m_check == Check::Failed) {
        setState(MediumKeeper::Failed, m_checkFailure);
        return never;
    }
    if (!canBeMounted()) {
        setState(MediumKeeper::Failed, QStringLiteral("there is no file system on it"));
        return never;
    }
    if (isCheckDue())
        return 0; // the keeper begins it
    if (m_retry.isDue() && tryToMount() == 0)
        return policy.probeMs;
    return m_retry.remaining();
}

bool KeptMedium::hasArrived() const {
    return m_slot.isComplete() || m_slot.age() >= policy.arrivalMs;
}

// --- what the location knows --------------------------------------------------------------------

/// The devices for the location: the disk, and the partitions that may be selected.
QList<BlockDevice::SPtr> KeptMedium::offered() const {
    QList<BlockDevice::SPtr> devices = m_slot.devices();
    if (!policy.accepts)
        return devices;
    const auto isRefused = [this](const BlockDevice::SPtr& device) {
        return device->m_partNum != 0 && !policy.accepts(*device);
    };
    devices.erase(std::remove_if(devices.begin(), devices.end(), isRefused), devices.end());
    return devices;
}

/// Passes to the location what is news for it. If that is not only more devices, everything again.
void KeptMedium::handOver() {
    const QList<BlockDevice::SPtr> devices = offered();
    const bool isAsHanded = m_location.selectedPart() == m_handedSelection;
    if (isAsHanded && devices == m_handed)
        return;
    const auto pass = [this](const char* action, const BlockDevice::SPtr& device) {
        BDMon::Event event(1, QLatin1String(action), nullptr);
        event.dev = device;
        const auto events = BDMon::EventListSPtr::create();
        events->append(event);
        m_location.processBDEvents(events);
    };
    if (!isAsHanded || devices.mid(0, m_handed.size()) != m_handed) {
        m_handed.clear();
        // The partition, then the disk.
        for (int known = 0; known < 2 && m_location.selectedPart(); ++known)
            pass("remove", BlockDevice::SPtr(m_location.selectedPart()));
    }
    for (const BlockDevice::SPtr& device : devices.mid(m_handed.size()))
        pass("add", device);
    m_handed = devices;
    m_handedSelection = m_location.selectedPart();
    m_retry.reset(); // it may succeed now
}

/// Gives the largest partition the type of the policy when udev knows no file system.
void KeptMedium::assumeType() {
    QList<BlockDevice::SPtr> devices = offered();
    if (policy.unknownType.isEmpty() || devices.isEmpty() || canBeMounted())
        return;
    const auto largest =
        std::max_element(devices.begin(), devices.end(), [](const auto& one, const auto& other) {
            // A partition rather than its disk, which must keep its partition table.
            return std::make_pair(one->m_partNum != 0, one->capacity()) <
                   std::make_pair(other->m_partNum != 0, other->capacity());
        });
    if ((*largest)->m_partNum == 0 && !(*largest)->m_partTableType.isEmpty())
        return;
    (*largest)->m_fsType = policy.unknownType;
    m_handed.clear();
    handOver();
    setAccess(StorageLocation::Presence);
}

/// Whether the location has selected a partition that may be mounted.
bool KeptMedium::canBeMounted() const {
    const BlockDevice::SPtr selected = m_location.selectedPart();
    return selected && selected->isMountable() && (!policy.accepts || policy.accepts(*selected));
}

// --- the mount point ----------------------------------------------------------------------------

/// Where the location mounts; empty when its file system has no mount point.
QString KeptMedium::mountPoint() const {
    Properties options;
    return m_location.mountOptions(options, nullptr, false) ? options["mountPoint"].toString()
                                                            : QString();
}

/// Whether the mount is one of the medium. Knows it from now on.
bool KeptMedium::isOfMedium(const KernelMount& mount) {
    if (!m_mountedDevice || !(mount == m_mount)) {
        m_mountedDevice = m_slot.deviceOf(mount);
        m_mount = mount;
    }
    return m_mountedDevice && m_slot.devices().contains(m_mountedDevice);
}

/// Whether the medium alone is mounted.
bool KeptMedium::isMounted() {
    const QList<KernelMount> all = MountPoint(mountPoint()).mounts();
    const bool is = all.size() == 1 && isOfMedium(all.first());
    if (is)
        m_isReadOnly = all.first().isReadOnly;
    else
        m_mountedDevice.clear();
    return is;
}

/// Unmounts what is not of the medium, and what is mounted above it.
void KeptMedium::unmountOthers() {
    const MountPoint point(mountPoint());
    QList<KernelMount> all = point.mounts();
    if (all.size() == 1 && !isOfMedium(all.first())) {
        Properties lazy = {{"lazy", true}};
        m_location.umount(&lazy); // the usual way: the medium was removed
        all = point.mounts();
    }
    while (!all.isEmpty() && (all.size() > 1 || !isOfMedium(all.first())) &&
           point.unmountLast(MNT_DETACH) == 0)
        all = point.mounts();
}

// --- operations ---------------------------------------------------------------------------------

/// Records that the medium cannot be mounted. \returns -1 with errno `error`.
int KeptMedium::failToMount(int error, const QString& why) {
    setAccess(StorageLocation::Presence);
    m_retry.fail();
    setState(MediumKeeper::Failed, why);
    errno = error;
    return -1;
}

/// Mounts the selected partition, or remounts it. If it cannot be written to, mounts it read-only.
int KeptMedium::tryToMount() {
    if (!MountPoint(mountPoint()).isUsable())
        return failToMount(ENOENT, QStringLiteral("the location has no mount point"));
    Properties props;
    if (m_mountedDevice)
        props["remount"] = true;
    if (m_wanted == StorageLocation::Read || m_slot.isWriteProtected())
        props[readonlyKey] = true;
    errno = 0;
    int result = m_location.mount(&props);
    if (result != 0 && !props.contains(readonlyKey) && (errno == EROFS || errno == EACCES)) {
        props[readonlyKey] = true;
        result = m_location.mount(&props);
    }
    const int error = result == 0 ? 0 : errno;
    if (!isMounted())
        return failToMount(error, error == 0 ? QStringLiteral("another program has unmounted it")
                                             : QString::fromUtf8(std::strerror(error)));
    setAccess(m_isReadOnly ? StorageLocation::Read : StorageLocation::Write);
    setState(MediumKeeper::Mounted);
    m_retry.reset();
    errno = error;
    return result == 0 ? 0 : -1;
}

int KeptMedium::mount(StorageLocation::AccessType access) {
    step();
    if (m_check == Check::Failed)
        m_check = Check::Passed; // by hand
    m_wanted = access;
    if (!m_slot.hasMedium() || !hasArrived()) {
        errno = ENODEV;
        return -1;
    }
    if (location.access() == access)
        return 0;
    if (m_mountedDevice) {
        handOver();
        return tryToMount();
    }
    m_retry.reset();
    step();
    if (state == MediumKeeper::Mounted || isCheckDue())
        return 0;
    return -1;
}

int KeptMedium::unmount(bool lazy) {
    step();
    const StorageLocation::AccessType wanted = m_wanted;
    m_wanted = StorageLocation::None;
    if (m_mountedDevice) {
        Properties props;
        if (lazy)
            props["lazy"] = true;
        int result = m_location.umount(&props);
        // The location does not find a mount point with a blank in the table, nor a mount that it
        // has not made.
        if (result == 0 && isMounted())
            result = MountPoint(mountPoint()).unmountLast(lazy ? MNT_DETACH : 0);
        if (result != 0) {
            const int error = errno;
            m_wanted = wanted;
            step();
            errno = error;
            return -1;
        }
    }
    step();
    return 0;
}

/// Whether the medium can be checked or formatted now. Sets errno.
bool KeptMedium::isIdle() {
    step();
    errno = m_mountedDevice ? EBUSY : ENODEV;
    return !m_mountedDevice && m_location.selectedPart();
}

MaintenanceJob::SPtr KeptMedium::makeCheck() {
    if (!isIdle())
        return {};
    return MaintenanceJob::fsck(*m_location.selectedPart());
}

MaintenanceJob::SPtr KeptMedium::makeFormat(const Properties* props) {
    if (!isIdle())
        return {};
    const QList<BlockDevice::SPtr> devices = m_slot.devices();
    const bool hasDisk = devices.first()->m_partNum == 0;
    if (!hasDisk || m_slot.isWriteProtected()) {
        errno = hasDisk ? EROFS : ENODEV;
        return {};
    }
    return MaintenanceJob::format(*devices.first(), props);
}

bool KeptMedium::isCheckDue() const {
    return m_wanted != StorageLocation::None && !m_mountedDevice && m_check == Check::Due &&
           m_slot.hasMedium() && hasArrived() && canBeMounted() &&
           (policy.check == MediumKeeper::Policy::Check::Always ||
            !isClean(*m_location.selectedPart()));
}

void KeptMedium::noteCheck(int status, const QString& why) {
    m_check = status == 0 ? Check::Passed : Check::Failed;
    m_checkFailure = QStringLiteral("its check has failed (%1)").arg(status);
    if (!why.isEmpty())
        m_checkFailure += ": " + why;
}

} // namespace

std::unique_ptr<Kept> makeKeptMedium(SystemLocation& location, const MediumKeeper::Policy& policy) {
    return std::make_unique<KeptMedium>(location, policy);
}

} // namespace oru::io
