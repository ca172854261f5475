// A location of local media with a public state.
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

/// Replaces the root switch with an empty one, at construction and destruction.
class OwnSwitch {
public:
    OwnSwitch() {
        useNewSwitch();
    }
    ~OwnSwitch() {
        useNewSwitch();
    }

private:
    Q_DISABLE_COPY(OwnSwitch)

    static void useNewSwitch() {
        QSharedPointer<FSSwitch> none;
        FSSwitch::setRootfs(none);
    }
};

/// The state of a location: values by their names.
using Facts = QMap<QString, QString>;

/// Makes the state of a location public.
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

    /// The whole state. Devices are given as nodes, "-" for none.
    Facts facts() {
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

/// The facts as one string: "access=Write disk=sda ...".
inline QString factsText(const Facts& facts) {
    QString listed;
    for (auto it = facts.begin(); it != facts.end(); ++it)
        listed += (listed.isEmpty() ? "" : " ") + it.key() + '=' + it.value();
    return listed;
}

} // namespace oru::io::test
