// SPDX-License-Identifier: Apache-2.0
#include "support/ipc/sharedobject.h"

#include "support/system/files.h"

#include <sys/stat.h>
#include <unistd.h>

namespace oru::io::test {

QString objectPath(const char* name) {
    return QStringLiteral("/dev/shm/_blk_") + name;
}

bool objectExists(const char* name) {
    return access(qPrintable(objectPath(name)), F_OK) == 0;
}

long long objectSize(const char* name) {
    struct stat st;
    return ::stat(qPrintable(objectPath(name)), &st) == 0 ? st.st_size : -1;
}

int descriptorsOf(const char* name) {
    int count = 0;
    for (int fd = 0; fd < 256; ++fd) {
        struct stat st;
        struct stat object;
        if (fstat(fd, &st) == 0 && ::stat(qPrintable(objectPath(name)), &object) == 0 &&
            st.st_ino == object.st_ino && st.st_dev == object.st_dev)
            ++count;
    }
    return count;
}

int mappingsOf(const char* name) {
    return contents("/proc/self/maps").count(objectPath(name).toUtf8());
}

} // namespace oru::io::test
