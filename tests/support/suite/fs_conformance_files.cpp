// SPDX-License-Identifier: Apache-2.0
// The conformance suite: open files.
#include "support/suite/fs_conformance.h"

#include <QDateTime>

#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace oru::io::test {

// Referenced by fs_conformance.cpp, for the linker.
extern const char conformanceOfFiles = 0;

// --- Class names

TEST_P(FSConformance, Type_ReturnsTheClassNames) {
    EXPECT_EQ(fs().type(), QLatin1String(can().type));
    put("f");
    EXPECT_EQ(fs().open(at("f"), O_RDONLY, 0)->type(), QLatin1String(can().fileType));
    EXPECT_EQ(fs().opendir(at(""))->type(), QLatin1String(can().directoryType));
}

// --- Opening files

TEST_P(FSConformance, OpenMissing_FailsWithENOENT) {
    EXPECT_FALSE(fs().open(at("missing"), O_RDONLY, 0));
    expectRefusal(ENOENT);
}

TEST_P(FSConformance, OpenInMissingDirectory_FailsWithENOENT) {
    EXPECT_FALSE(fs().open(at("missing/f"), O_WRONLY | O_CREAT, 0644));
    expectRefusal(ENOENT);
}

TEST_P(FSConformance, OpenCreate_NewFileIsEmpty) {
    const auto file = fs().open(at("new"), O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file) << strerror();
    struct stat st;
    ASSERT_EQ(file->fstat(st), 0) << strerror();
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_size, 0);
    char byte = 0;
    EXPECT_EQ(file->read(&byte, 1), 0);
    EXPECT_TRUE(exists("new"));
}

TEST_P(FSConformance, OpenExclusiveExisting_FailsWithEEXIST) {
    put("f", "kept");
    EXPECT_FALSE(fs().open(at("f"), O_WRONLY | O_CREAT | O_EXCL, 0644));
    expectRefusal(EEXIST);
    EXPECT_EQ(get("f"), "kept");
    EXPECT_TRUE(fs().open(at("g"), O_WRONLY | O_CREAT | O_EXCL, 0644)) << strerror();
}

TEST_P(FSConformance, OpenTruncate_EmptiesTheFile) {
    put("f", "something");
    ASSERT_TRUE(fs().open(at("f"), O_WRONLY | O_TRUNC, 0));
    EXPECT_EQ(get("f"), "");
}

TEST_P(FSConformance, OpenExisting_KeepsContent) {
    put("f", "abcdef");
    const auto file = fs().open(at("f"), O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->write("XY", 2), 2);
    file->close();
    EXPECT_EQ(get("f"), "XYcdef");
}

TEST_P(FSConformance, OpenDirectoryForWriting_HasDeclaredResult) {
    ASSERT_EQ(fs().mkdir(at("d"), 0755), 0);
    works(Op::OpenDirectoryForWriting, fs().open(at("d"), O_WRONLY, 0) ? 0 : -1);
}

TEST_P(FSConformance, OpenDirectoryForReading_ReadFailsWithEISDIR) {
    ASSERT_EQ(fs().mkdir(at("d"), 0755), 0);
    const auto file = fs().open(at("d"), O_RDONLY, 0);
    if (!works(Op::OpenDirectory, file ? 0 : -1))
        return;
    char byte;
    EXPECT_EQ(file->read(&byte, 1), -1);
    expectRefusal(EISDIR);
}

TEST_P(FSConformance, OpenThroughFile_HasDeclaredResult) {
    put("f");
    works(Op::OpenThroughFile, fs().open(at("f/g"), O_RDONLY, 0) ? 0 : -1);
}

// --- Reading and writing

TEST_P(FSConformance, WriteThenRead_ReturnsTheSameBytes) {
    const QByteArray content = pattern(1300000);
    put("f", content);
    EXPECT_EQ(get("f"), content);
}

TEST_P(FSConformance, WriteAndRead_MoveThePosition) {
    const auto file = fs().open(at("f"), O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->write("abcdef", 6), 6);
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 6);
    EXPECT_EQ(file->lseek(1, SEEK_SET), 1);
    char buf[3] = {};
    EXPECT_EQ(file->read(buf, 2), 2);
    EXPECT_STREQ(buf, "bc");
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 3);
}

