// A location of local media whose state a test can look at.
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

/// A root switch of the test's own, for as long as it lives.
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

/// What is known of a location, each fact by its name.
using Facts = QMap<QString, QString>;

/// Opens up what a location keeps for itself.
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

    /// All of it; devices by their nodes, "-" for none.
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

/// "access=Write disk=sda ..."
inline QString factsText(const Facts& facts) {
    QString text;
    for (auto it = facts.begin(); it != facts.end(); ++it)
        text += (text.isEmpty() ? "" : " ") + it.key() + '=' + it.value();
    return text;
}

} // namespace oru::io::test
