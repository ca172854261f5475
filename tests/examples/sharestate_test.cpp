// SPDX-License-Identifier: Apache-2.0
// How the example programs keep a share connected and explain a failure.
#include "common/sharestate.h"
#include "support/doubles/maintenanceprogram.h"
#include "support/system/isolated.h"
#include "support/system/loopback.h"
#include "support/system/smbtest.h"
#include "support/system/tempdir.h"

#include <oruio/fsnfs.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>

namespace oru::io {
namespace {

using test::login;
using test::Smb;

/// One turn of a program's loop. \returns whether the share can be used.
bool keepConnected(Smb2FS& share, const Properties& props) {
    return isUsable(share) || share.connect(props) == 0;
}

bool writes(Smb2FS& share) {
    const auto file = share.open("/clip", O_WRONLY | O_CREAT, 0644);
    return file && file->write("film", 4) == 4;
}

} // namespace

TEST_F(Smb, ServerKilledAndRestarted_LoopConnectsAgain) {
    const Properties props = login(server.address());
    Smb2FS share(10);
    EXPECT_FALSE(isUsable(share));
    EXPECT_TRUE(keepConnected(share, props)) << std::strerror(errno);
    EXPECT_TRUE(isUsable(share));
    server.kill(); // SIGKILL
    EXPECT_FALSE(writes(share));
    EXPECT_TRUE(share.isConnected()); // so this alone does not show that the share is broken
    EXPECT_FALSE(isUsable(share));
    EXPECT_FALSE(keepConnected(share, props));
    EXPECT_EQ(describe(share.connectFailure()), "nothing listens there (Connection refused)");
    ASSERT_TRUE(server.restart());
    EXPECT_TRUE(test::eventually([&] { return keepConnected(share, props); }, 60));
    EXPECT_TRUE(writes(share));
}

// The loop also notices a server that ends while the share is not used.
TEST_F(Smb, ServerKilledWhileIdle_LoopConnectsAgain) {
    const Properties props = login(server.address());
    Smb2FS share(10);
    ASSERT_TRUE(keepConnected(share, props)) << std::strerror(errno);
    server.kill();
    EXPECT_FALSE(isUsable(share));
    ASSERT_TRUE(server.restart());
    EXPECT_TRUE(test::eventually([&] { return keepConnected(share, props); }, 60));
    EXPECT_TRUE(writes(share));
}

TEST_F(Smb, MisspeltKey_IsNamedInTheDescription) {
    Smb2FS share(10);
    Properties props = login(server.address());
    props["pass"] = props.take("password");
    EXPECT_EQ(share.connect(props), -1);
    const QString description = describe(share.connectFailure());
    EXPECT_TRUE(description.startsWith("the user has no access (")) << description.toStdString();
    EXPECT_TRUE(description.endsWith("; unknown properties: pass")) << description.toStdString();
}

TEST(ShareState, LocationOfAShare_MountFailureIsDescribed) {
    const test::Socket unused = test::boundSocket();
    Properties props = login(QStringLiteral("127.0.0.1:%1").arg(unused.port()));
    RemoteLocation location("archive", Smb2FS::SPtr::create(10), &props);
    EXPECT_EQ(location.mount(nullptr), -1);
    EXPECT_EQ(describeMountFailure(location), "nothing listens there (Connection refused)");
}

namespace {

using Export = test::WithMaintenanceProgram;

} // namespace

TEST_F(Export, LocationOfAnExport_MountFailureIsWhatTheProgramSaid) {
    const test::TempDir temp;
    Properties props = {{"target", "server:/x"}};
    RemoteLocation location("archive", NFS::SPtr::create(temp.path()), &props);
    {
        const test::MaintenanceProgram program("echo 'server:/x cannot be mounted' >&2; exit 45");
        errno = EINTR; // of another call
        EXPECT_EQ(location.mount(nullptr), 45);
        EXPECT_EQ(describeMountFailure(location), "server:/x cannot be mounted");
    }
    const test::MaintenanceProgram silent("exit 45");
    EXPECT_EQ(location.mount(nullptr), 45);
    EXPECT_EQ(describeMountFailure(location), "the maintenance program has given no reason");
}

} // namespace oru::io
