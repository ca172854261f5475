// SPDX-License-Identifier: Apache-2.0
// PosixFS: local file systems.
#include "support/suite/fs_conformance.h"
#include "support/suite/posixcapabilities.h"
#include "support/system/tempdir.h"

#include <oruio/error.h>
#include <oruio/posixfs.h>

#include <QSet>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace oru::io {

using test::TempDir;

namespace test {

ORUIO_CONFORMS(PosixFS, [] {
    Backend backend;
    const auto dir = std::make_shared<TempDir>();
    backend.fs = QSharedPointer<PosixFS>::create(dir->path());
    backend.can = posixCapabilities();
    backend.keep = dir;
    return backend;
});

} // namespace test

class PosixFSTest : public ::testing::Test {
protected:
    void SetUp() override {
        errno = 0;
        liberrno = Ok;
    }

    bool systemHas(const char* name) const {
        struct stat st;
        return ::lstat(qPrintable(dir / name), &st) == 0;
    }

    TempDir dir;
    PosixFS fs{dir.path()};
};

TEST_F(PosixFSTest, Constructor_KeepsMountPointAndType) {
    EXPECT_EQ(fs.mountPoint(), dir.path());
    EXPECT_EQ(fs.type(), "PosixFS");
    PosixFS other("/x", "OtherFS");
    EXPECT_EQ(other.mountPoint(), "/x");
    EXPECT_EQ(other.type(), "OtherFS");
}

TEST_F(PosixFSTest, PathMapping_IsPlainConcatenation) {
    // No separator is added: "root" and the path "a" form the sibling "roota".
    PosixFS stem(dir / "root");
    ASSERT_EQ(stem.mkdir("", 0755), 0);
    EXPECT_TRUE(systemHas("root"));
    ASSERT_EQ(stem.mkdir("a", 0755), 0);
    EXPECT_TRUE(systemHas("roota"));
    ASSERT_EQ(stem.mkdir("/a", 0755), 0);
    EXPECT_TRUE(systemHas("root/a"));
    struct stat st;
    EXPECT_EQ(stem.stat("/../roota", st), 0);
}

TEST_F(PosixFSTest, EmptyRoot_UsesPathsUnchanged) {
    PosixFS whole{QString()};
    EXPECT_EQ(whole.mkdir(dir / "d", 0755), 0);
    EXPECT_TRUE(systemHas("d"));
}

TEST_F(PosixFSTest, OpenMissing_FailsWithENOENTAndClearsLiberrno) {
    liberrno = NotFound;
    EXPECT_TRUE(fs.open("/missing", O_RDONLY, 0).isNull());
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(liberrno, Ok);
}

TEST_F(PosixFSTest, OpendirMissing_ReturnsClosedDirectory) {
    liberrno = NotFound;
    const auto missing = fs.opendir("/missing");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(liberrno, Ok);
    ASSERT_FALSE(missing.isNull());
    EXPECT_EQ(missing->type(), "PosixDirectory");
    EXPECT_EQ(missing->readdir(), nullptr);
    EXPECT_EQ(missing->rewinddir(), 0);
    errno = ENOTEMPTY;
    EXPECT_EQ(missing->closedir(), -1);
    EXPECT_EQ(errno, ENOTEMPTY);
}

TEST_F(PosixFSTest, PathOperations_KeepLiberrno) {
    liberrno = NotFound;
    struct stat st;
    struct statfs sfs;
    QString target;
    EXPECT_EQ(fs.stat("/missing", st), -1);
    EXPECT_EQ(fs.lstat("", st), 0);
    EXPECT_EQ(fs.statfs("", sfs), 0);
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
    EXPECT_EQ(fs.rename("/d", "/e"), 0);
    EXPECT_EQ(fs.chmod("/e", 0700), 0);
    EXPECT_EQ(fs.rmdir("/e"), 0);
    EXPECT_EQ(fs.unlink("/missing"), -1);
    EXPECT_EQ(fs.symlink("t", "/l"), 0);
    EXPECT_EQ(fs.readlink("/l", target), 1);
    EXPECT_EQ(fs.truncate("/missing", 0), -1);
    EXPECT_EQ(fs.link("/missing", "/m"), -1);
    char buf[16] = {};
    QVector<QString> names;
    EXPECT_EQ(fs.readlink("/l", buf, sizeof buf), 1);
    EXPECT_EQ(fs.setxattr("/missing", "user.a", buf, 1, 0), -1);
    EXPECT_EQ(fs.getxattr("/missing", "user.a", buf, 1), -1);
    EXPECT_EQ(fs.removexattr("/missing", "user.a"), -1);
    EXPECT_EQ(fs.listxattr("/missing", buf, sizeof buf), -1);
    EXPECT_EQ(fs.listxattr("/missing", names), -1);
    EXPECT_EQ(liberrno, NotFound);
}

