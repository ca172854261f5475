// SPDX-License-Identifier: Apache-2.0
// Opens a share of an SMB server as a file system.
#pragma once

#include "common/smburl.h"

#include <oruio/fs.h>

#include <QSharedPointer>

/// Connects to the share of `url` and creates its directory if it does not exist. `shown` is the
/// URL for messages. The connection ends with the last reference to the file system. Throws
/// Failure.
QSharedPointer<oru::io::FS> connectToShare(const SmbUrl& url, const QString& shown);
