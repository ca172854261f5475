// SPDX-License-Identifier: Apache-2.0
// A slot with a keeper and simulated media, and what must be so of them.
#pragma once

#include "support/doubles/mountingdevice.h"
#include "support/doubles/openlocation.h"
#include "support/system/mounts.h"
#include "support/system/tempdir.h"

#include <oruio/fsswitch.h>
#include <oruio/mediumkeeper.h>
#include <oruio/posixfs.h>

#include <QMap>

#include <memory>

namespace oru::io::test {

/// Delivers a batch of events of one slot as the monitor does.
inline void deliver(const QList<BDMon::Event>& events) {
    const auto all = BDMon::EventListSPtr::create(events);
    const auto byDevice = BDMon::EventListByDeviceSPtr::create();
    for (const BDMon::Event& event : events)
        (*byDevice)[event.dev->m_idPath].append(event);
    Q_EMIT BDMon::instance()->notify(all, byDevice);
}

class KeptSlot {
public:
    explicit KeptSlot(const MediumKeeper::Policy& policy) : keeper(&location, policy) {
        FSSwitch::rootfs()->add(path, location.fs());
        QObject::connect(
            &keeper, &MediumKeeper::accessChanged,
            [this](StorageLocation*, StorageLocation::AccessType access) { reported = access; });
    }
    ~KeptSlot() {
        while (umount2(QFile::encodeName(path).constData(), MNT_DETACH) == 0)
            continue;
        FSSwitch::rootfs()->remove(path);
    }

    /// An event of a device: "add" and "remove" change what is in the slot.
    BDMon::Event event(const QString& action, const QString& name, quint32 number, quint64 blocks,
                       const QString& type, bool isProtected = false) {
        auto* const device = new MountingDevice(name, number, blocks, type);
        device->failure = &failure;
        device->m_writeProtected = isProtected;
        const BDMon::Event made(1, action, device);
        const bool isOtherDisk =
            number == 0 && present.contains(name) && present[name]->m_totalBlocks != blocks;
        if (isOtherDisk)
            present.clear();
        // A device that has changed exists, also if its "add" was lost.
        if (action == "add" || (action == "change" && !present.isEmpty()))
            present[name] = made.dev;
        else if (action == "remove" && number == 0)
            present.clear();
        else if (action == "remove")
            present.remove(name);
        return made;
    }

    /// What the keeper says that is not so; empty if all is.
    QString untruth() {
        const QList<Mount> mounts = mountsHere();
        const auto access = keeper.access();
        const bool isOne = mounts.size() == 1 && present.contains(mounts.first().device);
        const bool isReadOnly = isOne && (mounts.first().options.contains("ro") ||
                                          mounts.first().filesystemOptions.contains("ro"));
        const auto truth = isOne ? isReadOnly ? StorageLocation::Read : StorageLocation::Write
                           : !present.isEmpty() ? StorageLocation::Presence
                                                : StorageLocation::None;
        if (!isOne && !mounts.isEmpty())
            return QStringLiteral("%1 mounts").arg(mounts.size());
        if (access != truth)
            return QStringLiteral("says %1, is %2")
                .arg(StorageLocation::straccess(access), StorageLocation::straccess(truth));
        if (location.access() != truth || reported != truth)
            return "the location or the signal says otherwise";
        const auto state = keeper.state();
        if ((state == MediumKeeper::Mounted) != isOne ||
            (state == MediumKeeper::Absent) != present.isEmpty())
            return QStringLiteral("state %1").arg(state);
        return {};
    }
    /// Whether a whole medium with a file system is there, which the keeper must mount.
    bool isMountable() const {
        bool hasDisk = false;
        bool hasFiles = false;
        for (const BlockDevice::SPtr& device : present) {
            hasDisk = hasDisk || device->m_partNum == 0;
            hasFiles = hasFiles || device->isMountable();
        }
        return hasDisk && hasFiles && failure == 0;
    }
    QList<Mount> mountsHere() const {
        QList<Mount> mounts;
        for (const Mount& mount : mountTable()) {
            if (mount.directory == path)
                mounts.append(mount);
        }
        return mounts;
    }

    const TempDir directory;
    const QString path = directory.path();
    int failure = 0; ///< the errno with which mounting fails, or 0
    QMap<QString, BlockDevice::SPtr> present;
    StorageLocation::AccessType reported = StorageLocation::None;
    Properties props{{"blkDevId", "slot"}};
    OpenLocation location{"slot", FS::SPtr(new PosixFS(path)), &props};
    MediumKeeper keeper;
};

} // namespace oru::io::test
