// SPDX-License-Identifier: Apache-2.0
// A private mount namespace.
#pragma once

/// Moves the calling process to a private mount namespace with an empty memory file system on
/// /dev/shm. Needs root. May be called between fork(2) and exec(3). \returns whether it succeeded.
bool enterPrivateMounts();

/// Calls enterPrivateMounts() on the first call. \returns whether that succeeded.
bool hasPrivateMounts();
