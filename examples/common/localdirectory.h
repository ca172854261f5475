// A directory of this system as a file system.
#pragma once

#include <oruio/fs.h>

#include <QSharedPointer>
#include <QString>

/// The directory `path` as a file system; its own paths begin with the slash behind it. Throws
/// Failure when there is no such directory.
QSharedPointer<oru::io::FS> openLocalDirectory(const QString& path);
