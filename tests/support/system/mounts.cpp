// SPDX-License-Identifier: Apache-2.0
#include "support/system/mounts.h"

#include "support/system/files.h"

namespace oru::io::test {

namespace {

/// The table contains "\040" for a blank.
QString decoded(QString word) {
    return word.replace("\\040", " ");
}

} // namespace

/// proc(5): "36 35 98:0 /root /directory options tag... - type device filesystem-options".
QList<Mount> mountTable() {
    QList<Mount> mounts;
    for (const QString& line : QString::fromUtf8(contents("/proc/self/mountinfo")).split('\n')) {
        const QStringList words = line.split(' ');
        const int dash = words.indexOf("-");
        if (dash != -1)
            mounts.append({decoded(words[dash + 2]), decoded(words[4]), words[dash + 1],
                           words[5].split(','), words[dash + 3].split(',')});
    }
    return mounts;
}

QList<Mount> mountsOf(const QString& device) {
    QList<Mount> mounts;
    for (const Mount& mount : mountTable()) {
        if (mount.device == device)
            mounts.append(mount);
    }
    return mounts;
}

QStringList directoriesOf(const QString& device) {
    QStringList directories;
    for (const Mount& mount : mountsOf(device))
        directories.append(mount.directory);
    return directories;
}

QStringList devicesAt(const QString& directory) {
    QStringList devices;
    for (const Mount& mount : mountTable()) {
        if (mount.directory == directory)
            devices.append(mount.device);
    }
    return devices;
}

} // namespace oru::io::test
