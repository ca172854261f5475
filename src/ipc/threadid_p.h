// SPDX-License-Identifier: Apache-2.0
// Which thread of which process a lock belongs to.
#pragma once

#include <sys/types.h>

namespace oru::io {

/// A number that differs between a process and its children of fork(2): how many forks led to it.
unsigned int processGeneration();

/// gettid(2), cached per thread.
pid_t currentThread();

/// Whether `thread` is a thread of this process that has not ended.
bool isAlive(pid_t thread);

} // namespace oru::io
