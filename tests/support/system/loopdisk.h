// Disks of a test's own: image files on loop devices.
#pragma once

#include "support/system/tempdir.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <cstdio>
#include <memory>

namespace oru::io::test {

/// What a program of the system had to say.
struct ToolRun {
    int status; ///< its exit status, or -1
    QByteArray output;
    QByteArray errors;
};

/// Runs a program with its arguments, as an administrator has it, and waits for its end.
ToolRun runTool(const QStringList& command, const QByteArray& input = {});
/// The output of a program without the blanks around it; what it said of its failure if it failed.
QString outputOf(const QStringList& command);
/// The first of these programs that is not installed; empty when all are.
QString missingTool(const QStringList& names);

/// A disk. All can see it, so it is taken off the system when it ends, and also when the test dies.
/// Its mounts, though, are expected to be the process's own (isolate()).
class LoopDisk {
public:
    static constexpr qint64 MiB = 1024 * 1024;

    /// A disk of so many bytes, with the partitions that the script `table` has sfdisk(8) make.
    /// udevd has not been told of it.
    explicit LoopDisk(qint64 bytes, const QByteArray& table = {}, int sectorSize = 512);
    ~LoopDisk();

    /// Why there can be no such disks here; empty when there can.
    static QString missing();
    /// Why there is no such disk; empty when there is.
    QString problem() const;

    /// The kernel's name of the disk, such as "loop0".
    QString name() const;
    /// The device node of the disk, or of one of its partitions.
    QString node(int partition = 0) const;
    /// The place in /sys of the disk, or of one of its partitions.
    QString place(int partition = 0) const;
    /// The numbers of the partitions that the kernel knows.
    QList<int> partitions() const;
    /// The file that holds the disk's contents.
    QString image() const;
    /// Whether the image is on the loop device.
    bool isAttached() const;

    /// Has the kernel tell udevd "add", "change" or "remove".
    bool tell(const char* action, int partition = 0) const;
    /// Tells of the disk and its partitions, as when it is plugged in.
    bool plugIn() const;
    /// Removes the partitions and tells of the disk's removal, as when it is unplugged.
    bool unplug() const;
    /// Removes one partition, as when somebody partitions the disk anew.
    bool removePartition(int partition) const;
    /// Tells of the removal of the disk and its partitions, as when it is pulled out while one of
    /// them is mounted. From now on they cannot be read or written; it goes when nobody uses it.
    bool pullOut();
    /// Turns the disk's switch that forbids to write, until it goes.
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
