// Parts of the system that a test program has for itself.
#pragma once

namespace oru::io::test {

/// What a process can have of its own.
enum class Namespaces { Mount, MountAndNetwork };

/// Gives the calling process mounts of its own, and with a network of its own also the kernel's and
/// udev's messages about devices: what it does there is seen by nobody else and ends with it.
/// Without privilege it becomes the root of a user namespace for that, who may mount memory file
/// systems but no disks. Call it before there are threads. \returns whether it worked; if not,
/// errno says why.
bool isolate(Namespaces namespaces);

/// Whether this program runs in an emulator of single programs, which cannot start others as Qt
/// does.
bool isEmulated();

} // namespace oru::io::test
