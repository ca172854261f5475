// What is mounted, as the kernel tells it to this process.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>

namespace oru::io::test {

/// One line of the kernel's table of this process's mounts.
struct Mount {
    QString device;
    QString directory;
    QString type;
    QStringList options;           ///< of this mount
    QStringList filesystemOptions; ///< of all mounts of the file system
};

/// All mounts, the oldest first.
QList<Mount> mountTable();
QList<Mount> mountsOf(const QString& device);
/// Where a device is mounted.
QStringList directoriesOf(const QString& device);
/// What is mounted on a directory, the topmost last.
QStringList devicesAt(const QString& directory);

} // namespace oru::io::test
