// What the user is told at the end.
#pragma once

#include "recorder.h"

/// Prints the figures of a recording to standard output, one to a line.
void printSummary(const Destination& destination, const Recording& recording,
                  const ReadBack& readBack);
