// The in-memory file system and the fault-injecting one, which other tests trust.

#include "support/faultfs.h"
#include "support/fs_conformance.h"
#include "support/memfs.h"

#include <oruio/error.h>

#include <gtest/gtest.h>

#include <cerrno>

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

TEST(FaultFS, CallsOfFilesAndDirectories_CountToo) {
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
