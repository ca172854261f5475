// SPDX-License-Identifier: Apache-2.0
#include "locations/uncleanfs_p.h"

#include <QFile>

namespace oru::io {

namespace {

quint8 byteAt(const QByteArray& head, int offset) {
    return static_cast<quint8>(head[offset]);
}

/// The superblock, whose fields s_state and s_feature_incompat show it.
bool isCleanExt(const QByteArray& head) {
    constexpr int superblock = 1024;
    constexpr int state = superblock + 0x3a;
    constexpr int incompatible = superblock + 0x60;
    constexpr int isValid = 1;
    constexpr int hasErrors = 2;
    constexpr int needsRecovery = 4; // the journal has to be replayed
    return (byteAt(head, state) & (isValid | hasErrors)) == isValid &&
           !(byteAt(head, incompatible) & needsRecovery);
}

/// The byte in the boot sector in which the kernel marks a mounted FAT: bit 0.
bool isCleanFat(const QByteArray& head) {
    constexpr int stateOfFat16 = 0x25;
    constexpr int stateOfFat32 = 0x41;
    const bool isFat32 = head.mid(0x52, 5) == "FAT32";
    return !(byteAt(head, isFat32 ? stateOfFat32 : stateOfFat16) & 1);
}

/// VolumeFlags in the boot sector: VolumeDirty and MediaFailure.
bool isCleanExfat(const QByteArray& head) {
    constexpr int volumeFlags = 106;
    constexpr int dirtyOrFailed = 2 | 4;
    return !(byteAt(head, volumeFlags) & dirtyOrFailed);
}

} // namespace

bool isClean(const BlockDevice& device) {
    constexpr int size = 2048;
    QFile node(device.m_devName);
    if (!node.open(QFile::ReadOnly | QFile::Unbuffered))
        return false;
    const QByteArray head = node.read(size);
    if (head.size() != size)
        return false;
    const QString& type = device.m_fsType;
    if (type.startsWith(QLatin1String("ext")) && type.size() == 4)
        return isCleanExt(head);
    if (type == QLatin1String("vfat") || type == QLatin1String("fat"))
        return isCleanFat(head);
    return type == QLatin1String("exfat") && isCleanExfat(head);
}

} // namespace oru::io
