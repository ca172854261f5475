// What an operation that this backend does not provide returns. Include last, and only in sources.
#pragma once

#include <oruio/error.h>

namespace oru::io {

/// \returns -1 with liberrno NotImplemented; errno stays as it is.
static inline int notImplemented() {
    liberrno = NotImplemented;
    return -1;
}

} // namespace oru::io