TEST_P(FSConformance, PreadAndPwrite_LeaveThePosition) {
    const auto file = fs().open(at("f"), O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->write("abcdef", 6), 6);
    EXPECT_EQ(file->lseek(2, SEEK_SET), 2);
    EXPECT_EQ(file->pwrite("XYZ", 3, 1), 3);
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 2);
    char buf[7] = {};
    EXPECT_EQ(file->pread(buf, 6, 0), 6);
    EXPECT_STREQ(buf, "aXYZef");
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 2);
}

TEST_P(FSConformance, ReadAtEnd_IsShortThenZero) {
    put("f", "abc");
    const auto file = fs().open(at("f"), O_RDONLY, 0);
    ASSERT_TRUE(file);
    char buf[16];
    EXPECT_EQ(file->read(buf, sizeof buf), 3);
    EXPECT_EQ(file->read(buf, sizeof buf), 0);
    EXPECT_EQ(file->pread(buf, sizeof buf, 2), 1);
    EXPECT_EQ(file->pread(buf, sizeof buf, 3), 0);
    EXPECT_EQ(file->pread(buf, sizeof buf, 1000), 0);
}

TEST_P(FSConformance, ZeroBytes_Succeed) {
    const auto file = fs().open(at("f"), O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    char byte = 'x';
    EXPECT_EQ(file->write(&byte, 0), 0);
    EXPECT_EQ(file->pwrite(&byte, 0, 100), 0);
    EXPECT_EQ(file->read(&byte, 0), 0);
    EXPECT_EQ(file->pread(&byte, 0, 100), 0);
    struct stat st;
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_size, 0);
}

TEST_P(FSConformance, WriteBeyondEnd_LeavesZeroes) {
    const auto file = fs().open(at("f"), O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->pwrite("Z", 1, 5), 1);
    file->close();
    EXPECT_EQ(get("f"), QByteArray("\0\0\0\0\0Z", 6));
}

TEST_P(FSConformance, ReadWriteOnlyFile_HasDeclaredResult) {
    const auto file = fs().open(at("f"), O_WRONLY | O_CREAT, 0644);
    ASSERT_TRUE(file);
    char byte;
    works(Op::ReadWriteOnlyFile, file->read(&byte, 1));
}

TEST_P(FSConformance, WriteReadOnlyFile_HasDeclaredResult) {
    put("f", "abc");
    const auto file = fs().open(at("f"), O_RDONLY, 0);
    ASSERT_TRUE(file);
    works(Op::WriteReadOnlyFile, file->write("X", 1));
    EXPECT_EQ(get("f"), "abc");
}

TEST_P(FSConformance, Append_WritesAtTheEnd) {
    if (!can().appends)
        GTEST_SKIP() << "the backend ignores O_APPEND";
    put("f", "abc");
    const auto file = fs().open(at("f"), O_WRONLY | O_APPEND, 0);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->write("def", 3), 3);
    file->close();
    EXPECT_EQ(get("f"), "abcdef");
}

TEST_P(FSConformance, OffsetsBeyondFourGiB_AreExact) {
    constexpr long long offset = (5LL << 30) + 123;
    const auto file = fs().open(at("f"), O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    if (can().largestFile <= offset) {
        works(Op::WriteBeyondLargestFile, file->pwrite("far", 3, can().largestFile));
        return;
    }
    EXPECT_EQ(file->pwrite("far", 3, offset), 3) << strerror();
    EXPECT_EQ(file->lseek(0, SEEK_END), offset + 3);
    EXPECT_EQ(file->lseek(offset, SEEK_SET), offset);
    char buf[4] = {};
    EXPECT_EQ(file->read(buf, 3), 3);
    EXPECT_STREQ(buf, "far");
    EXPECT_EQ(file->lseek(0, SEEK_CUR), offset + 3);
    char low = 'x';
    EXPECT_EQ(file->pread(&low, 1, offset & 0xffffffffLL), 1);
    EXPECT_EQ(low, '\0');
    struct stat st;
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_size, offset + 3);
    EXPECT_EQ(file->ftruncate(offset), 0);
    EXPECT_EQ(fs().stat(at("f"), st), 0);
    EXPECT_EQ(st.st_size, offset);
    if (provides(Op::Truncate)) {
        EXPECT_EQ(fs().truncate(at("f"), offset - 1), 0);
        EXPECT_EQ(fs().stat(at("f"), st), 0);
        EXPECT_EQ(st.st_size, offset - 1);
    }
}

// --- Positions, sizes, locks

