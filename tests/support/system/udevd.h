// udevd, with rules that know nothing but the disks of the test.
#pragma once

#include "support/system/childprocess.h"

#include <QString>
#include <QStringList>

#include <memory>

namespace oru::io::test {

/// A udevd for a process that has mounts and a network of its own (isolate()), for as long as it
/// lives. Only this process hears of what it tells, although the kernel's messages go to every
/// udevd. It puts a memory file system over /run.
class Udevd {
public:
    Udevd();
    ~Udevd();

    /// Why there can be none here; empty when there can.
    static QString missing();
    /// Why it does not run; empty when it does.
    QString problem() const;

    /// What udevd will say of a disk of this name and its partitions: this "ID_PATH", and what
    /// blkid finds. Of other disks it says what the kernel does.
    bool setIdPath(const QString& disk, const QString& idPath) const;
    /// From now on it says again what the kernel does.
    void clearIdPath(const QString& disk) const;
    /// Waits until it has told of all that happened so far.
    bool settle() const;

private:
    Q_DISABLE_COPY(Udevd)

    bool cover(const QString& directory);

    QString m_problem;
    QStringList m_covered;
    std::unique_ptr<ChildProcess> m_process;
};

} // namespace oru::io::test
