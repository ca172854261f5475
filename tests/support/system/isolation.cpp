// SPDX-License-Identifier: Apache-2.0
#include "support/system/isolation.h"

#include <cerrno>
#include <cstddef>
#include <string>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace oru::io::test {

namespace {

bool writeFile(const char* path, const std::string& bytes) {
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    const bool isWritten =
        fd != -1 && ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    if (fd != -1)
        ::close(fd);
    return isWritten;
}

bool enterNamespaces(int flags) {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (user == 0)
        return unshare(flags) == 0;
    return unshare(CLONE_NEWUSER | flags) == 0 && writeFile("/proc/self/setgroups", "deny") &&
           writeFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") &&
           writeFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

} // namespace

bool isolate(Namespaces namespaces) {
    const bool hasNetwork = namespaces == Namespaces::MountAndNetwork;
    // Slave: unmounts from outside are propagated. A copy of another process's mount would keep its
    // disk busy.
    if (!enterNamespaces(hasNetwork ? CLONE_NEWNS | CLONE_NEWNET : CLONE_NEWNS) ||
        mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0)
        return false;
    // umockdev queues udev's messages in a Unix socket; the default queue holds only ten.
    if (hasNetwork)
        writeFile("/proc/sys/net/unix/max_dgram_qlen", "512");
    return true;
}

bool isEmulated() {
    // Every kernel with threads has this call; the emulator does not implement it.
    void* head = nullptr;
    std::size_t size = 0;
    return syscall(SYS_get_robust_list, 0, &head, &size) == -1 && errno == ENOSYS;
}

} // namespace oru::io::test
