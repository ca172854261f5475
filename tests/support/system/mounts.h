// SPDX-License-Identifier: Apache-2.0
// The mounts of this process, read from /proc/self/mountinfo.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>

namespace oru::io::test {

/// One line of the table.
struct Mount {
    QString device;
    QString directory;
    QString type;
    QStringList options;           ///< of this mount
    QStringList filesystemOptions; ///< of all mounts of the file system
};

/// All mounts, oldest first.
QList<Mount> mountTable();
QList<Mount> mountsOf(const QString& device);
/// The mount points of a device.
QStringList directoriesOf(const QString& device);
/// The devices mounted on a directory, topmost last.
QStringList devicesAt(const QString& directory);

} // namespace oru::io::test
