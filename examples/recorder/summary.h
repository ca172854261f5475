// SPDX-License-Identifier: Apache-2.0
// The summary printed at the end.
#pragma once

#include "recorder.h"

/// Prints one line to standard output.
void printRow(const char* label, const QString& value);

/// Prints the figures of a recording to standard output, one to a line.
void printSummary(const Destination& destination, const Recording& recording,
                  const ReadBack& readBack);
