// SPDX-License-Identifier: Apache-2.0
// Disks for tests: image files on loop devices.
#pragma once

#include "support/system/tempdir.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <cstdio>
#include <memory>

namespace oru::io::test {

/// The result of a program.
struct ToolRun {
    int status; ///< exit status; -1 if it did not start or was killed
    QByteArray output;
    QByteArray errors;
};

/// Runs a program with the PATH of an administrator and waits for its end.
ToolRun runTool(const QStringList& command, const QByteArray& input = {});
/// The trimmed standard output of a program; its standard error if it failed.
QString outputOf(const QStringList& command);
/// The first of these programs that is not installed; empty if all are.
QString missingTool(const QStringList& names);

/// A loop disk. It is visible in the whole system, so it is detached by the destructor and also
/// when the test's process dies. Mount it only in a private mount namespace (isolate()).
class LoopDisk {
public:
    static constexpr qint64 MiB = 1024 * 1024;

    /// Attaches a disk of `bytes` bytes and partitions it with the sfdisk(8) script `table`. udevd
    /// is not notified.
    explicit LoopDisk(qint64 bytes, const QByteArray& table = {}, int sectorSize = 512);
    ~LoopDisk();

    /// Why loop disks cannot be created; empty if they can.
    static QString missing();
    /// Why this disk could not be created; empty if it was.
    QString problem() const;

    /// The kernel's name of the disk, such as "loop0".
    QString name() const;
    /// The device node of the disk, or of one of its partitions.
    QString node(int partition = 0) const;
    /// The directory in /sys of the disk, or of one of its partitions.
    QString sysfsPath(int partition = 0) const;
    /// The numbers of the partitions known to the kernel.
    QList<int> partitions() const;
    /// The image file.
    QString image() const;
    /// Whether the loop device still has the image.
    bool isAttached() const;

    /// Makes the kernel send the uevent "add", "change" or "remove".
    bool sendUevent(const char* action, int partition = 0) const;
    /// Sends "add" for the disk and its partitions, as when it is plugged in.
    bool plugIn() const;
    /// Removes the partitions and sends "remove" for the disk, as when it is unplugged.
    bool unplug() const;
    /// Unplugs the disk and attaches its image again under the same name. For the kernel it is
    /// another medium.
    bool exchange() const;
    /// Removes one partition, as when the disk is partitioned again.
    bool removePartition(int partition) const;
    /// Sends "remove" for the disk and its partitions, as when it is pulled out while one of them
    /// is mounted. After that reads and writes fail with EIO. The disk is detached with its last
    /// user.
    bool pullOut();
    /// Sets or clears the read-only flag of the disk. The destructor clears it.
    bool setWriteProtected(bool isProtected) const;

private:
    Q_DISABLE_COPY(LoopDisk)

    struct GuardCloser {
        void operator()(FILE* guard) const;
    };

    void attach(int sectorSize);
    void addPartitions(const QByteArray& table);
    bool removePartitions() const;
    void unmount() const;

    const TempDir m_directory;
    std::unique_ptr<FILE, GuardCloser> m_guard;
    QString m_name;
    QString m_problem;
    bool m_isPulledOut = false;
};

} // namespace oru::io::test