TEST_P(FSConformance, Lseek_MovesFromStartAndPosition) {
    put("f", "0123456789");
    const auto file = fs().open(at("f"), O_RDONLY, 0);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->lseek(4, SEEK_SET), 4);
    EXPECT_EQ(file->lseek(3, SEEK_CUR), 7);
    EXPECT_EQ(file->lseek(-2, SEEK_CUR), 5);
    EXPECT_EQ(readFully(*file, 2), "56");
    EXPECT_EQ(file->lseek(-7, SEEK_CUR), 0);
    EXPECT_EQ(readFully(*file, 2), "01");
    EXPECT_EQ(file->lseek(100, SEEK_SET), 100);
    EXPECT_EQ(readFully(*file, 2), "");
}

TEST_P(FSConformance, LseekFromEnd_HasDeclaredResult) {
    put("f", "0123456789");
    const auto file = fs().open(at("f"), O_RDONLY, 0);
    ASSERT_TRUE(file);
    if (!works(Op::LseekFromEnd, file->lseek(-1, SEEK_END)))
        return;
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 9);
    EXPECT_EQ(readFully(*file, 2), "9");
    EXPECT_EQ(file->lseek(90, SEEK_END), 100);
    EXPECT_EQ(readFully(*file, 2), "");
}

TEST_P(FSConformance, LseekBeforeStart_HasDeclaredResult) {
    put("f", "0123456789");
    const auto file = fs().open(at("f"), O_RDONLY, 0);
    ASSERT_TRUE(file);
    works(Op::LseekBeforeStart, file->lseek(-1, SEEK_SET));
}

TEST_P(FSConformance, Fstat_ReturnsSizeTypeAndTime) {
    put("f", "0123456789");
    const auto file = fs().open(at("f"), O_RDONLY, 0);
    ASSERT_TRUE(file);
    struct stat st;
    std::memset(&st, 0xff, sizeof st);
    ASSERT_EQ(file->fstat(st), 0) << strerror();
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_size, 10);
    const auto now = QDateTime::currentSecsSinceEpoch();
    EXPECT_NEAR(static_cast<double>(st.st_mtime), static_cast<double>(now), 5.0);
}

TEST_P(FSConformance, ModificationTime_IsMultipleOfDeclaredStep) {
    put("f", "0123456789");
    struct stat st;
    ASSERT_EQ(fs().stat(at("f"), st), 0) << strerror();
    const long long time = st.st_mtim.tv_sec * 1'000'000'000LL + st.st_mtim.tv_nsec;
    EXPECT_EQ(time % can().timeStep, 0) << time;
}

TEST_P(FSConformance, Ftruncate_CutsAndExtends) {
    put("f", "0123456789");
    const auto file = fs().open(at("f"), O_RDWR, 0);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->ftruncate(4), 0) << strerror();
    EXPECT_EQ(get("f"), "0123");
    EXPECT_EQ(file->ftruncate(6), 0) << strerror();
    EXPECT_EQ(get("f"), QByteArray("0123\0\0", 6));
}

TEST_P(FSConformance, FtruncateNegative_FailsWithEINVAL) {
    put("f", "0123456789");
    const auto file = fs().open(at("f"), O_RDWR, 0);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->ftruncate(-1), -1);
    expectRefusal(EINVAL);
    EXPECT_EQ(get("f").size(), 10);
}

TEST_P(FSConformance, Fsync_Succeeds) {
    const auto file = fs().open(at("f"), O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->write("abc", 3), 3);
    EXPECT_EQ(file->fsync(), 0) << strerror();
    works(Op::FileFdatasync, file->fdatasync());
}

TEST_P(FSConformance, Fchmod_HasDeclaredResult) {
    put("f");
    const auto file = fs().open(at("f"), O_RDWR, 0);
    ASSERT_TRUE(file);
    struct stat before;
    EXPECT_EQ(file->fstat(before), 0);
    if (!works(Op::FileFchmod, file->fchmod(0640)))
        return;
    struct stat st;
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_mode & 07777, can().keepsModes ? 0640U : before.st_mode & 07777);
}

TEST_P(FSConformance, Flock_ExcludesOtherOpenFiles) {
    put("f");
    const auto file = fs().open(at("f"), O_RDWR, 0);
    ASSERT_TRUE(file);
    if (!works(Op::FileFlock, file->flock(LOCK_EX)))
        return;
    const auto other = fs().open(at("f"), O_RDWR, 0);
    ASSERT_TRUE(other);
    EXPECT_EQ(other->flock(LOCK_EX | LOCK_NB), -1);
    expectRefusal(EWOULDBLOCK);
    EXPECT_EQ(file->flock(LOCK_UN), 0);
    EXPECT_EQ(other->flock(LOCK_EX | LOCK_NB), 0);
}

