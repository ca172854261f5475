// SPDX-License-Identifier: Apache-2.0
// The maintenance program of the media recorder: checks, makes and mounts file systems, and formats
// cards. oruio_sysutils(8) describes it, with its exit statuses.
#include "commands.h"
#include "progress.h"
#include "supervisor.h"

#include <cstdlib>

#include <sys/stat.h>

namespace {

/// Takes the two variables that concern the program, and removes all of them: some of the libraries
/// read others.
Environment takeEnvironment(std::string& sequence) {
    Environment environment;
    if (const char* const value = std::getenv("ORUIO_DISKSEQ")) {
        sequence = value;
        environment.sequence = sequence.empty() ? nullptr : sequence.c_str();
    }
    progress::open(std::getenv("ORUIO_PROGRESS_FD"));
    clearenv();
    return environment;
}

void run(const Words& all, const Environment& environment) {
    if (all.empty())
        fail(Status::ArgumentCount, "no command: fsck, mkfs, format or mount.nfs");
    const std::string& command = all[0];
    const Words words(all.begin() + 1, all.end());
    if (command == "fsck")
        runFsck(words, environment);
    else if (command == "mkfs")
        runMkfs(words, environment);
    else if (command == "format")
        runFormat(words, environment);
    else if (command == "mount.nfs")
        runMountNfs(words);
    else
        fail(Status::UnknownCommand, "unknown command " + command);
}

} // namespace

int main(int argc, char* argv[]) {
    umask(022);
    std::string sequence;
    const Environment environment = takeEnvironment(sequence);
    supervisor::prepareProcess(progress::descriptor());
    run(Words(argv + (argc > 0 ? 1 : 0), argv + argc), environment);
    return EXIT_SUCCESS;
}
