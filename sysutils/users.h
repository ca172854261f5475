// SPDX-License-Identifier: Apache-2.0
// The users of a device: mounts, processes, swap space, other devices. And how they are ended.
#pragma once

#include "device.h"

namespace users {

/// Ends the program if any process has the device mounted: each may be in another mount namespace.
void requireNotMounted(const Device& device, Status status);

/// Ends the program if the device is in a use that format -k does not end: swap space, or a part of
/// another device.
void requireNotPartOfSystem(const Device& device);

/// Ends the program if a process has the device or a file on it open. Waits for programs that have
/// it open only for a moment.
void requireNoProcesses(const Device& device);

/// Ends the processes that use the device and unmounts its file systems. Ends the program if that
/// fails, without ending a process if one of them must not be ended.
void free(const Device& device);

} // namespace users
