// SPDX-License-Identifier: Apache-2.0
#include "locations/slotcontents_p.h"

#include "media/bdmon_p.h"

#include <QDir>
#include <QFile>

#include <algorithm>

namespace oru::io {

namespace {

QString devicePath(const BlockDevice& device) {
    return valueOf(device.m_props, UDEV_DEVPATH);
}

bool isDisk(const BlockDevice& device) {
    return device.m_partNum == 0;
}

/// The DEVPATH of the disk of a device. A partition is a directory in that of its disk. Empty when
/// udev did not report it.
QString diskPath(const BlockDevice& device) {
    const QString path = devicePath(device);
    return isDisk(device) ? path : path.left(path.lastIndexOf('/'));
}

/// Whether `reported` belongs to another medium than `known`. The kernel gives each medium a number
/// (DISKSEQ); without it, only the disks can be compared.
bool isOfAnotherMedium(const BlockDevice& known, const BlockDevice& reported) {
    const QString key = QStringLiteral("DISKSEQ");
    const QString number = valueOf(known.m_props, key);
    const QString reportedNumber = valueOf(reported.m_props, key);
    if (!number.isEmpty() && !reportedNumber.isEmpty())
        return number != reportedNumber;
    return isDisk(known) && isDisk(reported) &&
           (known.m_devName != reported.m_devName || known.m_totalBlocks != reported.m_totalBlocks);
}

bool isDescribedAlike(const BlockDevice& one, const BlockDevice& other) {
    const QString uuid = QStringLiteral("ID_FS_UUID");
    return one.m_fsType == other.m_fsType && one.m_fsLabel == other.m_fsLabel &&
           one.m_totalBlocks == other.m_totalBlocks && one.m_startBlock == other.m_startBlock &&
           one.m_partTableType == other.m_partTableType &&
           one.m_partEntryType == other.m_partEntryType &&
           one.m_writeProtected == other.m_writeProtected &&
           valueOf(one.m_props, uuid) == valueOf(other.m_props, uuid);
}

bool isMountable(const BlockDevice::SPtr& device) {
    return device->isMountable();
}

} // namespace

void SlotContents::take(const QList<BDMon::Event>& events, const BlockDevice::SPtr& inUse) {
    for (const BDMon::Event& event : events) {
        if (!event.dev)
            continue;
        if (event.action == QLatin1String("remove"))
            remove(*event.dev);
        else
            add(event, inUse);
    }
    chooseMedium(inUse);
}

/// An "add", or the "change" of a device on a medium that is known.
void SlotContents::add(const BDMon::Event& event, const BlockDevice::SPtr& inUse) {
    const BlockDevice::SPtr& device = event.dev;
    const bool isArrival = event.action == QLatin1String("add");
    int index = indexOf(diskPath(*device));
    if (index == -1 && !isArrival)
        return;
    const auto isFormer = [&](const BlockDevice::SPtr& known) {
        return isOfAnotherMedium(*known, *device);
    };
    if (index != -1 &&
        std::any_of(m_media[index].devices.begin(), m_media[index].devices.end(), isFormer)) {
        m_media.removeAt(index);
        index = -1;
    }
    if (index == -1) {
        Medium made;
        made.path = diskPath(*device);
        made.generation = ++m_lastGeneration;
        m_media.append(made);
        index = m_media.size() - 1;
    }
    Medium& medium = m_media[index];
    const auto known = std::find_if(
        medium.devices.begin(), medium.devices.end(),
        [&](const BlockDevice::SPtr& other) { return other->m_devName == device->m_devName; });
    if (known != medium.devices.end()) {
        const bool isKept = *known == inUse && (*known)->m_startBlock == device->m_startBlock;
        if (isKept || isDescribedAlike(**known, *device))
            return;
    }
    medium.lastChange.start();
    if (known != medium.devices.end())
        *known = device;
    else if (isDisk(*device))
        medium.devices.prepend(device);
    else
        medium.devices.append(device);
}

void SlotContents::remove(const BlockDevice& device) {
    const int index = indexOf(diskPath(device));
    if (index == -1)
        return;
    Medium& medium = m_media[index];
    const auto gone = std::remove_if(
        medium.devices.begin(), medium.devices.end(), [&](const BlockDevice::SPtr& known) {
            return isDisk(device) || known->m_devName == device.m_devName;
        });
    if (gone == medium.devices.end())
        return;
    medium.devices.erase(gone, medium.devices.end());
    medium.lastChange.start();
    if (medium.devices.isEmpty())
        m_media.removeAt(index);
}

int SlotContents::indexOf(const QString& path) const {
    for (int i = 0; i < m_media.size(); ++i) {
        if (m_media[i].path == path)
            return i;
    }
    return -1;
}

void SlotContents::chooseMedium(const BlockDevice::SPtr& inUse) {
    m_chosen = -1;
    int rank = 0;
    for (int i = 0; i < m_media.size(); ++i) {
        const QList<BlockDevice::SPtr>& devices = m_media[i].devices;
        const bool hasFiles = std::any_of(devices.begin(), devices.end(), isMountable);
        // A card reader without a card is a disk of 0 bytes.
        const bool isEmpty = devices.size() == 1 && !hasFiles && isDisk(*devices.first()) &&
                             devices.first()->m_totalBlocks == 0;
        const int found = isEmpty ? 0 : inUse && devices.contains(inUse) ? 3 : hasFiles ? 2 : 1;
        if (found > 0 && found >= rank) {
            rank = found;
            m_chosen = i;
        }
    }
}

const SlotContents::Medium* SlotContents::medium() const {
    return m_chosen == -1 ? nullptr : &m_media[m_chosen];
}

bool SlotContents::hasMedium() const {
    return medium() != nullptr;
}

unsigned int SlotContents::generation() const {
    return medium() ? medium()->generation : 0;
}

QList<BlockDevice::SPtr> SlotContents::devices() const {
    return medium() ? medium()->devices : QList<BlockDevice::SPtr>();
}

bool SlotContents::isWriteProtected() const {
    const QList<BlockDevice::SPtr> all = devices();
    return std::any_of(all.begin(), all.end(),
                       [](const BlockDevice::SPtr& device) { return device->m_writeProtected; });
}

qint64 SlotContents::age() const {
    return medium() ? medium()->lastChange.elapsed() : 0;
}

bool SlotContents::isComplete() const {
    const QList<BlockDevice::SPtr> all = devices();
    if (all.isEmpty() || !isDisk(*all.first()))
        return false;
    const bool hasFiles = std::any_of(all.begin(), all.end(), isMountable);
    const QDir directory(QStringLiteral("/sys") + medium()->path);
    if (medium()->path.isEmpty() || !directory.exists())
        return hasFiles;
    int partitions = 0;
    for (const QString& name : directory.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString path = medium()->path + '/' + name;
        if (!QFile::exists(QStringLiteral("/sys") + path + QStringLiteral("/partition")))
            continue;
        ++partitions;
        if (std::none_of(all.begin(), all.end(), [&](const BlockDevice::SPtr& device) {
                return devicePath(*device) == path;
            }))
            return false;
    }
    // With a partition table, the kernel may not have read it yet.
    return partitions > 0 || hasFiles || all.first()->m_partTableType.isEmpty();
}

BlockDevice::SPtr SlotContents::deviceOf(const KernelMount& mount) const {
    for (const BlockDevice::SPtr& device : devices()) {
        const QString major = valueOf(device->m_props, QStringLiteral("MAJOR"));
        const QString number = major + ':' + valueOf(device->m_props, QStringLiteral("MINOR"));
        // Where the file system has a number of its own, as btrfs, the name is all there is.
        const bool isOfDevice = !major.isEmpty() && !mount.number.startsWith("0:");
        if (isOfDevice ? number.toUtf8() == mount.number
                       : device->m_devName.toUtf8() == mount.source)
            return device;
    }
    return {};
}

} // namespace oru::io
