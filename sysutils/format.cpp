// SPDX-License-Identifier: Apache-2.0
// The command format.
#include "commands.h"

#include "cancel.h"
#include "partitions.h"
#include "progress.h"
#include "signatures.h"
#include "supervisor.h"
#include "systemdisks.h"
#include "tools.h"
#include "users.h"
#include "waiting.h"

namespace {

constexpr std::uint64_t KiB = 1024;
constexpr std::uint64_t MiB = 1024 * KiB;
constexpr std::uint64_t GiB = 1024 * MiB;

constexpr int forgetMs = 1000; // for programs that have a partition open for a moment
constexpr int nodeMs = 5000;

struct Layout {
    std::string type;    ///< of the file system
    Words options;       ///< to make it
    const char* code;    ///< of the partition
    std::uint64_t start; ///< of the partition, a multiple of the erase unit of such a card
};

/// The layout that the SD standard prescribes for a card of this size.
Layout layoutOf(const Device& disk) {
    const std::uint64_t size = disk.size();
    if (size < 16 * MiB)
        fail(Status::WrongSize, disk.name() + " has less than 16 MiB");
    if (size <= 2 * GiB) // SDSC
        return {"vfat", {"-F", "16"}, size < 32 * MiB ? "04" : "06", 64 * KiB};
    if (size <= 32 * GiB) { // SDHC
        // Below 3 GiB, FAT32 would have too few clusters of 32 KiB.
        const std::uint64_t cluster = size < 3 * GiB ? 16 * KiB : 32 * KiB;
        const std::string sectors = std::to_string(cluster / disk.sectorSize());
        return {"vfat", {"-F", "32", "-s", sectors}, "0c", 4 * MiB};
    }
    if (size <= 2048 * GiB) // SDXC
        return {"exfat", {"-b", "16M"}, "07", 16 * MiB};
    fail(Status::WrongSize, disk.name() + " has more than 2 TiB");
}

/// Erases the disk and makes the partition. Nothing else can claim the disk before its table is
/// complete.
void partitionDisk(const Device& disk, const Layout& layout) {
    const Descriptor claimed = disk.claim();
    disk.requireSame();
    // First, as it changes nothing on the disk: it fails if a partition is in use after all.
    const auto isForgotten = [&] { return partitions::forgetAll(disk); };
    if (!waiting::until(forgetMs, isForgotten))
        fail(Status::NotPartitioned, "cannot remove the old partitions of " + disk.name());
    progress::phase("wiping");
    // Also what would be found in the new partition.
    if (!signatures::wipe(claimed.get(), 0, disk.size()) ||
        !signatures::wipe(claimed.get(), layout.start, disk.size() - layout.start))
        fail(Status::NotPartitioned, "the old contents of " + disk.name() + " cannot be removed");
    progress::phase("partitioning");
    if (!partitions::writeTable(disk, claimed.get(), layout.start, layout.code))
        fail(Status::NotPartitioned, disk.name() + " cannot be partitioned");
    if (!partitions::addFirst(disk, layout.start)) {
        fail(Status::NoPartition, "the kernel does not take the partition of " + disk.name());
    }
}

/// The new partition, when its node exists.
Device firstPartition(const Device& disk) {
    std::string place;
    const auto hasAppeared = [&] {
        place = partitions::firstOf(disk);
        return !place.empty();
    };
    if (!waiting::until(nodeMs, hasAppeared))
        fail(Status::NoPartition, "the partition of " + disk.name() + " does not appear");
    return {disk, place};
}

} // namespace

void runFormat(Words words, const Environment& environment) {
    const bool endsUsers = arguments::take(words, "-k");
    arguments::requireCount("format", words, 1, 1);
    arguments::requireNoOptions(words);
    arguments::requireRoot();
    tools::require({"mkfs.exfat", "mkfs.vfat"});
    supervisor::begin();
    Device disk(words[0], environment.sequence);
    if (disk.isPartition())
        fail(Status::WrongKind, disk.name() + " is a partition, not a disk");
    const Layout layout = layoutOf(disk);
    disk.requireWritable();
    requireNotSystem(disk);
    disk.lock();
    users::requireNotPartOfSystem(disk);
    if (endsUsers) {
        users::free(disk);
    } else {
        users::requireNotMounted(disk, Status::InUse);
        users::requireNoProcesses(disk);
    }
    disk.requireUnclaimed(endsUsers ? Status::NotFreed : Status::InUse);
    cancel::commit();
    partitionDisk(disk, layout);
    {
        const Device partition = firstPartition(disk);
        makeFileSystem(partition, layout.type, layout.options);
    }
    release(disk);
}
