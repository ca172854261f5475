// SPDX-License-Identifier: Apache-2.0
#include <oruio/error.h>

#include <QMap>

#include <cerrno>
#include <cstring>

namespace oru::io {

__thread ErrorCode liberrno = Ok;

namespace {

const QMap<ErrorCode, const char*> messages{
    {Ok, "OK"},
    {NotImplemented, "Not Implemented"},
    {NotFound, "Not Found"},
    {LibraryFailure, "Library Failure"},
};

const char* describe(ErrorCode code, int sysErrno) {
    if (code == Ok)
        return std::strerror(sysErrno);
    // Signed: a negative code counts as known, is not in the table and so has no string.
    if (code < messages.size())
        return messages.value(code, nullptr);
    return "No description available";
}

} // namespace

const char* strerror() {
    return describe(liberrno, errno);
}

bool isError() {
    return liberrno != Ok || errno != 0;
}

Error::Error() : code(liberrno), sysErrno(errno) {}

const char* Error::strerror() const {
    return describe(code, sysErrno);
}

} // namespace oru::io
