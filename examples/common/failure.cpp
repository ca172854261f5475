// SPDX-License-Identifier: Apache-2.0
#include "failure.h"

#include <oruio/error.h>

Failure cannot(const QString& action) {
    // Captured first: building the message may change errno.
    const oru::io::Error error;
    return {QStringLiteral("cannot %1: %2").arg(action, QString::fromUtf8(error.strerror()))};
}
