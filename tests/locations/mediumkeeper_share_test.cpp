// SPDX-License-Identifier: Apache-2.0
// MediumKeeper over a real SMB server, and over NFS exports that a tmpfs stands in for.
#include <oruio/fsnfs.h>
#include <oruio/fssmb.h>
#include <oruio/mediumkeeper.h>

#include "support/doubles/faultproxy.h"
#include "support/doubles/openlocation.h"
#include "support/suite/qtprint.h"
#include "support/system/exporttest.h"
#include "support/system/files.h"
#include "support/system/mounts.h"
#include "support/system/smbtest.h"

#include <gtest/gtest.h>

#include <QDateTime>
#include <QElapsedTimer>
#include <QFileInfo>

#include <cerrno>
#include <memory>

#include <sys/mount.h>

namespace oru::io {
namespace {

using test::eventually;
using test::FaultProxy;
using test::login;
using test::makeFile;

MediumKeeper::Policy quick() {
    MediumKeeper::Policy policy;
    policy.probeMs = 20;
    policy.firstRetryMs = 10;
    policy.longestRetryMs = 100;
    return policy;
}

/// Steps the keeper until its access is this.
bool becomes(MediumKeeper& keeper, StorageLocation::AccessType access) {
    return eventually(
        [&] {
            keeper.step();
            return keeper.access() == access;
        },
        60);
}

// --- SMB ----------------------------------------------------------------------------------------

class KeptShareTest : public test::Smb {
protected:
    void keep(const Properties& props, const MediumKeeper::Policy& policy = quick()) {
        Properties own = props;
        keeper.reset();
        location = std::make_unique<RemoteLocation>("share", FS::SPtr(new Smb2FS(30)), &own);
        keeper = std::make_unique<MediumKeeper>(location.get(), policy);
        QObject::connect(keeper.get(), &MediumKeeper::accessChanged,
                         [this](StorageLocation* place, StorageLocation::AccessType access) {
                             EXPECT_EQ(place, location.get());
                             EXPECT_EQ(place->access(), access);
                             changes += StorageLocation::straccess(access);
                         });
        QObject::connect(keeper.get(), &MediumKeeper::stateChanged, [this] {
            if (!keeper->reason().isEmpty())
                reasons += keeper->reason();
        });
    }
    void expectWorks() {
        EXPECT_EQ(keeper->state(), MediumKeeper::Mounted);
        EXPECT_TRUE(makeFile(*location->fs(), "/clip", "film"));
        EXPECT_EQ(getLocal("/clip"), "film");
    }

