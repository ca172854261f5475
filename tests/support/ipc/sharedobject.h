// The object in /dev/shm that a block of shared memory lies in, as the system shows it.
#pragma once

#include <QString>

namespace oru::io::test {

QString objectPath(const char* name);
bool objectExists(const char* name);
long long objectSize(const char* name);
/// The descriptors of this process that are open on an object.
int descriptorsOf(const char* name);
int mappingsOf(const char* name);

} // namespace oru::io::test
