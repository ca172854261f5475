// SPDX-License-Identifier: Apache-2.0
// The disks and partitions that are in a slot.
#pragma once

#include "locations/mountpoint_p.h"

#include <oruio/bdmon.h>

#include <QElapsedTimer>
#include <QList>

#include <functional>

namespace oru::io {

/// Follows the events of one slot. A slot holds one medium, a disk with its partitions; where the
/// kernel has several disks there, such as the boot areas of an eMMC, the one in use counts, else
/// the last one with a file system.
class SlotContents {
public:
    /// Takes the events of the slot. A device that is reported again without a change stays the
    /// same object. So does `inUse` as long as it is on the same medium.
    void take(const QList<BDMon::Event>& events, const BlockDevice::SPtr& inUse);

    bool hasMedium() const;
    /// A number of the medium; 0 without one.
    unsigned int generation() const;
    /// The disk, if it has been reported, and the partitions of the medium in their order of
    /// arrival.
    QList<BlockDevice::SPtr> devices() const;
    bool isWriteProtected() const;
    /// The time since the last change of the medium, in ms.
    qint64 age() const;
    /// Whether udev has reported all partitions that the kernel knows.
    bool isComplete() const;
    /// The device of a mount, or null.
    BlockDevice::SPtr deviceOf(const KernelMount& mount) const;

private:
    struct Medium {
        QString path; ///< the DEVPATH of the disk
        unsigned int generation = 0;
        QList<BlockDevice::SPtr> devices;
        QElapsedTimer lastChange;
    };

    void add(const BDMon::Event& event, const BlockDevice::SPtr& inUse);
    void remove(const BlockDevice& device);
    int indexOf(const QString& path) const;
    void chooseMedium(const BlockDevice::SPtr& inUse);
    const Medium* medium() const;

    QList<Medium> m_media;
    int m_chosen = -1;
    unsigned int m_lastGeneration = 0;
};

} // namespace oru::io
