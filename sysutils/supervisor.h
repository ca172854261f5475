// SPDX-License-Identifier: Apache-2.0
// The two processes of the program.
//
// The process that the caller has started only waits. The work is done by its child, which has a
// session of its own. So neither Ctrl-C, which goes to the caller's process group, nor the death of
// the first process, be it by SIGKILL, cuts a format or a repair in two. The first process passes
// SIGTERM, SIGINT and SIGHUP on, and ends with the status of the child.
#pragma once

#include <vector>

#include <sys/types.h>

namespace supervisor {

/// Makes the standard descriptors usable, closes all others but this one, and sets the signals. A
/// descriptor of the caller could keep another medium busy, or the lock of this one.
void prepareProcess(int keptDescriptor);

/// Forks. Returns in the child only.
void begin();

/// Whether the first process is alive. Called in the child.
bool isAlive();

/// The processes that must not be ended: both processes of the program, the ancestors of the first
/// one, and init.
const std::vector<pid_t>& protectedProcesses();

} // namespace supervisor
