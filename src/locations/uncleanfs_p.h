// SPDX-License-Identifier: Apache-2.0
// Whether a file system was unmounted before its medium was removed.
#pragma once

#include <oruio/bdmon.h>

namespace oru::io {

/// Whether the file system on the device says that it was unmounted and has no errors. False for
/// types other than ext2, ext3, ext4, FAT and exFAT, and when it cannot be read.
bool isClean(const BlockDevice& device);

} // namespace oru::io
