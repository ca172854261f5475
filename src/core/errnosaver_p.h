// Doing something after the deciding call of an operation, without losing why it failed.
#pragma once

#include <oruio/error.h>

#include <cerrno>

namespace oru::io {

/// Puts errno and liberrno back, at the end of its scope, to what they are at its beginning.
class ErrnoSaver {
public:
    ErrnoSaver() = default;
    ~ErrnoSaver() {
        liberrno = m_reason.code;
        errno = m_reason.sysErrno;
    }
    ErrnoSaver(const ErrnoSaver&) = delete;
    ErrnoSaver& operator=(const ErrnoSaver&) = delete;

private:
    const Error m_reason;
};

/// Resets `holder`, which may hold the last reference. What it held may close itself on the way,
/// which leaves errno and liberrno as the operation before has set them.
template <class Holder>
void release(Holder& holder) {
    const ErrnoSaver kept;
    holder.reset();
}

} // namespace oru::io
