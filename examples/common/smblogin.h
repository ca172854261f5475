// What a session with an SMB server begins with.
#pragma once

#include "smburl.h"

#include <oruio/properties.h>

/// The properties to connect to the share of `url` with. Obtains the password if there is a user.
/// Throws Failure.
oru::io::Properties loginTo(const SmbUrl& url);
