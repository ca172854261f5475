// SPDX-License-Identifier: Apache-2.0
// The functions that the base classes implement: readAll() and type().

#include "support/doubles/recordingfs.h"

#include <oruio/error.h>
#include <oruio/fs.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/resource.h>

namespace oru::io {

namespace {

/// A file whose fstat() and read() return what a test sets.
class ScriptedFile : public File {
public:
    ScriptedFile() : File(QStringLiteral("ScriptedFile")) {}

    int fstatResult = 0;
    long long size = 0;
    int readResult = 0;
    int reads = 0;
    unsigned int readLength = 0;

    int fstat(struct stat& st) override {
        st = {};
        st.st_size = size;
        errno = fstatResult == 0 ? errno : EIO;
        return fstatResult;
    }
    int read(void* buf, unsigned int len) override {
        ++reads;
        readLength = len;
        if (readResult > 0)
            std::memset(buf, 'r', static_cast<size_t>(readResult));
        else if (readResult < 0)
            errno = EIO;
        return readResult;
    }
    int write(const void*, unsigned int) override {
        return -1;
    }
    int pread(void*, unsigned int, long long) override {
        ADD_FAILURE() << "readAll() reads from the position";
        return -1;
    }
    int pwrite(const void*, unsigned int, long long) override {
        return -1;
    }
    long long lseek(long long, int) override {
        return -1;
    }
    int ftruncate(long long) override {
        return -1;
    }
    int fsync() override {
        return -1;
    }
    int fdatasync() override {
        return -1;
    }
    int fcntl(int, ...) override {
        return -1;
    }
    int flock(int) override {
        return -1;
    }
    int fchmod(int) override {
        return -1;
    }
    int close() override {
        return -1;
    }
    int ioctl(QString, QString&) override {
        return -1;
    }
};

} // namespace

TEST(FileReadAll, FstatFails_ReturnsEmptyWithoutReading) {
    ScriptedFile file;
    file.fstatResult = -1;
    file.size = 10;
    EXPECT_TRUE(file.readAll(100).isEmpty());
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(file.reads, 0);
}

TEST(FileReadAll, MaximumZero_ReturnsEmptyWithoutReading) {
    ScriptedFile file;
    file.size = 10;
    EXPECT_TRUE(file.readAll(0).isEmpty());
    EXPECT_EQ(file.reads, 0);
}

TEST(FileReadAll, WholeFile_IsReadInOneCall) {
    ScriptedFile file;
    file.size = file.readResult = 10;
    EXPECT_EQ(file.readAll(100), QByteArray(10, 'r'));
    EXPECT_EQ(file.reads, 1);
    EXPECT_EQ(file.readLength, 10U);
}

TEST(FileReadAll, ShortRead_ReturnsEmptyWithoutRetry) {
    ScriptedFile file;
    file.size = 10;
    file.readResult = 9;
    EXPECT_TRUE(file.readAll(100).isEmpty());
    EXPECT_EQ(file.reads, 1);
}

TEST(FileReadAll, ReadFails_ReturnsEmptyWithErrno) {
    ScriptedFile file;
    file.size = 10;
    file.readResult = -1;
    EXPECT_TRUE(file.readAll(100).isEmpty());
    EXPECT_EQ(file.reads, 1);
    EXPECT_EQ(errno, EIO);
}

TEST(FileReadAll, MaximumBeyondTwoGiB_ReadsTheWholeFile) {
    ScriptedFile file;
    file.size = file.readResult = 10;
    EXPECT_EQ(file.readAll(0xffffffffU).size(), 10);
}

TEST(FileReadAll, SizeBeyondFourGiB_ReadsTheMaximum) {
    ScriptedFile file;
    file.size = (1LL << 32) + 5;
    file.readResult = 20;
    EXPECT_EQ(file.readAll(20).size(), 20);
    EXPECT_EQ(file.readLength, 20U);
}

TEST(FileReadAll, MoreThanAnArrayHolds_FailsWithEFBIG) {
    ScriptedFile file;
    file.size = 1LL << 33;
    liberrno = NotFound;
    EXPECT_TRUE(file.readAll(0xffffffffU).isEmpty());
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(file.reads, 0);
}

TEST(FileReadAll, MoreThanMemoryHas_EmptyWithENOMEM) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers need more address space than a limit leaves";
#endif
    struct rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
    struct rlimit limit = before;
    limit.rlim_cur = 1UL << 30;
    ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
    ScriptedFile file;
    file.size = (1LL << 31) - 1000;
    liberrno = NotFound;
    const QByteArray data = file.readAll(0xffffffffU);
    const int reason = errno;
    ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);
    if (file.reads > 0)
        GTEST_SKIP() << "the system does not enforce the limit of address space";
    EXPECT_TRUE(data.isEmpty());
    EXPECT_EQ(reason, ENOMEM);
    EXPECT_EQ(liberrno, Ok);
}

TEST(FileReadAll, EmptyFile_IsReadOnceWithoutAnError) {
    ScriptedFile file;
    errno = EDOM;
    liberrno = NotFound;
    EXPECT_TRUE(file.readAll(100).isEmpty());
    EXPECT_EQ(file.reads, 1);
    EXPECT_EQ(file.readLength, 0U);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(liberrno, NotFound);
}

TEST(FileReadAll, EmptyFileThatCannotBeRead_ReturnsEmptyWithErrno) {
    ScriptedFile file;
    file.readResult = -1;
    errno = 0;
    EXPECT_TRUE(file.readAll(100).isEmpty());
    EXPECT_EQ(file.reads, 1);
    EXPECT_EQ(errno, EIO);
}

TEST(FileReadAll, NegativeSize_ReturnsEmptyWithoutReading) {
    ScriptedFile file;
    file.size = -5;
    EXPECT_TRUE(file.readAll(100).isEmpty());
    EXPECT_EQ(file.reads, 0);
}

TEST(FSTypes, TypeNames_AreThoseOfTheConstructors) {
    test::RecordingFS fs;
    EXPECT_EQ(fs.type(), "RecordingFS");
    EXPECT_EQ(fs.opendir("/")->type(), "RecordingDirectory");
    ScriptedFile file;
    EXPECT_EQ(file.type(), "ScriptedFile");
}

TEST(FSTypes, FileType_ReturnsAReference) {
    ScriptedFile file;
    EXPECT_EQ(&file.type(), &file.type());
    static_assert(std::is_same_v<decltype(file.type()), const QString&>);
    static_assert(std::is_same_v<decltype(std::declval<FS>().type()), QString>);
    static_assert(std::is_same_v<decltype(std::declval<Directory>().type()), QString>);
}

} // namespace oru::io
