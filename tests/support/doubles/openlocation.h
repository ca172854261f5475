// SPDX-License-Identifier: Apache-2.0
// A location of local media that gives tests access to its protected members.
#pragma once

#include <oruio/fsswitch.h>
#include <oruio/storagelocation.h>

#include <QMap>
#include <QString>

#include <ostream>

namespace oru::io {

inline void PrintTo(StorageLocation::AccessType access, std::ostream* out) {
    *out << StorageLocation::straccess(access);
}

} // namespace oru::io

namespace oru::io::test {

/// Replaces the root switch with a new one while it lives.
class FreshRootSwitch {
public:
    FreshRootSwitch() {
        useNewSwitch();
    }
    ~FreshRootSwitch() {
        useNewSwitch();
    }

private:
    Q_DISABLE_COPY(FreshRootSwitch)

    static void useNewSwitch() {
        QSharedPointer<FSSwitch> none;
        FSSwitch::setRootfs(none);
    }
};

/// The fields of a location: values by name.
using LocationState = QMap<QString, QString>;

/// A SystemLocation with public fields.
class OpenLocation : public SystemLocation {
public:
    using StorageLocation::m_enabled;
    using StorageLocation::m_present;
    using StorageLocation::m_props;
    using StorageLocation::m_writeProtected;
    using SystemLocation::m_blkDevPart;
    using SystemLocation::m_blkDevWhole;
    using SystemLocation::m_mounted;
    using SystemLocation::m_mountOk;
    using SystemLocation::SystemLocation;

    /// All fields. Devices are given by their nodes, "-" for none.
    LocationState state() {
        const auto yesOrNo = [](bool is) { return QString(is ? "yes" : "no"); };
        const auto node = [](const BlockDevice::SPtr& device) {
            return device ? device->m_devName : QString("-");
        };
        return {{"access", straccess(access())},   {"disk", node(m_blkDevWhole)},
                {"enabled", yesOrNo(m_enabled)},   {"mounted", yesOrNo(m_mounted)},
                {"mountOk", yesOrNo(m_mountOk)},   {"part", node(m_blkDevPart)},
                {"present", yesOrNo(m_present)},   {"protected", yesOrNo(m_writeProtected)},
                {"selected", node(selectedPart())}};
    }
};

/// \returns "access=Write disk=sda ...".
inline QString stateString(const LocationState& state) {
    QString fields;
    for (auto it = state.begin(); it != state.end(); ++it)
        fields += (fields.isEmpty() ? "" : " ") + it.key() + '=' + it.value();
    return fields;
}

} // namespace oru::io::test
