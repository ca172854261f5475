// SPDX-License-Identifier: Apache-2.0
// Why a share could not be connected.
#pragma once

#include <oruio/fssmb.h>

#include <string>

namespace oru::io {

/// The reason of a session's connect() that has failed with `error` and libsmb2's `message`.
Smb2FS::ConnectFailure::Reason reasonOf(int error, const std::string& message);

} // namespace oru::io
