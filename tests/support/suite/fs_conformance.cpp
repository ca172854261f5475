#include "support/suite/fs_conformance.h"

#include <QDateTime>
#include <QSet>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace oru::io::test {

std::ostream& operator<<(std::ostream& out, const BackendMaker& maker) {
    return out << maker.name;
}

void FSConformance::SetUp() {
    m_backend = GetParam().make();
    if (!m_backend.skipReason.empty())
        GTEST_SKIP() << m_backend.skipReason;
    liberrno = Ok;
    errno = 0;
}

QString FSConformance::at(const QString& name) const {
    return m_backend.root + QLatin1Char('/') + name;
}

QString FSConformance::at(const char* name) const {
    return at(QString::fromUtf8(name));
}

Answer FSConformance::answer(Op op) const {
    const auto found = can().answers.find(op);
    return found == can().answers.end() ? Answer::works() : found->second;
}

bool FSConformance::provides(Op op) const {
    return answer(op).kind == Answer::Works;
}

bool FSConformance::works(Op op, long long result) const {
    const Error seen;
    const Answer expected = answer(op);
    if (expected.kind == Answer::Works) {
        EXPECT_NE(result, -1) << seen.strerror();
        return result != -1;
    }
    if (expected.kind == Answer::IsSomethingElse)
        return false;
    EXPECT_EQ(result, -1);
    if (expected.kind == Answer::NotImplementedHere) {
        EXPECT_EQ(seen.code, NotImplemented);
    } else {
        EXPECT_EQ(seen.code, Ok);
        EXPECT_EQ(seen.sysErrno, expected.error) << std::strerror(seen.sysErrno);
    }
    return false;
}

