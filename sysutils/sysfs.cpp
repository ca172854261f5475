// SPDX-License-Identifier: Apache-2.0
// Block devices as sysfs shows them.
#include "sysfs.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>

#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

std::string sysfs::lineOf(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

std::optional<unsigned long long> sysfs::numberIn(const std::string& path) {
    const std::string line = lineOf(path);
    if (line.empty())
        return std::nullopt;
    return std::strtoull(line.c_str(), nullptr, 10);
}

std::string sysfs::placeOf(dev_t number) {
    const std::string link =
        "/sys/dev/block/" + std::to_string(major(number)) + ':' + std::to_string(minor(number));
    const std::unique_ptr<char, decltype(&std::free)> place(realpath(link.c_str(), nullptr),
                                                            &std::free);
    return place ? place.get() : "";
}

dev_t sysfs::numberAt(const std::string& place) {
    const std::string line = lineOf(place + "/dev");
    char* colon = nullptr;
    const unsigned long high = std::strtoul(line.c_str(), &colon, 10);
    return *colon == ':' ? makedev(high, std::strtoul(colon + 1, nullptr, 10)) : 0;
}

std::string sysfs::nodeOf(const std::string& place) {
    std::string name = place.substr(place.rfind('/') + 1);
    std::replace(name.begin(), name.end(), '!', '/'); // in sysfs "!" stands for a slash
    return "/dev/" + name;
}

bool sysfs::isPartition(const std::string& place) {
    return access((place + "/partition").c_str(), F_OK) == 0;
}

std::string sysfs::diskOf(const std::string& place) {
    return isPartition(place) ? place.substr(0, place.rfind('/')) : place;
}

std::vector<std::string> sysfs::partitionsOf(const std::string& diskPlace) {
    std::vector<std::string> found;
    const std::string directory = diskPlace + '/';
    for (const std::string& name : namesIn(diskPlace)) {
        if (isPartition(directory + name))
            found.push_back(directory + name);
    }
    return found;
}

std::vector<std::string> sysfs::namesIn(const std::string& directory) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> opened(opendir(directory.c_str()), &closedir);
    while (const dirent* const entry = opened ? readdir(opened.get()) : nullptr) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    return names;
}

dev_t sysfs::numberOfNode(const std::string& node) {
    struct stat status = {};
    return stat(node.c_str(), &status) == 0 && S_ISBLK(status.st_mode) ? status.st_rdev : 0;
}
