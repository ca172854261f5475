// SPDX-License-Identifier: Apache-2.0
// The exceptions that end an example program with one line of error message.
#pragma once

#include <QString>

/// An operation failed; ends the program with status 1.
struct Failure {
    QString message;
};

/// The command line is invalid; ends the program with status 2.
struct UsageError {
    QString message;
};

/// \returns "cannot ACTION: REASON", with the calling thread's current error as the reason. Call it
/// directly after the failed operation.
Failure cannot(const QString& action);
