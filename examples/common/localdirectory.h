// SPDX-License-Identifier: Apache-2.0
// Opens a local directory as a file system.
#pragma once

#include <oruio/fs.h>

#include <QSharedPointer>
#include <QString>

/// \returns the directory `path` as a file system, whose paths begin with a slash. Throws Failure
/// if the directory does not exist.
QSharedPointer<oru::io::FS> openLocalDirectory(const QString& path);
