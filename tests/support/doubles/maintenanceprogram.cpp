// SPDX-License-Identifier: Apache-2.0
#include "support/doubles/maintenanceprogram.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstring>

#include <sys/mount.h>

namespace oru::io::test {

namespace {

constexpr char directory[] = "/usr/local/bin";

// Writes one file for each run, with a NUL after each argument.
constexpr char recordingPart[] = R"(#!/bin/sh
run=1
while [ -e "/usr/local/bin/run-$run" ]; do
    run=$((run + 1))
done
: >"/usr/local/bin/run-$run"
for argument; do
    printf '%s\0' "$argument" >>"/usr/local/bin/run-$run"
done
)";

QString fileOfRun(int run) {
    return QStringLiteral("%1/run-%2").arg(directory).arg(run);
}

} // namespace

QString MaintenanceProgram::path() {
    return QStringLiteral("/usr/local/bin/oruio_sysutils");
}

MaintenanceProgram::MaintenanceProgram(const QByteArray& script) {
    m_isMounted = mount("tmpfs", directory, "tmpfs", 0, "mode=755") == 0;
    if (!m_isMounted) {
        m_problem = QStringLiteral("cannot mount on %1: %2").arg(directory, std::strerror(errno));
        return;
    }
    QFile program(path());
    const QByteArray text = recordingPart + script + '\n';
    if (!program.open(QFile::WriteOnly) || program.write(text) != text.size() ||
        !program.setPermissions(QFile::Permissions(0x7755)))
        m_problem = "cannot write " + path();
}

MaintenanceProgram::~MaintenanceProgram() {
    if (m_isMounted)
        umount2(directory, MNT_DETACH);
}

QString MaintenanceProgram::problem() const {
    return m_problem;
}

QList<QStringList> MaintenanceProgram::calls() const {
    QList<QStringList> found;
    for (int run = 1; QFile::exists(fileOfRun(run)); ++run) {
        QFile file(fileOfRun(run));
        if (!file.open(QFile::ReadOnly))
            break;
        QList<QByteArray> arguments = file.readAll().split('\0');
        arguments.removeLast(); // the empty part after the last NUL
        QStringList call;
        for (const QByteArray& argument : arguments)
            call += QString::fromUtf8(argument);
        found += call;
    }
    return found;
}

void MaintenanceProgram::forget() {
    for (int run = 1; QFile::remove(fileOfRun(run)); ++run)
        continue;
}

} // namespace oru::io::test
