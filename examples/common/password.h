// The password for a network share: never on the command line, never on the screen.
#pragma once

#include <QString>

/// The environment variable that may have the password.
inline constexpr char passwordVariable[] = "ORUIO_SMB_PASSWORD";

/// The password of `whom`: from the environment, or else from the terminal, without echo. Throws
/// Failure, also when a stop signal comes instead.
QString obtainPassword(const QString& whom);
