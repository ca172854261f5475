// Letting go of what may be the last reference, without losing why an operation failed.
#pragma once

#include <oruio/error.h>

#include <cerrno>

namespace oru::io {

/// Resets `holder`. What it held may close itself on the way, which leaves errno and liberrno as
/// the operation before has set them.
template <class Holder>
void release(Holder& holder) {
    const Error reason;
    holder.reset();
    liberrno = reason.code;
    errno = reason.sysErrno;
}

} // namespace oru::io
