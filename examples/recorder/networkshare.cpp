// SPDX-License-Identifier: Apache-2.0
#include "networkshare.h"

#include "common/failure.h"
#include "common/smblogin.h"

#include <oruio/fssmb.h>

#include <cerrno>

namespace {

using oru::io::Smb2FS;

/// The time-out of requests, in seconds. A recording cannot wait longer.
constexpr unsigned int timeout = 10;

/// An explanation of errno after a failed connect, if strerror() is not sufficient.
const char* meaningOf(int error) {
    switch (error) {
    case ECONNREFUSED:
        return " (nothing listens there, or the server refuses the user or the password)";
    case EPERM:
        return " (the server insists on signed or encrypted sessions, which are not supported)";
    case ECONNRESET:
        return " (the host cannot be reached, or has ended the connection)";
    case ENOENT:
        return " (the server has no such share)";
    case EIO:
    case EAGAIN:
        return " (the server's name cannot be resolved, or its answer is not understood)";
    default:
        return "";
    }
}

/// Creates the directory `path` if it does not exist.
void ensureDirectory(Smb2FS& fs, const QString& path, const QString& shown) {
    struct stat st = {};
    if (fs.stat(path, st) == 0) {
        if (S_ISDIR(st.st_mode))
            return;
        errno = ENOTDIR;
    } else if (errno == ENOENT && (fs.mkdir(path, 0755) == 0 || errno == EEXIST)) {
        return; // EEXIST: another client created it
    }
    // A name that the server forbids has no errno of its own.
    throw cannot("use " + shown + (errno == EIO ? " (perhaps the server forbids the name)" : ""));
}

} // namespace

QSharedPointer<oru::io::FS> connectToShare(const SmbUrl& url, const QString& shown) {
    auto fs = Smb2FS::SPtr::create(timeout);
    if (fs->connect(loginTo(url)) != 0)
        throw cannot("connect to " + shown + meaningOf(errno));
    QString path;
    for (const QString& name : url.directories) {
        path += '/' + name;
        ensureDirectory(*fs, path, shown);
    }
    return fs;
}
