// SPDX-License-Identifier: Apache-2.0
// The partition table of a disk, and the partitions that the kernel knows.
#pragma once

#include "device.h"

#include <cstdint>

namespace partitions {

/// Writes a table of type "dos" with one partition of this type, in hexadecimal, from `start`, in
/// bytes, to the end. `descriptor` is the disk, open for writing. \returns whether that succeeds.
bool writeTable(const Device& disk, int descriptor, std::uint64_t start, const char* type);

/// Makes the kernel forget the partitions of the disk. \returns false if one of them is in use.
bool forgetAll(const Device& disk);

/// Makes the kernel know the partition 1. This needs no support for partition tables in the kernel.
bool addFirst(const Device& disk, std::uint64_t start);

/// The place of the partition 1 in sysfs, when its node exists; empty before.
std::string firstOf(const Device& disk);

} // namespace partitions
