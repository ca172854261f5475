// A memory file system of the test's own. Takes mounts of the process's own (isolate()).
#pragma once

#include <QFile>
#include <QString>

#include <sys/mount.h>

namespace oru::io::test {

/// Is mounted on a directory for as long as it lives, or until somebody unmounts it.
class MemoryMount {
public:
    enum Use { Idle, Busy };

    /// `Busy`: a file of it is open, so that it can only be unmounted lazily.
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
