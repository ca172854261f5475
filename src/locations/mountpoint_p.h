// SPDX-License-Identifier: Apache-2.0
// What the kernel has mounted on one directory.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

namespace oru::io {

/// One mount, see proc(5) on /proc/PID/mountinfo.
struct KernelMount {
    int id = -1;       ///< unique as long as it is mounted
    QByteArray number; ///< "MAJOR:MINOR" of the device
    QByteArray source; ///< the device node
    bool isReadOnly = false;

    /// Whether both are the same mount. Its options do not count.
    bool operator==(const KernelMount& other) const {
        return id == other.id && number == other.number && source == other.source;
    }
};

/// A directory, compared with the mount table by its bytes, after symbolic links are resolved.
/// Never the root directory, which must stay mounted.
class MountPoint {
public:
    explicit MountPoint(const QString& directory);

    /// Whether there is such a directory, other than the root directory.
    bool isUsable() const;
    /// The mounts on the directory, the oldest first. Empty also when the table cannot be read.
    QList<KernelMount> mounts() const;
    /// umount2(2) of what was mounted last. \returns 0, or -1 with errno.
    int unmountLast(int flags) const;

private:
    QByteArray m_path;
};

} // namespace oru::io
