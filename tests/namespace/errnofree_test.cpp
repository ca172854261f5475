// SPDX-License-Identifier: Apache-2.0
// errno after a failure, where free(3) changes it: POSIX has forbidden that since 2024 only, and
// the C library does it before glibc 2.33.

#include "support/system/tempdir.h"

#include <oruio/fdadapter.h>
#include <oruio/fsswitch.h>
#include <oruio/posixfs.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>

namespace {

std::atomic<bool> freeChangesErrno{false};

} // namespace

extern "C" void __libc_free(void* memory);

// Replaces the C library's for the whole program.
extern "C" void free(void* memory) {
    __libc_free(memory);
    if (memory && freeChangesErrno)
        errno = EBADMSG;
}

namespace oru::io {

using test::TempDir;

namespace {

/// errno after `call`, which fails.
int errnoAfter(const std::function<void()>& call) {
    errno = 0;
    freeChangesErrno = true;
    call();
    const int reason = errno;
    freeChangesErrno = false;
    return reason;
}

/// The calls of an FS that fail with ENOENT for a name that does not exist.
void expectENOENT(FS& fs, const QString& missing) {
    struct stat st;
    struct statfs statistics;
    QVector<QString> names;
    QString target;
    char bytes[16];
    const QString below = missing + "/x";
    const QString attribute = "user.x";
    const struct {
        const char* name;
        std::function<void()> call;
    } calls[] = {
        {"open", [&] { fs.open(missing, O_RDONLY, 0); }},
        {"stat", [&] { fs.stat(missing, st); }},
        {"lstat", [&] { fs.lstat(missing, st); }},
        {"statfs", [&] { fs.statfs(missing, statistics); }},
        {"link", [&] { fs.link(missing, missing); }},
        {"unlink", [&] { fs.unlink(missing); }},
        {"mkdir", [&] { fs.mkdir(below, 0700); }},
        {"rmdir", [&] { fs.rmdir(missing); }},
        {"rename", [&] { fs.rename(missing, missing); }},
        {"getxattr", [&] { fs.getxattr(missing, attribute, bytes, sizeof bytes); }},
        {"setxattr", [&] { fs.setxattr(missing, attribute, bytes, sizeof bytes, 0); }},
        {"removexattr", [&] { fs.removexattr(missing, attribute); }},
        {"listxattr of names", [&] { fs.listxattr(missing, names); }},
        {"listxattr", [&] { fs.listxattr(missing, bytes, sizeof bytes); }},
        {"symlink", [&] { fs.symlink(attribute, below); }},
        {"readlink of a string", [&] { fs.readlink(missing, target); }},
        {"readlink", [&] { fs.readlink(missing, bytes, sizeof bytes); }},
        {"truncate", [&] { fs.truncate(missing, 0); }},
        {"chmod", [&] { fs.chmod(missing, 0600); }},
    };
    for (const auto& each : calls)
        EXPECT_EQ(errnoAfter(each.call), ENOENT) << each.name;
}

} // namespace

TEST(ErrnoAfterFree, LocalBackend_KeepsTheReason) {
    const TempDir dir;
    PosixFS fs(dir.path());
    expectENOENT(fs, "/missing");
    QSharedPointer<Directory> directory;
    const QString missing = "/missing";
    EXPECT_EQ(errnoAfter([&] { directory = fs.opendir(missing); }), ENOENT);
}

TEST(ErrnoAfterFree, Switch_KeepsTheReason) {
    const TempDir dir;
    FSSwitch root;
    root.add("/m", PosixFS::SPtr::create(dir.path()));
    expectENOENT(root, "/m/missing");
}

TEST(ErrnoAfterFree, AdapterOverSwitches_KeepsTheReason) {
    const TempDir dir;
    const auto inner = FSSwitch::SPtr::create();
    inner->add("/n", PosixFS::SPtr::create(dir.path()));
    const auto outer = FSSwitch::SPtr::create();
    outer->add("/m", inner);
    FDAdapter io(outer);
    constexpr char missing[] = "/m/n/missing";
    struct stat st;
    struct statfs statistics;
    char bytes[16];
    EXPECT_EQ(errnoAfter([&] { io.open(missing, O_RDONLY, 0); }), ENOENT);
    EXPECT_EQ(errnoAfter([&] { io.stat(missing, &st); }), ENOENT);
    EXPECT_EQ(errnoAfter([&] { io.lstat(missing, &st); }), ENOENT);
    EXPECT_EQ(errnoAfter([&] { io.statfs(missing, &statistics); }), ENOENT);
    EXPECT_EQ(errnoAfter([&] { io.link(missing, missing); }), ENOENT);
    EXPECT_EQ(errnoAfter([&] { io.unlink(missing); }), ENOENT);
    EXPECT_EQ(errnoAfter([&] { io.rmdir(missing); }), ENOENT);
    EXPECT_EQ(errnoAfter([&] { io.rename(missing, missing); }), ENOENT);
    EXPECT_EQ(errnoAfter([&] { io.symlink("x", "/m/n/missing/x"); }), ENOENT);
    EXPECT_EQ(errnoAfter([&] { io.readlink(missing, bytes, sizeof bytes); }), ENOENT);
    EXPECT_EQ(errnoAfter([&] { io.getxattr(missing, "user.x", bytes, sizeof bytes); }), ENOENT);
    EXPECT_EQ(errnoAfter([&] { io.truncate(missing, 0); }), ENOENT);
    EXPECT_EQ(errnoAfter([&] { io.chmod(missing, 0600); }), ENOENT);
    EXPECT_EQ(errnoAfter([&] { io.opendir(missing); }), ENOENT);
    EXPECT_EQ(errnoAfter([&] { io.stat("\xff", &st); }), EILSEQ);
}

TEST(ErrnoAfterFree, CloseThatFailsAndReleasesTheFile_KeepsTheReason) {
    struct UnwritableFile : PosixFile {
        UnwritableFile() : PosixFile(-1) {}
        int close() override {
            errno = EIO;
            return -1;
        }
    };
    struct UnwritableFS : PosixFS {
        UnwritableFS() : PosixFS(QString()) {}
        QSharedPointer<File> open(QString, int, int) override {
            return QSharedPointer<UnwritableFile>::create();
        }
    };
    FDAdapter io(QSharedPointer<UnwritableFS>::create());
    const int fd = io.open("/f", O_WRONLY, 0);
    ASSERT_NE(fd, -1);
    EXPECT_EQ(errnoAfter([&] { EXPECT_EQ(io.close(fd), -1); }), EIO);
}

TEST(ErrnoAfterFree, ClosedirOfTheLastReference_KeepsErrno) {
    FDAdapter io(PosixFS::SPtr::create("/tmp"));
    void* const handle = io.opendir("/");
    EXPECT_EQ(errnoAfter([&] { io.closedir(handle); }), 0);
}

TEST(ErrnoAfterFree, RemoveOfTheLastReference_KeepsErrno) {
    FSSwitch root;
    root.add("/m", PosixFS::SPtr::create("/tmp"));
    const QString mountPoint = "/m/";
    EXPECT_EQ(errnoAfter([&] { root.remove(mountPoint); }), 0);
}

} // namespace oru::io
