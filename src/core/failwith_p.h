// SPDX-License-Identifier: Apache-2.0
// Failing a call with an errno.
#pragma once

#include <oruio/error.h>

#include <cerrno>

namespace oru::io {

/// Sets errno to `error` and clears liberrno, so that strerror() reports errno. \returns -1.
inline int failWith(int error) {
    liberrno = Ok;
    errno = error;
    return -1;
}

} // namespace oru::io
