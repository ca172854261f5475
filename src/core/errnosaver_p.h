// SPDX-License-Identifier: Apache-2.0
// Keeping the reason of a failure while a call cleans up.
#pragma once

#include <oruio/error.h>

#include <cerrno>

namespace oru::io {

/// Saves errno and liberrno. Its destructor restores them.
class ErrnoSaver {
public:
    ErrnoSaver() = default;
    ~ErrnoSaver() {
        liberrno = m_saved.code;
        errno = m_saved.sysErrno;
    }
    ErrnoSaver(const ErrnoSaver&) = delete;
    ErrnoSaver& operator=(const ErrnoSaver&) = delete;

private:
    const Error m_saved;
};

/// Resets `pointer`, which may be the last reference to an object. Keeps errno and liberrno, which
/// the object's destructor may change.
template <class Pointer>
void release(Pointer& pointer) {
    const ErrnoSaver saver;
    pointer.reset();
}

} // namespace oru::io
