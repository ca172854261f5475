// SPDX-License-Identifier: Apache-2.0
// Reads and writes whole files, of the system and of an FS.
#pragma once

#include <oruio/fs.h>

#include <QByteArray>
#include <QString>

namespace oru::io::test {

/// The contents of a file of the system; empty if it cannot be read.
QByteArray contents(const QString& path);
/// Creates or truncates a file of the system and writes to it. \returns whether that succeeded.
bool makeFile(const QString& path, const QByteArray& bytes = {});

/// The contents of a file of `fs`, at most 1 MiB; empty if it cannot be read.
QByteArray contents(FS& fs, const QString& path);
/// Creates or truncates a file of `fs`, writes to it and syncs it. \returns whether that succeeded.
bool makeFile(FS& fs, const QString& path, const QByteArray& bytes);

/// How many system descriptors this process has open.
int openDescriptors();

} // namespace oru::io::test
