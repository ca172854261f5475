// SPDX-License-Identifier: Apache-2.0
// Writes and reads a file through the descriptor adapter, the mount switch and the local backend.
// The only argument is an empty directory.

#include <oruio/error.h>
#include <oruio/fdadapter.h>
#include <oruio/fsswitch.h>
#include <oruio/posixfs.h>

#include <cstdio>
#include <cstring>

#include <fcntl.h>

namespace {

bool check(bool ok, const char* step) {
    if (!ok)
        fprintf(stderr, "consumer: %s: %s\n", step, oru::io::strerror());
    return ok;
}

} // namespace

int main(int argc, char** argv) {
    using namespace oru::io;
    if (argc != 2)
        return 2;
    FSSwitch::rootfs()->add("/media", PosixFS::SPtr::create(QString::fromUtf8(argv[1])));
    FDAdapter* fs = FDAdapter::rootfs();

    const char data[] = "recorded";
    char back[sizeof data] = {};
    const int fd = fs->open("/media/clip", O_RDWR | O_CREAT | O_EXCL, 0600);
    const bool ok = check(fd != -1, "open") &&
                    check(fs->write(fd, data, sizeof data) == sizeof data, "write") &&
                    check(fs->pread(fd, back, sizeof back, 0) == sizeof back, "pread") &&
                    check(memcmp(data, back, sizeof data) == 0, "content") &&
                    check(fs->close(fd) == 0, "close") &&
                    check(fs->open("/elsewhere", O_RDONLY, 0) == -1, "open without a mount") &&
                    check(liberrno == NotFound, "reason");
    if (ok)
        puts("consumer: done");
    return ok ? 0 : 1;
}
