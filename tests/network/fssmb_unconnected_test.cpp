// SPDX-License-Identifier: Apache-2.0
// Shares without a connection.
#include <oruio/error.h>
#include <oruio/fssmb.h>

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>

namespace oru::io {

TEST(Smb2FS, NeverConnected_EveryCallFailsWithENOTCONN) {
    Smb2FS fs(1);
    struct stat st;
    struct statfs sfs;
    QString target;
    char buf[8];
    const auto refused = [](long long result) {
        const int reason = errno;
        errno = 0;
        return result == -1 && reason == ENOTCONN;
    };
    errno = 0;
    EXPECT_TRUE(refused(fs.stat("/", st)));
    EXPECT_TRUE(refused(fs.lstat("/", st)));
    EXPECT_TRUE(refused(fs.statfs("/", sfs)));
    EXPECT_TRUE(refused(fs.unlink("/f")));
    EXPECT_TRUE(refused(fs.mkdir("/d", 0755)));
    EXPECT_TRUE(refused(fs.rmdir("/d")));
    EXPECT_TRUE(refused(fs.rename("/f", "/g")));
    EXPECT_TRUE(refused(fs.readlink("/f", target)));
    EXPECT_TRUE(refused(fs.readlink("/f", buf, sizeof buf)));
    EXPECT_TRUE(refused(fs.truncate("/f", 0)));
    liberrno = NotFound;
    EXPECT_TRUE(refused(fs.open("/f", O_RDONLY, 0) ? 0 : -1));
    EXPECT_EQ(liberrno, Ok);
    liberrno = NotFound;
    EXPECT_TRUE(refused(fs.opendir("/") ? 0 : -1));
    EXPECT_EQ(liberrno, Ok);
    EXPECT_FALSE(fs.isConnected());
    EXPECT_EQ(fs.getDialect(), "unknown");
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_EQ(errno, 0);
}

TEST(Smb2FS, UnsupportedOperations_FailWithEOPNOTSUPPAndKeepLiberrno) {
    Smb2FS fs(1);
    QVector<QString> attributes;
    char buf[8];
    liberrno = NotFound;
    const auto refused = [](int result) {
        const int reason = errno;
        errno = 0;
        return result == -1 && reason == EOPNOTSUPP;
    };
    EXPECT_TRUE(refused(fs.link("/f", "/g")));
    EXPECT_TRUE(refused(fs.symlink("/f", "/g")));
    EXPECT_TRUE(refused(fs.getxattr("/f", "user.a", buf, sizeof buf)));
    EXPECT_TRUE(refused(fs.setxattr("/f", "user.a", buf, sizeof buf, 0)));
    EXPECT_TRUE(refused(fs.removexattr("/f", "user.a")));
    EXPECT_TRUE(refused(fs.listxattr("/f", attributes)));
    EXPECT_TRUE(refused(fs.listxattr("/f", buf, sizeof buf)));
    EXPECT_TRUE(refused(fs.chmod("/f", 0644)));
    fs.sync();
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(liberrno, NotFound);
}

// These operations send no request: the state of the connection does not matter.
TEST(Smb2FS, UnsupportedOperationsAfterFatalError_FailWithEOPNOTSUPP) {
    Smb2FS fs(1);
    set_errno(&fs, -ETIMEDOUT, nullptr, "stat", "f");
    QVector<QString> attributes;
    char buf[8];
    for (const auto& call : std::vector<std::function<int()>>{
             [&] { return fs.link("/f", "/g"); }, [&] { return fs.symlink("/f", "/g"); },
             [&] { return fs.getxattr("/f", "user.a", buf, sizeof buf); },
             [&] { return fs.setxattr("/f", "user.a", buf, sizeof buf, 0); },
             [&] { return fs.removexattr("/f", "user.a"); },
             [&] { return fs.listxattr("/f", attributes); },
             [&] { return fs.listxattr("/f", buf, sizeof buf); }}) {
        errno = 0;
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(errno, EOPNOTSUPP);
    }
    EXPECT_EQ(fs.addWatch("/"), -1);
    EXPECT_EQ(liberrno, NotImplemented);
    EXPECT_TRUE(fs.isConnected()); // the fatal error stands
}

TEST(Smb2FS, DirectoryConstructedAfterFatalError_IsClosed) {
    Smb2FS fs(1);
    set_errno(&fs, -ETIMEDOUT, nullptr, "stat", "f");
    QString path = "/";
    errno = 4711;
    Smb2Dir directory(&fs, path);
    EXPECT_FALSE(directory.isOpen());
    EXPECT_EQ(errno, 4711);
}

namespace {

/// Counts the calls of two overridden functions.
class CountingSmb2FS : public Smb2FS {
public:
    using Smb2FS::Smb2FS;
    int disconnect() override {
        ++disconnects;
        return Smb2FS::disconnect();
    }
    int stat(QString path, struct stat& st) override {
        ++stats;
        return Smb2FS::stat(path, st);
    }

