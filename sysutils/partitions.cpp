// SPDX-License-Identifier: Apache-2.0
// The partition table of a disk, and the partitions that the kernel knows.
#include "partitions.h"

#include "sysfs.h"

#include <algorithm>
#include <memory>

#include <libfdisk/libfdisk.h>
#include <linux/blkpg.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

using Context = std::unique_ptr<fdisk_context, void (*)(fdisk_context*)>;
using Partition = std::unique_ptr<fdisk_partition, void (*)(fdisk_partition*)>;
using Type = std::unique_ptr<fdisk_parttype, void (*)(fdisk_parttype*)>;

bool change(const Device& disk, int operation, blkpg_partition& partition) {
    blkpg_ioctl_arg argument = {operation, 0, sizeof partition, &partition};
    return ioctl(disk.diskDescriptor(), BLKPG, &argument) == 0;
}

} // namespace

bool partitions::writeTable(const Device& disk, int descriptor, std::uint64_t start,
                            const char* type) {
    const Context context(fdisk_new_context(), &fdisk_unref_context);
    const Partition partition(fdisk_new_partition(), &fdisk_unref_partition);
    if (!context || !partition)
        return false;
    fdisk_disable_dialogs(context.get(), 1);
    if (fdisk_assign_device_by_fd(context.get(), descriptor, disk.node().c_str(), 0) != 0 ||
        fdisk_create_disklabel(context.get(), "dos") != 0)
        return false;
    const Type code(fdisk_label_parse_parttype(fdisk_get_label(context.get(), nullptr), type),
                    &fdisk_unref_parttype);
    const fdisk_sector_t first = start / fdisk_get_sector_size(context.get());
    fdisk_set_first_lba(context.get(), 1); // otherwise 1 MiB
    fdisk_partition_set_partno(partition.get(), 0);
    fdisk_partition_set_type(partition.get(), code.get());
    fdisk_partition_set_start(partition.get(), first);
    fdisk_partition_set_size(partition.get(), fdisk_get_nsectors(context.get()) - first);
    fdisk_partition_size_explicit(partition.get(), 1);
    return fdisk_add_partition(context.get(), partition.get(), nullptr) == 0 &&
           fdisk_write_disklabel(context.get()) == 0 && fsync(descriptor) == 0;
}

bool partitions::forgetAll(const Device& disk) {
    const std::vector<std::string> places = sysfs::partitionsOf(disk.diskPlace());
    return std::all_of(places.begin(), places.end(), [&](const std::string& place) {
        blkpg_partition partition = {};
        partition.pno = static_cast<int>(sysfs::numberIn(place + "/partition").value_or(0));
        return change(disk, BLKPG_DEL_PARTITION, partition);
    });
}

bool partitions::addFirst(const Device& disk, std::uint64_t start) {
    blkpg_partition partition = {};
    partition.pno = 1;
    partition.start = static_cast<long long>(start);
    partition.length = static_cast<long long>(disk.size() - start);
    return change(disk, BLKPG_ADD_PARTITION, partition);
}

std::string partitions::firstOf(const Device& disk) {
    for (const std::string& place : sysfs::partitionsOf(disk.diskPlace())) {
        if (sysfs::lineOf(place + "/partition") == "1" &&
            sysfs::numberOfNode(sysfs::nodeOf(place)) == sysfs::numberAt(place))
            return place;
    }
    return {};
}
