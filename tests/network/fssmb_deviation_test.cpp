// SPDX-License-Identifier: Apache-2.0
// Where a share differs from a POSIX file system, as docs/shares.md lists it.
#include "network/fssmb_fixtures.h"

#include <QDir>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

namespace oru::io {
namespace {

using test::FaultProxy;
using test::login;
using test::names;
using test::Smb;
using test::SmbShare;
using test::utf16;
using test::with;

bool failsWith(int error, bool hasFailed) {
    const int reason = errno;
    errno = 0;
    return hasFailed && reason == error;
}

} // namespace

TEST_F(SmbShare, TwoAppends_SecondOverwritesTheFirst) {
    for (const char* part : {"abc", "def"}) {
        const auto file = fs.open("/log", O_WRONLY | O_CREAT | O_APPEND, 0644);
        ASSERT_TRUE(file) << strerror();
        EXPECT_EQ(file->write(part, 3), 3);
    }
    EXPECT_EQ(getLocal("/log"), "def");
}

TEST_F(SmbShare, SeekEnd_CountsFromTheEndOfTheWrittenBytes) {
    putLocal("/f", "0123456789");
    const auto file = fs.open("/f", O_RDWR, 0);
    EXPECT_EQ(file->lseek(0, SEEK_END), 0);
    EXPECT_EQ(file->write("abc", 3), 3);
    EXPECT_EQ(file->lseek(0, SEEK_END), 3);
    EXPECT_EQ(getLocal("/f"), "abc3456789");
}

TEST_F(SmbShare, ForbiddenNames_FailWithEIO) {
    putLocal("/f");
    QStringList forbidden = {QString(256, 'n'), QString(86, QChar(0x5f55))}; // 256 and 258 bytes
    for (const char c : {':', '*', '?', '"', '<', '>', '|', '\x01', '\x1f'})
        forbidden += QString("a%1b").arg(c);
    for (const QString& name : forbidden) {
        const QString path = '/' + name;
        struct stat st;
        EXPECT_TRUE(failsWith(EIO, !fs.open(path, O_RDWR | O_CREAT, 0644))) << name.toStdString();
        EXPECT_TRUE(failsWith(EIO, !fs.opendir(path))) << name.toStdString();
        EXPECT_TRUE(failsWith(EIO, fs.stat(path, st) == -1)) << name.toStdString();
        EXPECT_TRUE(failsWith(EIO, fs.mkdir(path, 0755) == -1)) << name.toStdString();
        EXPECT_TRUE(failsWith(EIO, fs.rename("/f", path) == -1)) << name.toStdString();
    }
    EXPECT_EQ(QDir(local("")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList("f"));
}

TEST_F(SmbShare, DotAndDotDot_AreListedButAreNoPaths) {
    ASSERT_EQ(fs.mkdir("/d", 0755), 0);
    const auto directory = fs.opendir("/d");
    ASSERT_TRUE(directory) << strerror();
    EXPECT_EQ(names(*directory), QStringList({".", ".."}));
    struct stat st;
    EXPECT_TRUE(failsWith(EIO, fs.stat("/.", st) == -1));
    EXPECT_TRUE(failsWith(EIO, !fs.opendir("/.")));
    EXPECT_TRUE(failsWith(EIO, fs.stat("/d/.", st) == -1));
    EXPECT_TRUE(failsWith(ENOENT, fs.stat("/..", st) == -1)); // outside the share
    EXPECT_EQ(fs.stat("/d/..", st), 0);
    EXPECT_EQ(fs.stat("/", st), 0);
}

TEST_F(SmbShare, Backslash_SeparatesDirectories) {
    ASSERT_EQ(fs.mkdir("/d", 0777), 0);
    ASSERT_TRUE(create("/d\\f")) << strerror();
    EXPECT_TRUE(QFile::exists(local("/d/f")));
    struct stat st;
    EXPECT_EQ(fs.stat("/d/f", st), 0);
    EXPECT_TRUE(failsWith(ENOENT, fs.stat("/e\\f", st) == -1));
}

TEST_F(SmbShare, DirectoryFlag_OpensFilesAndNoDirectories) {
    putLocal("/f", "content");
    ASSERT_EQ(fs.mkdir("/d", 0755), 0);
    const auto file = fs.open("/f", O_RDONLY | O_DIRECTORY, 0);
    ASSERT_TRUE(file) << strerror();
    EXPECT_EQ(file->readAll(100), "content");
    EXPECT_TRUE(failsWith(EPERM, !fs.open("/d", O_RDONLY | O_DIRECTORY, 0)));
    EXPECT_TRUE(failsWith(EPERM, !fs.open("/d", O_RDONLY, 0)));
}

TEST_F(SmbShare, OpenFile_IsNotRemovedOrRenamed) {
    const auto file = create("/f");
    ASSERT_TRUE(file) << strerror();
    EXPECT_TRUE(failsWith(ETXTBSY, fs.unlink("/f") == -1));
    EXPECT_TRUE(failsWith(ETXTBSY, fs.rename("/f", "/g") == -1));
    EXPECT_EQ(file->close(), 0);
    EXPECT_EQ(fs.rename("/f", "/g"), 0);
    EXPECT_TRUE(create("/f"));
    EXPECT_TRUE(failsWith(EEXIST, fs.rename("/f", "/g") == -1));
}

TEST_F(SmbShare, FstatOfAWriteOnlyFile_FailsWithEACCES) {
    putLocal("/f", "content");
    const auto file = fs.open("/f", O_WRONLY, 0);
    ASSERT_TRUE(file) << strerror();
    struct stat st;
    EXPECT_TRUE(failsWith(EACCES, file->fstat(st) == -1));
    EXPECT_EQ(fs.stat("/f", st), 0);
    EXPECT_EQ(st.st_size, 7);
}

TEST_F(Smb, EmptyPassword_SendsNoUserName) {
    FaultProxy proxy(server.port());
    QByteArray authentication;
    proxy.on({FaultProxy::Request, FaultProxy::SessionSetup, 2},
             FaultProxy::Fault::edit([&](QByteArray& message) { authentication = message; }));
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(with(login(proxy.address()), "password", "")), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_FALSE(authentication.isEmpty());
    EXPECT_FALSE(authentication.contains(utf16(test::SmbServer::user)));
}

} // namespace oru::io