    int disconnects = 0;
    int stats = 0;
};

} // namespace

TEST(Smb2FS, ConnectAndLstat_CallOverriddenDisconnectAndStat) {
    CountingSmb2FS fs(1);
    fs.connect({{"server", "127.0.0.1:1"}});
    EXPECT_EQ(fs.disconnects, 1);
    struct stat st;
    fs.lstat("/", st);
    EXPECT_EQ(fs.stats, 1);
}

TEST(Smb2FS, WatchesAndIoctl_FailWithNotImplemented) {
    Smb2FS fs(1);
    QString response = "unchanged";
    for (const auto& call : std::vector<std::function<int()>>{
             [&] { return fs.addWatch("/"); }, [&] { return fs.remWatch("/"); },
             [&] { return fs.ioctl("anything", response); }}) {
        liberrno = Ok;
        errno = 0;
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(liberrno, NotImplemented);
        EXPECT_EQ(errno, 0);
    }
    EXPECT_EQ(response, "unchanged");
}

TEST(Smb2FS, SetErrno_SetsErrnoAndRemembersFatalErrors) {
    Smb2FS fs(1);
    errno = 0;
    EXPECT_EQ(set_errno(&fs, 0, nullptr, "stat", "f"), 0);
    EXPECT_EQ(set_errno(&fs, 4711, nullptr, "read", "f"), 4711);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(set_errno(&fs, -ENOSPC, nullptr, "write", "f"), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(set_errno(&fs, -ECONNRESET, nullptr, "write", nullptr), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_TRUE(fs.isConnected());
    // A success does not clear the fatal error.
    EXPECT_EQ(set_errno(&fs, 0, nullptr, "stat", "f"), 0);
    EXPECT_TRUE(fs.isConnected());
    // A failure that is not fatal clears it.
    set_errno(&fs, -ENOENT, nullptr, "stat", "f");
    EXPECT_FALSE(fs.isConnected());
}

TEST(Smb2FS, EveryErrno_OnlyFiveAreFatal) {
    Smb2FS fs(1);
    std::vector<int> fatal;
    for (int error = 1; error < 200; ++error) {
        set_errno(&fs, -error, nullptr, "stat", "f");
        struct stat st;
        errno = 0;
        EXPECT_EQ(fs.stat("/f", st), -1);
        if (errno == 0)
            fatal.push_back(error);
        else
            EXPECT_EQ(errno, ENOTCONN);
    }
    EXPECT_EQ(fatal, std::vector<int>({EBUSY, ENETRESET, ECONNRESET, ETIMEDOUT, ECONNREFUSED}));
}

TEST(Smb2FS, AfterFatalError_EveryCallFailsAndKeepsErrno) {
    Smb2FS fs(1);
    set_errno(&fs, -ETIMEDOUT, nullptr, "stat", "f");
    errno = 4711;
    liberrno = NotFound;
    struct stat st;
    struct statfs sfs;
    QString target = "unchanged";
    char buf[8];
    EXPECT_EQ(fs.stat("/", st), -1);
    EXPECT_EQ(fs.lstat("/", st), -1);
    EXPECT_EQ(fs.statfs("/", sfs), -1);
    EXPECT_EQ(fs.unlink("/f"), -1);
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(fs.rmdir("/d"), -1);
    EXPECT_EQ(fs.rename("/f", "/g"), -1);
    EXPECT_EQ(fs.readlink("/f", buf, sizeof buf), -1);
    EXPECT_EQ(fs.readlink("/f", target), -1);
    EXPECT_EQ(target, "");
    EXPECT_EQ(fs.truncate("/f", 0), -1);
    EXPECT_EQ(fs.chmod("/f", 0644), -1);
    EXPECT_FALSE(fs.open("/f", O_RDONLY, 0));
    EXPECT_FALSE(fs.opendir("/"));
    EXPECT_TRUE(fs.isConnected());
    EXPECT_EQ(fs.getDialect(), "unknown");
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_EQ(errno, 4711);
    EXPECT_EQ(liberrno, NotFound);
}

TEST(Smb2FS, UnencodablePaths_FailWithTheReason) {
    Smb2FS fs(1);
    struct stat st;
    EXPECT_EQ(fs.stat(QString("a") + QChar(0) + "b", st), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fs.stat(QString(QChar(0xd800)), st), -1);
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(fs.stat(QString(32768, 'a'), st), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(fs.rename("/f", QString(32768, 'a')), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(fs.rename(QString(QChar(0)), "/g"), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(Smb2FS, UnencodableLogins_FailWithTheReason) {
    for (const char* key :
         {"server", "share", "user", "password", "domain", "version", "workstation"}) {
        Smb2FS fs(1);
        EXPECT_EQ(fs.connect({{key, QString(QChar(0))}}), -1) << key;
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(fs.connect({{key, QString(QChar(0xdc00))}}), -1) << key;
        EXPECT_EQ(errno, EILSEQ);
        EXPECT_EQ(fs.connect({{key, QString(1025, 'a')}}), -1) << key;
        EXPECT_EQ(errno, ENAMETOOLONG);
        EXPECT_EQ(fs.connect({{key, QString(1024, 'a')}}), -1) << key;
        EXPECT_NE(errno, ENAMETOOLONG);
    }
}

} // namespace oru::io
