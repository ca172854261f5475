// A maintenance program of the test's own, in the place of the device's.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

namespace oru::io::test {

/// /usr/local/bin/oruio_sysutils for as long as it lives: a shell script, in a memory file system
/// over that directory. Takes mounts of the process's own (isolate()).
class MaintenanceProgram {
public:
    /// `script` runs after the arguments have been recorded; "$run" counts the runs from 1.
    explicit MaintenanceProgram(const QByteArray& script = "exit 0");
    ~MaintenanceProgram();

    /// Why it could not be set up; empty when it was.
    QString problem() const;
    /// The arguments of each run so far.
    QList<QStringList> calls() const;
    /// As if it had never run.
    void forget();

    /// The program's place.
    static QString path();

private:
    Q_DISABLE_COPY(MaintenanceProgram)

    QString m_problem;
    bool m_isMounted = false;
};

} // namespace oru::io::test
