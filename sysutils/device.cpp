// SPDX-License-Identifier: Apache-2.0
// The device that a command works on.
#include "device.h"

#include "progress.h"
#include "sysfs.h"
#include "waiting.h"

#include <cerrno>
#include <cstdlib>
#include <regex>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#ifndef BLKGETDISKSEQ // before Linux 5.15
#define BLKGETDISKSEQ _IOR(0x12, 128, __u64)
#endif

namespace {

constexpr int lockMs = 3000;  // udevd probes a new card in less
constexpr int claimMs = 1000; // for programs that claim a device for a moment

std::string pathOf(int descriptor) {
    return "/proc/self/fd/" + std::to_string(descriptor);
}

bool isHeld(const std::string& path) {
    const Descriptor claim(open(path.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
    return !claim.isOpen() && errno == EBUSY;
}

} // namespace

Device::Device(std::string name, const char* sequence) : m_name(std::move(name)) {
    m_number = sysfs::numberOfNode(m_name);
    if (m_number == 0)
        fail(Status::NoDevice, m_name + " is not a block device");
    m_place = sysfs::placeOf(m_number);
    if (m_place.empty())
        fail(Status::NoDevice, m_name + " is of no device that exists");
    m_diskPlace = sysfs::diskOf(m_place);
    m_node = sysfs::nodeOf(m_place);
    if (sysfs::numberOfNode(m_node) != m_number)
        fail(Status::NoDevice, m_name + " is not " + m_node);
    // The kernel may have no sequence numbers: then the medium cannot be compared.
    identify(sysfs::numberIn(m_diskPlace + "/diskseq").value_or(0));
    if (sequence && m_sequence != 0 && std::strtoull(sequence, nullptr, 10) != m_sequence)
        failExchanged();
    const auto sectors = sysfs::numberIn(m_place + "/size");
    if (!sectors)
        failGone();
    m_size = *sectors * 512;
    if (m_size == 0)
        fail(Status::WrongSize, m_name + " has no medium");
}

Device::Device(const Device& disk, std::string place)
    : m_name(disk.m_name), m_place(std::move(place)), m_diskPlace(disk.m_diskPlace),
      m_node(sysfs::nodeOf(m_place)), m_number(sysfs::numberAt(m_place)),
      m_size(sysfs::numberIn(m_place + "/size").value_or(0) * 512), m_sequence(disk.m_sequence),
      m_disk(fcntl(disk.m_disk.get(), F_DUPFD_CLOEXEC, 0)) {
    m_partition = openNode(m_node, m_number);
}

Descriptor Device::openNode(const std::string& node, dev_t number) const {
    // Read-only: udevd probes a device again when one that could write closes it.
    Descriptor opened(open(node.c_str(), O_RDONLY | O_CLOEXEC));
    if (!opened.isOpen() && errno == ENOMEDIUM)
        fail(Status::WrongSize, m_name + " has no medium");
    if (!opened.isOpen())
        fail(Status::NoDevice, node + " cannot be opened");
    struct stat status = {};
    if (fstat(opened.get(), &status) == -1 || status.st_rdev != number)
        failExchanged();
    return opened;
}

void Device::identify(std::uint64_t sequence) {
    if (m_sequence == 0)
        m_sequence = sequence;
    else if (sequence != m_sequence)
        failExchanged();
}

std::uint64_t Device::sequence() const {
    std::uint64_t number = 0;
    return ioctl(m_disk.get(), BLKGETDISKSEQ, &number) == 0 ? number : 0;
}

void Device::failGone() const {
    fail(Status::NoDevice, m_name + " has gone");
}

void Device::failExchanged() const {
    fail(Status::NoDevice, m_name + " has been exchanged");
}

int Device::descriptor() const {
    return isPartition() ? m_partition.get() : m_disk.get();
}

std::string Device::path() const {
    return pathOf(descriptor());
}

std::uint64_t Device::sectorSize() const {
    const auto size = sysfs::numberIn(m_diskPlace + "/queue/logical_block_size");
    if (!size || *size == 0)
        failGone();
    return *size;
}

std::vector<std::string> Device::overlapping() const {
    std::vector<std::string> places{m_diskPlace};
    if (isPartition()) {
        places.push_back(m_place);
    } else {
        for (const std::string& each : sysfs::partitionsOf(m_diskPlace))
            places.push_back(each);
    }
    return places;
}

// The kernel's flag is not set for SD cards, nor for most disks with USB.
bool Device::isRemovable() const {
    static const std::regex usb("/usb[0-9]+/");
    return sysfs::numberIn(m_diskPlace + "/removable").value_or(0) != 0 ||
           sysfs::lineOf(m_diskPlace + "/device/type") == "SD" ||
           std::regex_search(m_diskPlace, usb);
}

void Device::lock() {
    progress::phase("waiting for the disk");
    m_disk = openNode(sysfs::nodeOf(m_diskPlace),
                      isPartition() ? sysfs::numberAt(m_diskPlace) : m_number);
    if (isPartition())
        m_partition = openNode(m_node, m_number);
    identify(sequence());
    const auto isLocked = [this] { return flock(m_disk.get(), LOCK_EX | LOCK_NB) == 0; };
    if (!waiting::until(lockMs, isLocked))
        fail(Status::Locked, "another program is working on the disk of " + m_name);
    requireSame();
}

void Device::close() {
    m_partition.close();
    m_disk.close();
}

void Device::requireSame() const {
    if (sequence() != m_sequence || sysfs::numberOfNode(m_node) != m_number)
        failExchanged();
    // Without sequence numbers: the size differs for most other media.
    if (sysfs::numberIn(m_place + "/size").value_or(0) * 512 != m_size)
        failGone();
}

void Device::requireWritable() const {
    const auto isProtected = sysfs::numberIn(m_place + "/ro");
    if (!isProtected)
        failGone();
    if (*isProtected != 0)
        fail(Status::Protected, m_name + " is write-protected");
}

bool Device::isClaimed() const {
    return isHeld(path());
}

bool Device::isDiskClaimed() const {
    return isHeld(sysfs::nodeOf(m_diskPlace));
}

void Device::requireUnclaimed(Status status) const {
    if (!waiting::until(claimMs, [this] { return !isClaimed(); }))
        fail(status, m_name + " is in use: the kernel or another program holds it");
}

Descriptor Device::claim() const {
    Descriptor claimed(open(path().c_str(), O_RDWR | O_EXCL | O_CLOEXEC));
    if (!claimed.isOpen() && errno == EBUSY)
        fail(Status::InUse, m_name + " is in use: the kernel or another program holds it");
    if (!claimed.isOpen())
        failGone();
    return claimed;
}
