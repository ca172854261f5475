// SPDX-License-Identifier: Apache-2.0
#include "support/system/medialocation.h"

#include <oruio/bdmon.h>
#include <oruio/posixfs.h>

#include <gtest/gtest.h>

namespace oru::io::test {

MediaLocation::MediaLocation(const char* name, const QString& idPath, const QString& directory)
    : fs(new PosixFS(directory)), props({{"blkDevId", idPath}}), location(name, fs, &props) {
    FSSwitch::rootfs()->add(directory, fs);
    QObject::connect(&location, &StorageLocation::accessChanged, [this] { ++accessChanges; });
}

MediaLocation::~MediaLocation() {
    for (const QString& directory : FSSwitch::rootfs()->getMountPoints(fs))
        FSSwitch::rootfs()->remove(directory);
}

void MediaLocation::followMonitor() {
    QObject::connect(BDMon::instance(), &BDMon::notify, &location,
                     [this](BDMon::EventListSPtr events, BDMon::EventListByDeviceSPtr) {
                         EXPECT_EQ(location.processBDEvents(events), 0);
                     });
}

QString MediaLocation::field(const char* name) {
    return location.state()[name];
}

void MediaLocation::expectSelected(const QString& disk, const QString& part) {
    EXPECT_EQ(location.access(), StorageLocation::Presence);
    EXPECT_EQ(field("present"), "yes");
    EXPECT_EQ(field("disk"), disk);
    EXPECT_EQ(field("part"), part);
    EXPECT_EQ(field("selected"), part);
}

void expectRefused(const std::function<int()>& call, ErrorCode reason) {
    liberrno = Ok;
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(liberrno, reason);
}

} // namespace oru::io::test
