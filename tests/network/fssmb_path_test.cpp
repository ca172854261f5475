// SPDX-License-Identifier: Apache-2.0
// Operations on paths of a real SMB server's share.
#include "network/fssmb_fixtures.h"

#include <QFile>
#include <QtEndian>

#include <cstring>
#include <ctime>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>

namespace oru::io {
namespace {

using test::FaultProxy;
using test::login;
using test::Smb;
using test::SmbShare;
using test::SmbWire;
using test::utf16;

// The offset of the attributes in a QUERY_INFO response: after the header, the fixed fields and
// four times.
constexpr int attributesAt = 64 + 8 + 32;

} // namespace

TEST_F(SmbWire, LeadingSlash_OneIsRemoved) {
    struct stat st;
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"/a/b", "a\\b"}, {"a/b", "a\\b"}, {"//a", "\\a"}, {"/", ""}, {"", ""}};
    for (const auto& [path, sent] : cases) {
        proxy->clear();
        fs.stat(path, st);
        EXPECT_EQ(createdPath(), sent) << path;
        proxy->clear();
        fs.opendir(path);
        EXPECT_EQ(createdPath(), sent) << path;
    }
    proxy->clear();
    fs.open("/a", O_RDONLY, 0);
    EXPECT_EQ(createdPath(), "a");
}

