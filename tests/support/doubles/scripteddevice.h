// SPDX-License-Identifier: Apache-2.0
// A block device that records its calls and returns scripted results; it needs no hardware.
#pragma once

#include <oruio/bdmon.h>
#include <oruio/error.h>

#include <QList>
#include <QStringList>

namespace oru::io::test {

/// Records each call and returns `result`.
class ScriptedDevice : public BlockDevice {
public:
    int mount(QString mountPoint, const Properties* props) override {
        return note("mount " + mountPoint, props);
    }
    int umount(const Properties* props) override {
        return note("umount", props);
    }
    int mkfs(const Properties* props) override {
        return note("mkfs", props);
    }
    int fsck(const Properties* props) override {
        return note(props ? "fsck with properties" : "fsck", props);
    }
    int format(const Properties* props) override {
        return note("format", props);
    }
    Properties props() override {
        return m_props;
    }

    int result = 0;
    ErrorCode reason = Ok; ///< stored in liberrno by each call
    QStringList calls;
    Properties last; ///< properties of the last call

private:
    int note(const QString& call, const Properties* given) {
        calls += call;
        last = given ? *given : Properties();
        liberrno = reason;
        return result;
    }
};

using Device = QSharedPointer<ScriptedDevice>;

inline Device makeDevice(const QString& idPath, quint32 number, quint64 blocks,
                         const QString& type) {
    auto device = Device::create();
    device->m_idPath = idPath;
    device->m_partNum = number;
    device->m_totalBlocks = blocks;
    device->m_blkSize = 512;
    device->m_fsType = type;
    device->m_devName = number == 0 ? "/dev/disk" : "/dev/disk" + QString::number(number);
    return device;
}

/// One call as a string: device, call and properties.
inline QString callString(const QString& device, const QString& call, const Properties& props) {
    QString line = device + ' ' + call;
    for (auto it = props.begin(); it != props.end(); ++it)
        line += ' ' + it.key() + '=' + it.value().toString();
    return line;
}

/// \returns the calls since the last takeCalls(), and forgets them. A device with several calls
/// gives each of them the properties of the last one.
inline QStringList takeCalls(const QList<Device>& devices) {
    QStringList taken;
    for (const Device& device : devices) {
        for (const QString& call : device->calls)
            taken += callString(device->m_devName, call, device->last);
        device->calls.clear();
    }
    return taken;
}

} // namespace oru::io::test
