// SPDX-License-Identifier: Apache-2.0
// Block devices and the location of local media: any properties in the events of udev.
//
// An input is a batch of events. Each line is an event: its action and its properties, separated by
// ";". In addition to support.h,
//
//     @    is replaced by ID_PATH=slot, the location's own
//     =    separates the name of a property and its value
//
//     add;@;DEVNAME=/dev/sda1;DEVTYPE=partition;ID_FS_TYPE=ext4;ID_PART_ENTRY_SIZE=2048

#include "fuzz/support.h"

#include <oruio/bdmon.h>
#include <oruio/posixfs.h>
#include <oruio/storagelocation.h>

#include <QByteArray>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

// No device of this machine is opened. Each node is a file of one byte, which the fuzzer chooses.
namespace {
char fl_contentsOfNodes = '0';
} // namespace

extern "C" int __wrap_stat64(const char*, struct stat64* st) {
    std::memset(st, 0, sizeof *st);
    st->st_mode = S_IFREG;
    return 0;
}

extern "C" int __wrap_open64(const char* path, int, ...) {
    if (*path == '\0') {
        errno = ENOENT;
        return -1;
    }
    const int fd = memfd_create("node", MFD_CLOEXEC);
    if (fd != -1 && pwrite(fd, &fl_contentsOfNodes, 1, 0) != 1)
        std::abort();
    return fd;
}

namespace {

using namespace oru::io;
using test::require;

const QString ownIdPath = QStringLiteral("slot");

/// The properties of an event, whose bytes end at the end of `line`.
Properties propertiesOf(const QByteArray& line) {
    Properties properties;
    const QList<QByteArray> words = line.split(';');
    for (const QByteArray& word : words.mid(1)) {
        const int sign = word.indexOf('=');
        properties[QString::fromUtf8(word.left(sign))] =
            sign == -1 ? QString() : QString::fromUtf8(word.mid(sign + 1));
    }
    return properties;
}

void checkDevice(const BlockDevice& device, const Properties& properties) {
    const auto property = [&](const QString& key) { return properties.value(key).toString(); };
    require(device.m_idPath == property(UDEV_ID_PATH), "a device has the slot of its event");
    require(device.m_devName == property(UDEV_DEVNAME), "a device has the node of its event");
    require(device.isMountable() == !property(UDEV_ID_FS_TYPE).isEmpty(),
            "a device is mountable if it has a file system");
    require(device.m_blkSize > 0, "a device has a block size");
    require(!device.m_writeProtected || fl_contentsOfNodes == '1',
            "a device is write-protected if its switch says so");
}

void checkLocation(SystemLocation& location) {
    const StorageLocation::AccessType access = location.access();
    require(access == StorageLocation::None || access == StorageLocation::Presence,
            "events mount nothing");
    const BlockDevice::SPtr selected = location.selectedPart();
    require(!selected || selected->m_idPath == ownIdPath, "a device of another slot is ignored");
    require(!location.isWriteProtected() || fl_contentsOfNodes == '1',
            "a medium is write-protected if its switch says so");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fl_contentsOfNodes = size % 2 == 0 ? '0' : '1';
    const auto own = [](char byte) {
        return byte == '@' ? "ID_PATH=" + ownIdPath.toStdString() : std::string();
    };
    Properties slot = {{"blkDevId", ownIdPath}};
    SystemLocation location("slot", PosixFS::SPtr::create("/slot"), &slot);
    const auto events = BDMon::EventListSPtr::create();
    for (const std::string_view line : test::linesOf(data, size)) {
        const QByteArray bytes = QByteArray::fromStdString(test::bytesOf(line, own));
        Properties properties = propertiesOf(bytes);
        auto* const device = new LinuxBD(properties);
        checkDevice(*device, properties);
        const int seq = events->size() + 1;
        events->append(
            BDMon::Event(seq, QString::fromUtf8(bytes.left(bytes.indexOf(';'))), device));
        const auto one = BDMon::EventListSPtr::create();
        one->append(events->last());
        location.processBDEvents(one);
        checkLocation(location);
        location.fixFSType();
    }
    location.processBDEvents(events);
    checkLocation(location);
    return 0;
}
