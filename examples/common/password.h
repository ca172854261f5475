// SPDX-License-Identifier: Apache-2.0
// Reads the password of a network share from the environment or the terminal.
#pragma once

#include <QString>

/// The environment variable for the password.
inline constexpr char passwordVariable[] = "ORUIO_SMB_PASSWORD";

/// \returns the password of `whom` from the environment; if not set, from the terminal, without
/// echo. Throws Failure, also after a stop signal.
QString obtainPassword(const QString& whom);
