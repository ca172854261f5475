// SPDX-License-Identifier: Apache-2.0
#include "files.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdio>
#include <cstdlib>

#include <unistd.h>

namespace {

/// Also syncs the file, so that it is not written back during a measurement.
bool isMade(const QString& path, int size) {
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QFile::WriteOnly) &&
           file.write(QByteArray(size, 'c')) == size && file.flush() && fsync(file.handle()) == 0;
}

} // namespace

QString directoryTemplate() {
    // The default is not /tmp, which may be in memory.
    return qEnvironmentVariable("TMPDIR", QStringLiteral("/var/tmp")) + "/oruio-bench-XXXXXX";
}

void makeFile(QTemporaryDir& root, const QString& path, int size) {
    if (root.isValid() && isMade(root.path() + path, size))
        return;
    std::fprintf(stderr, "cannot create a file in %s\n", qUtf8Printable(root.path()));
    root.remove();
    std::exit(1);
}
