// SPDX-License-Identifier: Apache-2.0
#include "networkshare.h"

#include "common/failure.h"
#include "common/sharestate.h"
#include "common/smblogin.h"

#include <oruio/fssmb.h>

#include <cerrno>

namespace {

using oru::io::Smb2FS;

/// The time-out of requests, in seconds. A recording cannot wait longer.
constexpr unsigned int timeout = 10;

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
        throw Failure{"cannot connect to " + shown + ": " + describe(fs->connectFailure())};
    QString path;
    for (const QString& name : url.directories) {
        path += '/' + name;
        ensureDirectory(*fs, path, shown);
    }
    return fs;
}