void FSConformance::put(const char* name, const QByteArray& content) {
    const auto file = fs().open(at(name), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_TRUE(file) << strerror();
    int written = 0;
    while (written < content.size()) {
        const int count = file->write(content.constData() + written, content.size() - written);
        ASSERT_GT(count, 0) << strerror();
        written += count;
    }
    ASSERT_EQ(file->close(), 0) << strerror();
}

QByteArray FSConformance::get(const char* name) {
    const auto file = fs().open(at(name), O_RDONLY, 0);
    EXPECT_TRUE(file) << strerror();
    if (!file)
        return {};
    QByteArray content;
    QByteArray chunk(65536, Qt::Uninitialized);
    for (;;) {
        const int count = file->read(chunk.data(), chunk.size());
        EXPECT_NE(count, -1) << strerror();
        if (count <= 0)
            return content;
        content.append(chunk.constData(), count);
    }
}

bool FSConformance::exists(const QString& name) {
    struct stat st;
    return fs().lstat(at(name), st) == 0;
}

QStringList FSConformance::list(const QString& path) {
    const auto dir = fs().opendir(path);
    EXPECT_TRUE(dir);
    QStringList names;
    while (struct dirent* entry = dir ? dir->readdir() : nullptr)
        names.append(QString::fromUtf8(entry->d_name));
    names.sort();
    return names;
}

namespace {

QByteArray pattern(int size, int seed = 1) {
    QByteArray bytes(size, Qt::Uninitialized);
    unsigned state = 2463534242U + static_cast<unsigned>(seed);
    for (int i = 0; i < size; ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        bytes[i] = static_cast<char>(state);
    }
    return bytes;
}

/// Reads exactly `size` bytes, however many calls that takes.
QByteArray readFully(File& file, int size) {
    QByteArray bytes(size, '\0');
    int done = 0;
    while (done < size) {
        const int count = file.read(bytes.data() + done, size - done);
        if (count <= 0)
            break;
        done += count;
    }
    bytes.truncate(done);
    return bytes;
}

/// Checks that the last call was refused by the system for `error`.
void expectRefusal(int error) {
    const Error seen;
    EXPECT_EQ(seen.code, Ok);
    EXPECT_EQ(seen.sysErrno, error) << std::strerror(seen.sysErrno);
}

} // namespace

// --- Names of the classes

TEST_P(FSConformance, Type_NamesTheClasses) {
    EXPECT_EQ(fs().type(), QLatin1String(can().type));
    put("f");
    EXPECT_EQ(fs().open(at("f"), O_RDONLY, 0)->type(), QLatin1String(can().fileType));
    EXPECT_EQ(fs().opendir(at(""))->type(), QLatin1String(can().directoryType));
}

// --- Opening files

TEST_P(FSConformance, OpenMissing_NullWithENOENT) {
    EXPECT_FALSE(fs().open(at("missing"), O_RDONLY, 0));
    expectRefusal(ENOENT);
}

TEST_P(FSConformance, OpenInMissingDirectory_NullWithENOENT) {
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

TEST_P(FSConformance, OpenExclusive_ExistingFileFailsEEXIST) {
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

TEST_P(FSConformance, OpenForWritingADirectory_AsTabled) {
    ASSERT_EQ(fs().mkdir(at("d"), 0755), 0);
    works(Op::OpenDirectoryForWriting, fs().open(at("d"), O_WRONLY, 0) ? 0 : -1);
}

TEST_P(FSConformance, OpenDirectoryForReading_ReadFailsEISDIR) {
    ASSERT_EQ(fs().mkdir(at("d"), 0755), 0);
    const auto file = fs().open(at("d"), O_RDONLY, 0);
    if (!works(Op::OpenDirectory, file ? 0 : -1))
        return;
    char byte;
    EXPECT_EQ(file->read(&byte, 1), -1);
    expectRefusal(EISDIR);
}

TEST_P(FSConformance, OpenThroughAFile_AsTabled) {
    put("f");
    works(Op::OpenThroughFile, fs().open(at("f/g"), O_RDONLY, 0) ? 0 : -1);
}

// --- Reading and writing

TEST_P(FSConformance, WriteThenRead_BytesComeBack) {
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

TEST_P(FSConformance, Read_ShortAtTheEndThenZero) {
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

TEST_P(FSConformance, ZeroBytes_AreNoFailure) {
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

TEST_P(FSConformance, WriteBehindTheEnd_LeavesZeroes) {
    const auto file = fs().open(at("f"), O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->pwrite("Z", 1, 5), 1);
    file->close();
    EXPECT_EQ(get("f"), QByteArray("\0\0\0\0\0Z", 6));
}

TEST_P(FSConformance, ReadOnWriteOnlyFile_AsTabled) {
    const auto file = fs().open(at("f"), O_WRONLY | O_CREAT, 0644);
    ASSERT_TRUE(file);
    char byte;
    works(Op::ReadWriteOnlyFile, file->read(&byte, 1));
}

TEST_P(FSConformance, WriteOnReadOnlyFile_AsTabled) {
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

TEST_P(FSConformance, BeyondFourGiB_OffsetsAreWhole) {
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

// --- The rest of a file's operations

TEST_P(FSConformance, Lseek_FromStartAndPosition) {
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

TEST_P(FSConformance, LseekFromTheEnd_AsTabled) {
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

TEST_P(FSConformance, LseekBeforeTheStart_AsTabled) {
    put("f", "0123456789");
    const auto file = fs().open(at("f"), O_RDONLY, 0);
    ASSERT_TRUE(file);
    works(Op::LseekBeforeStart, file->lseek(-1, SEEK_SET));
}

TEST_P(FSConformance, Fstat_TellsSizeAndKind) {
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

TEST_P(FSConformance, ModificationTime_InStepsAsTabled) {
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

TEST_P(FSConformance, FtruncateNegative_FailsEINVAL) {
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

TEST_P(FSConformance, Fchmod_AsTabled) {
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

TEST_P(FSConformance, Flock_ExcludesOtherOpenings) {
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

TEST_P(FSConformance, FcntlFlags_AppendCanBeSwitchedOn) {
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

TEST_P(FSConformance, FcntlLock_RecordTravelsThroughThePointer) {
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

TEST_P(FSConformance, CloseTwice_IsHarmless) {
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

TEST_P(FSConformance, FileIoctl_AsTabled) {
    put("f");
    const auto file = fs().open(at("f"), O_RDONLY, 0);
    ASSERT_TRUE(file);
    QString response;
    works(Op::FileIoctl, file->ioctl("anything", response));
}

// --- readAll

TEST_P(FSConformance, ReadAll_TakesTheSmallerOfMaximumAndSize) {
    put("f", "0123456789");
    EXPECT_EQ(fs().open(at("f"), O_RDONLY, 0)->readAll(100), "0123456789");
    EXPECT_EQ(fs().open(at("f"), O_RDONLY, 0)->readAll(10), "0123456789");
    EXPECT_EQ(fs().open(at("f"), O_RDONLY, 0)->readAll(4), "0123");
    EXPECT_EQ(fs().open(at("f"), O_RDONLY, 0)->readAll(0), "");
}

TEST_P(FSConformance, ReadAll_FromTheEndIsEmpty) {
    put("f", "0123456789");
    const auto file = fs().open(at("f"), O_RDONLY, 0);
    ASSERT_TRUE(file);
    ASSERT_EQ(file->lseek(10, SEEK_SET), 10);
    EXPECT_EQ(file->readAll(100), "");
    // The single read from the middle is short of the file's size.
    ASSERT_EQ(file->lseek(5, SEEK_SET), 5);
    EXPECT_EQ(file->readAll(100), "");
}

// --- What paths lead to

TEST_P(FSConformance, Stat_TellsFileFromDirectory) {
    put("f", "abc");
    ASSERT_EQ(fs().mkdir(at("d"), 0755), 0);
    struct stat st;
    EXPECT_EQ(fs().stat(at("f"), st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_size, 3);
    EXPECT_EQ(fs().lstat(at("f"), st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(fs().stat(at("d"), st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
}

TEST_P(FSConformance, MissingPath_EveryOperationFailsENOENT) {
    struct stat st;
    struct statfs sfs;
    char buf[16] = {};
    QString text;
    const QString missing = at("missing");
    EXPECT_EQ(fs().stat(missing, st), -1);
    expectRefusal(ENOENT);
    EXPECT_EQ(fs().lstat(missing, st), -1);
    expectRefusal(ENOENT);
    EXPECT_EQ(fs().statfs(missing, sfs), -1);
    expectRefusal(ENOENT);
    EXPECT_EQ(fs().unlink(missing), -1);
    expectRefusal(ENOENT);
    EXPECT_EQ(fs().rmdir(missing), -1);
    expectRefusal(ENOENT);
    EXPECT_EQ(fs().rename(missing, at("other")), -1);
    expectRefusal(ENOENT);
    EXPECT_EQ(fs().mkdir(at("missing/d"), 0755), -1);
    expectRefusal(ENOENT);
    if (provides(Op::Truncate)) {
        EXPECT_EQ(fs().truncate(missing, 0), -1);
        expectRefusal(ENOENT);
    }
    if (provides(Op::Chmod)) {
        EXPECT_EQ(fs().chmod(missing, 0600), -1);
        expectRefusal(ENOENT);
    }
    if (provides(Op::Link)) {
        EXPECT_EQ(fs().link(missing, at("other")), -1);
        expectRefusal(ENOENT);
    }
    if (provides(Op::Symlink)) {
        EXPECT_EQ(fs().readlink(missing, text), -1);
        expectRefusal(ENOENT);
        EXPECT_EQ(fs().readlink(missing, buf, sizeof buf), -1);
        expectRefusal(ENOENT);
    }
    if (provides(Op::Xattr)) {
        EXPECT_EQ(fs().getxattr(missing, "user.a", buf, sizeof buf), -1);
        expectRefusal(ENOENT);
        EXPECT_EQ(fs().setxattr(missing, "user.a", buf, 1, 0), -1);
        expectRefusal(ENOENT);
        EXPECT_EQ(fs().removexattr(missing, "user.a"), -1);
        expectRefusal(ENOENT);
        EXPECT_EQ(fs().listxattr(missing, buf, sizeof buf), -1);
        expectRefusal(ENOENT);
    }
    EXPECT_FALSE(exists("other"));
}

TEST_P(FSConformance, Statfs_TellsSpace) {
    struct statfs st = {};
    ASSERT_EQ(fs().statfs(at(""), st), 0) << strerror();
    EXPECT_GT(st.f_bsize, 0);
    EXPECT_GT(st.f_blocks, 0U);
    EXPECT_LE(st.f_bfree, st.f_blocks);
}

TEST_P(FSConformance, Mkdir_MakesADirectoryOnce) {
    EXPECT_EQ(fs().mkdir(at("d"), 0755), 0) << strerror();
    EXPECT_EQ(fs().mkdir(at("d"), 0755), -1);
    expectRefusal(EEXIST);
    put("d/f", "inside");
    EXPECT_EQ(get("d/f"), "inside");
}

TEST_P(FSConformance, Rmdir_RemovesAnEmptyDirectory) {
    ASSERT_EQ(fs().mkdir(at("d"), 0755), 0);
    EXPECT_EQ(fs().rmdir(at("d")), 0) << strerror();
    EXPECT_FALSE(exists("d"));
}

TEST_P(FSConformance, RmdirNonEmpty_AsTabledAndNothingIsLost) {
    ASSERT_EQ(fs().mkdir(at("d"), 0755), 0);
    put("d/f", "kept");
    EXPECT_FALSE(works(Op::RmdirNonEmpty, fs().rmdir(at("d"))));
    EXPECT_EQ(get("d/f"), "kept");
}

TEST_P(FSConformance, RmdirOfAFile_AsTabled) {
    put("f");
    works(Op::RmdirOfFile, fs().rmdir(at("f")));
}

TEST_P(FSConformance, Unlink_RemovesAFile) {
    put("f");
    EXPECT_EQ(fs().unlink(at("f")), 0) << strerror();
    EXPECT_FALSE(exists("f"));
}

TEST_P(FSConformance, UnlinkOfADirectory_AsTabled) {
    ASSERT_EQ(fs().mkdir(at("d"), 0755), 0);
    works(Op::UnlinkDirectory, fs().unlink(at("d")));
}

TEST_P(FSConformance, UnlinkOfAnOpenFile_ContentStaysReadable) {
    put("f", "abc");
    const auto file = fs().open(at("f"), O_RDONLY, 0);
    ASSERT_TRUE(file);
    if (!works(Op::UnlinkOpenFile, fs().unlink(at("f"))))
        return;
    EXPECT_FALSE(exists("f"));
    EXPECT_EQ(readFully(*file, 10), "abc");
}

TEST_P(FSConformance, Rename_MovesFilesAndDirectories) {
    put("f", "abc");
    ASSERT_EQ(fs().mkdir(at("d"), 0755), 0);
    ASSERT_EQ(fs().mkdir(at("e"), 0755), 0);
    EXPECT_EQ(fs().rename(at("f"), at("d/g")), 0) << strerror();
    EXPECT_FALSE(exists("f"));
    EXPECT_EQ(get("d/g"), "abc");
    EXPECT_EQ(fs().rename(at("d"), at("e/h")), 0) << strerror();
    EXPECT_FALSE(exists("d"));
    EXPECT_EQ(get("e/h/g"), "abc");
}

TEST_P(FSConformance, RenameOntoAnExistingFile_AsTabled) {
    put("f", "new");
    put("g", "old");
    if (works(Op::RenameOntoExisting, fs().rename(at("f"), at("g")))) {
        EXPECT_EQ(get("g"), "new");
        EXPECT_FALSE(exists("f"));
    } else {
        EXPECT_EQ(get("g"), "old");
        EXPECT_EQ(get("f"), "new");
    }
}

TEST_P(FSConformance, Link_TwoNamesForOneFile) {
    put("f", "abc");
    if (!works(Op::Link, fs().link(at("f"), at("g"))))
        return;
    EXPECT_EQ(get("g"), "abc");
    struct stat st;
    EXPECT_EQ(fs().stat(at("f"), st), 0);
    EXPECT_EQ(st.st_nlink, 2U);
    EXPECT_EQ(fs().link(at("f"), at("g")), -1);
    expectRefusal(EEXIST);
    EXPECT_EQ(fs().unlink(at("f")), 0);
    EXPECT_EQ(get("g"), "abc");
}

TEST_P(FSConformance, Symlink_TargetIsStoredAsItIs) {
    put("f", "abc");
    if (!works(Op::Symlink, fs().symlink("f", at("l"))))
        return;
    QString target;
    EXPECT_EQ(fs().readlink(at("l"), target), 1);
    EXPECT_EQ(target, "f");
    struct stat st;
    EXPECT_EQ(fs().lstat(at("l"), st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(fs().stat(at("l"), st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(get("l"), "abc");
    EXPECT_EQ(fs().symlink("/nowhere/at all", at("m")), 0);
    EXPECT_EQ(fs().readlink(at("m"), target), 15);
    EXPECT_EQ(target, "/nowhere/at all");
    EXPECT_EQ(fs().stat(at("m"), st), -1);
    expectRefusal(ENOENT);
}

TEST_P(FSConformance, ReadlinkIntoABuffer_RestAsTabled) {
    if (!works(Op::Symlink, fs().symlink("target", at("l"))))
        return;
    char buf[16];
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(fs().readlink(at("l"), buf, sizeof buf), 6);
    EXPECT_EQ(std::string(buf, 6), "target");
    EXPECT_EQ(buf[6], can().readlinkPads ? '\0' : '#');
    EXPECT_EQ(buf[15], can().readlinkPads ? '\0' : '#');
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(fs().readlink(at("l"), buf, 3), 3);
    EXPECT_EQ(std::string(buf, 4), "tar#");
}

TEST_P(FSConformance, ReadlinkOfAFile_AsTabled) {
    put("f");
    QString target;
    EXPECT_FALSE(works(Op::ReadlinkOfFile, fs().readlink(at("f"), target)));
    char buf[16];
    EXPECT_FALSE(works(Op::ReadlinkOfFile, fs().readlink(at("f"), buf, sizeof buf)));
}

TEST_P(FSConformance, Truncate_CutsAndExtends) {
    put("f", "0123456789");
    if (!works(Op::Truncate, fs().truncate(at("f"), 4)))
        return;
    EXPECT_EQ(get("f"), "0123");
    EXPECT_EQ(fs().truncate(at("f"), 6), 0);
    EXPECT_EQ(get("f"), QByteArray("0123\0\0", 6));
    EXPECT_EQ(fs().truncate(at("f"), -1), -1);
    expectRefusal(EINVAL);
}

TEST_P(FSConformance, Chmod_ChangesTheMode) {
    put("f");
    struct stat before;
    EXPECT_EQ(fs().stat(at("f"), before), 0);
    if (!works(Op::Chmod, fs().chmod(at("f"), 0604)))
        return;
    struct stat st;
    EXPECT_EQ(fs().stat(at("f"), st), 0);
    EXPECT_EQ(st.st_mode & 07777, can().keepsModes ? 0604U : before.st_mode & 07777);
}

TEST_P(FSConformance, ModeAtCreation_AsTabled) {
    // As strict as these, no umask changes them.
    EXPECT_EQ(fs().mkdir(at("d"), 0700), 0);
    EXPECT_TRUE(fs().open(at("f"), O_WRONLY | O_CREAT, 0600));
    struct stat directory;
    EXPECT_EQ(fs().stat(at("d"), directory), 0);
    EXPECT_EQ((directory.st_mode & 07777) == 0700, can().keepsModes);
    struct stat file;
    EXPECT_EQ(fs().stat(at("f"), file), 0);
    EXPECT_EQ((file.st_mode & 07777) == 0600, can().keepsModes);
}

TEST_P(FSConformance, Sync_Returns) {
    put("f", "abc");
    fs().sync();
    EXPECT_EQ(get("f"), "abc");
}

TEST_P(FSConformance, WatchesAndIoctl_AsTabled) {
    QString response;
    works(Op::AddWatch, fs().addWatch(at("")));
    works(Op::RemWatch, fs().remWatch(at("")));
    works(Op::Ioctl, fs().ioctl("anything", response));
}

// --- Extended attributes

TEST_P(FSConformance, Xattr_SetGetListRemove) {
    put("f");
    char value[] = {'v', '\0', 'w'};
    if (!works(Op::Xattr, fs().setxattr(at("f"), "user.clip", value, sizeof value, 0)))
        return;
    char buf[16] = {};
    EXPECT_EQ(fs().getxattr(at("f"), "user.clip", buf, 0), 3);
    EXPECT_EQ(fs().getxattr(at("f"), "user.clip", buf, sizeof buf), 3);
    EXPECT_EQ(std::memcmp(buf, value, 3), 0);
    EXPECT_EQ(fs().getxattr(at("f"), "user.clip", buf, 1), -1);
    expectRefusal(ERANGE);
    EXPECT_EQ(fs().setxattr(at("f"), "user.clip", value, 1, XATTR_CREATE), -1);
    expectRefusal(EEXIST);

    char names[64] = {};
    EXPECT_EQ(fs().listxattr(at("f"), names, 0), 10);
    EXPECT_EQ(fs().listxattr(at("f"), names, sizeof names), 10);
    EXPECT_STREQ(names, "user.clip");
    QVector<QString> vector{"before"};
    EXPECT_EQ(fs().listxattr(at("f"), vector), 10);
    ASSERT_GE(vector.size(), 2);
    EXPECT_EQ(vector.at(0), "before");
    EXPECT_EQ(vector.at(1), "user.clip");

    EXPECT_EQ(fs().removexattr(at("f"), "user.clip"), 0);
    EXPECT_EQ(fs().removexattr(at("f"), "user.clip"), -1);
    expectRefusal(ENODATA);
    EXPECT_EQ(fs().getxattr(at("f"), "user.clip", buf, sizeof buf), -1);
    expectRefusal(ENODATA);
}

TEST_P(FSConformance, Xattr_OtherCallsAnswerAsTabled) {
    put("f");
    char buf[16];
    QVector<QString> names;
    if (provides(Op::Listxattr)) {
        EXPECT_EQ(fs().listxattr(at("f"), names), 0);
        EXPECT_TRUE(names.isEmpty());
        EXPECT_EQ(fs().listxattr(at("f"), buf, sizeof buf), 0);
    } else {
        works(Op::Listxattr, fs().listxattr(at("f"), buf, sizeof buf));
        works(Op::Listxattr, fs().listxattr(at("f"), names));
    }
    if (!provides(Op::Xattr)) {
        works(Op::Xattr, fs().getxattr(at("f"), "user.a", buf, sizeof buf));
        works(Op::Xattr, fs().removexattr(at("f"), "user.a"));
    }
}

// --- Directories

TEST_P(FSConformance, Readdir_ListsEveryEntryOnce) {
    ASSERT_EQ(fs().mkdir(at("d"), 0755), 0);
    put("d/a");
    put("d/b");
    ASSERT_EQ(fs().mkdir(at("d/c"), 0755), 0);
    EXPECT_EQ(list(at("d")), QStringList({".", "..", "a", "b", "c"}));
}

TEST_P(FSConformance, Readdir_NullAgainAtTheEnd) {
    const auto dir = fs().opendir(at(""));
    ASSERT_TRUE(dir);
    while (dir->readdir()) {
    }
    EXPECT_EQ(dir->readdir(), nullptr);
}

TEST_P(FSConformance, Rewinddir_StartsAgainWithNewEntries) {
    put("a");
    const auto dir = fs().opendir(at(""));
    ASSERT_TRUE(dir);
    QSet<QString> first;
    while (struct dirent* entry = dir->readdir())
        first.insert(QString::fromUtf8(entry->d_name));
    put("b");
    EXPECT_EQ(dir->rewinddir(), 0);
    QSet<QString> second;
    while (struct dirent* entry = dir->readdir())
        second.insert(QString::fromUtf8(entry->d_name));
    EXPECT_EQ(second, first + QSet<QString>{"b"});
}

TEST_P(FSConformance, Closedir_OnceOnlyAndNothingIsReadAfter) {
    const auto dir = fs().opendir(at(""));
    ASSERT_TRUE(dir);
    EXPECT_EQ(dir->closedir(), 0);
    EXPECT_EQ(dir->readdir(), nullptr);
    EXPECT_EQ(dir->closedir(), can().closedirAgain);
}

TEST_P(FSConformance, OpendirMissing_AsTabled) {
    const auto dir = fs().opendir(at("missing"));
    expectRefusal(ENOENT);
    ASSERT_EQ(!dir.isNull(), can().opendirIsNeverNull);
    if (!dir)
        return;
    EXPECT_EQ(dir->readdir(), nullptr);
    EXPECT_EQ(dir->rewinddir(), 0);
    EXPECT_EQ(dir->closedir(), can().closedirAgain);
}

TEST_P(FSConformance, OpendirOfAFile_FailsENOTDIR) {
    put("f");
    const auto dir = fs().opendir(at("f"));
    expectRefusal(ENOTDIR);
    EXPECT_EQ(!dir.isNull(), can().opendirIsNeverNull);
}

TEST_P(FSConformance, DirectoryIoctl_AsTabled) {
    const auto dir = fs().opendir(at(""));
    ASSERT_TRUE(dir);
    QString response;
    works(Op::DirectoryIoctl, dir->ioctl("anything", response));
}

TEST_P(FSConformance, ThousandEntries_AllAreListed) {
    for (int i = 0; i < 1000; ++i)
        put(qPrintable(QStringLiteral("clip-%1").arg(i, 4, 10, QLatin1Char('0'))));
    const QStringList names = list(at(""));
    ASSERT_EQ(names.size(), 1002);
    EXPECT_EQ(names.at(2), "clip-0000");
    EXPECT_EQ(names.last(), "clip-0999");
}

// --- Names

TEST_P(FSConformance, Names_InAnyScript) {
    const QStringList names{
        QString::fromUtf8("with blank"),
        QString::fromUtf8("Ärger über Öl"),
        QString::fromUtf8("Запись"),
        QString::fromUtf8("録画"),
        QString::fromUtf8("مقطع"),
        QString::fromUtf8("🎬🎥"),
        QString::fromUtf8("50% 'quoted' %s"),
    };
    for (const QString& name : names)
        put(name.toUtf8().constData(), name.toUtf8());
    QStringList expected = names + QStringList{".", ".."};
    expected.sort();
    EXPECT_EQ(list(at("")), expected);
    for (const QString& name : names)
        EXPECT_EQ(get(name.toUtf8().constData()), name.toUtf8());
}

TEST_P(FSConformance, LongestName_WorksAndOneMoreDoesNot) {
    const QByteArray longest(can().longestName, 'n');
    put(longest.constData(), "abc");
    EXPECT_EQ(get(longest.constData()), "abc");
    EXPECT_TRUE(list(at("")).contains(QString::fromLatin1(longest)));
    struct stat st;
    works(Op::StatNameTooLong, fs().stat(at((longest + "n").constData()), st));
}

TEST_P(FSConformance, HugeComponent_AsTabled) {
    const QString huge = at(QString(4096, 'n'));
    struct stat st;
    works(Op::NameTooLong, fs().stat(huge, st));
    works(Op::NameTooLong, fs().open(huge, O_RDWR | O_CREAT, 0644) ? 0 : -1);
    works(Op::NameTooLong, fs().mkdir(huge, 0755));
}

TEST_P(FSConformance, NulInAPath_IsRefusedNotCut) {
    put("f", "kept");
    const QString path = at(QStringLiteral("f") + QChar(QChar::Null) + QStringLiteral("g"));
    struct stat st;
    EXPECT_EQ(fs().stat(path, st), -1);
    expectRefusal(EINVAL);
    EXPECT_EQ(fs().unlink(path), -1);
    expectRefusal(EINVAL);
    EXPECT_FALSE(fs().open(path, O_WRONLY | O_TRUNC, 0));
    expectRefusal(EINVAL);
    EXPECT_EQ(fs().rename(path, at("h")), -1);
    expectRefusal(EINVAL);
    EXPECT_EQ(get("f"), "kept");
}

TEST_P(FSConformance, HalfASurrogatePair_IsRefusedNotReplaced) {
    // The names that it would have if it were replaced.
    const char* const replaced = can().anyCharacter ? "a?b"
                                                    : "a\xef\xbf\xbd"
                                                      "b";
    put(replaced, "kept");
    const QString path = at(QStringLiteral("a") + QChar(0xd800) + QStringLiteral("b"));
    struct stat st;
    EXPECT_EQ(fs().stat(path, st), -1);
    expectRefusal(EILSEQ);
    EXPECT_EQ(fs().unlink(path), -1);
    expectRefusal(EILSEQ);
    EXPECT_FALSE(fs().open(path, O_WRONLY | O_TRUNC, 0));
    expectRefusal(EILSEQ);
    EXPECT_EQ(get(replaced), "kept");
}

TEST_P(FSConformance, OddCharacter_AsTabled) {
    const bool isMade = !fs().open(at("a?b"), O_RDWR | O_CREAT, 0644).isNull();
    if (can().anyCharacter)
        EXPECT_TRUE(isMade) << strerror();
    else
        works(Op::OddCharacter, isMade ? 0 : -1);
}

TEST_P(FSConformance, Case_AsTabled) {
    put("Clip", "abc");
    EXPECT_EQ(exists("CLIP"), !can().caseSensitive);
}

// --- Several users

TEST_P(FSConformance, TwoOpenings_SeeEachOther) {
    const auto writer = fs().open(at("f"), O_WRONLY | O_CREAT, 0644);
    const auto reader = fs().open(at("f"), O_RDONLY, 0);
    ASSERT_TRUE(writer);
    ASSERT_TRUE(reader);
    EXPECT_EQ(writer->write("abc", 3), 3);
    EXPECT_EQ(readFully(*reader, 3), "abc");
}

TEST_P(FSConformance, FourThreads_EachWithItsOwnFiles) {
    if (!can().threadSafe)
        GTEST_SKIP() << "the backend leaves locking to its callers";
    constexpr int rounds = 25;
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const QByteArray content = pattern(3000, t);
            for (int i = 0; i < rounds; ++i) {
                const QString path = at(QStringLiteral("t%1-%2").arg(t).arg(i));
                const auto file = fs().open(path, O_RDWR | O_CREAT, 0644);
                const bool written = file && file->write(content.constData(), 3000) == 3000 &&
                                     file->lseek(0, SEEK_SET) == 0 &&
                                     readFully(*file, 3000) == content && file->close() == 0;
                good += written && fs().unlink(path) == 0;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(good, 4 * rounds);
    EXPECT_EQ(list(at("")), QStringList({".", ".."}));
}

// A suite without a backend in some test program is no mistake.
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(FSConformance);

} // namespace oru::io::test
