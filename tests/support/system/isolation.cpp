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

bool writeFile(const char* path, const std::string& text) {
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    const bool isWritten =
        fd != -1 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
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
    // What others unmount goes here too: a copy of the mount would keep their disk busy.
    if (!enterNamespaces(hasNetwork ? CLONE_NEWNS | CLONE_NEWNET : CLONE_NEWNS) ||
        mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0)
        return false;
    // umockdev queues udev's messages in a socket, which takes few of them by default.
    if (hasNetwork)
        writeFile("/proc/sys/net/unix/max_dgram_qlen", "512");
    return true;
}

bool isEmulated() {
    // No kernel lacks this call that takes programs with threads.
    void* head = nullptr;
    std::size_t size = 0;
    return syscall(SYS_get_robust_list, 0, &head, &size) == -1 && errno == ENOSYS;
}

} // namespace oru::io::test
