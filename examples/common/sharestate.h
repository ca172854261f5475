// SPDX-License-Identifier: Apache-2.0
// Why a share cannot be connected.
#pragma once

#include <oruio/fssmb.h>

#include <QString>

/// \returns why connecting has failed, for the user.
QString describe(const oru::io::Smb2FS::ConnectFailure& failure);
