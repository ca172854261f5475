// StorageLocation: the operations, fields and virtual functions of all locations.

#include "support/doubles/memfs.h"
#include "support/doubles/openlocation.h"
#include "support/suite/slots.h"

#include <oruio/error.h>
#include <oruio/storagelocation.h>

#include <QMetaMethod>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <vector>

namespace oru::io {
namespace {

using test::MemFS;
using test::OpenLocation;
using test::slotOf;

TEST(StorageLocation, New_NothingIsKnown) {
    Properties props = {{"key", "value"}};
    const FS::SPtr fs{new MemFS};
    StorageLocation location("place", fs, &props);
    props["key"] = "changed";
    EXPECT_STREQ(location.name(), "place");
    EXPECT_EQ(location.fs(), fs);
    EXPECT_EQ(location.access(), StorageLocation::None);
    EXPECT_FALSE(location.isWriteProtected());
    const OpenLocation copied("place", fs, &props);
    EXPECT_EQ(copied.m_props["key"], "changed");
    EXPECT_FALSE(copied.m_enabled);
    EXPECT_FALSE(copied.m_present);
    EXPECT_FALSE(copied.m_writeProtected);
    EXPECT_FALSE(copied.m_mounted);
    EXPECT_FALSE(copied.m_mountOk);
    const OpenLocation bare(nullptr, {}, nullptr);
    EXPECT_TRUE(bare.m_props.isEmpty());
    EXPECT_STREQ(const_cast<OpenLocation&>(bare).name(), "");
}

TEST(StorageLocation, Operations_NotImplemented) {
    StorageLocation location("place", {}, nullptr);
    for (const auto& call : std::vector<std::function<int()>>{
             [&] { return location.check(); }, [&] { return location.mkReadOnly(); },
             [&] { return location.mkWriteable(); }, [&] { return location.mount(nullptr); },
             [&] { return location.umount(nullptr); }}) {
        liberrno = Ok;
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(liberrno, NotImplemented);
    }
    EXPECT_EQ(location.enable(), 0);
    EXPECT_EQ(location.disable(), 0);
}

TEST(StorageLocation, Straccess_Texts) {
    const char* const texts[] = {"Invalid", "None", "Presence", "Read", "Write", "Invalid"};
    for (int i = 0; i < 6; ++i)
        EXPECT_STREQ(StorageLocation::straccess(static_cast<StorageLocation::AccessType>(i)),
                     texts[i]);
    EXPECT_STREQ(StorageLocation::straccess(static_cast<StorageLocation::AccessType>(-1)),
                 "Invalid");
    EXPECT_EQ(sizeof(StorageLocation::AccessType), sizeof(int));
}

TEST(StorageLocation, AccessChange_IsSilent) {
    StorageLocation location("place", {}, nullptr);
    int signals_ = 0;
    QObject::connect(&location, &StorageLocation::accessChanged, [&] { ++signals_; });
    location.accessChange(StorageLocation::Write);
    EXPECT_EQ(location.access(), StorageLocation::Write);
    location.accessChange(StorageLocation::Write);
    EXPECT_EQ(location.access(), StorageLocation::Write);
    EXPECT_EQ(signals_, 0);
    Q_EMIT location.accessChanged(&location, StorageLocation::Read); // the owner's
    EXPECT_EQ(signals_, 1);
}

TEST(StorageLocation, Signal_CanBeQueued) {
    StorageLocation location("place", {}, nullptr);
    const QMetaMethod signal = QMetaMethod::fromSignal(&StorageLocation::accessChanged);
    EXPECT_EQ(signal.methodSignature(),
              "accessChanged(StorageLocation*,oru::io::StorageLocation::AccessType)");
    for (int i = 0; i < signal.parameterCount(); ++i)
        EXPECT_NE(signal.parameterType(i), QMetaType::UnknownType);
}

/// Where the fields of a location are.
class LocationFields : public OpenLocation {
public:
    LocationFields() : OpenLocation("place", {}, nullptr) {}

    std::vector<std::uintptr_t> places() const {
        return {place(m_name),           place(m_fs),         place(m_enabled), place(m_present),
                place(m_writeProtected), place(m_access),     place(m_props),   place(m_blkDevId),
                place(m_blkDevWhole),    place(m_blkDevPart), place(m_mountOk), place(m_mounted)};
    }

private:
    template <class Field>
    static std::uintptr_t place(const Field& field) {
        return reinterpret_cast<std::uintptr_t>(&field);
    }
};

TEST(StorageLocation, Fields_InOrder) {
    const LocationFields fields;
    const std::vector<std::uintptr_t> places = fields.places();
    // Behind what QObject has; those of local media are behind those of all locations.
    EXPECT_GE(places.front(), reinterpret_cast<std::uintptr_t>(&fields) + sizeof(QObject));
    for (std::size_t i = 1; i < places.size(); ++i)
        EXPECT_LT(places[i - 1], places[i]) << i;
    EXPECT_EQ(sizeof(RemoteLocation), sizeof(StorageLocation));
}

TEST(StorageLocation, Slots_InOrder) {
    // Behind those of QObject, and its destructor's two.
    const int first = slotOf(&StorageLocation::enable);
    int slot = first;
    EXPECT_EQ(slotOf(&StorageLocation::enable), slot++);
    EXPECT_EQ(slotOf(&StorageLocation::disable), slot++);
    EXPECT_EQ(slotOf(&StorageLocation::check), slot++);
    EXPECT_EQ(slotOf(&StorageLocation::mkReadOnly), slot++);
    EXPECT_EQ(slotOf(&StorageLocation::mkWriteable), slot++);
    EXPECT_EQ(slotOf(&StorageLocation::mount), slot++);
    EXPECT_EQ(slotOf(&StorageLocation::umount), slot++);
    EXPECT_EQ(slotOf(&StorageLocation::isWriteProtected), slot++);
    const int behind = slot;
    EXPECT_EQ(slotOf(&SystemLocation::format), slot++);
    EXPECT_EQ(slotOf(&SystemLocation::matchesId), slot++);
    EXPECT_EQ(slotOf(&SystemLocation::logBDEvent), slot++);
    EXPECT_EQ(slotOf(&SystemLocation::processBDEvents), slot++);
    slot = behind;
    EXPECT_EQ(slotOf(&RemoteLocation::probe), slot++);
    EXPECT_EQ(slotOf(&RemoteLocation::setProperties), slot++);
    EXPECT_EQ(slotOf(&RemoteLocation::ping), slot++);
}

} // namespace
} // namespace oru::io
