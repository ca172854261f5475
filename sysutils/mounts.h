// SPDX-License-Identifier: Apache-2.0
// The mounts of processes, in exact bytes.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

struct Mount {
    int id;
    dev_t number; ///< of the file system; major 0 belongs to no device
    std::string type;
    std::string source;
    std::string target;
    std::string options; ///< of the file system
};

namespace mounts {

/// The mounts that the process sees, oldest first. `process` is a number or "self". Empty if the
/// process has ended.
std::vector<Mount> of(const std::string& process);

/// The number of the device that the file system is on. Most file systems have the number of their
/// device. Those like btrfs have one that belongs to no device; then it is the device that is their
/// source. The source of a file system without a device, such as tmpfs, is any name and counts
/// nothing. \returns 0 for a file system without a device.
dev_t deviceOf(const Mount& mount);

/// The number that the files of the mount have. That of a subvolume of btrfs differs from the one
/// of the file system. \returns 0 if another mount covers this one.
dev_t numberOfFiles(const Mount& mount);

/// Unmounts this mount. Fails with errno EBUSY if another mount covers it.
bool unmount(const Mount& mount);

/// The devices and files with swap space in use.
std::vector<std::string> swaps();

} // namespace mounts
