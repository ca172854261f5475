// Directories and files for the benchmarks to work on.
#pragma once

#include <QTemporaryDir>

/// For a directory on the disk.
QString directoryTemplate();

/// Makes a file of `size` bytes, and the directories that lead to it, in `root`. Where that fails,
/// there is nothing to measure: says so, removes `root` and ends the program.
void makeFile(QTemporaryDir& root, const QString& path, int size);
