// SPDX-License-Identifier: Apache-2.0
// The shared memory object of a block: its file in /dev/shm, and the descriptors and mappings of
// this process that refer to it.
#pragma once

#include <QString>

namespace oru::io::test {

QString objectPath(const char* name);
bool objectExists(const char* name);
/// The size in bytes, -1 when there is no object.
long long objectSize(const char* name);
/// The number of descriptors of this process that are open on the object.
int descriptorsOf(const char* name);
/// The number of mappings of the object in this process.
int mappingsOf(const char* name);

} // namespace oru::io::test
