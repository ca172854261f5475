// SPDX-License-Identifier: Apache-2.0
// The result of an operation that a backend does not provide. Include last, and only in sources.
#pragma once

#include <oruio/error.h>

namespace oru::io {

/// \returns -1 with liberrno NotImplemented; errno stays as it is.
static inline int notImplemented() {
    liberrno = NotImplemented;
    return -1;
}

} // namespace oru::io
