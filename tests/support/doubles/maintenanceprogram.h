// SPDX-License-Identifier: Apache-2.0
// A maintenance program that replaces the device's.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

namespace oru::io::test {

/// Mounts a memory file system on /usr/local/bin, with a shell script oruio_sysutils, and unmounts
/// it when destroyed. Needs a private mount namespace (isolate()).
class MaintenanceProgram {
public:
    /// `script` runs after the arguments are recorded. "$run" is the number of the run, from 1.
    explicit MaintenanceProgram(const QByteArray& script = "exit 0");
    ~MaintenanceProgram();

    /// Why it could not be set up; empty when it was.
    QString problem() const;
    /// The arguments of each run so far.
    QList<QStringList> calls() const;
    /// Forgets all runs.
    void forget();

    /// The path of the program.
    static QString path();

private:
    Q_DISABLE_COPY(MaintenanceProgram)

    QString m_problem;
    bool m_isMounted = false;
};

} // namespace oru::io::test
