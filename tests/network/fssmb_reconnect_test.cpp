// SPDX-License-Identifier: Apache-2.0
// Files and directories that outlive the connection of their share.
#include "network/fssmb_fixtures.h"
#include "support/suite/logcapture.h"

#include <memory>

#include <fcntl.h>

namespace oru::io {
namespace {

using test::LogCapture;
using test::login;
using test::names;
using test::Smb;
using test::SmbShare;

/// Expects that every operation fails with EBADF, as after the end of the connection.
void expectStale(File& file, Directory& directory) {
    const auto stale = [](long long result) {
        const int reason = errno;
        errno = 0;
        return result == -1 && reason == EBADF;
    };
    struct stat st;
    char buf[8] = {};
    EXPECT_TRUE(stale(file.read(buf, 8)));
    EXPECT_TRUE(stale(file.write(buf, 8)));
    EXPECT_TRUE(stale(file.pread(buf, 8, 0)));
    EXPECT_TRUE(stale(file.pwrite(buf, 8, 0)));
    EXPECT_TRUE(stale(file.fstat(st)));
    EXPECT_TRUE(stale(file.ftruncate(0)));
    EXPECT_TRUE(stale(file.fsync()));
    EXPECT_TRUE(stale(file.lseek(1, SEEK_SET)));
    EXPECT_TRUE(stale(file.close()));
    EXPECT_EQ(file.close(), 0);
    EXPECT_EQ(directory.readdir(), nullptr);
    EXPECT_EQ(errno, EBADF);
    EXPECT_TRUE(stale(directory.rewinddir()));
    EXPECT_EQ(directory.closedir(), 0);
}

} // namespace

TEST_F(SmbShare, ConnectedAgain_OpenFilesFailWithEBADF) {
    const auto file = create("/f");
    const auto directory = fs.opendir("/");
    EXPECT_EQ(fs.connect(login(server.address())), 0);
    expectStale(*file, *directory);
    EXPECT_TRUE(fs.isConnected());
    struct stat st;
    EXPECT_EQ(fs.stat("/f", st), 0);
}

// A closed directory belongs to no connection: rewinddir() opens it in the current one.
TEST_F(SmbShare, ConnectedAgain_ClosedDirectoryOpensAgain) {
    putLocal("/f");
    const auto directory = fs.opendir("/");
    EXPECT_EQ(directory->closedir(), 0);
    EXPECT_EQ(fs.connect(login(server.address())), 0);
    EXPECT_EQ(directory->readdir(), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_EQ(names(*directory), QStringList({".", "..", "f"}));
    // An open directory belongs to the connection that opened it.
    EXPECT_EQ(fs.connect(login(server.address())), 0);
    EXPECT_EQ(directory->readdir(), nullptr);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(directory->rewinddir(), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(directory->closedir(), 0);
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_EQ(names(*directory), QStringList({".", "..", "f"}));
}

TEST_F(SmbShare, ConnectedAgain_RemovedDirectoryStaysClosed) {
    ASSERT_EQ(fs.mkdir("/d", 0755), 0);
    const auto directory = fs.opendir("/d");
    EXPECT_EQ(directory->closedir(), 0);
    ASSERT_EQ(fs.rmdir("/d"), 0);
    EXPECT_EQ(fs.connect(login(server.address())), 0);
    errno = 0;
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(directory.staticCast<Smb2Dir>()->isOpen());
}

TEST_F(SmbShare, DirectoryConstructedAfterFatalError_OpensAfterConnect) {
    putLocal("/f");
    set_errno(&fs, -ETIMEDOUT, nullptr, "stat", "f");
    QString path = "/";
    Smb2Dir directory(&fs, path);
    EXPECT_EQ(fs.connect(login(server.address())), 0);
    EXPECT_EQ(directory.readdir(), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(directory.rewinddir(), 0);
    EXPECT_EQ(names(directory), QStringList({".", "..", "f"}));
}

TEST_F(Smb, ShareDestroyed_OpenFilesFailWithEBADF) {
    auto fs = std::make_unique<Smb2FS>(10);
    ASSERT_EQ(fs->connect(login(server.address())), 0);
    const auto file = fs->open("/f", O_RDWR | O_CREAT, 0644);
    const auto directory = fs->opendir("/");
    fs.reset();
    expectStale(*file, *directory);
}

TEST_F(SmbShare, Disconnected_OpenFilesFailWithENOTCONN) {
    const auto file = create("/f");
    const auto directory = fs.opendir("/");
    EXPECT_EQ(fs.disconnect(), 0);
    char byte = 0;
    struct stat st;
    const auto isNotConnected = [](long long result) {
        const int reason = errno;
        errno = 0;
        return result == -1 && reason == ENOTCONN;
    };
    EXPECT_TRUE(isNotConnected(file->write(&byte, 1)));
    EXPECT_TRUE(isNotConnected(file->read(&byte, 1)));
    EXPECT_TRUE(isNotConnected(file->pwrite(&byte, 1, 0)));
    EXPECT_TRUE(isNotConnected(file->pread(&byte, 1, 0)));
    EXPECT_TRUE(isNotConnected(file->fstat(st)));
    EXPECT_TRUE(isNotConnected(file->ftruncate(0)));
    EXPECT_TRUE(isNotConnected(file->fsync()));
    EXPECT_EQ(file->write(&byte, 0), 0);
    EXPECT_EQ(file->pwrite(&byte, 0, -1), 0);
    LogCapture log("libio_smb2=12");
    errno = 0;
    EXPECT_EQ(file->lseek(1, SEEK_SET), -ENOTCONN); // not -1, and errno is unchanged
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(log.messages(), QStringList("libio_smb2 10 smb lseek failed\n"));
    EXPECT_EQ(directory->readdir(), nullptr);
    EXPECT_EQ(directory->closedir(), 0);
    EXPECT_EQ(file->close(), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

} // namespace oru::io
