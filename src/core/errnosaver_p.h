// Doing something after the deciding call of an operation, without losing why it failed.
#pragma once

#include <oruio/error.h>

#include <cerrno>

namespace oru::io {

/// Puts errno and liberrno back, at the end of its scope, to what they are at its beginning.
class KeptReason {
public:
    KeptReason() = default;
    ~KeptReason() {
        liberrno = m_reason.code;
        errno = m_reason.sysErrno;
    }
    KeptReason(const KeptReason&) = delete;
    KeptReason& operator=(const KeptReason&) = delete;

private:
    const Error m_reason;
};

/// Resets `holder`, which may hold the last reference. What it held may close itself on the way,
/// which leaves errno and liberrno as the operation before has set them.
template <class Holder>
void release(Holder& holder) {
    const KeptReason kept;
    holder.reset();
}

} // namespace oru::io
