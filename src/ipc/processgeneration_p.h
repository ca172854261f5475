// SPDX-License-Identifier: Apache-2.0
// Distinguishes a process from its children of fork(2).
#pragma once

namespace oru::io {

/// A number that differs between a process and its children of fork(2): how many forks led to it.
unsigned int processGeneration();

} // namespace oru::io