TEST_F(PosixFSTest, FileOperations_OnlySomeClearLiberrno) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    char byte = 'x';
    struct stat st;
    const auto cleared = [] {
        const bool result = liberrno == Ok;
        liberrno = NotFound;
        return result;
    };
    liberrno = NotFound;
    EXPECT_EQ(file->write(&byte, 1), 1);
    EXPECT_TRUE(cleared());
    EXPECT_EQ(file->pwrite(&byte, 1, 1), 1);
    EXPECT_TRUE(cleared());
    EXPECT_EQ(file->pread(&byte, 1, 0), 1);
    EXPECT_TRUE(cleared());
    EXPECT_EQ(file->read(&byte, 1), 1);
    EXPECT_TRUE(cleared());
    EXPECT_EQ(file->lseek(0, SEEK_SET), 0);
    EXPECT_TRUE(cleared());
    EXPECT_EQ(file->ftruncate(0), 0);
    EXPECT_TRUE(cleared());
    EXPECT_EQ(file->fsync(), 0);
    EXPECT_TRUE(cleared());
    EXPECT_EQ(file->fdatasync(), 0);
    EXPECT_TRUE(cleared());
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_FALSE(cleared());
    EXPECT_EQ(file->flock(LOCK_SH), 0);
    EXPECT_FALSE(cleared());
    EXPECT_EQ(file->fchmod(0600), 0);
    EXPECT_FALSE(cleared());
    EXPECT_NE(file->fcntl(F_GETFD, 0L), -1);
    EXPECT_FALSE(cleared());
    EXPECT_EQ(file->close(), 0);
    EXPECT_TRUE(cleared());
}

TEST_F(PosixFSTest, UnimplementedOperations_KeepErrno) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    const auto directory = fs.opendir("");
    QString response;
    const auto refused = [](int result) {
        const bool isExpected = result == -1 && liberrno == NotImplemented && errno == EXDEV;
        liberrno = Ok;
        return isExpected;
    };
    errno = EXDEV;
    EXPECT_TRUE(refused(fs.addWatch("/")));
    EXPECT_TRUE(refused(fs.remWatch("/")));
    EXPECT_TRUE(refused(fs.ioctl("x", response)));
    EXPECT_TRUE(refused(file->ioctl("x", response)));
    EXPECT_TRUE(refused(directory->ioctl("x", response)));
}

TEST_F(PosixFSTest, Symlink_TargetIsNotMapped) {
    ASSERT_EQ(fs.symlink("t", "/l"), 0);
    char buf[16] = {};
    EXPECT_EQ(::readlink(qPrintable(dir / "l"), buf, sizeof buf), 1);
    EXPECT_STREQ(buf, "t");
}

TEST_F(PosixFSTest, ReadlinkOfLongestTarget_ReturnsAllOfIt) {
    const QString longest(4095, 'x');
    ASSERT_EQ(fs.symlink(longest, "/l"), 0);
    QString target;
    EXPECT_EQ(fs.readlink("/l", target), 4095);
    EXPECT_EQ(target, longest);
}

TEST_F(PosixFSTest, ReadlinkOfTargetWithByteOrderMark_KeepsIt) {
    const QString marked = QChar(QChar::ByteOrderMark) + QStringLiteral("clip");
    ASSERT_EQ(fs.symlink(marked, "/l"), 0);
    QString target;
    EXPECT_EQ(fs.readlink("/l", target), 7);
    EXPECT_EQ(target, marked);
}

