// Whole files at once: the system's, for what a test looks at from outside, and those of an FS.
#pragma once

#include <oruio/fs.h>

#include <QByteArray>
#include <QString>

namespace oru::io::test {

/// What is in a file of the system; nothing when it cannot be read.
QByteArray contents(const QString& path);
/// Makes a file of the system, or makes it anew. \returns whether that worked.
bool makeFile(const QString& path, const QByteArray& text = {});

/// What is in a file of `fs`, of which it reads no more than 1 MiB; nothing when it cannot be read.
QByteArray contents(FS& fs, const QString& path);
/// Makes a file of `fs`, or makes it anew, and syncs it. \returns whether all of that worked.
bool makeFile(FS& fs, const QString& path, const QByteArray& text);

} // namespace oru::io::test
