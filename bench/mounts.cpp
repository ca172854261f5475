// SPDX-License-Identifier: Apache-2.0
#include "mounts.h"

#include <sched.h>
#include <sys/mount.h>

bool enterPrivateMounts() {
    return unshare(CLONE_NEWNS) == 0 &&
           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, nullptr) == 0;
}

bool hasPrivateMounts() {
    static const bool result = enterPrivateMounts();
    return result;
}
