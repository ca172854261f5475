// SPDX-License-Identifier: Apache-2.0
// Directories and files for the benchmarks to work on.
#pragma once

#include <QTemporaryDir>

/// The template of QTemporaryDir for a directory on the disk.
QString directoryTemplate();

/// Creates a file of `size` bytes, and its parent directories, in `root`. On failure, prints an
/// error, removes `root` and exits with status 1.
void makeFile(QTemporaryDir& root, const QString& path, int size);