TEST_F(SmbShare, Stat_SetsSizeModeLinksInodeAndTimesOnly) {
    putLocal("/f", "12345");
    ASSERT_EQ(fs.mkdir("/d", 0700), 0);
    struct stat untouched;
    std::memset(&untouched, 0x5a, sizeof untouched);
    const auto isUntouched = [&](const struct stat& st) {
        return st.st_dev == untouched.st_dev && st.st_uid == untouched.st_uid &&
               st.st_gid == untouched.st_gid && st.st_rdev == untouched.st_rdev &&
               st.st_blksize == untouched.st_blksize && st.st_blocks == untouched.st_blocks;
    };
    const struct timespec times[2] = {{1'000'000'000, 0}, {1'100'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, QFile::encodeName(this->local("/f")).constData(), times, 0), 0);
    struct stat local;
    ASSERT_EQ(::stat(QFile::encodeName(this->local("/f")).constData(), &local), 0);

    struct stat st = untouched;
    EXPECT_EQ(fs.stat("/f", st), 0);
    EXPECT_TRUE(isUntouched(st));
    EXPECT_EQ(st.st_size, 5);
    EXPECT_EQ(st.st_mode, S_IFREG | 0666U);
    EXPECT_EQ(st.st_nlink, 1U);
    EXPECT_EQ(st.st_ino, local.st_ino);
    EXPECT_EQ(st.st_mtim.tv_sec, local.st_mtim.tv_sec);
    EXPECT_NEAR(st.st_mtim.tv_nsec, local.st_mtim.tv_nsec, 1000);
    EXPECT_EQ(st.st_atim.tv_sec, local.st_atim.tv_sec);

    struct stat linked = untouched;
    EXPECT_EQ(fs.lstat("/f", linked), 0);
    EXPECT_EQ(std::memcmp(&linked, &st, sizeof st), 0);

    struct stat opened = untouched;
    const auto file = fs.open("/f", O_RDONLY, 0);
    EXPECT_EQ(file->fstat(opened), 0);
    EXPECT_EQ(std::memcmp(&opened, &st, sizeof st), 0);

    EXPECT_EQ(fs.stat("/d", st), 0);
    EXPECT_EQ(st.st_mode, S_IFDIR | 0666U);

    st = untouched;
    EXPECT_EQ(fs.stat("/missing", st), -1);
    EXPECT_EQ(std::memcmp(&st, &untouched, sizeof st), 0);
}

namespace {

std::pair<long long, long long> partsOf(const struct timespec& time) {
    return {time.tv_sec, time.tv_nsec};
}

} // namespace

TEST_F(SmbWire, Times_ComeFromTheirFields) {
    putLocal("/f");
    const struct timespec times[2] = {{1'000'000'000, 123'456'000}, {1'100'000'000, 654'321'000}};
    ASSERT_EQ(utimensat(AT_FDCWD, QFile::encodeName(local("/f")).constData(), times, 0), 0);
    // Samba has no change time of its own: the proxy sets one. It also sets the creation time,
    // which stat() must not return.
    const auto setChange = FaultProxy::Fault::edit([](QByteArray& message) {
        constexpr qint64 size = 8;
        constexpr qint64 unixEpoch = 11'644'473'600; // in seconds since 1601
        constexpr qint64 change = (unixEpoch + 1'200'000'000) * 10'000'000 + 203'040;
        qToLittleEndian(change, message.data() + attributesAt - size);
        qToLittleEndian(change / 2, message.data() + attributesAt - 4 * size);
    });
    const auto expectTimes = [](const struct stat& st) {
        EXPECT_EQ(partsOf(st.st_atim), partsOf({1'000'000'000, 123'456'000}));
        EXPECT_EQ(partsOf(st.st_mtim), partsOf({1'100'000'000, 654'321'000}));
        EXPECT_EQ(partsOf(st.st_ctim), partsOf({1'200'000'000, 20'304'000}));
    };
    struct stat st;
    proxy->on({FaultProxy::Response, FaultProxy::QueryInfo}, setChange);
    EXPECT_EQ(fs.stat("/f", st), 0);
    expectTimes(st);
    const auto file = fs.open("/f", O_RDONLY, 0);
    ASSERT_TRUE(file);
    st = {};
    proxy->on({FaultProxy::Response, FaultProxy::QueryInfo}, setChange);
    EXPECT_EQ(file->fstat(st), 0);
    expectTimes(st);
}

// A server reports a link that it does not follow as a reparse point.
TEST_F(SmbWire, ReparsePoint_IsALink) {
    putLocal("/f");
    const auto asLink = FaultProxy::Fault::edit([](QByteArray& message) {
        message[attributesAt] = 0;
        message[attributesAt + 1] = 4; // FILE_ATTRIBUTE_REPARSE_POINT
    });
    struct stat st;
    proxy->on({FaultProxy::Response, FaultProxy::QueryInfo}, asLink);
    EXPECT_EQ(fs.stat("/f", st), 0);
    EXPECT_EQ(st.st_mode, S_IFLNK | 0666U);
    const auto file = fs.open("/f", O_RDONLY, 0);
    proxy->on({FaultProxy::Response, FaultProxy::QueryInfo}, asLink);
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_mode, S_IFLNK | 0666U);
    proxy->on({FaultProxy::Response, FaultProxy::QueryDirectory},
              FaultProxy::Fault::edit([](QByteArray& message) {
                  message[64 + 8 + 56 + 1] = 4; // of the first entry
              }));
    const auto directory = fs.opendir("/");
    int links = 0;
    while (const struct dirent* entry = directory->readdir())
        links += entry->d_type == DT_LNK;
    EXPECT_EQ(links, 1);
}

TEST_F(SmbWire, UnknownType_StatHasAllTypeBitsAndEntryIsUnknown) {
    putLocal("/f");
    proxy->on({FaultProxy::Response, FaultProxy::QueryInfo},
              FaultProxy::Fault::edit([](QByteArray& message) {
                  message[attributesAt] = 0x40; // FILE_ATTRIBUTE_DEVICE
              }));
    struct stat st;
    EXPECT_EQ(fs.stat("/f", st), 0);
    EXPECT_EQ(st.st_mode, 0170666U);
    proxy->on({FaultProxy::Response, FaultProxy::QueryDirectory},
              FaultProxy::Fault::edit([](QByteArray& message) {
                  message[64 + 8 + 56] = 0x40; // of the first entry
              }));
    const auto directory = fs.opendir("/");
    ASSERT_TRUE(directory);
    int unknown = 0;
    while (const struct dirent* entry = directory->readdir())
        unknown += entry->d_type == DT_UNKNOWN;
    EXPECT_EQ(unknown, 1);
}

TEST_F(SmbShare, Statfs_ReturnsTheSizesOfTheServer) {
    struct statfs local;
    ASSERT_EQ(::statfs(QFile::encodeName(this->local("")).constData(), &local), 0);
    struct statfs st;
    std::memset(&st, 0x5a, sizeof st);
    ASSERT_EQ(fs.statfs("/", st), 0);
    EXPECT_EQ(quint64(st.f_blocks) * st.f_bsize, quint64(local.f_blocks) * local.f_bsize);
    EXPECT_GT(st.f_bfree, 0U);
    EXPECT_EQ(st.f_bfree, st.f_bavail);
    EXPECT_EQ(st.f_frsize, st.f_bsize);
    EXPECT_EQ(st.f_type, 0);
    EXPECT_EQ(st.f_files, 0U);
    EXPECT_EQ(st.f_ffree, 0U);
    EXPECT_EQ(st.f_fsid.__val[0], 0);
    EXPECT_EQ(st.f_fsid.__val[1], 0);
    EXPECT_EQ(st.f_namelen, 0);
    EXPECT_EQ(st.f_flags, 0);
}

TEST_F(SmbWire, Rename_SendsBothPathsWithoutLeadingSlash) {
    putLocal("/from");
    ASSERT_EQ(mkdir(QFile::encodeName(local("/dir")).constData(), 0777), 0);
    EXPECT_EQ(fs.rename("/from", "/dir/to"), 0) << strerror();
    EXPECT_EQ(createdPath(), "from");
    const auto changes = proxy->messages(FaultProxy::Request, FaultProxy::SetInfo);
    ASSERT_EQ(changes.size(), 1);
    // The new path follows its length.
    EXPECT_TRUE(changes[0].head.contains(QByteArray("\x0c\0\0\0", 4) + utf16("dir\\to")));
}

TEST_F(Smb, ReadOnlyShare_ReadsAndFailsToWrite) {
    Smb2FS fs(10);
    ASSERT_EQ(fs.connect(login(server.address(), "ro")), 0);
    EXPECT_EQ(fs.open("/file.txt", O_RDONLY, 0)->readAll(100), "read only file\n");
    const auto refused = [](int result) { return result == -1 && errno == EACCES; };
    EXPECT_TRUE(refused(fs.open("/file.txt", O_RDWR, 0) ? 0 : -1));
    EXPECT_TRUE(refused(fs.open("/new", O_WRONLY | O_CREAT, 0644) ? 0 : -1));
    EXPECT_TRUE(refused(fs.mkdir("/d", 0755)));
    EXPECT_TRUE(refused(fs.unlink("/file.txt")));
    EXPECT_EQ(fs.rename("/file.txt", "/other.txt"), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_TRUE(refused(fs.truncate("/file.txt", 0)));
    EXPECT_TRUE(fs.isConnected());
    EXPECT_EQ(fs.open("/file.txt", O_RDONLY, 0)->readAll(100), "read only file\n");
}

} // namespace oru::io
