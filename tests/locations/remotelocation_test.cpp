// SPDX-License-Identifier: Apache-2.0
// RemoteLocation: network shares, with scripted file systems.

#include "support/doubles/memfs.h"
#include "support/doubles/scriptedshare.h"
#include "support/suite/logcapture.h"
#include "support/suite/qtprint.h"

#include <oruio/error.h>
#include <oruio/storagelocation.h>

#include <gtest/gtest.h>

#include <cstdlib>

namespace oru::io {
namespace {

using test::LogCapture;
using test::MemFS;
using test::ScriptedNfs;
using test::ScriptedSmb;

const QString nowhere = QStringLiteral("/no/such/directory/");

class RemoteLocationTest : public ::testing::Test {
protected:
    void SetUp() override {
        unsetenv("SERIAL_NUMBER");
        liberrno = Ok;
    }

    const QSharedPointer<ScriptedSmb> smb = QSharedPointer<ScriptedSmb>::create(1);
    const QSharedPointer<ScriptedNfs> nfs = QSharedPointer<ScriptedNfs>::create(nowhere);
    Properties props = {{"server", "first"}};
    RemoteLocation location{"share", smb, &props};
};

TEST_F(RemoteLocationTest, IsSuccess_NothingToCheckCounts) {
    EXPECT_TRUE(location.isSuccess(location.check()));
    EXPECT_TRUE(location.isSuccess(0));
    EXPECT_FALSE(location.isSuccess(-1));
    EXPECT_FALSE(location.isSuccess(2));
    // The status of a local check.
    SystemLocation card("card", smb, &props);
    EXPECT_TRUE(card.isSuccess(0));
    EXPECT_FALSE(card.isSuccess(1));
    EXPECT_FALSE(card.isSuccess(card.check())) << "there is no medium";
}

TEST_F(RemoteLocationTest, MountAndUmount_ConnectAndDisconnect) {
    EXPECT_EQ(location.mount(nullptr), 0);
    EXPECT_EQ(smb->calls, QStringList("connect first"));
    EXPECT_EQ(location.access(), StorageLocation::Write);
    Properties second = {{"server", "second"}};
    EXPECT_EQ(location.mount(&second), 0);
    EXPECT_EQ(smb->calls.last(), "connect second");

    smb->disconnectResult = -1;
    EXPECT_EQ(location.umount(nullptr), -1);
    EXPECT_EQ(location.access(), StorageLocation::Write);
    smb->disconnectResult = 0;
    EXPECT_EQ(location.umount(nullptr), 0);
    EXPECT_EQ(location.access(), StorageLocation::None);

    smb->result = -1;
    location.accessChange(StorageLocation::Write);
    EXPECT_EQ(location.mount(nullptr), -1);
    EXPECT_EQ(location.access(), StorageLocation::None);
    smb->result = 0;
    location.setProperties(second);
    second["server"] = "third";
    EXPECT_EQ(location.mount(nullptr), 0);
    EXPECT_EQ(smb->calls.last(), "connect second");
}

TEST_F(RemoteLocationTest, Nfs_ConnectsAndDisconnects) {
    RemoteLocation export_("export", nfs, &props);
    EXPECT_FALSE(export_.ping());
    EXPECT_EQ(export_.mount(nullptr), 0);
    EXPECT_TRUE(export_.ping());
    EXPECT_EQ(export_.umount(nullptr), 0);
    nfs->result = 32;
    EXPECT_EQ(export_.mount(nullptr), 32);
    EXPECT_EQ(export_.access(), StorageLocation::None);
    EXPECT_EQ(nfs->calls, (QStringList{"isConnected", "connect first", "isConnected", "disconnect",
                                       "connect first"}));
}

TEST_F(RemoteLocationTest, OtherFileSystem_CannotBeMounted) {
    RemoteLocation local("local", FS::SPtr(new MemFS), &props);
    EXPECT_EQ(local.mount(nullptr), -1);
    EXPECT_EQ(local.umount(nullptr), 0);
    EXPECT_TRUE(local.ping());
    bool writable = false;
    EXPECT_EQ(local.probe(&writable, nullptr, false), -1);
    EXPECT_FALSE(writable);
    EXPECT_EQ(local.probe(&writable, nullptr, true), 0);
    EXPECT_TRUE(writable);
    RemoteLocation none("none", {}, nullptr);
    writable = false;
    EXPECT_EQ(none.probe(&writable, nullptr, true), 0);
    EXPECT_FALSE(writable);
    EXPECT_EQ(none.mount(nullptr), -1);
    EXPECT_TRUE(none.ping());
}

TEST_F(RemoteLocationTest, Probe_MarkerCreatedAndRemoved) {
    bool writable = false;
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_TRUE(writable);
    const QString marker = "ORU-write-check-unknown";
    EXPECT_EQ(smb->calls, (QStringList{"isConnected", "connect first", "unlink " + marker,
                                       "open " + marker + " 66 666", "unlink " + marker}));
    struct stat st;
    EXPECT_EQ(smb->files.stat(marker, st), -1);
    EXPECT_EQ(location.access(), StorageLocation::None);

    // Already connected; in a directory, with a serial number.
    setenv("SERIAL_NUMBER", "123", 1);
    smb->files.mkdir("media", 0755);
    smb->calls.clear();
    QString directory = "media";
    EXPECT_EQ(location.probe(&writable, &directory, false), 0);
    EXPECT_TRUE(writable);
    EXPECT_EQ(smb->calls.value(2), "open media/ORU-write-check-123 66 666");

    smb->isReadOnly = true;
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_FALSE(writable);
}

TEST_F(RemoteLocationTest, ProbeOfNothing_MakesNoCall) {
    EXPECT_EQ(location.probe(nullptr, nullptr, true), 0);
    EXPECT_TRUE(smb->calls.isEmpty());
}

TEST_F(RemoteLocationTest, ProbeUnreachable_ResultUnchanged) {
    smb->result = -1;
    bool writable = true;
    EXPECT_EQ(location.probe(&writable, nullptr, false), -1);
    EXPECT_TRUE(writable);
    EXPECT_EQ(smb->calls, (QStringList{"isConnected", "connect first", "disconnect"}));
    // A failed probe of an export must not create the marker below the mount point.
    RemoteLocation export_("export", nfs, &props);
    nfs->result = 32;
    EXPECT_EQ(export_.probe(&writable, nullptr, false), 32);
    EXPECT_TRUE(writable);
    EXPECT_EQ(nfs->calls.last(), "disconnect");
    nfs->result = 0;
    EXPECT_EQ(export_.probe(&writable, nullptr, false), 0);
    EXPECT_EQ(nfs->calls.last(), "unlink /ORU-write-check-unknown"); // relative to the mount point
}

TEST_F(RemoteLocationTest, OtherOperations_NotImplementedOrNoEffect) {
    EXPECT_EQ(location.check(), 1);
    EXPECT_EQ(location.mkReadOnly(), -1);
    EXPECT_EQ(liberrno, NotImplemented);
    EXPECT_EQ(location.mkWriteable(), -1);
    EXPECT_FALSE(location.isWriteProtected());
    EXPECT_EQ(location.enable(), 0);
    EXPECT_EQ(location.disable(), 0);
    EXPECT_EQ(location.mount(nullptr), 0);
    LogCapture log("stg=12");
    EXPECT_EQ(location.disable(), -1);
    EXPECT_EQ(log.messages(), QStringList("stg 9 share: disable of mounted media fails\n"));
    EXPECT_STREQ(location.name(), "share");
}

} // namespace
} // namespace oru::io
