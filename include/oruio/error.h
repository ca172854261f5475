// Error reporting: the library's own error code beside the C library's errno.
//
// Every operation of the library reports failure the POSIX way, with a result of -1 or a null
// handle, and leaves the reason in one of two places: in `errno` when the system refused the call,
// or in the thread-local `liberrno` when the library itself refused. A non-zero `liberrno` takes
// precedence. Look at these only after a call has failed: a success does not clear them. Nor does
// every failure whose reason is in errno clear `liberrno`: set it to Ok before a call made directly
// on a backend if strerror() is to tell the reason.
#pragma once

#include <oruio/export.h>

#include <cstdint>

namespace oru::io {

/// Why the library itself refused an operation.
enum ErrorCode : std::int32_t {
    Ok = 0,             ///< no library error; the reason, if any, is in errno
    NotImplemented = 1, ///< this backend does not provide the operation
    NotFound = 2,       ///< no mount point, descriptor or handle matches
    LibraryFailure = 3, ///< a library that the backend uses failed
};

/// The calling thread's last library error; 0 in every new thread.
///
/// May be read and written freely by its own thread, like errno.
// As every call of the library sets it, it is reached without a call: it needs no initialisation
// at run time (__thread) and its place is known when the program is loaded (initial-exec).
extern ORUIO_EXPORT __thread ErrorCode liberrno __attribute__((tls_model("initial-exec")));

/// The text for the calling thread's current error.
///
/// \returns strerror(3) of errno when liberrno is 0; else the library's own text: "OK",
/// "Not Implemented", "Not Found" or "Library Failure"; "No description available" for codes of 4
/// and more; null for negative codes, which the library never sets. The caller must not free the
/// text; a text of strerror(3) is valid until the thread's next call of it.
///
/// Any thread may call it, until the library's static objects are destroyed at exit.
ORUIO_EXPORT const char* strerror();

/// True when the calling thread's liberrno or errno is non-zero. Clears neither.
ORUIO_EXPORT bool isError();

/// A snapshot of both error variables, to report a failure later or on another thread.
class ORUIO_EXPORT Error {
public:
    /// Captures liberrno, then errno, of the calling thread.
    Error();

    /// The text for the captured pair, by the rule of the free strerror().
    const char* strerror() const;

    ErrorCode code; ///< liberrno at construction
    int sysErrno;   ///< errno at construction
};

} // namespace oru::io
