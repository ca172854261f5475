// SPDX-License-Identifier: Apache-2.0
// The device that a command works on: its identity, its lock, and the exclusive claim.
#pragma once

#include "descriptor.h"
#include "status.h"

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

/// A disk or a partition, and its whole disk.
///
/// A device name given by the caller may be a link that changes, and a node may get another medium
/// at any time. So the name is looked up once. Afterwards the device is known by its descriptor,
/// which stays open, and the medium by its sequence number (BLKGETDISKSEQ).
///
/// All functions named require...() end the program if the condition is not met.
class Device {
public:
    /// Finds the device with this name, without opening it. Ends the program if it does not exist,
    /// has no medium, or has another medium than the one with `sequence`; nullptr: any medium.
    Device(std::string name, const char* sequence);
    /// The partition at this place, which has just been made on the disk.
    Device(const Device& disk, std::string place);

    /// As given by the caller, for messages.
    const std::string& name() const {
        return m_name;
    }
    /// The kernel's node, for messages.
    const std::string& node() const {
        return m_node;
    }
    /// The directory of the device in sysfs, and of its whole disk.
    const std::string& place() const {
        return m_place;
    }
    const std::string& diskPlace() const {
        return m_diskPlace;
    }
    dev_t number() const {
        return m_number;
    }
    bool isPartition() const {
        return m_place != m_diskPlace;
    }
    /// In bytes.
    std::uint64_t size() const {
        return m_size;
    }
    std::uint64_t sectorSize() const;
    int descriptor() const;
    int diskDescriptor() const {
        return m_disk.get();
    }
    /// A path of the open device for a tool that inherits the descriptor. It does not depend on
    /// the node.
    std::string path() const;

    /// The places of all devices that share blocks with this one, including itself.
    std::vector<std::string> overlapping() const;
    bool isRemovable() const;

    /// Opens the device and takes the lock of the disk, for which other runs of the program wait,
    /// and udevd, which would otherwise probe the disk. Tools inherit it. Waits a few seconds for
    /// another holder.
    void lock();
    /// Releases the lock and the device.
    void close();

    void requireSame() const;
    void requireWritable() const;
    /// Something holds the device exclusively: the kernel for a mounted file system, even if it was
    /// unmounted lazily and a file is still open, or another program. Waits for a short claim.
    void requireUnclaimed(Status status) const;
    bool isClaimed() const;
    /// The same for the whole disk, which need not be open.
    bool isDiskClaimed() const;
    /// The same claim by this program, open for writing.
    Descriptor claim() const;

private:
    Descriptor openNode(const std::string& node, dev_t number) const;
    /// Records the sequence number of the medium, or compares it with the recorded one. 0: the
    /// kernel has none.
    void identify(std::uint64_t sequence);
    /// The sequence number of the open device.
    std::uint64_t sequence() const;
    [[noreturn]] void failGone() const;
    [[noreturn]] void failExchanged() const;

    std::string m_name;
    std::string m_place;
    std::string m_diskPlace;
    std::string m_node;
    dev_t m_number = 0;
    std::uint64_t m_size = 0;
    std::uint64_t m_sequence = 0;
    Descriptor m_disk;
    Descriptor m_partition; // of a partition only
};
