// SPDX-License-Identifier: Apache-2.0
// The command mount.nfs.
#include "commands.h"

#include "cancel.h"
#include "mounts.h"
#include "progress.h"
#include "supervisor.h"
#include "tools.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

#include <sys/stat.h>

namespace {

/// HOST:/PATH, where the host contains neither blanks nor slashes.
bool isTarget(const std::string& target) {
    const std::size_t colon = target.find(":/");
    return colon != std::string::npos && colon > 0 && target.find_first_of("/ \t\n\v\f\r") >= colon;
}

bool isDirectory(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// The number of mounts on the directory.
std::size_t mountsOn(const std::string& directory) {
    const std::unique_ptr<char, decltype(&std::free)> path(realpath(directory.c_str(), nullptr),
                                                           &std::free);
    const std::vector<Mount> all = mounts::of("self");
    return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), [&](const Mount& mount) {
        return path && mount.target == path.get();
    }));
}

} // namespace

void runMountNfs(Words words) {
    const bool isReadOnly = arguments::take(words, "-r");
    arguments::requireCount("mount.nfs", words, 2, 3);
    arguments::requireNoOptions(words);
    const std::string& target = words[0];
    const std::string& directory = words[1];
    if (!isTarget(target))
        fail(Status::BadTarget, target + " is not HOST:/PATH");
    if (!isDirectory(directory))
        fail(Status::NoDirectory, directory + " is not a directory");
    arguments::requireRoot();
    tools::require({"mount.nfs"});
    supervisor::begin();
    progress::phase("mounting");
    cancel::check();
    Words tool{"mount.nfs", target, directory};
    if (isReadOnly)
        tool.emplace_back("-r");
    if (words.size() > 2 && !words[2].empty())
        tool.insert(tool.end(), {"-o", words[2]});
    const std::size_t before = mountsOn(directory);
    const int status = tools::run(tool);
    if (status == tools::cancelled && mountsOn(directory) <= before)
        cancel::end();
    if (status == tools::cancelled)
        return; // it had mounted the export when it was to end
    if (status != 0) {
        fail(Status::NotMounted,
             target + " cannot be mounted: mount.nfs ended with status " + std::to_string(status));
    }
}
