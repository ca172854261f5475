// SPDX-License-Identifier: Apache-2.0
// Private namespaces for a test program.
#pragma once

namespace oru::io::test {

/// The namespaces that isolate() creates.
enum class Namespaces { Mount, MountAndNetwork };

/// Moves the calling process to a private mount namespace, and with MountAndNetwork also to a
/// private network namespace. Mounts made there are invisible to other processes and end with this
/// one. The network namespace also separates the netlink messages of the kernel and of udev about
/// devices. An unprivileged process becomes root of a user namespace, which may mount tmpfs but no
/// disks. Call it before the process starts threads. \returns false on failure, with errno set.
bool isolate(Namespaces namespaces);

/// Whether this program runs in an emulator of single programs (qemu-user), where QProcess cannot
/// start others.
bool isEmulated();

} // namespace oru::io::test
