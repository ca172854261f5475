// SPDX-License-Identifier: Apache-2.0
// A mounted memory file system. Needs a private mount namespace (isolate()).
#pragma once

#include <QFile>
#include <QString>

#include <sys/mount.h>

namespace oru::io::test {

/// Mounts a memory file system on a directory, and unmounts it when destroyed.
class MemoryMount {
public:
    enum Use { Idle, Busy };

    /// `Busy`: one of its files is open, so that only a lazy unmount succeeds.
    MemoryMount(const QString& directory, Use use)
        : m_directory(QFile::encodeName(directory)), m_inUse(directory + "/in-use"),
          m_isSetUp(mount("tmpfs", m_directory.constData(), "tmpfs", 0, nullptr) == 0 &&
                    (use == Idle || m_inUse.open(QFile::WriteOnly))) {}
    ~MemoryMount() {
        umount2(m_directory.constData(), MNT_DETACH);
    }

    bool isSetUp() const {
        return m_isSetUp;
    }

private:
    Q_DISABLE_COPY(MemoryMount)

    const QByteArray m_directory;
    QFile m_inUse;
    const bool m_isSetUp;
};

} // namespace oru::io::test
