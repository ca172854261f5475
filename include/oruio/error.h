// SPDX-License-Identifier: Apache-2.0
/// \file
/// Error reporting: the library's own error code beside the C library's errno.
///
/// An operation that fails returns -1 or a null handle. The reason is in one of two places:
///
/// - in `errno`, when the system or a server refused the call;
/// - in the thread-local `liberrno`, when the library refused the call.
///
/// A `liberrno` other than Ok takes precedence. Three rules apply to both:
///
/// - Look at them only after a call has failed. A success does not clear them.
/// - A failure whose reason is in errno does not always clear liberrno. Before a call made directly
///   on a backend, set liberrno to Ok: then strerror() describes the errno of that call.
/// - Each thread has its own.
///
/// \code
/// liberrno = Ok;
/// if (fs->unlink("/clip.mov") != 0)
///     fprintf(stderr, "cannot remove the clip: %s\n", oru::io::strerror());
/// \endcode
#pragma once

#include <oruio/export.h>

#include <cstdint>

/// \namespace oru::io
/// The storage I/O library of the media recorder.
///
/// | subject | start with |
/// |---|---|
/// | files and directories, by path | FS, File, Directory |
/// | the backends | PosixFS, NFS, Smb2FS, IPCFS |
/// | one namespace over several backends | FSSwitch |
/// | integer descriptors and C strings | FDAdapter |
/// | a file system served to another process | IPCServer |
/// | cards and disks | BDMon, BlockDevice |
/// | places where media are kept | SystemLocation, RemoteLocation |
/// | errors | liberrno, strerror(), Error |
namespace oru::io {

/// Why the library itself refused an operation.
enum ErrorCode : std::int32_t {
    Ok = 0,             ///< no library error; the reason of a failure is in errno
    NotImplemented = 1, ///< the backend does not provide the operation
    NotFound = 2,       ///< no mount point, descriptor, handle or medium matches
    LibraryFailure = 3, ///< a library used by the backend failed; not set at present
};

/// The last library error of the calling thread; Ok in a new thread.
///
/// Its own thread may read and write it, like errno.
// It is read and written so often that an access must be cheap: it needs no initialisation at run
// time (__thread) and no function call, as its address is known at load time (initial-exec).
extern ORUIO_EXPORT __thread ErrorCode liberrno __attribute__((tls_model("initial-exec")));

/// Returns the message for the current error of the calling thread.
///
/// The value of liberrno selects the message:
///
/// - Ok: strerror(3) of errno.
/// - NotImplemented: "Not Implemented".
/// - NotFound: "Not Found".
/// - LibraryFailure: "Library Failure".
/// - 4 and more: "No description available".
/// - Negative, which the library never sets: null.
///
/// The caller must not free the message. A message of strerror(3) is valid until the next call of
/// this function in the same thread.
///
/// Any thread may call this function until the static objects of the library are destroyed at exit.
ORUIO_EXPORT const char* strerror();

/// Returns whether liberrno or errno of the calling thread is not 0. Changes neither.
///
/// A success clears neither of them: to check one operation, clear both before it.
ORUIO_EXPORT bool isError();

/// A copy of both error variables, to report a failure later or on another thread.
class ORUIO_EXPORT Error {
public:
    /// Copies liberrno and errno of the calling thread.
    Error();

    /// Returns the message for the copy, as oru::io::strerror() does for the calling thread.
    const char* strerror() const;

    ErrorCode code; ///< liberrno at construction
    int sysErrno;   ///< errno at construction
};

} // namespace oru::io
