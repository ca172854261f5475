// A share of an SMB server as a file system.
#pragma once

#include "common/smburl.h"

#include <oruio/fs.h>

#include <QSharedPointer>

/// Connects to the share of `url`, and makes its directory if that is missing. `shown` is the URL
/// as the user knows it, for messages. Whoever lets go of the file system ends the connection.
/// Throws Failure.
QSharedPointer<oru::io::FS> connectToShare(const SmbUrl& url, const QString& shown);
