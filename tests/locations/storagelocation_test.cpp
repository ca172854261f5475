// SPDX-License-Identifier: Apache-2.0
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

TEST(StorageLocation, New_FieldsEmpty) {
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

TEST(StorageLocation, Straccess_EachAccess_Name) {
    const char* const names[] = {"Invalid", "None", "Presence", "Read", "Write", "Invalid"};
    for (int i = 0; i < 6; ++i)
        EXPECT_STREQ(StorageLocation::straccess(static_cast<StorageLocation::AccessType>(i)),
                     names[i]);
    EXPECT_STREQ(StorageLocation::straccess(static_cast<StorageLocation::AccessType>(-1)),
                 "Invalid");
    EXPECT_EQ(sizeof(StorageLocation::AccessType), sizeof(int));
}

TEST(StorageLocation, AccessChange_EmitsNoSignal) {
    StorageLocation location("place", {}, nullptr);
    int signals_ = 0;
    QObject::connect(&location, &StorageLocation::accessChanged, [&] { ++signals_; });
    location.accessChange(StorageLocation::Write);
    EXPECT_EQ(location.access(), StorageLocation::Write);
    location.accessChange(StorageLocation::Write);
    EXPECT_EQ(location.access(), StorageLocation::Write);
    EXPECT_EQ(signals_, 0);
    Q_EMIT location.accessChanged(&location, StorageLocation::Read); // emitted by the application
    EXPECT_EQ(signals_, 1);
}

TEST(StorageLocation, AccessChanged_ParameterTypesRegistered) {
    StorageLocation location("place", {}, nullptr);
    const QMetaMethod signal = QMetaMethod::fromSignal(&StorageLocation::accessChanged);
    EXPECT_EQ(signal.methodSignature(),
              "accessChanged(StorageLocation*,oru::io::StorageLocation::AccessType)");
    for (int i = 0; i < signal.parameterCount(); ++i)
        EXPECT_NE(signal.parameterType(i), QMetaType::UnknownType);
}

/// The addresses of the fields.
class LocationFields : public OpenLocation {
public:
    LocationFields() : OpenLocation("place", {}, nullptr) {}

    std::vector<std::uintptr_t> addresses() const {
        return {address(m_name),           address(m_fs),
                address(m_enabled),        address(m_present),
                address(m_writeProtected), address(m_access),
                address(m_props),          address(m_blkDevId),
                address(m_blkDevWhole),    address(m_blkDevPart),
                address(m_mountOk),        address(m_mounted)};
    }

private:
    template <class Field>
    static std::uintptr_t address(const Field& field) {
        return reinterpret_cast<std::uintptr_t>(&field);
    }
};

TEST(StorageLocation, Fields_InOrder) {
    const LocationFields fields;
    const std::vector<std::uintptr_t> addresses = fields.addresses();
    // After the fields of QObject. The fields of SystemLocation follow those of StorageLocation.
    EXPECT_GE(addresses.front(), reinterpret_cast<std::uintptr_t>(&fields) + sizeof(QObject));
    for (std::size_t i = 1; i < addresses.size(); ++i)
        EXPECT_LT(addresses[i - 1], addresses[i]) << i;
    EXPECT_EQ(sizeof(RemoteLocation), sizeof(StorageLocation));
}

TEST(StorageLocation, Slots_InOrder) {
    // The first one is after those of QObject, which include two for the destructor.
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
    const int end = slot;
    EXPECT_EQ(slotOf(&SystemLocation::format), slot++);
    EXPECT_EQ(slotOf(&SystemLocation::matchesId), slot++);
    EXPECT_EQ(slotOf(&SystemLocation::logBDEvent), slot++);
    EXPECT_EQ(slotOf(&SystemLocation::processBDEvents), slot++);
    slot = end;
    EXPECT_EQ(slotOf(&RemoteLocation::probe), slot++);
    EXPECT_EQ(slotOf(&RemoteLocation::setProperties), slot++);
    EXPECT_EQ(slotOf(&RemoteLocation::ping), slot++);
}

} // namespace
} // namespace oru::io