    std::unique_ptr<RemoteLocation> location;
    std::unique_ptr<MediumKeeper> keeper;
    QStringList changes; ///< by accessChanged()
    QStringList reasons; ///< at each stateChanged()
};

TEST_F(KeptShareTest, ServerRestarted_ConnectedAgain) {
    keep(login(server.address()));
    ASSERT_TRUE(becomes(*keeper, StorageLocation::Write));
    expectWorks();
    server.kill();
    ASSERT_TRUE(becomes(*keeper, StorageLocation::None));
    EXPECT_EQ(keeper->state(), MediumKeeper::Failed);
    EXPECT_EQ(reasons.value(0), "the connection is lost");
    EXPECT_TRUE(eventually([&] {
        keeper->step();
        return keeper->reason().contains("refused");
    })) << keeper->reason().toStdString();
    ASSERT_TRUE(server.restart());
    ASSERT_TRUE(becomes(*keeper, StorageLocation::Write));
    expectWorks();
    EXPECT_EQ(changes, QStringList({"Write", "None", "Write"}));
}

TEST_F(KeptShareTest, ConnectionCut_ConnectedAgain) {
    FaultProxy proxy(server.port());
    keep(login(proxy.address()));
    ASSERT_TRUE(becomes(*keeper, StorageLocation::Write));
    proxy.dropConnections();
    ASSERT_TRUE(becomes(*keeper, StorageLocation::None));
    ASSERT_TRUE(becomes(*keeper, StorageLocation::Write));
    expectWorks();
}

TEST_F(KeptShareTest, FatalFailureOfAnOperation_NoticedWithoutPing) {
    FaultProxy proxy(server.port());
    MediumKeeper::Policy policy = quick();
    policy.probeMs = 1'000'000;
    keep(login(proxy.address()), policy);
    ASSERT_TRUE(becomes(*keeper, StorageLocation::Write));
    proxy.dropConnections();
    EXPECT_FALSE(makeFile(*location->fs(), "/clip", "film"));
    EXPECT_EQ(keeper->step(), 0);
    EXPECT_EQ(keeper->access(), StorageLocation::None);
    ASSERT_TRUE(becomes(*keeper, StorageLocation::Write));
    expectWorks();
}

TEST_F(KeptShareTest, NonsenseAnswers_ConnectedAgain) {
    FaultProxy proxy(server.port());
    const auto nonsense = FaultProxy::Fault::edit([](QByteArray& message) { message.fill('?'); });
    proxy.on({FaultProxy::Response, FaultProxy::Negotiate}, nonsense);
    keep(login(proxy.address()));
    keeper->step();
    EXPECT_EQ(keeper->state(), MediumKeeper::Failed);
    EXPECT_NE(keeper->reason(), "");
    ASSERT_TRUE(becomes(*keeper, StorageLocation::Write));
    proxy.on({FaultProxy::Response, FaultProxy::Echo}, nonsense);
    ASSERT_TRUE(becomes(*keeper, StorageLocation::None));
    ASSERT_TRUE(becomes(*keeper, StorageLocation::Write));
    expectWorks();
}

TEST_F(KeptShareTest, WrongPassword_TriedAtGrowingIntervals) {
    FaultProxy proxy(server.port());
    Properties wrong = login(proxy.address());
    wrong["password"] = "wrong";
    MediumKeeper::Policy policy;
    policy.firstRetryMs = 100;
    policy.longestRetryMs = 1'000'000;
    keep(wrong, policy);
    QElapsedTimer time;
    time.start();
    qint64 third = 0;
    EXPECT_TRUE(eventually(
        [&] {
            keeper->step();
            third = time.elapsed();
            return proxy.connections() == 3;
        },
        60));
    EXPECT_GE(third, 300) << "100 ms before the second attempt, then 200 ms";
    EXPECT_GE(keeper->step(), 100);
    EXPECT_EQ(keeper->state(), MediumKeeper::Failed);
    EXPECT_EQ(keeper->access(), StorageLocation::None);
    EXPECT_NE(keeper->reason(), "");
    EXPECT_EQ(keeper->mount(), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(KeptShareTest, ReadOnlyShare_AccessIsRead) {
    keep(login(server.address(), "ro"));
    ASSERT_TRUE(becomes(*keeper, StorageLocation::Read));
    EXPECT_EQ(location->access(), StorageLocation::Read);
    EXPECT_EQ(changes, QStringList("Read"));
    EXPECT_EQ(keeper->state(), MediumKeeper::Mounted);
}

TEST_F(KeptShareTest, PolicyReadOnly_NotProbed) {
    FaultProxy proxy(server.port());
    MediumKeeper::Policy policy = quick();
    policy.mount = MediumKeeper::Policy::Mount::ReadOnly;
    keep(login(proxy.address()), policy);
    ASSERT_TRUE(becomes(*keeper, StorageLocation::Read));
    EXPECT_TRUE(proxy.messages(FaultProxy::Request, FaultProxy::Create).isEmpty());
    EXPECT_EQ(keeper->mount(StorageLocation::Write), 0);
    EXPECT_EQ(keeper->access(), StorageLocation::Write);
}

TEST_F(KeptShareTest, Unmounted_StaysSoUntilMount) {
    keep(login(server.address()));
    ASSERT_TRUE(becomes(*keeper, StorageLocation::Write));
    EXPECT_EQ(keeper->unmount(), 0);
    EXPECT_EQ(keeper->access(), StorageLocation::None);
    EXPECT_EQ(keeper->step(), -1);
    EXPECT_EQ(keeper->state(), MediumKeeper::Absent);
    EXPECT_EQ(keeper->check(), -1);
    EXPECT_EQ(errno, ENOTSUP);
    EXPECT_EQ(keeper->mount(), 0);
    expectWorks();
}

// --- NFS ----------------------------------------------------------------------------------------

class KeptExport : public test::ExportTest {
protected:
    void SetUp() override {
        ExportTest::SetUp();
        keeper = std::make_unique<MediumKeeper>(&location, quick());
    }
    void TearDown() override {
        keeper.reset();
        ExportTest::TearDown();
    }
    void setProgram(const char* script) {
        program.reset();
        program.emplace(script);
    }

    Properties props = target;
    RemoteLocation location{"export", FS::SPtr(new NFS(path)), &props};
    std::unique_ptr<MediumKeeper> keeper;
};

TEST_F(KeptExport, UnmountedByAnotherProgram_MountedAgain) {
    ASSERT_TRUE(becomes(*keeper, StorageLocation::Write));
    ASSERT_EQ(umount(QFile::encodeName(path).constData()), 0);
    ASSERT_TRUE(becomes(*keeper, StorageLocation::None));
    ASSERT_TRUE(becomes(*keeper, StorageLocation::Write));
    EXPECT_EQ(test::devicesAt(path), QStringList("server:/export"));
    EXPECT_EQ(keeper->unmount(), 0);
    EXPECT_EQ(test::devicesAt(path), QStringList());
}

// The directory below the mount point is local and writeable.
TEST_F(KeptExport, CannotBeMounted_DirectoryNotProbed) {
    setProgram("exit 32");
    const QDateTime before = QFileInfo(path).lastModified();
    for (int attempt = 1; attempt <= 2; ++attempt) {
        ASSERT_TRUE(eventually([&] {
            keeper->step();
            return program->calls().size() == attempt;
        }));
        EXPECT_EQ(keeper->state(), MediumKeeper::Failed);
        EXPECT_EQ(keeper->access(), StorageLocation::None);
        EXPECT_EQ(keeper->reason(), "it cannot be mounted (32)");
    }
    EXPECT_EQ(QFileInfo(path).lastModified(), before);
    setProgram("echo 'the server is away' >&2; exit 32");
    EXPECT_TRUE(eventually([&] {
        keeper->step();
        return keeper->reason() == "the server is away";
    }));
    setProgram(test::mountsMemory);
    EXPECT_TRUE(becomes(*keeper, StorageLocation::Write));
}

TEST_F(KeptExport, FileOpenWhenLost_DetachedAndMountedAgain) {
    ASSERT_TRUE(becomes(*keeper, StorageLocation::Write));
    QFile clip(path + "/clip");
    ASSERT_TRUE(clip.open(QFile::WriteOnly));
    EXPECT_EQ(keeper->unmount(), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(keeper->access(), StorageLocation::Write);
    EXPECT_EQ(keeper->unmount(true), 0);
    EXPECT_EQ(test::devicesAt(path), QStringList());
    EXPECT_EQ(keeper->mount(), 0);
    EXPECT_EQ(test::devicesAt(path), QStringList("server:/export"));
}

} // namespace
} // namespace oru::io