TEST_F(PosixFSTest, ReadlinkFails_TargetIsEmptyAndErrnoIsSet) {
    QString target = "before";
    EXPECT_EQ(fs.readlink("/missing", target), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(target, "");
}

TEST_F(PosixFSTest, ListxattrWithoutAttributes_AppendsNothing) {
    ASSERT_EQ(fs.mkdir("/d", 0755), 0);
    QVector<QString> names{"before"};
    EXPECT_EQ(fs.listxattr("/d", names), 0);
    EXPECT_EQ(names, QVector<QString>{"before"});
}

TEST_F(PosixFSTest, ListxattrFails_NamesUnchanged) {
    QVector<QString> names{"before"};
    EXPECT_EQ(fs.listxattr("/missing", names), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(names, QVector<QString>{"before"});
}

TEST_F(PosixFSTest, Listxattr_AppendsAsManyStringsAsBytes) {
    ASSERT_TRUE(fs.open("/f", O_WRONLY | O_CREAT, 0644));
    char value = 'v';
    ASSERT_EQ(fs.setxattr("/f", "user.b", &value, 1, 0), 0) << std::strerror(errno);
    ASSERT_EQ(fs.setxattr("/f", "user.a", &value, 1, 0), 0);
    QVector<QString> names;
    ASSERT_EQ(fs.listxattr("/f", names), 14);
    ASSERT_EQ(names.size(), 14);
    EXPECT_EQ(QSet<QString>({names.at(0), names.at(1)}), QSet<QString>({"user.a", "user.b"}));
    for (int i = 2; i < names.size(); ++i)
        EXPECT_EQ(names.at(i), "");
}

namespace {

/// Overrides the buffer form of listxattr(), which the vector form calls.
class ListingFS : public PosixFS {
public:
    ListingFS() : PosixFS(QString()) {}
    using PosixFS::listxattr;
    int listxattr(QString, char* buf, unsigned int size) override {
        asked = size;
        std::memcpy(buf, list.data(), std::min<size_t>(list.size(), size));
        return result;
    }
    std::string list;
    int result = 0;
    unsigned int asked = 0;
};

} // namespace

TEST_F(PosixFSTest, ListxattrOverridden_VectorFormUsesIt) {
    ListingFS listing;
    listing.list = std::string("user.x\0user.y\0", 14);
    listing.result = 14;
    QVector<QString> names;
    EXPECT_EQ(listing.listxattr("/any", names), 14);
    EXPECT_EQ(listing.asked, 65536U);
    ASSERT_EQ(names.size(), 14);
    EXPECT_EQ(names.at(0), "user.x");
    EXPECT_EQ(names.at(1), "user.y");
    EXPECT_EQ(names.at(2), "");
}

TEST_F(PosixFSTest, ListxattrOfNameWithByteOrderMark_KeepsIt) {
    ListingFS listing;
    listing.list = std::string("\xEF\xBB\xBFn") + '\0';
    listing.result = 5;
    QVector<QString> names;
    EXPECT_EQ(listing.listxattr("/any", names), 5);
    EXPECT_EQ(names.value(0), QChar(QChar::ByteOrderMark) + QStringLiteral("n"));
}

TEST_F(PosixFSTest, ListxattrFillsTheBuffer_ReadsStayInside) {
    ListingFS listing;
    // Without a terminator: one name as long as the buffer, then empty names.
    listing.list = std::string(65536, 'x');
    listing.result = 65536;
    QVector<QString> names;
    EXPECT_EQ(listing.listxattr("/any", names), 65536);
    ASSERT_EQ(names.size(), 65536);
    EXPECT_EQ(names.at(0).size(), 65536);
    EXPECT_EQ(names.at(1), "");
    EXPECT_EQ(names.last(), "");
}

TEST_F(PosixFSTest, CloseTwice_CallsTheSystemOnce) {
    const int fd = ::open(qPrintable(dir / "f"), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    PosixFile file(fd);
    EXPECT_EQ(file.close(), 0);
    // The number now belongs to another file, which a second close(2) would close.
    const int reused = ::open(qPrintable(dir / "g"), O_RDWR | O_CREAT, 0644);
    ASSERT_EQ(reused, fd);
    EXPECT_EQ(file.close(), 0);
    EXPECT_NE(::fcntl(reused, F_GETFD), -1);
    ::close(reused);
}

TEST_F(PosixFSTest, CloseByTwoThreads_CallsTheSystemOnce) {
    std::atomic<int> failures{0};
    for (int round = 0; round < 1000; ++round) {
        const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
        std::atomic<int> ready{0};
        const auto close = [&] {
            ++ready;
            while (ready < 2)
                continue;
            // A second close(2) would fail with EBADF or close another file.
            failures += file->close() != 0;
        };
        std::thread other(close);
        close();
        other.join();
    }
    EXPECT_EQ(failures, 0);
}

TEST_F(PosixFSTest, LastReferenceToDirectoryReleased_StreamIsClosed) {
    DIR* const stream = ::opendir(qPrintable(dir.path()));
    ASSERT_NE(stream, nullptr);
    const int fd = ::dirfd(stream);
    auto directory = QSharedPointer<PosixDir>::create(stream);
    directory.reset();
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(PosixFSTest, CloseFails_FileIsClosed) {
    PosixFile file(1 << 20);
    EXPECT_EQ(file.close(), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(file.close(), 0);
}

TEST_F(PosixFSTest, LastReferenceReleased_DescriptorIsClosed) {
    const int fd = ::open(qPrintable(dir / "f"), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    auto file = QSharedPointer<PosixFile>::create(fd);
    file.reset();
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(PosixFSTest, ClosedFile_OperationsFailWithEBADF) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    file->close();
    char byte = 0;
    struct stat st;
    const auto badf = [](long long result) {
        const bool isExpected = result == -1 && errno == EBADF;
        errno = 0;
        return isExpected;
    };
    EXPECT_TRUE(badf(file->read(&byte, 1)));
    EXPECT_TRUE(badf(file->write(&byte, 1)));
    EXPECT_TRUE(badf(file->pread(&byte, 1, 0)));
    EXPECT_TRUE(badf(file->pwrite(&byte, 1, 0)));
    EXPECT_TRUE(badf(file->lseek(0, SEEK_SET)));
    EXPECT_TRUE(badf(file->fstat(st)));
    EXPECT_TRUE(badf(file->ftruncate(0)));
    EXPECT_TRUE(badf(file->fsync()));
    EXPECT_TRUE(badf(file->fdatasync()));
    EXPECT_TRUE(badf(file->fcntl(F_GETFL, 0L)));
    EXPECT_TRUE(badf(file->flock(LOCK_SH)));
    EXPECT_TRUE(badf(file->fchmod(0600)));
}

TEST_F(PosixFSTest, FcntlDuplicate_ReturnsDescriptorOfTheSameFile) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    ASSERT_EQ(file->write("abc", 3), 3);
    const int duplicate = file->fcntl(F_DUPFD_CLOEXEC, 100L);
    ASSERT_GE(duplicate, 100);
    EXPECT_EQ(::fcntl(duplicate, F_GETFD), FD_CLOEXEC);
    char buf[4] = {};
    EXPECT_EQ(::pread(duplicate, buf, 3, 0), 3);
    EXPECT_STREQ(buf, "abc");
    ::close(duplicate);
}

TEST_F(PosixFSTest, FcntlGetLock_FillsTheRecordAtThePointer) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = (5LL << 30) + 1;
    lock.l_len = 10;
    ASSERT_EQ(file->fcntl(F_GETLK, &lock), 0) << std::strerror(errno);
    EXPECT_EQ(lock.l_type, F_UNLCK);
    EXPECT_EQ(lock.l_start, (5LL << 30) + 1);
}

TEST_F(PosixFSTest, HugeCount_IsShortNotWrapped) {
    constexpr unsigned int huge = 0xffffffffU;
    if (sizeof(void*) == 4)
        GTEST_SKIP() << "no buffer of 4 GiB in a 32-bit address space";
    void* const buf =
        ::mmap(nullptr, huge, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(buf, MAP_FAILED);
    // /dev/null does not read the buffer. The kernel transfers at most 0x7ffff000 bytes at once.
    const auto file = PosixFS(QString()).open("/dev/null", O_WRONLY, 0);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->write(buf, huge), 0x7ffff000);
    EXPECT_EQ(file->pwrite(buf, huge, 0), 0x7ffff000);
    ::munmap(buf, huge);
}

TEST_F(PosixFSTest, NullBuffer_FailsWithEFAULT) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    ASSERT_EQ(file->write("abc", 3), 3);
    EXPECT_EQ(file->pread(nullptr, 3, 0), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(file->write(nullptr, 3), -1);
    EXPECT_EQ(errno, EFAULT);
}

TEST_F(PosixFSTest, NegativeLengthsAndOffsets_FailWithEINVAL) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    char byte = 0;
    EXPECT_EQ(file->ftruncate(-1), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(file->pread(&byte, 1, -1), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(file->pwrite(&byte, 1, -1), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(fs.truncate("/f", -1), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(file->lseek(0, 99), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(PosixFSTest, NulInAttributeNameOrTarget_FailsWithEINVAL) {
    ASSERT_TRUE(fs.open("/f", O_WRONLY | O_CREAT, 0644));
    const QString nul = QStringLiteral("user.a") + QChar(QChar::Null);
    char byte = 0;
    EXPECT_EQ(fs.setxattr("/f", nul, &byte, 1, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(fs.getxattr("/f", nul, &byte, 1), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(fs.symlink(nul, "/l"), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    const auto directory = fs.opendir(nul);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(directory->readdir(), nullptr);
    EXPECT_FALSE(systemHas("l"));
}

TEST_F(PosixFSTest, NullQString_IsTheEmptyPath) {
    struct stat st;
    EXPECT_EQ(fs.stat(QString(), st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
}

TEST_F(PosixFSTest, NullStream_IsClosedDirectory) {
    PosixDir directory(nullptr);
    EXPECT_EQ(directory.readdir(), nullptr);
    EXPECT_EQ(directory.rewinddir(), 0);
    EXPECT_EQ(directory.closedir(), -1);
}

} // namespace oru::io
