// Reading the kernel's table of mounts, proc(5).
#pragma once

#include "core/systemtext_p.h"

#include <QByteArray>
#include <QString>

namespace oru::io {

/// A mount point as the table has it: without a slash at its end, which mount(2) does not mind but
/// whose mount umountPath() would not find. \returns false as toSystem().
bool tableMountPoint(const QString& directory, SystemText& path);

/// A table as it was at one moment: read piece by piece while something is unmounted, the kernel's
/// would leave lines out. Its lines may have any length and content.
class MountTable {
public:
    /// The first two words of a line, as they stand there: a blank in a name is "\040".
    struct Mount {
        const char* device;
        const char* mountPoint;
    };

    /// With errno when the table cannot be read.
    explicit MountTable(const char* path = "/proc/mounts");

    bool isRead() const;
    /// The next line that has two words; its texts live as long as the table. Null at the end.
    const Mount* next();

private:
    Q_DISABLE_COPY(MountTable)

    QByteArray m_text; // with a NUL in place of each line's and word's end that was passed
    char* m_line;      // where the next one begins; null when there is no table
    Mount m_mount = {};
};

} // namespace oru::io
