// SPDX-License-Identifier: Apache-2.0
// Reporting progress to the library, in the lines that oruio_sysutils(8) describes.
#pragma once

#include <string>

namespace progress {

/// Reports to the descriptor with this decimal number. Ignored if it is not a pipe or a socket that
/// the caller has opened for the program. Without it nothing is reported.
void open(const char* number);
bool isWanted();
/// The descriptor; -1 without one.
int descriptor();

void phase(const std::string& name);
/// Reports the part of the phase that is done, 0 to 1000, if it has changed.
void permille(unsigned long long done);
void committed();

} // namespace progress
