// SPDX-License-Identifier: Apache-2.0
// A block device whose mounts are real: a tmpfs with its name. Needs a private mount namespace
// (isolate()).
#pragma once

#include <oruio/bdmon.h>
#include <oruio/error.h>

#include "support/system/mounts.h"

#include <QFile>

#include <cerrno>

#include <sys/mount.h>

namespace oru::io::test {

/// Mounts as the kernel does with a disk.
class MountingDevice : public BlockDevice {
public:
    MountingDevice(const QString& name, quint32 number, quint64 blocks, const QString& type) {
        m_idPath = "slot";
        m_devName = name;
        m_partNum = number;
        m_totalBlocks = blocks;
        m_blkSize = 512;
        m_fsType = type;
    }

    int mount(QString mountPoint, const Properties* props) override {
        liberrno = Ok;
        while (mountPoint.endsWith('/'))
            mountPoint.chop(1);
        const QByteArray directory = QFile::encodeName(mountPoint);
        const unsigned long flags = props && props->value("readonly").toBool() ? MS_RDONLY : 0;
        const QStringList mounted = devicesAt(mountPoint);
        const bool isRemount = props && props->value("remount").toBool();
        if (m_fsType.isEmpty() || (isRemount && mounted.isEmpty()))
            errno = EINVAL;
        else if (failure && *failure != 0)
            errno = *failure;
        else if (m_writeProtected && !flags)
            errno = EROFS;
        else if (isRemount)
            return ::mount(nullptr, directory.constData(), nullptr, MS_REMOUNT | flags, nullptr);
        else if (!mounted.isEmpty() && mounted.last() == m_devName)
            errno = EBUSY; // this file system is mounted there
        else
            return ::mount(m_devName.toUtf8().constData(), directory.constData(), "tmpfs", flags,
                           nullptr);
        return -1;
    }
    int umount(const Properties*) override {
        return 0;
    }
    int mkfs(const Properties*) override {
        return 0;
    }
    int fsck(const Properties*) override {
        return 0;
    }
    int format(const Properties*) override {
        return 0;
    }
    Properties props() override {
        return m_props;
    }

    const int* failure = nullptr; ///< the errno with which mounting fails; 0 or null for none
};

} // namespace oru::io::test
