// SPDX-License-Identifier: Apache-2.0
// Whether a share can be used, and why not.
#pragma once

#include <oruio/fssmb.h>
#include <oruio/storagelocation.h>

#include <QString>

/// \returns whether `share` is connected and its server answers. If not, connect() may help.
bool isUsable(oru::io::Smb2FS& share);

/// \returns why connecting has failed, for the user.
QString describe(const oru::io::Smb2FS::ConnectFailure& failure);
/// \returns why `location` could not be mounted, for the user. Call it directly after the mount().
QString describeMountFailure(oru::io::StorageLocation& location);
