// What the user is told at the end.
#pragma once

#include "recorder.h"

/// Prints one line to standard output.
void printRow(const char* label, const QString& text);

/// Prints the figures of a recording to standard output, one to a line.
void printSummary(const Destination& destination, const Recording& recording,
                  const ReadBack& readBack);
