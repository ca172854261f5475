// SPDX-License-Identifier: Apache-2.0
// Fixture for tests of LinuxBD on a loop disk.
#pragma once

#include "support/system/disktest.h"

#include <oruio/bdmon.h>
#include <oruio/error.h>

#include <QString>
#include <QVariant>

#include <memory>

#include <fcntl.h>
#include <unistd.h>

namespace oru::io::test {

/// Properties for a call.
inline Properties with(const char* name, const QVariant& value) {
    return {{name, value}};
}

inline Properties with(const char* name, const QVariant& value, const char* name2,
                       const QVariant& value2) {
    return {{name, value}, {name2, value2}};
}

/// A device with the properties that udev would set.
inline LinuxBD deviceAt(const QString& node, const char* fsType, const char* kind = "partition") {
    Properties properties = {{"DEVNAME", node}, {"DEVTYPE", kind}, {"ID_FS_TYPE", fsType}};
    return LinuxBD(properties);
}

/// Owns a system descriptor.
class OpenFile {
public:
    OpenFile(const QString& path, int flags)
        : m_fd(::open(qPrintable(path), flags | O_CLOEXEC, 0644)) {}
    ~OpenFile() {
        close();
    }
    void close() {
        if (m_fd != -1)
            ::close(m_fd);
        m_fd = -1;
    }
    int fd() const {
        return m_fd;
    }

private:
    Q_DISABLE_COPY(OpenFile)

    int m_fd;
};

/// Has a disk with one partition and an ext4 file system on it.
class Ext4Test : public DiskTest {
protected:
    void SetUp() override {
        DiskTest::SetUp();
        if (IsSkipped())
            return;
        disk = std::make_unique<LoopDisk>(20 * MiB, onePartition);
        ASSERT_EQ(disk->problem(), "");
        ASSERT_TRUE(makeExt4(node()));
        device = std::make_unique<LinuxBD>(deviceAt(node(), "ext4"));
        liberrno = LibraryFailure; // the operations must clear it
    }

    QString node() const {
        return disk->node(1);
    }

    /// Mounts the device and opens a file on it, so that it is busy.
    std::unique_ptr<OpenFile> mountBusy() const {
        if (device->mount(directory(), nullptr) != 0)
            return nullptr;
        return std::make_unique<OpenFile>(directory() + "/file", O_RDWR | O_CREAT);
    }

    std::unique_ptr<LoopDisk> disk;
    std::unique_ptr<LinuxBD> device;
};

} // namespace oru::io::test
