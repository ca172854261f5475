// SPDX-License-Identifier: Apache-2.0
// How the example programs keep a share connected and explain a failure.
#include "common/sharestate.h"
#include "support/system/smbtest.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>

namespace oru::io {
namespace {

using test::login;
using test::Smb;

/// The loop of fssmb.h: after a lost connection isConnected() returns true, but brokenBy() the
/// errno.
bool isUsable(Smb2FS& share) {
    return share.brokenBy() == 0 && share.isConnected();
}

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

} // namespace oru::io
