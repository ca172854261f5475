// SPDX-License-Identifier: Apache-2.0
// What is on a device: the signatures of file systems and partition tables.
#pragma once

#include "device.h"

#include <string>

namespace signatures {

struct Contents {
    std::string fileSystem;     ///< its type; empty if there is none
    std::string partitionTable; ///< likewise
};
Contents on(const Device& device);

/// Removes all signatures in this part of the device, in bytes, which is open for writing.
/// \returns whether it has none any more.
bool wipe(int descriptor, std::uint64_t begin, std::uint64_t size);

} // namespace signatures
