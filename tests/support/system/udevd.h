// SPDX-License-Identifier: Apache-2.0
// A private udevd whose rules apply only to the disks of the test.
#pragma once

#include "support/system/childprocess.h"

#include <QString>
#include <QStringList>

#include <memory>

namespace oru::io::test {

/// Runs a udevd while it lives. The process needs private mount and network namespaces (isolate()).
/// The kernel's uevents go to every udevd, but the messages of this one go only to this network
/// namespace. Mounts a tmpfs over /run.
class Udevd {
public:
    Udevd();
    ~Udevd();

    /// Why no udevd can run; empty if one can.
    static QString missing();
    /// Why this udevd does not run; empty if it does.
    QString problem() const;

    /// Makes udevd add this "ID_PATH" and the results of blkid to the events of a disk and its
    /// partitions. Events of other disks have only the kernel's properties.
    bool setIdPath(const QString& disk, const QString& idPath) const;
    /// Undoes setIdPath().
    void clearIdPath(const QString& disk) const;
    /// Waits until udevd has processed all events so far.
    bool settle() const;

private:
    Q_DISABLE_COPY(Udevd)

    bool mountTmpfs(const QString& directory);

    QString m_problem;
    QStringList m_mounted;
    std::unique_ptr<ChildProcess> m_process;
};

} // namespace oru::io::test
