// SPDX-License-Identifier: Apache-2.0
// The command mkfs, and what it has in common with fsck and format.
#include "commands.h"

#include "cancel.h"
#include "progress.h"
#include "signatures.h"
#include "supervisor.h"
#include "sysfs.h"
#include "systemdisks.h"
#include "tools.h"
#include "users.h"

namespace {

constexpr char settleTimeout[] = "--timeout=5";

/// A file system belongs on a partition, or on a disk without partitions.
void requireNoPartitions(const Device& device) {
    if (device.isPartition())
        return;
    if (!sysfs::partitionsOf(device.diskPlace()).empty())
        fail(Status::WrongKind, device.name() + " is a disk with partitions");
    const signatures::Contents contents = signatures::on(device);
    if (contents.fileSystem.empty() && !contents.partitionTable.empty())
        fail(Status::WrongKind, device.name() + " has a partition table");
}

} // namespace

Device lockForFileSystem(const std::string& name, const Environment& environment) {
    Device device(name, environment.sequence);
    requireNotSystem(device);
    device.lock();
    requireNoPartitions(device);
    users::requireNotMounted(device, Status::InUse);
    users::requireNotPartOfSystem(device);
    return device;
}

void makeFileSystem(const Device& device, const std::string& type, const Words& options) {
    progress::phase("making the file system");
    const std::string tool = "mkfs." + type;
    Words words{tool};
    // -I: allow a whole disk. --mbr=no: mkfs.vfat would otherwise write a partition table whose
    // partition is the disk itself.
    if (arguments::isFat(type) && !device.isPartition())
        words.insert(words.end(), {"-I", "--mbr=no"});
    // The device precedes the options, so that a word that is not an option cannot replace it.
    words.push_back(device.path());
    words.insert(words.end(), options.begin(), options.end());
    const int status = tools::runOn(device, words, Status::NotMade);
    if (status != 0) {
        fail(Status::NotMade, "no file system on " + device.node() + ": " + tool +
                                  " ended with status " + std::to_string(status));
    }
}

void release(Device& device) {
    device.close();
    if (!tools::find("udevadm").empty())
        tools::run({"udevadm", "settle", settleTimeout});
}

void runMkfs(const Words& words, const Environment& environment) {
    const arguments::ForFileSystem wanted = arguments::ofFileSystem("mkfs", words);
    if (wanted.type.empty())
        fail(Status::ArgumentCount, "mkfs has no type");
    arguments::requireType("mkfs", wanted.type);
    arguments::requireRoot();
    supervisor::begin();
    Device device = lockForFileSystem(wanted.device, environment);
    device.requireWritable();
    device.requireUnclaimed(Status::InUse);
    cancel::commit();
    makeFileSystem(device, wanted.type, wanted.options);
    release(device);
}
