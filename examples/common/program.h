// What the main() functions of the example programs do.
#pragma once

#include <QStringList>

/// Calls `body` with the command line, program name first. A Failure or UsageError that it throws
/// becomes a line on standard error, which `name` begins. \returns the exit status: 0, 1 after a
/// Failure, 2 after a UsageError.
int runProgram(const char* name, int argc, char* argv[], void (*body)(const QStringList&));
