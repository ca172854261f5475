// SPDX-License-Identifier: Apache-2.0
// The commands. Each returns if it succeeds, and otherwise ends the program with a status.
#pragma once

#include "arguments.h"
#include "device.h"

/// What the library passes in the environment.
struct Environment {
    const char* sequence = nullptr; ///< ORUIO_DISKSEQ: the medium that is meant
};

void runFsck(const Words& words, const Environment& environment);
void runMkfs(const Words& words, const Environment& environment);
void runFormat(Words words, const Environment& environment);
void runMountNfs(Words words);

// What fsck, mkfs and format have in common.

/// Finds and locks the device; ends the program if it is unsuitable for a file system, or in use.
Device lockForFileSystem(const std::string& name, const Environment& environment);
/// Makes a file system of this type with these options.
void makeFileSystem(const Device& device, const std::string& type, const Words& options);
/// Releases the device. udevd probes it then. Waits for that, so that udevd's database is up to
/// date when the program reports success.
void release(Device& device);
