// SPDX-License-Identifier: Apache-2.0
// The file systems that other tests use: in memory, and with injected faults.

#include "support/doubles/faultfs.h"
#include "support/doubles/memfs.h"
#include "support/suite/fs_conformance.h"

#include <oruio/error.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>

#include <fcntl.h>

namespace oru::io::test {

namespace {

Capabilities memCapabilities() {
    Capabilities can;
    can.type = "MemFS";
    can.fileType = "MemFile";
    can.directoryType = "MemDirectory";
    can.answers[Op::FileFlock] = Answer::notImplemented();
    can.answers[Op::FileFcntlLock] = Answer::notImplemented();
    return can;
}

} // namespace

ORUIO_CONFORMS(MemFS, [] {
    Backend backend;
    backend.fs = QSharedPointer<MemFS>::create();
    backend.can = memCapabilities();
    return backend;
});

ORUIO_CONFORMS(FaultFSWithoutFaults, [] {
    Backend backend;
    backend.fs = QSharedPointer<FaultFS>::create(QSharedPointer<MemFS>::create());
    backend.can = memCapabilities();
    return backend;
});

TEST(MemFS, SizeBeyondMaximum_FailsWithEFBIG) {
    constexpr long long largest = std::numeric_limits<long long>::max();
    MemFS fs;
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    ASSERT_EQ(file->pwrite("abc", 3, 0), 3);
    errno = 0;
    EXPECT_EQ(file->ftruncate(largest), -1);
    EXPECT_EQ(errno, EFBIG);
    errno = 0;
    EXPECT_EQ(fs.truncate("/f", largest), -1);
    EXPECT_EQ(errno, EFBIG);
    errno = 0;
    EXPECT_EQ(file->pwrite("abc", 3, largest - 1), -1);
    EXPECT_EQ(errno, EFBIG);
    struct stat st;
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_size, 3);
}

TEST(MemFS, RenameDirectoryIntoItself_FailsWithEINVALForAnyPath) {
    MemFS fs;
    ASSERT_EQ(fs.mkdir("/a", 0755), 0);
    ASSERT_EQ(fs.mkdir("/a/b", 0755), 0);
    ASSERT_EQ(fs.symlink("a/b", "/l"), 0);
    for (const char* to : {"/a/x", "/a/b/x", "a/x", "//a/b/../x", "/l/x"}) {
        errno = 0;
        EXPECT_EQ(fs.rename("/a", to), -1) << to;
        EXPECT_EQ(errno, EINVAL) << to;
    }
    struct stat st;
    EXPECT_EQ(fs.stat("/a/b", st), 0);
    EXPECT_EQ(fs.rename("/a", "/ab"), 0);
    EXPECT_EQ(fs.stat("/ab/b", st), 0);
}

TEST(FaultFS, NthCall_FailsOnceAndDoesNothing) {
    FaultFS fs(QSharedPointer<MemFS>::create());
    struct stat st;
    fs.plan().failCall(3, ENOSPC);
    EXPECT_EQ(fs.mkdir("/a", 0755), 0);
    EXPECT_EQ(fs.mkdir("/b", 0755), 0);
    EXPECT_EQ(fs.mkdir("/c", 0755), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(fs.stat("/c", st), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(fs.mkdir("/c", 0755), 0);
    EXPECT_EQ(fs.plan().calls(), 5);
}

TEST(FaultFS, CallsOfFilesAndDirectories_AreCounted) {
    FaultFS fs(QSharedPointer<MemFS>::create());
    fs.plan().failCall(3, EIO);
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->write("abc", 3), 3);
    EXPECT_EQ(file->write("def", 3), -1);
    EXPECT_EQ(errno, EIO);
    struct stat st;
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_size, 3);
    fs.plan().failCall(2, EACCES);
    const auto dir = fs.opendir("/");
    ASSERT_TRUE(dir);
    EXPECT_EQ(dir->readdir(), nullptr);
    EXPECT_EQ(errno, EACCES);
    EXPECT_NE(dir->readdir(), nullptr);
}

} // namespace oru::io::test
