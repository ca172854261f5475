// SPDX-License-Identifier: Apache-2.0
// The login to a share of an SMB server.
#pragma once

#include "smburl.h"

#include <oruio/properties.h>

/// \returns the properties for Smb2FS::connect(). Obtains the password if `url` has a user. Throws
/// Failure.
oru::io::Properties loginTo(const SmbUrl& url);
