// SPDX-License-Identifier: Apache-2.0
// The disks of the running system.
#include "systemdisks.h"

#include "mounts.h"
#include "sysfs.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <set>
#include <sstream>

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

constexpr char listPath[] = "/etc/oruio/system-disks";

/// Collects the numbers of the system's disks, and of the devices between them and the file
/// systems.
class SystemDisks {
public:
    SystemDisks();

    bool include(dev_t number) const {
        return number != 0 && m_numbers.count(number) != 0;
    }
    /// Whether all disks of the system are known.
    bool areComplete() const {
        return m_isListed || !m_hasUnknown;
    }

private:
    void addMount(const Mount& mount);
    void addLayers(const Mount& overlay);
    void addDirectory(const std::string& path, dev_t overlay);
    void addFileSystem(dev_t number);
    void addDevice(dev_t number);
    void addImageFile(const std::string& diskPlace);
    void addList();

    std::vector<Mount> m_mounts;
    std::set<dev_t> m_numbers;
    std::set<dev_t> m_seen;
    bool m_hasUnknown = false;
    bool m_isListed = false;
};

bool isOfSystem(const std::string& target) {
    static const std::set<std::string> paths{"/", "/usr", "/var", "/home", "/boot"};
    return paths.count(target) != 0 || target.rfind("/boot/", 0) == 0;
}

SystemDisks::SystemDisks() : m_mounts(mounts::of("self")) {
    const std::vector<Mount> ofInit = mounts::of("1");
    m_mounts.insert(m_mounts.end(), ofInit.begin(), ofInit.end());
    const bool hasRoot = std::any_of(m_mounts.begin(), m_mounts.end(),
                                     [](const Mount& mount) { return mount.target == "/"; });
    if (!hasRoot)
        fail(Status::SystemDisk, "cannot find the disks of the running system");
    for (const Mount& mount : m_mounts) {
        if (isOfSystem(mount.target))
            addMount(mount);
    }
    addList();
}

void SystemDisks::addMount(const Mount& mount) {
    if (mount.type == "overlay")
        addLayers(mount);
    else if (const dev_t device = mounts::deviceOf(mount))
        addDevice(device);
}

// The paths of the layers are those of the time when the overlay was mounted. Those of the root
// were paths in another root, as of an initramfs: now they lead nowhere, or to another directory.
void SystemDisks::addLayers(const Mount& overlay) {
    if (!m_seen.insert(overlay.number).second)
        return;
    if (overlay.target == "/")
        m_hasUnknown = true;
    std::istringstream options(overlay.options);
    for (std::string option; std::getline(options, option, ',');) {
        const std::size_t equals = option.find('=');
        const std::string name = option.substr(0, equals);
        if (name != "lowerdir" && name != "lowerdir+" && name != "datadir+" && name != "upperdir")
            continue;
        std::istringstream layers(option.substr(equals + 1));
        for (std::string layer; std::getline(layers, layer, ':');) {
            if (!layer.empty()) // "::" precedes layers with data only
                addDirectory(layer, overlay.number);
        }
    }
}

void SystemDisks::addDirectory(const std::string& path, dev_t overlay) {
    struct stat status = {};
    if (path[0] != '/' || stat(path.c_str(), &status) == -1 || status.st_dev == overlay)
        m_hasUnknown = true;
    else
        addFileSystem(status.st_dev);
}

void SystemDisks::addFileSystem(dev_t number) {
    if (major(number) != 0) {
        addDevice(number);
        return;
    }
    const auto mount = std::find_if(m_mounts.begin(), m_mounts.end(),
                                    [number](const Mount& each) { return each.number == number; });
    if (mount != m_mounts.end())
        addMount(*mount);
    else
        m_hasUnknown = true;
}

void SystemDisks::addDevice(dev_t number) {
    if (number == 0 || !m_seen.insert(number).second)
        return;
    m_numbers.insert(number);
    const std::string place = sysfs::placeOf(number);
    if (place.empty())
        return;
    const std::string diskPlace = sysfs::diskOf(place);
    m_numbers.insert(sysfs::numberAt(diskPlace));
    const std::string slaves = diskPlace + "/slaves/";
    for (const std::string& slave : sysfs::namesIn(slaves))
        addDevice(sysfs::numberAt(slaves + slave));
    addImageFile(diskPlace);
}

/// A loop device is on the disk of the file, or on the device, that it shows.
void SystemDisks::addImageFile(const std::string& diskPlace) {
    struct stat status = {};
    if (stat((diskPlace + "/loop").c_str(), &status) == -1)
        return;
    const Descriptor loop(open(sysfs::nodeOf(diskPlace).c_str(), O_RDONLY | O_CLOEXEC));
    loop_info64 info = {};
    if (ioctl(loop.get(), LOOP_GET_STATUS64, &info) == -1)
        m_hasUnknown = true;
    else
        addFileSystem(static_cast<dev_t>(info.lo_rdevice ? info.lo_rdevice : info.lo_device));
}

void SystemDisks::addList() {
    std::ifstream list(listPath);
    if (!list) {
        if (errno != ENOENT)
            fail(Status::SystemDisk, std::string(listPath) + " cannot be read");
        return;
    }
    m_isListed = true;
    for (std::string line; std::getline(list, line);) {
        const std::size_t begin = line.find_first_not_of(" \t");
        if (begin == std::string::npos || line[begin] == '#')
            continue;
        const std::size_t end = line.find_last_not_of(" \t\r");
        if (const dev_t number = sysfs::numberOfNode(line.substr(begin, end - begin + 1)))
            addDevice(number);
    }
}

/// Whether one of the disks below the device is included.
bool isOn(dev_t number, const SystemDisks& disks) {
    const std::string diskPlace = sysfs::diskOf(sysfs::placeOf(number));
    if (disks.include(number) || disks.include(sysfs::numberAt(diskPlace)))
        return true;
    const std::vector<std::string> slaves = sysfs::namesIn(diskPlace + "/slaves");
    return std::any_of(slaves.begin(), slaves.end(), [&](const std::string& slave) {
        return isOn(sysfs::numberAt(diskPlace + "/slaves/" + slave), disks);
    });
}

} // namespace

void requireNotSystem(const Device& device) {
    const SystemDisks disks;
    if (isOn(device.number(), disks))
        fail(Status::SystemDisk, device.name() + " is on a disk of the running system");
    // A mounted layer of an overlay holds its disk, seen or not.
    if (!disks.areComplete() && !device.isRemovable() && device.isDiskClaimed()) {
        fail(Status::SystemDisk,
             device.name() + " may be on a disk of the running system, which is not listed in " +
                 listPath);
    }
}
