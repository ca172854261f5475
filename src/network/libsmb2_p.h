// SPDX-License-Identifier: Apache-2.0
// The headers of libsmb2, in the order in which they compile.
#pragma once

#include <cstdint>
#include <ctime>

#include <smb2/smb2.h>

#include <smb2/libsmb2.h>

#include <smb2/libsmb2-raw.h>
