// SPDX-License-Identifier: Apache-2.0
// The mounts of processes, in exact bytes.
#include "mounts.h"

#include "descriptor.h"
#include "sysfs.h"

#include <cerrno>
#include <fstream>
#include <memory>
#include <set>

#include <fcntl.h>
#include <libmount/libmount.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

using Table = std::unique_ptr<libmnt_table, void (*)(libmnt_table*)>;

/// Calls the function for each entry of the table, if there is one, in its order.
template <typename Function>
void forEach(const Table& table, Function&& function) {
    const std::unique_ptr<libmnt_iter, void (*)(libmnt_iter*)> iterator(
        mnt_new_iter(MNT_ITER_FORWARD), &mnt_free_iter);
    libmnt_fs* fs = nullptr;
    while (table && iterator && mnt_table_next_fs(table.get(), iterator.get(), &fs) == 0)
        function(fs);
}

std::string stringOf(const char* bytes) {
    return bytes ? bytes : "";
}

/// The types of file systems that are on devices.
const std::set<std::string>& typesWithDevice() {
    static const std::set<std::string> types = [] {
        std::set<std::string> found;
        std::ifstream table("/proc/filesystems");
        for (std::string line; std::getline(table, line);) {
            if (!line.empty() && line[0] == '\t') // otherwise "nodev"
                found.insert(line.substr(1));
        }
        return found;
    }();
    return types;
}

/// The root of the mount that is at the path.
Descriptor openRoot(const std::string& path) {
    return Descriptor(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

/// The number of the mount that the open file is on; -1 if it cannot be found.
int mountOf(const Descriptor& opened) {
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(opened.get()));
    for (std::string word; opened.isOpen() && info >> word;) {
        int id = 0;
        if (word == "mnt_id:" && info >> id)
            return id;
    }
    return -1;
}

} // namespace

std::vector<Mount> mounts::of(const std::string& process) {
    std::vector<Mount> found;
    const std::string path = "/proc/" + process + "/mountinfo";
    forEach(Table(mnt_new_table_from_file(path.c_str()), &mnt_unref_table), [&](libmnt_fs* fs) {
        found.push_back({mnt_fs_get_id(fs), mnt_fs_get_devno(fs), stringOf(mnt_fs_get_fstype(fs)),
                         stringOf(mnt_fs_get_source(fs)), stringOf(mnt_fs_get_target(fs)),
                         stringOf(mnt_fs_get_fs_options(fs))});
    });
    return found;
}

dev_t mounts::deviceOf(const Mount& mount) {
    if (major(mount.number) != 0)
        return mount.number;
    return typesWithDevice().count(mount.type) != 0 ? sysfs::numberOfNode(mount.source) : 0;
}

dev_t mounts::numberOfFiles(const Mount& mount) {
    const Descriptor root = openRoot(mount.target);
    struct stat status = {};
    return mountOf(root) == mount.id && fstat(root.get(), &status) == 0 ? status.st_dev : 0;
}

bool mounts::unmount(const Mount& mount) {
    // umount2(2) takes a path, and unmounts what is there now.
    if (mountOf(openRoot(mount.target)) != mount.id) {
        errno = EBUSY;
        return false;
    }
    return umount2(mount.target.c_str(), UMOUNT_NOFOLLOW) == 0;
}

std::vector<std::string> mounts::swaps() {
    std::vector<std::string> found;
    const Table table(mnt_new_table(), &mnt_unref_table);
    if (table && mnt_table_parse_swaps(table.get(), nullptr) == 0) {
        forEach(table, [&](libmnt_fs* fs) { found.push_back(stringOf(mnt_fs_get_source(fs))); });
    }
    return found;
}
