// SPDX-License-Identifier: Apache-2.0
// What the tests of MaintenanceJob have in common.
#pragma once

#include <oruio/maintenancejob.h>

#include "support/doubles/maintenanceprogram.h"
#include "support/system/childprocess.h"
#include "support/system/files.h"
#include "support/system/isolated.h"
#include "support/system/tempdir.h"

#include <QFile>
#include <QObject>
#include <QString>
#include <QStringList>

namespace oru::io::test {

/// What a script of the maintenance program uses: `report LINE` writes a line about its progress,
/// `await FILE` waits until there is such a file.
inline const QByteArray scriptFunctions = R"(
report() { printf '%s\n' "$1" >"/proc/self/fd/$ORUIO_PROGRESS_FD"; }
await() { until [ -e "$1" ]; do sleep 0.01; done; }
)";

/// The signals of a job, in their order.
class Signals {
public:
    explicit Signals(const MaintenanceJob& job) {
        QObject::connect(&job, &MaintenanceJob::progressed,
                         [this](const QString& phase, int permille) {
                             list += QStringLiteral("%1 %2").arg(phase).arg(permille);
                         });
        QObject::connect(&job, &MaintenanceJob::finished,
                         [this](int status) { list += QStringLiteral("end %1").arg(status); });
    }

    QStringList list;

private:
    Q_DISABLE_COPY(Signals)
};

/// A test with files by which it and a script wait for each other.
class JobTest : public WithMaintenanceProgram {
protected:
    /// The path of a file, for a script.
    QByteArray file(const char* name) const {
        return QFile::encodeName(temp / name);
    }
    bool exists(const char* name) const {
        return QFile::exists(temp / name);
    }
    void make(const char* name) const {
        EXPECT_TRUE(makeFile(temp / name));
    }
    /// Waits until the script has made a file, while nothing advances a job.
    bool appears(const char* name) const {
        return eventually([&] { return exists(name); });
    }

    const TempDir temp;
};

} // namespace oru::io::test
