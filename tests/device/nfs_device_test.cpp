// SPDX-License-Identifier: Apache-2.0
// NFS with the device's server, the real maintenance program and the kernel's client.
#include <oruio/error.h>
#include <oruio/fsnfs.h>

#include "device/nfsserver.h"
#include "support/system/childprocess.h"
#include "support/system/files.h"
#include "support/system/mounts.h"
#include "support/system/tempdir.h"

#include <QElapsedTimer>
#include <QFile>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include <fcntl.h>
#include <sys/mount.h>

namespace oru::io::test {
namespace {

class NfsDevice : public ::testing::Test {
protected:
    void SetUp() override {
        const QString missing = NfsServer::missing();
        if (!missing.isEmpty())
            GTEST_SKIP() << missing.toStdString();
        ASSERT_TRUE(NfsServer::start());
    }
    void TearDown() override {
        while (umount2(qPrintable(directory.path()), MNT_DETACH) == 0)
            continue;
    }

    /// Connects with options that make requests fail within seconds if the server does not reply.
    int connect(const Properties& more = {}) {
        Properties props = more;
        props["target"] = NfsServer::target();
        // actimeo=1: the kernel caches attributes for one second.
        props["cmd_opts"] = "soft,timeo=10,retrans=1,actimeo=1";
        return nfs.connect(props);
    }
    bool isMounted() const {
        return devicesAt(directory.path()).contains(NfsServer::target());
    }

    const TempDir directory;
    NFS nfs{directory.path()};
};

} // namespace

TEST_F(NfsDevice, Connected_ExportMounted) {
    EXPECT_FALSE(nfs.isConnected());
    ASSERT_EQ(connect(), 0) << strerror();
    EXPECT_TRUE(nfs.isConnected());
    EXPECT_TRUE(isMounted());
    const auto file = nfs.open("/clip", O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_TRUE(file) << strerror();
    EXPECT_EQ(file->write("frame", 5), 5);
    EXPECT_EQ(file->fsync(), 0);
    EXPECT_EQ(contents(NfsServer::directory() + "/clip"), "frame");
    EXPECT_EQ(file->close(), 0);
    QVector<QString> attributes;
    EXPECT_EQ(nfs.listxattr("/clip", attributes), 16);
    EXPECT_EQ(attributes.value(0), "system.nfs4_acl");
    EXPECT_EQ(nfs.disconnect(), 0);
    EXPECT_FALSE(isMounted());
    EXPECT_FALSE(nfs.isConnected());
}

TEST_F(NfsDevice, ReadOnly_WriteFailsWithEROFS) {
    ASSERT_EQ(connect({{"readonly", true}}), 0) << strerror();
    EXPECT_TRUE(nfs.isConnected());
    EXPECT_FALSE(nfs.open("/other", O_RDWR | O_CREAT, 0644));
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(nfs.disconnect(), 0);
}

TEST_F(NfsDevice, MissingExport_ConnectFails) {
    const int result = nfs.connect({{"target", "127.0.0.1:/no/such/export"}});
    EXPECT_GT(result, 0) << "the exit status of the maintenance program";
    EXPECT_FALSE(nfs.isConnected());
    EXPECT_FALSE(isMounted());
}

TEST_F(NfsDevice, ServerStopsUnderLoad_FailsInBoundedTimeAndRecovers) {
    ASSERT_EQ(connect(), 0) << strerror();
    const auto file = nfs.open("/clip", O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_TRUE(file);
    std::atomic<int> pieces = 0;
    std::atomic<bool> hasFailed = false;
    int error = 0;
    std::thread recording([&] {
        const QByteArray piece(64 << 10, 'p');
        while (file->write(piece.constData(), piece.size()) == piece.size() && file->fsync() == 0)
            ++pieces;
        error = errno;
        hasFailed = true;
    });
    EXPECT_TRUE(eventually([&] { return pieces > 3; }, 60));
    ASSERT_TRUE(NfsServer::stop());
    QElapsedTimer sinceStop;
    sinceStop.start();
    EXPECT_TRUE(eventually([&] { return hasFailed.load(); }, 60));
    std::printf("the recording failed after %lld ms\n", sinceStop.elapsed());
    EXPECT_TRUE(eventually([&] { return !nfs.isConnected(); }, 60));
    recording.join();
    EXPECT_TRUE(error == EIO || error == ETIMEDOUT) << error;

    ASSERT_TRUE(NfsServer::start());
    EXPECT_TRUE(eventually([&] { return nfs.isConnected(); }, 60));
    const auto next = nfs.open("/next", O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_TRUE(next) << strerror();
    EXPECT_EQ(next->write("frame", 5), 5);
    EXPECT_EQ(next->fsync(), 0);
    next->close();
    file->close();
    EXPECT_EQ(nfs.disconnect(), 0) << strerror();
}

TEST_F(NfsDevice, ServerGoneWithFileOpen_LazyDisconnectDoesNotWait) {
    ASSERT_EQ(connect({{"lazy", true}}), 0) << strerror();
    const auto file = nfs.open("/clip", O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_TRUE(file);
    ASSERT_TRUE(NfsServer::stop());
    QElapsedTimer sinceStop;
    sinceStop.start();
    EXPECT_EQ(nfs.disconnect(), 0) << strerror();
    EXPECT_LT(sinceStop.elapsed(), 30'000);
    EXPECT_FALSE(isMounted());
    EXPECT_FALSE(nfs.isConnected());
    ASSERT_TRUE(NfsServer::start());
    file->close();
}

TEST_F(NfsDevice, VersionThree_Connects) {
    ASSERT_EQ(nfs.connect({{"target", "127.0.0.1:" + NfsServer::directory()},
                           {"cmd_opts", "vers=3,nolock,soft,timeo=10,retrans=1"}}),
              0);
    EXPECT_TRUE(mountsOf("127.0.0.1:" + NfsServer::directory())
                    .value(0)
                    .filesystemOptions.contains("vers=3"));
    const auto file = nfs.open("/clip", O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_TRUE(file) << strerror();
    EXPECT_EQ(file->write("frame", 5), 5);
    EXPECT_EQ(file->close(), 0);
    EXPECT_EQ(contents(NfsServer::directory() + "/clip"), "frame");
    EXPECT_EQ(nfs.disconnect(), 0) << strerror();
}

TEST_F(NfsDevice, BusyMount_DisconnectsOnlyLazily) {
    ASSERT_EQ(connect(), 0) << strerror();
    auto file = nfs.open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    EXPECT_EQ(nfs.disconnect(), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_TRUE(isMounted());
    EXPECT_TRUE(nfs.isConnected());
    file->close();
    EXPECT_EQ(nfs.disconnect(), 0);

    ASSERT_EQ(connect({{"lazy", true}}), 0) << strerror();
    file = nfs.open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    EXPECT_EQ(nfs.disconnect(), 0);
    EXPECT_FALSE(isMounted());
    EXPECT_FALSE(nfs.isConnected());
    // An open file stays usable.
    EXPECT_EQ(file->write("frame", 5), 5);
    EXPECT_EQ(file->fsync(), 0);
    file->close();
}

} // namespace oru::io::test
