// SPDX-License-Identifier: Apache-2.0
/// \file
/// Error reporting: the error code of the library, liberrno, and the errno of the C library.
///
/// An operation that fails returns -1 or a null handle. The reason is in one of two places:
///
/// - in `errno`, when the system or a server refused the call;
/// - in the thread-local `liberrno`, when the library refused the call.
///
/// If `liberrno` is not Ok, it is the reason and errno is not. Three rules apply to both variables:
///
/// - Read them only after a call has failed. A successful call does not clear them.
/// - A call that fails with errno does not always set liberrno to Ok. So set liberrno to Ok before
///   a call made directly on a backend: strerror() then describes the errno of that call.
/// - Each thread has its own pair.
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

/// The reasons for which the library itself refuses an operation.
enum ErrorCode : std::int32_t {
    Ok = 0,             ///< no library error: after a failure errno holds the reason
    NotImplemented = 1, ///< the backend does not provide the operation
    NotFound = 2,       ///< no mount point, descriptor, handle or medium matches
    LibraryFailure = 3, ///< a library used by the backend failed; never set at present
};

/// The last library error of the calling thread; Ok in a new thread.
///
/// A thread may read and write it, as errno.
// It is read and written often, so an access must be cheap. __thread: no initialisation at run
// time. initial-exec: no function call, because the offset is known when the library is loaded.
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
/// A successful call clears neither of them. To check one operation with this function, set both to
/// 0 before the operation.
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
