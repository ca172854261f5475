// SPDX-License-Identifier: Apache-2.0
// Block devices as sysfs shows them. A "place" is the directory of a device in sysfs.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace sysfs {

/// The first line of a file; empty if there is none.
std::string lineOf(const std::string& path);
/// The number that the file contains; nothing if there is none.
std::optional<unsigned long long> numberIn(const std::string& path);

/// The place of the device with this number; empty if there is none.
std::string placeOf(dev_t number);
/// The number of the device at this place; 0 if the device has gone.
dev_t numberAt(const std::string& place);
/// The kernel's node of the device at this place.
std::string nodeOf(const std::string& place);
/// The place of the whole disk.
std::string diskOf(const std::string& place);
bool isPartition(const std::string& place);
/// The places of the disk's partitions.
std::vector<std::string> partitionsOf(const std::string& diskPlace);

/// The names in a directory, without "." and "..".
std::vector<std::string> namesIn(const std::string& directory);

/// The number of the block device with this node; 0 if it is not a node of a block device.
dev_t numberOfNode(const std::string& node);

} // namespace sysfs
