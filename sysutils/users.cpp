// SPDX-License-Identifier: Apache-2.0
// The users of a device, and how they are ended.
#include "users.h"

#include "mounts.h"
#include "output.h"
#include "processes.h"
#include "progress.h"
#include "sysfs.h"
#include "waiting.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <set>

namespace {

constexpr int lookMs = 1000; // for programs that have the disk open for a moment
constexpr int termMs = 4000;
constexpr int killMs = 2000;
constexpr int unmountMs = 1000; // a killed process leaves its files a little later than /proc

std::set<dev_t> numbersOf(const Device& device) {
    std::set<dev_t> numbers{device.number()};
    for (const std::string& place : device.overlapping()) {
        if (const dev_t number = sysfs::numberAt(place))
            numbers.insert(number);
    }
    return numbers;
}

/// The mounts of these devices that the process sees, oldest first.
std::vector<Mount> mountsOn(const std::set<dev_t>& devices, const std::string& process) {
    std::vector<Mount> found = mounts::of(process);
    const auto isElsewhere = [&](const Mount& mount) {
        return devices.count(mounts::deviceOf(mount)) == 0;
    };
    found.erase(std::remove_if(found.begin(), found.end(), isElsewhere), found.end());
    return found;
}

/// The processes that use these devices.
std::vector<Process> processesUsing(const std::set<dev_t>& devices) {
    // The files of a file system like btrfs have another number than the device.
    std::set<dev_t> fileSystems = devices;
    for (const Mount& mount : mountsOn(devices, "self")) {
        fileSystems.insert(mount.number);
        if (const dev_t number = mounts::numberOfFiles(mount))
            fileSystems.insert(number);
    }
    return processes::thatUse(devices, fileSystems);
}

void requireNone(const Device& device, const std::vector<Process>& found, Status status) {
    if (found.empty())
        return;
    fail(status, device.name() + " is in use by process " + std::to_string(found[0].id()) + " (" +
                     found[0].name() + ')');
}

/// Sends the signal to all users. \returns whether all end within this time.
bool endProcesses(const Device& device, int signal, const char* name, int milliseconds) {
    const std::set<dev_t> devices = numbersOf(device);
    const std::vector<Process> found = processesUsing(devices);
    for (const Process& each : found) {
        if (each.isProtected()) {
            fail(Status::NotFreed, device.name() + " is in use by process " +
                                       std::to_string(each.id()) + ", which must not be ended");
        }
    }
    for (const Process& each : found) {
        output::print(std::string(name) + " to process " + std::to_string(each.id()) + " (" +
                      each.name() + ')');
        each.send(signal);
    }
    return waiting::until(milliseconds, [&] { return processesUsing(devices).empty(); });
}

/// Unmounts the file systems of the device, the latest first.
void unmountAll(const Device& device) {
    const std::set<dev_t> devices = numbersOf(device);
    std::vector<Mount> found = mountsOn(devices, "self");
    for (; !found.empty(); found = mountsOn(devices, "self")) {
        const Mount& latest = found.back();
        int reason = 0;
        const auto isUnmounted = [&] {
            const bool result = mounts::unmount(latest);
            reason = errno;
            return result || reason != EBUSY;
        };
        waiting::until(unmountMs, isUnmounted);
        const std::vector<Mount> left = mountsOn(devices, "self");
        if (left.size() >= found.size()) {
            output::print(latest.target + ": " + std::strerror(reason));
            fail(Status::NotFreed, device.name() + " cannot be unmounted");
        }
    }
}

} // namespace

void users::requireNotMounted(const Device& device, Status status) {
    const std::set<dev_t> devices = numbersOf(device);
    std::set<std::string> seen; // many processes see the same mounts
    for (const std::string& process : processes::all()) {
        if (!seen.insert(processes::viewOf(process)).second)
            continue;
        const std::vector<Mount> found = mountsOn(devices, process);
        if (!found.empty())
            fail(status, device.name() + " is mounted on " + found.back().target);
    }
}

void users::requireNotPartOfSystem(const Device& device) {
    const std::set<dev_t> devices = numbersOf(device);
    for (const std::string& place : device.overlapping()) {
        for (const std::string& holder : sysfs::namesIn(place + "/holders"))
            fail(Status::InUse, device.name() + " is part of " + holder);
    }
    for (const std::string& swap : mounts::swaps()) {
        if (devices.count(sysfs::numberOfNode(swap)) != 0)
            fail(Status::InUse, device.name() + " is swap space");
    }
}

void users::requireNoProcesses(const Device& device) {
    const std::set<dev_t> devices = numbersOf(device);
    std::vector<Process> found;
    const auto hasNone = [&] {
        found = processesUsing(devices);
        return found.empty();
    };
    if (!waiting::until(lookMs, hasNone))
        requireNone(device, found, Status::InUse);
}

void users::free(const Device& device) {
    progress::phase("freeing the disk");
    const std::set<dev_t> devices = numbersOf(device);
    const bool isFree = waiting::until(lookMs, [&] { return processesUsing(devices).empty(); }) ||
                        endProcesses(device, SIGTERM, "SIGTERM", termMs) ||
                        endProcesses(device, SIGKILL, "SIGKILL", killMs);
    if (!isFree)
        requireNone(device, processesUsing(devices), Status::NotFreed);
    unmountAll(device);
    requireNotMounted(device, Status::NotFreed);
}
