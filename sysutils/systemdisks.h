// SPDX-License-Identifier: Apache-2.0
// The disks of the running system, which no command may work on.
#pragma once

#include "device.h"

/// Ends the program if the device is on a disk of the running system, or if it cannot be excluded
/// that it is.
void requireNotSystem(const Device& device);
