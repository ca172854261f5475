// Disks and cards that are not there: a sysfs, device nodes and udev's messages of a test's own.
#pragma once

#include <QMap>
#include <QString>

#include <memory>
#include <optional>

namespace oru::io::test {

/// For as long as it lives, this process and those that it starts see the devices of the testbed
/// and no others, by means of umockdev. When it adds a device, it also sends udev's message "add".
///
/// The program is linked with umockdev's stand-in for calls of the C library (udev.cmake). Open no
/// monitor before the testbed, and close each before it.
class UdevTestbed {
public:
    using Texts = QMap<QString, QString>;

    /// What a device node answers; without a value, that it does not know the question.
    struct Node {
        std::optional<quint32> physicalBlockSize; ///< BLKPBSZGET
        std::optional<quint64> bytes;             ///< BLKGETSIZE64
    };

    UdevTestbed();
    ~UdevTestbed();

    /// How many messages a monitor queues before umockdev ends the process. Ten, unless the network
    /// is the process's own (isolate()).
    static int queueLength();

    /// Adds a disk called "sda" or "mmcblk0", say, with these properties and what udev would tell
    /// beside them. With an empty `idPath` it has no ID_PATH, like a RAM disk. It has a node,
    /// unless its DEVNAME is given and is outside of /dev. \returns its path in /sys, which names
    /// it to the other functions.
    QString addDisk(const QString& name, const QString& idPath, const Texts& properties = {});
    /// Adds a partition to `disk`, with its ID_PATH.
    QString addPartition(const QString& disk, int number, const Texts& properties = {});
    /// Adds a device that is no block device.
    QString addOther(const QString& subsystem, const QString& name, const QString& idPath);
    /// Lets a node in /dev, of a device or not, answer. Before that, a device's knows no question.
    void setNode(const QString& path, const Node& node);

    /// The attribute file `name` of a device.
    void setAttribute(const QString& device, const QString& name, const QString& text);
    /// Sends udev's message that `action` has happened to `device`, with all of its properties. It
    /// is queued when this returns.
    void send(const QString& device, const char* action);
    /// Takes away a device, without a message.
    void remove(const QString& device);

private:
    Q_DISABLE_COPY(UdevTestbed)
    class Data;

    QString add(const QString& subsystem, const QString& name, const QString& parent,
                const Texts& properties);

    const std::unique_ptr<Data> m_data;
};

} // namespace oru::io::test
