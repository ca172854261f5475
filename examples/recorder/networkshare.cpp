#include "networkshare.h"

#include "common/failure.h"
#include "common/smblogin.h"

#include <oruio/fssmb.h>

#include <cerrno>

namespace {

using oru::io::Smb2FS;

/// What the server may take for an answer, in seconds. A recording cannot wait for longer.
constexpr unsigned int timeout = 10;

/// What a failure to connect means, where errno was made for something else.
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

/// Makes the directory `path` if there is none.
void provideDirectory(Smb2FS& fs, const QString& path, const QString& shown) {
    struct stat st = {};
    if (fs.stat(path, st) == 0) {
        if (S_ISDIR(st.st_mode))
            return;
        errno = ENOTDIR;
    } else if (errno == ENOENT && (fs.mkdir(path, 0755) == 0 || errno == EEXIST)) {
        return; // EEXIST: somebody else was faster
    }
    // What the server says to names that it does not allow has no errno of its own.
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
        provideDirectory(*fs, path, shown);
    }
    return fs;
}
