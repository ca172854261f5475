// SPDX-License-Identifier: Apache-2.0
// The common part of the main() functions of the example programs.
#pragma once

#include <QStringList>

/// Calls `body` with the command line, program name first. Prints a Failure or UsageError that it
/// throws on standard error, after `name`. \returns the exit status: 0; 1 after a Failure; 2 after
/// a UsageError.
int runProgram(const char* name, int argc, char* argv[], void (*body)(const QStringList&));
