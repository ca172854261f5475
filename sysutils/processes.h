// SPDX-License-Identifier: Apache-2.0
// Processes, known by their directories in /proc.
#pragma once

#include "descriptor.h"

#include <memory>
#include <set>
#include <string>
#include <vector>

#include <sys/types.h>

/// A process. Its open directory in /proc belongs to this process for good: if the process ends and
/// another one gets its number, the directory is empty.
class Process {
public:
    Process(pid_t id, Descriptor directory);

    pid_t id() const {
        return m_id;
    }
    std::string name() const;
    /// Whether it is one that must not be ended.
    bool isProtected() const;
    void send(int signal) const;

    /// Whether it has one of these block devices open, or uses a file on one of these file systems:
    /// has it open or mapped, executes it, or has it as working or root directory.
    bool uses(const std::set<dev_t>& devices, const std::set<dev_t>& fileSystems) const;
    /// Whether it is a run of this program, or udevd. They respect the lock of a disk: they wait
    /// for it, or are about to end. They are known by the file that they execute: any process can
    /// have their names.
    bool respectsLock() const;

private:
    pid_t m_id;
    std::shared_ptr<Descriptor> m_directory;
};

namespace processes {

/// The numbers of all processes.
std::vector<std::string> all();

/// The processes that use the devices, except for those that respect the lock.
std::vector<Process> thatUse(const std::set<dev_t>& devices, const std::set<dev_t>& fileSystems);

/// A name of the mounts that the process sees: equal for processes that see the same.
std::string viewOf(const std::string& process);

} // namespace processes
