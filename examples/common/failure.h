// How an example program gives up: with one line that tells the user why.
#pragma once

#include <QString>

/// Something that could not be done; ends the program with status 1.
struct Failure {
    QString message;
};

/// A command line that makes no sense; ends the program with status 2.
struct UsageError {
    QString message;
};

/// "cannot ACTION: REASON", where the reason is the calling thread's current error. Call it
/// directly after the operation that failed.
Failure cannot(const QString& action);
