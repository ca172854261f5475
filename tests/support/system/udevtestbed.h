// SPDX-License-Identifier: Apache-2.0
// Simulated disks and cards: sysfs, device nodes and udev messages by umockdev.
#pragma once

#include <QMap>
#include <QString>

#include <memory>
#include <optional>

namespace oru::io::test {

/// While it lives, this process and those that it starts see the devices of the testbed and no
/// others. Adding a device also sends udev's message "add".
///
/// The program is linked with umockdev-preload, which replaces calls of the C library. Open
/// monitors after the testbed and close them before it.
class UdevTestbed {
public:
    using StringMap = QMap<QString, QString>;

    /// Results of the ioctls of a device node. An ioctl without a value fails with ENOTTY.
    struct Node {
        std::optional<quint32> physicalBlockSize; ///< BLKPBSZGET
        std::optional<quint64> bytes;             ///< BLKGETSIZE64
    };

    UdevTestbed();
    ~UdevTestbed();

    /// The number of messages that a monitor can queue; umockdev ends the process at the next one.
    /// Ten, unless the process has a private network namespace (isolate()).
    static int queueLength();

    /// Adds a disk such as "sda" or "mmcblk0" with these properties and those that udev sets for
    /// every disk. With an empty `idPath` it has no ID_PATH, like a RAM disk. A node is created
    /// unless `properties` has a DEVNAME outside of /dev. \returns its path in /sys, which
    /// identifies the disk in calls of the other functions.
    QString addDisk(const QString& name, const QString& idPath, const StringMap& properties = {});
    /// Adds a partition with the ID_PATH of `disk`.
    QString addPartition(const QString& disk, int number, const StringMap& properties = {});
    /// Adds a device of another subsystem.
    QString addOther(const QString& subsystem, const QString& name, const QString& idPath);
    /// Sets the ioctl results of a node in /dev, which need not belong to a device. Before that,
    /// the ioctls of a device's node fail.
    void setNode(const QString& path, const Node& node);

    /// Sets the contents of the attribute file `name` of a device.
    void setAttribute(const QString& device, const QString& name, const QString& value);
    /// Sets a udev property of a device without sending a message.
    void setProperty(const QString& device, const QString& name, const QString& value);
    /// Sends udev's message for `action` with all properties of `device`. The message is queued
    /// when send() returns.
    void send(const QString& device, const char* action);
    /// Removes a device without sending a message.
    void remove(const QString& device);

private:
    Q_DISABLE_COPY(UdevTestbed)
    class Data;

    QString add(const QString& subsystem, const QString& name, const QString& parent,
                const StringMap& properties);

    const std::unique_ptr<Data> m_data;
};

} // namespace oru::io::test
