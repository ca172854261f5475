// SPDX-License-Identifier: Apache-2.0
// Connecting to an NFS server, with a memory file system in place of the export.
#include <oruio/error.h>
#include <oruio/fsnfs.h>
#include <oruio/maintenancejob.h>

#include "support/suite/logcapture.h"
#include "support/suite/qtprint.h"
#include "support/suite/slots.h"
#include "support/system/exporttest.h"
#include "support/system/mounts.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/mount.h>

namespace oru::io {
namespace {

using test::LogCapture;
using test::MaintenanceProgram;
using test::mountsMemory;

class NfsTest : public test::ExportTest {
protected:
    /// The arguments of the maintenance program for one connection.
    QStringList argumentsOf(const Properties& props) {
        program->forget();
        NFS(path).connect(props);
        const QList<QStringList> calls = program->calls();
        EXPECT_EQ(calls.size(), 1);
        return calls.value(0);
    }
};

} // namespace

TEST_F(NfsTest, Connect_PassesTargetPathAndOptionsToTheProgram) {
    EXPECT_EQ(argumentsOf(target), (QStringList{"mount.nfs", "server:/export", path}));
    Properties props = target;
    for (const QVariant& no : {QVariant(false), QVariant("false"), QVariant(0), QVariant()}) {
        props["readonly"] = no;
        EXPECT_EQ(argumentsOf(props), (QStringList{"mount.nfs", "server:/export", path}));
    }
    for (const QVariant& yes : {QVariant(true), QVariant("true"), QVariant(1)}) {
        props["readonly"] = yes;
        EXPECT_EQ(argumentsOf(props), (QStringList{"mount.nfs", "-r", "server:/export", path}));
    }
    props["cmd_opts"] = "soft,timeo=20 and more";
    EXPECT_EQ(argumentsOf(props),
              (QStringList{"mount.nfs", "-r", "server:/export", path, "soft,timeo=20 and more"}));
    EXPECT_EQ(argumentsOf({}), (QStringList{"mount.nfs", path}));
}

TEST_F(NfsTest, Connected_PathsLeadToTheExport) {
    NFS nfs(path);
    EXPECT_EQ(nfs.type(), "NFS");
    EXPECT_EQ(nfs.mountPoint(), path);
    EXPECT_FALSE(nfs.isConnected());
    ASSERT_TRUE(QFile(path + "/beneath").open(QFile::WriteOnly));

    liberrno = NotFound;
    EXPECT_EQ(nfs.connect(target), 0);
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_TRUE(nfs.isConnected());
    EXPECT_EQ(test::devicesAt(path), QStringList{"server:/export"});
    struct stat st;
    EXPECT_EQ(nfs.stat("/beneath", st), -1);
    const auto file = nfs.open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->write("data", 4), 4);
    EXPECT_EQ(file->close(), 0);
    EXPECT_EQ(nfs.stat("/clip", st), 0);
    EXPECT_EQ(st.st_size, 4);

    EXPECT_EQ(nfs.disconnect(), 0);
    EXPECT_FALSE(nfs.isConnected());
    EXPECT_EQ(test::devicesAt(path), QStringList());
    // The directory below the mount point can be used again.
    EXPECT_EQ(nfs.stat("/beneath", st), 0);
    EXPECT_EQ(nfs.disconnect(), 0);
}

TEST_F(NfsTest, PathWithTrailingSlash_IsUnmounted) {
    NFS nfs(path + '/');
    EXPECT_EQ(nfs.connect(target), 0);
    EXPECT_EQ(test::devicesAt(path).size(), 1);
    EXPECT_EQ(nfs.disconnect(), 0);
    EXPECT_EQ(test::devicesAt(path), QStringList());
}

TEST_F(NfsTest, Constructed_MissingDirectoryIsNotCreated) {
    const QString missing = temp.path() + "/missing";
    const NFS nfs(missing);
    EXPECT_FALSE(QDir(missing).exists());
    EXPECT_EQ(nfs.mountPoint(), missing);
}

// isConnected() returns false without stored properties, even after connect() has succeeded.
TEST_F(NfsTest, ConnectedWithoutProperties_IsNotConnected) {
    program.reset();
    program.emplace("exit 0");
    NFS nfs(path);
    EXPECT_EQ(nfs.connect({}), 0);
    EXPECT_FALSE(nfs.isConnected());
    EXPECT_EQ(nfs.connect(target), 0);
    EXPECT_TRUE(nfs.isConnected());
}