TEST_P(FSConformance, FcntlSetsAppend_WritesGoToTheEnd) {
    put("f", "abc");
    const auto file = fs().open(at("f"), O_RDWR, 0);
    ASSERT_TRUE(file);
    const int flags = file->fcntl(F_GETFL, 0L);
    if (!works(Op::FileFcntlFlags, flags))
        return;
    EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
    EXPECT_EQ(file->fcntl(F_SETFL, static_cast<long>(flags | O_APPEND)), 0);
    EXPECT_NE(file->fcntl(F_GETFL, 0L) & O_APPEND, 0);
    EXPECT_EQ(file->write("def", 3), 3);
    EXPECT_EQ(get("f"), "abcdef");
}

TEST_P(FSConformance, FcntlLock_UsesTheRecordAtThePointer) {
    put("f", "abc");
    const auto file = fs().open(at("f"), O_RDWR, 0);
    ASSERT_TRUE(file);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 1;
    lock.l_len = 1;
    if (!works(Op::FileFcntlLock, file->fcntl(F_SETLK, &lock)))
        return;
    lock.l_type = F_UNLCK;
    EXPECT_EQ(file->fcntl(F_SETLK, &lock), 0);
    lock.l_whence = 42;
    EXPECT_EQ(file->fcntl(F_SETLK, &lock), -1);
    expectRefusal(EINVAL);
}

TEST_P(FSConformance, CloseTwice_HasDeclaredResult) {
    const auto file = fs().open(at("f"), O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->close(), 0);
    EXPECT_EQ(file->close(), can().closeAgain);
}

TEST_P(FSConformance, ClosedFile_EveryOperationFails) {
    put("f", "abc");
    const auto file = fs().open(at("f"), O_RDWR, 0);
    ASSERT_TRUE(file);
    ASSERT_EQ(file->close(), 0);
    char byte = 0;
    struct stat st;
    EXPECT_EQ(file->read(&byte, 1), -1);
    EXPECT_EQ(file->write(&byte, 1), -1);
    EXPECT_EQ(file->pread(&byte, 1, 0), -1);
    EXPECT_EQ(file->pwrite(&byte, 1, 0), -1);
    EXPECT_EQ(file->lseek(0, SEEK_SET), -1);
    EXPECT_EQ(file->fstat(st), -1);
    EXPECT_EQ(file->ftruncate(0), -1);
    EXPECT_EQ(file->fsync(), -1);
    EXPECT_EQ(file->fdatasync(), -1);
    EXPECT_EQ(file->fcntl(F_GETFL, 0L), -1);
    EXPECT_EQ(file->flock(LOCK_SH), -1);
    EXPECT_EQ(file->fchmod(0600), -1);
    EXPECT_EQ(get("f"), "abc");
}

TEST_P(FSConformance, FileIoctl_HasDeclaredResult) {
    put("f");
    const auto file = fs().open(at("f"), O_RDONLY, 0);
    ASSERT_TRUE(file);
    QString response;
    works(Op::FileIoctl, file->ioctl("anything", response));
}

// --- readAll

TEST_P(FSConformance, ReadAll_ReadsTheSmallerOfMaximumAndSize) {
    put("f", "0123456789");
    EXPECT_EQ(fs().open(at("f"), O_RDONLY, 0)->readAll(100), "0123456789");
    EXPECT_EQ(fs().open(at("f"), O_RDONLY, 0)->readAll(10), "0123456789");
    EXPECT_EQ(fs().open(at("f"), O_RDONLY, 0)->readAll(4), "0123");
    EXPECT_EQ(fs().open(at("f"), O_RDONLY, 0)->readAll(0), "");
}

TEST_P(FSConformance, ReadAllAfterTheStart_IsEmpty) {
    put("f", "0123456789");
    const auto file = fs().open(at("f"), O_RDONLY, 0);
    ASSERT_TRUE(file);
    ASSERT_EQ(file->lseek(10, SEEK_SET), 10);
    EXPECT_EQ(file->readAll(100), "");
    // From the middle, the single read returns less than the size of the file.
    ASSERT_EQ(file->lseek(5, SEEK_SET), 5);
    EXPECT_EQ(file->readAll(100), "");
}

} // namespace oru::io::test
