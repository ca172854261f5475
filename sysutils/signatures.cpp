// SPDX-License-Identifier: Apache-2.0
// What is on a device.
#include "signatures.h"

#include <memory>

#include <blkid/blkid.h>
#include <unistd.h>

namespace {

using Probe = std::unique_ptr<blkid_struct_probe, void (*)(blkid_probe)>;

Probe probeOf(int descriptor, std::uint64_t begin, std::uint64_t size) {
    Probe probe(blkid_new_probe(), &blkid_free_probe);
    if (probe && blkid_probe_set_device(probe.get(), descriptor, static_cast<blkid_loff_t>(begin),
                                        static_cast<blkid_loff_t>(size)) == -1)
        probe.reset();
    return probe;
}

std::string valueOf(const Probe& probe, const char* name) {
    const char* value = nullptr;
    return blkid_probe_lookup_value(probe.get(), name, &value, nullptr) == 0 ? value : "";
}

} // namespace

signatures::Contents signatures::on(const Device& device) {
    const Probe probe = probeOf(device.descriptor(), 0, 0);
    if (!probe)
        return {};
    // Both together: the boot sector of exFAT or FAT also looks like a partition table.
    blkid_probe_enable_partitions(probe.get(), 1);
    // With several signatures the type is not certain, so there is none.
    if (blkid_do_safeprobe(probe.get()) != 0)
        return {};
    return {valueOf(probe, "TYPE"), valueOf(probe, "PTTYPE")};
}

bool signatures::wipe(int descriptor, std::uint64_t begin, std::uint64_t size) {
    const Probe probe = probeOf(descriptor, begin, size);
    if (!probe)
        return false;
    blkid_probe_enable_superblocks(probe.get(), 1);
    // Damaged ones too.
    blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_MAGIC | BLKID_SUBLKS_TYPE |
                                                       BLKID_SUBLKS_BADCSUM);
    blkid_probe_enable_partitions(probe.get(), 1);
    blkid_probe_set_partitions_flags(probe.get(), BLKID_PARTS_MAGIC | BLKID_PARTS_FORCE_GPT);
    int result = 0;
    while ((result = blkid_do_probe(probe.get())) == 0) {
        if (blkid_do_wipe(probe.get(), 0) != 0)
            return false;
    }
    return result == 1 && fsync(descriptor) == 0;
}