TEST_F(NfsTest, ConnectAgain_ReplacesTheMount) {
    NFS nfs(path);
    ASSERT_EQ(mount("somebody-elses", QFile::encodeName(path).constData(), "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(nfs.connect(target), 0);
    EXPECT_EQ(test::devicesAt(path), QStringList{"server:/export"});
    EXPECT_EQ(nfs.connect({{"target", "other:/export"}}), 0);
    EXPECT_EQ(test::devicesAt(path), QStringList{"other:/export"});
    EXPECT_TRUE(nfs.isConnected());
}

TEST_F(NfsTest, ConnectFails_ReturnsStatusOfTheProgram) {
    NFS nfs(path);
    ASSERT_EQ(nfs.connect(target), 0);
    program.reset();
    program.emplace("echo 'no such export' >&2; exit 32");
    LogCapture log("libio=12,NFS=12");
    liberrno = NotFound;
    EXPECT_EQ(nfs.connect(target), 32);
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_FALSE(nfs.isConnected());
    EXPECT_EQ(test::devicesAt(path), QStringList());
    EXPECT_EQ(program->calls().size(), 1); // connect() does not try again
    const QStringList messages = log.messages();
    EXPECT_TRUE(messages.contains("libio 10 stderr: no such export\n\n"))
        << messages.join(' ').toStdString();
    EXPECT_TRUE(messages.filter("NFS ").isEmpty()) << messages.join(' ').toStdString();

    program.reset(); // the program is missing
    program.emplace();
    ASSERT_TRUE(QFile::remove(MaintenanceProgram::path()));
    EXPECT_EQ(nfs.connect(target), -1);
    EXPECT_FALSE(nfs.isConnected());
}

TEST_F(NfsTest, ConnectFails_FailureIsWhatTheProgramSaid) {
    NFS nfs(path);
    program.reset();
    program.emplace("echo 'oruio_sysutils: server:/x cannot be mounted' >&2; exit 45");
    EXPECT_EQ(nfs.connect(target), 45);
    EXPECT_EQ(SysCmd::failure(), "oruio_sysutils: server:/x cannot be mounted");
    program.reset();
    program.emplace("exit 45"); // says nothing
    EXPECT_EQ(nfs.connect(target), 45);
    EXPECT_EQ(SysCmd::failure(), "");
}

TEST_F(NfsTest, ConnectJob_ConnectsWithTheSameCommand) {
    const auto share = NFS::SPtr::create(path);
    const Properties props = {
        {"target", "server:/export"}, {"readonly", true}, {"cmd_opts", "soft"}};
    const QStringList expected = argumentsOf(props);
    program->forget();
    const auto job = NFS::connectJob(share, props);
    bool isConnected = false;
    QObject::connect(job.get(), &MaintenanceJob::finished,
                     [&](int) { isConnected = share->isConnected(); });
    EXPECT_EQ(test::devicesAt(path), QStringList()); // nothing is started yet
    ASSERT_EQ(job->start(), 0);
    EXPECT_TRUE(job->waitForFinished());
    EXPECT_EQ(job->status(), 0);
    EXPECT_TRUE(isConnected);
    EXPECT_EQ(program->calls(), QList<QStringList>{expected});
    EXPECT_EQ(test::devicesAt(path).size(), 1);
    EXPECT_EQ(share->disconnect(), 0);
    EXPECT_EQ(test::devicesAt(path), QStringList());
}

TEST_F(NfsTest, ConnectJobFails_NotConnected) {
    const auto share = NFS::SPtr::create(path);
    ASSERT_EQ(share->connect(target), 0);
    program.reset();
    program.emplace("echo 'no such export' >&2; exit 32");
    const auto job = NFS::connectJob(share, target);
    EXPECT_EQ(test::devicesAt(path), QStringList()); // as connect(), it disconnects first
    ASSERT_EQ(job->start(), 0);
    EXPECT_TRUE(job->waitForFinished());
    EXPECT_EQ(job->status(), 32);
    EXPECT_EQ(job->reason(), "no such export");
    EXPECT_FALSE(share->isConnected());
}

TEST_F(NfsTest, BusyMount_IsUnmountedOnlyWhenLazy) {
    NFS nfs(path);
    ASSERT_EQ(nfs.connect(target), 0);
    auto inUse = nfs.open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(inUse);
    EXPECT_EQ(nfs.disconnect(), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_TRUE(nfs.isConnected());
    inUse.reset();

    EXPECT_EQ(nfs.connect({{"target", "server:/export"}, {"lazy", false}}), 0);
    inUse = nfs.open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(inUse);
    EXPECT_EQ(nfs.disconnect(), 0);
    EXPECT_FALSE(nfs.isConnected());
    EXPECT_EQ(test::devicesAt(path), QStringList());
    EXPECT_EQ(inUse->write("last", 4), 4);
}

TEST_F(NfsTest, Destroyed_Unmounts) {
    {
        NFS nfs(path);
        ASSERT_EQ(nfs.connect(target), 0);
        EXPECT_EQ(test::devicesAt(path).size(), 1);
    }
    EXPECT_EQ(test::devicesAt(path), QStringList());
}

// The export is unmounted while the file system is connected.
TEST_F(NfsTest, MountLost_IsNotConnectedUntilConnect) {
    NFS nfs(path);
    ASSERT_EQ(nfs.connect(target), 0);
    ASSERT_EQ(umount(QFile::encodeName(path).constData()), 0);
    ASSERT_TRUE(QDir().rmdir(path));
    EXPECT_FALSE(nfs.isConnected());
    ASSERT_TRUE(QDir().mkpath(path));
    EXPECT_EQ(nfs.connect(target), 0);
    EXPECT_TRUE(nfs.isConnected());
}

namespace {

/// Records the calls of two overridden functions.
class CountingNfs : public NFS {
public:
    using NFS::NFS;
    int disconnect() override {
        ++disconnects;
        return NFS::disconnect();
    }
    int stat(QString path, struct stat& st) override {
        stats += path;
        return NFS::stat(path, st);
    }

    int disconnects = 0;
    QStringList stats;
};

} // namespace

TEST_F(NfsTest, OverriddenDisconnectAndStat_AreCalled) {
    CountingNfs nfs(path);
    EXPECT_FALSE(nfs.isConnected());
    EXPECT_TRUE(nfs.stats.isEmpty()); // not connected: no call
    EXPECT_EQ(nfs.connect(target), 0);
    EXPECT_EQ(nfs.disconnects, 1);
    EXPECT_TRUE(nfs.isConnected());
    EXPECT_EQ(nfs.stats, QStringList("/."));
}

TEST_F(NfsTest, ConnectFailsWhileBusy_KeepsTheFormerProperties) {
    NFS nfs(path);
    ASSERT_EQ(nfs.connect({{"target", "server:/export"}, {"lazy", true}}), 0);
    const auto inUse = nfs.open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(inUse);
    // The lazy unmount succeeds, so nothing is mounted when the next connection fails.
    program.reset();
    program.emplace("exit 1");
    EXPECT_EQ(nfs.connect(target), 1);
    EXPECT_FALSE(nfs.isConnected());

    program.reset();
    program.emplace(mountsMemory);
    ASSERT_EQ(nfs.connect(target), 0);
    const auto busy = nfs.open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(busy);
    program.reset();
    program.emplace("exit 1");
    EXPECT_EQ(nfs.connect({{"target", "other:/export"}, {"lazy", true}}), 1);
    EXPECT_TRUE(nfs.isConnected());
    EXPECT_EQ(nfs.disconnect(), -1); // not lazily: the former properties apply
    EXPECT_EQ(errno, EBUSY);
}

TEST_F(NfsTest, PathWithNul_UnmountsNothing) {
    NFS nfs(path);
    ASSERT_EQ(nfs.connect(target), 0);
    NFS other(path + QChar(0) + "other");
    EXPECT_EQ(other.disconnect(), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(test::devicesAt(path).size(), 1);
}

TEST_F(NfsTest, Ioctl_FailsWithNotImplemented) {
    NFS nfs(path);
    QString response;
    errno = 4711;
    EXPECT_EQ(nfs.ioctl("request", response), -1);
    EXPECT_EQ(liberrno, NotImplemented);
    EXPECT_EQ(errno, 4711);
}

TEST(NfsSlots, NFS_FollowsFSAndItsDestructor) {
    int slot = 25 + 2;
    EXPECT_EQ(test::slotOf(&NFS::connect), slot++);
    EXPECT_EQ(test::slotOf(&NFS::disconnect), slot++);
    EXPECT_EQ(test::slotOf(&NFS::isConnected), slot++);
}

} // namespace oru::io
