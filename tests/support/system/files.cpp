// SPDX-License-Identifier: Apache-2.0
#include "support/system/files.h"

#include <QDir>
#include <QFile>

#include <fcntl.h>

namespace oru::io::test {

QByteArray contents(const QString& path) {
    QFile file(path);
    return file.open(QFile::ReadOnly) ? file.readAll() : QByteArray();
}

bool makeFile(const QString& path, const QByteArray& bytes) {
    // Unbuffered: write() returns the error of the system.
    QFile file(path);
    return file.open(QFile::WriteOnly | QFile::Unbuffered) && file.write(bytes) == bytes.size();
}

QByteArray contents(FS& fs, const QString& path) {
    const QSharedPointer<File> file = fs.open(path, O_RDONLY, 0);
    return file ? file->readAll(1 << 20) : QByteArray();
}

bool makeFile(FS& fs, const QString& path, const QByteArray& bytes) {
    const QSharedPointer<File> file = fs.open(path, O_RDWR | O_CREAT | O_TRUNC, 0644);
    return file && file->write(bytes.constData(), bytes.size()) == bytes.size() &&
           file->fsync() == 0 && file->close() == 0;
}

int openDescriptors() {
    return QDir("/proc/self/fd").entryList(QDir::System | QDir::Files | QDir::AllDirs).size();
}

} // namespace oru::io::test
