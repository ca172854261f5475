// SPDX-License-Identifier: Apache-2.0
// IPCFS passes the conformance tests of file systems, with a server in another process.

#include "support/ipc/ipcservice.h"
#include "support/suite/fs_conformance.h"
#include "support/system/tempdir.h"

#include <oruio/fsipc.h>

#include <gtest/gtest.h>

#include <memory>

namespace oru::io {

using test::ServerProcess;
using test::TempDir;

namespace {

/// A server over a local directory, and a client that is connected to it.
test::Backend connectedBackend() {
    struct Parts {
        TempDir directory;
        ServerProcess server{directory.path()};
        IPCFS::SPtr client = IPCFS::SPtr::create();

        // Disconnects before the server is destroyed.
        ~Parts() {
            client->disconnect();
        }
    };
    const auto parts = std::make_shared<Parts>();
    EXPECT_TRUE(parts->server.awaitReady());
    EXPECT_EQ(parts->client->connect(1, nullptr), 0);
    test::Backend backend;
    backend.fs = parts->client;
    backend.can.type = "IPCFS";
    backend.can.fileType = "IPCFile";
    backend.can.directoryType = "IPCDirectory";
    backend.can.opendirIsNeverNull = true;
    backend.can.threadSafe = false;
    backend.can.closeAgain = -1;
    backend.can.closedirAgain = 0;
    backend.can.readlinkPads = true;
    backend.can.readlinkReturnsZero = true;
    backend.can.answers[test::Op::Xattr] = test::Answer::notImplemented();
    backend.can.answers[test::Op::Listxattr] = test::Answer::notImplemented();
    backend.can.answers[test::Op::FileFchmod] = test::Answer::isSomethingElse();
    backend.can.answers[test::Op::FileFcntlFlags] = test::Answer::isSomethingElse();
    backend.keep = parts;
    return backend;
}

} // namespace

namespace test {

ORUIO_CONFORMS(IPCFS, connectedBackend);

} // namespace test

} // namespace oru::io
