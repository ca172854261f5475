// SPDX-License-Identifier: Apache-2.0
// Processes, known by their directories in /proc.
#include "processes.h"

#include "supervisor.h"
#include "sysfs.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

using Stream = std::unique_ptr<FILE, int (*)(FILE*)>;

Stream openIn(int directory, const char* name) {
    const int fd = openat(directory, name, O_RDONLY | O_CLOEXEC);
    return {fd == -1 ? nullptr : fdopen(fd, "r"), &std::fclose};
}

/// stat(2) of what a link in /proc leads to, from the cache: a server of a network file system may
/// not answer.
bool inspect(int directory, const char* link, struct statx& status) {
    return statx(directory, link, AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC, STATX_TYPE | STATX_INO,
                 &status) == 0;
}

dev_t fileSystemOf(const struct statx& status) {
    return makedev(status.stx_dev_major, status.stx_dev_minor);
}

bool isUse(const struct statx& status, const std::set<dev_t>& devices,
           const std::set<dev_t>& fileSystems) {
    if (fileSystems.count(fileSystemOf(status)) != 0)
        return true;
    return S_ISBLK(status.stx_mode) &&
           devices.count(makedev(status.stx_rdev_major, status.stx_rdev_minor)) != 0;
}

/// Whether a line of /proc/PID/maps is of a file on one of the file systems.
bool mapsFile(int directory, const std::set<dev_t>& fileSystems) {
    const Stream maps = openIn(directory, "maps");
    char* line = nullptr;
    std::size_t capacity = 0;
    bool isFound = false;
    while (maps && !isFound && getline(&line, &capacity, maps.get()) != -1) {
        unsigned int high = 0;
        unsigned int low = 0;
        isFound = std::sscanf(line, "%*s %*s %*s %x:%x", &high, &low) == 2 &&
                  fileSystems.count(makedev(high, low)) != 0;
    }
    std::free(line);
    return isFound;
}

bool isSameFile(const struct statx& one, const struct statx& other) {
    return fileSystemOf(one) == fileSystemOf(other) && one.stx_ino == other.stx_ino;
}

/// The files that programs which respect the lock execute.
std::vector<struct statx> programsRespectingLock() {
    std::vector<struct statx> found;
    for (const char* const path :
         {"/proc/self/exe", "/lib/systemd/systemd-udevd", "/sbin/udevd", "/lib/udev/udevd"}) {
        struct statx status = {};
        if (inspect(AT_FDCWD, path, status))
            found.push_back(status);
    }
    return found;
}

} // namespace

Process::Process(pid_t id, Descriptor directory)
    : m_id(id), m_directory(std::make_shared<Descriptor>(std::move(directory))) {}

std::string Process::name() const {
    const Stream file = openIn(m_directory->get(), "comm");
    char bytes[64] = "";
    const std::size_t size = file ? std::fread(bytes, 1, sizeof bytes, file.get()) : 0;
    return size > 0 ? std::string(bytes, size - 1) : ""; // without the newline
}

bool Process::isProtected() const {
    const std::vector<pid_t>& all = supervisor::protectedProcesses();
    return std::find(all.begin(), all.end(), m_id) != all.end();
}

void Process::send(int signal) const {
#ifdef SYS_pidfd_send_signal
    if (syscall(SYS_pidfd_send_signal, m_directory->get(), signal, nullptr, 0) == 0 ||
        errno != ENOSYS)
        return;
#endif
    kill(m_id, signal); // before Linux 5.1
}

bool Process::uses(const std::set<dev_t>& devices, const std::set<dev_t>& fileSystems) const {
    const int directory = m_directory->get();
    struct statx status = {};
    for (const char* const link : {"cwd", "root", "exe"}) {
        if (inspect(directory, link, status) && isUse(status, devices, fileSystems))
            return true;
    }
    const int fds = openat(directory, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> listed(fds == -1 ? nullptr : fdopendir(fds),
                                                     &closedir);
    while (const dirent* const entry = listed ? readdir(listed.get()) : nullptr) {
        if (entry->d_name[0] != '.' && inspect(fds, entry->d_name, status) &&
            isUse(status, devices, fileSystems))
            return true;
    }
    return mapsFile(directory, fileSystems);
}

bool Process::respectsLock() const {
    static const std::vector<struct statx> programs = programsRespectingLock();
    struct statx executed = {};
    return inspect(m_directory->get(), "exe", executed) &&
           std::any_of(programs.begin(), programs.end(),
                       [&](const struct statx& program) { return isSameFile(program, executed); });
}

std::vector<std::string> processes::all() {
    std::vector<std::string> found;
    for (const std::string& name : sysfs::namesIn("/proc")) {
        if (name.find_first_not_of("0123456789") == std::string::npos)
            found.push_back(name);
    }
    return found;
}

std::vector<Process> processes::thatUse(const std::set<dev_t>& devices,
                                        const std::set<dev_t>& fileSystems) {
    std::vector<Process> found;
    for (const std::string& name : all()) {
        Descriptor directory(open(("/proc/" + name).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!directory.isOpen())
            continue;
        Process process(std::atoi(name.c_str()), std::move(directory));
        if (process.uses(devices, fileSystems) && !process.respectsLock())
            found.push_back(std::move(process));
    }
    return found;
}

std::string processes::viewOf(const std::string& process) {
    std::string view;
    for (const char* const link : {"/ns/mnt", "/root"}) {
        char target[4096];
        const ssize_t size = readlink(("/proc/" + process + link).c_str(), target, sizeof target);
        view.append(target, size > 0 ? static_cast<std::size_t>(size) : 0);
    }
    return view;
}
