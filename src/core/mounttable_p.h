// SPDX-License-Identifier: Apache-2.0
// Reading the kernel's table of mounts, proc(5).
#pragma once

#include "core/systemtext_p.h"

#include <QByteArray>
#include <QString>

namespace oru::io {

/// Converts `directory` to the spelling of the mount table: without slashes at its end, which
/// mount(2) ignores. umountPath() finds a mount by this spelling only. \returns false as toSystem()
/// does.
bool tableMountPoint(const QString& directory, SystemText& path);

/// A copy of the table, read at once: while something is unmounted, the kernel's own would omit
/// lines between two reads. Lines may have any length and content.
class MountTable {
public:
    /// The first two words of a line, not decoded: a blank in a name is "\040".
    struct Mount {
        const char* device;
        const char* mountPoint;
    };

    /// Reads the table. Sets errno when that fails.
    explicit MountTable(const char* path = "/proc/mounts");

    bool isRead() const;
    /// The next line that has two words, or null at the end. The strings are valid as long as the
    /// table.
    const Mount* next();

private:
    Q_DISABLE_COPY(MountTable)

    QByteArray m_text; // next() replaces the ends of words and lines by NULs
    char* m_line;      // the next line; null when the table could not be read
    Mount m_mount = {};
};

} // namespace oru::io
