// SPDX-License-Identifier: Apache-2.0
// A test case with a client, and a server of a local directory in another process.
#pragma once

#include "support/ipc/ipcservice.h"
#include "support/system/tempdir.h"

#include <oruio/error.h>
#include <oruio/fsipc.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace oru::io::test {

class IPCFSTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.awaitReady());
    }

    /// Expects -1 with errno ENOTCONN, and no session.
    void expectNotConnected(long long result) {
        const Error reason;
        EXPECT_EQ(result, -1);
        EXPECT_EQ(reason.code, Ok);
        EXPECT_EQ(reason.sysErrno, ENOTCONN) << std::strerror(reason.sysErrno);
        EXPECT_FALSE(fs.isConnected());
        EXPECT_EQ(fs.state(), 0);
    }

    QSharedPointer<File> openNew(const char* name) {
        return fs.open(QStringLiteral("/") + name, O_RDWR | O_CREAT, 0644);
    }

    TempDir dir;
    ServerProcess server{dir.path()};
    IPCFS fs;
    struct stat st;
};

} // namespace oru::io::test
