// SPDX-License-Identifier: Apache-2.0
// The descriptor adapter.
#include "callbackfile.h"
#include "support/doubles/faultfs.h"
#include "support/doubles/memfs.h"
#include "support/doubles/recordingfs.h"
#include "support/system/tempdir.h"

#include <oruio/error.h>
#include <oruio/fdadapter.h>
#include <oruio/fsswitch.h>
#include <oruio/posixfs.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <limits>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace oru::io {

using test::CallbackFile;
using test::MemFS;
using test::RecordingFS;
using test::TempDir;

namespace {

QString hex(const void* pointer) {
    return QString::number(reinterpret_cast<quintptr>(pointer), 16);
}

} // namespace

class FDAdapterTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs->take();
        errno = EXDEV;
        liberrno = Ok;
    }

    QSharedPointer<RecordingFS> fs = QSharedPointer<RecordingFS>::create();
    FDAdapter adapter{fs};
};

TEST_F(FDAdapterTest, PathOperations_PassEveryArgument) {
    struct stat st;
    struct statfs sfs;
    char buf[8];
    fs->answerWith(7);
    EXPECT_EQ(adapter.lstat("/f", &st), 7);
    EXPECT_EQ(adapter.stat("/Ä", &st), 7);
    EXPECT_EQ(adapter.statfs("/", &sfs), 7);
    EXPECT_EQ(adapter.link("/f", "/g"), 7);
    EXPECT_EQ(adapter.unlink("/f"), 7);
    EXPECT_EQ(adapter.mkdir("/d", 0750), 7);
    EXPECT_EQ(adapter.rmdir("/d"), 7);
    EXPECT_EQ(adapter.rename("/f", "/g"), 7);
    adapter.sync();
    EXPECT_EQ(adapter.getxattr("/f", "user.n", buf, 8), 7);
    EXPECT_EQ(adapter.setxattr("/f", "user.n", buf, 8, 2), 7);
    EXPECT_EQ(adapter.removexattr("/f", "user.n"), 7);
    EXPECT_EQ(adapter.listxattr("/f", buf, 8), 7);
    EXPECT_EQ(adapter.symlink("t", "/l"), 7);
    EXPECT_EQ(adapter.readlink("/l", buf, 8), 7);
    EXPECT_EQ(adapter.truncate("/f", 1LL << 40), 7);
    EXPECT_EQ(adapter.chmod("/f", 0604), 7);
    EXPECT_EQ(fs->take(),
              QStringList(
                  {"lstat /f " + hex(&st), QString::fromUtf8("stat /Ä ") + hex(&st),
                   "statfs / " + hex(&sfs), "link /f /g", "unlink /f", "mkdir /d 488", "rmdir /d",
                   "rename /f /g", "sync", "getxattr /f user.n " + hex(buf) + " 8",
                   "setxattr /f user.n " + hex(buf) + " 8 2", "removexattr /f user.n",
                   "listxattr /f " + hex(buf) + " 8", "symlink t /l",
                   "readlink /l " + hex(buf) + " 8", "truncate /f 1099511627776", "chmod /f 388"}));
    EXPECT_EQ(adapter.type(), "RecordingFS");
}

TEST_F(FDAdapterTest, DescriptorOperations_PassEveryArgument) {
    struct stat st;
    char buf[8];
    QString response;
    const int fd = adapter.open("/f", O_RDWR, 0640);
    ASSERT_GE(fd, sysconf(_SC_OPEN_MAX));
    fs->answerWith(7);
    EXPECT_EQ(adapter.read(fd, buf, 8), 7);
    EXPECT_EQ(adapter.write(fd, buf, 8), 7);
    EXPECT_EQ(adapter.pread(fd, buf, 8, 1LL << 33), 7);
    EXPECT_EQ(adapter.pwrite(fd, buf, 8, 1LL << 33), 7);
    EXPECT_EQ(adapter.lseek(fd, -(1LL << 33), SEEK_END), 7);
    EXPECT_EQ(adapter.fstat(fd, &st), 7);
    EXPECT_EQ(adapter.ftruncate(fd, 1LL << 33), 7);
    EXPECT_EQ(adapter.fsync(fd), 7);
    EXPECT_EQ(adapter.fdatasync(fd), 7);
    EXPECT_EQ(adapter.fcntl(fd, 12345, buf), 7);
    EXPECT_EQ(adapter.fcntl(fd, F_SETFL, 1024L), 7);
    EXPECT_EQ(adapter.flock(fd, 2), 7);
    EXPECT_EQ(adapter.fchmod(fd, 0604), 7);
    EXPECT_EQ(adapter.ioctl(fd, "request", response), 7);
    EXPECT_EQ(adapter.close(fd), 7);
    EXPECT_EQ(response, "answer to request");
    EXPECT_EQ(
        fs->take(),
        QStringList({"open /f 2 416", "read " + hex(buf) + " 8", "write " + hex(buf) + " 8",
                     "pread " + hex(buf) + " 8 8589934592", "pwrite " + hex(buf) + " 8 8589934592",
                     "lseek -8589934592 2", "fstat " + hex(&st), "ftruncate 8589934592", "fsync",
                     "fdatasync", "fcntl 12345 " + hex(buf), "fcntl 4 400", "flock 2", "fchmod 388",
                     "ioctl request", "close", "~file"}));
}

TEST_F(FDAdapterTest, Creat_OpensForWritingCreatedAndEmptied) {
    const int fd = adapter.creat("/f", 0644);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(fs->take(), QStringList{"open /f 577 420"});
    EXPECT_EQ(adapter.close(fd), 0);
}

namespace {

class OpenOverride : public FDAdapter {
public:
    using FDAdapter::FDAdapter;
    int open(const char* path, int flags, int mode) override {
        opened = QStringLiteral("%1 %2 %3").arg(path).arg(flags).arg(mode);
        return 42;
    }
    QString opened;
};

} // namespace

TEST_F(FDAdapterTest, Creat_CallsTheVirtualOpen) {
    OpenOverride overriding(fs);
    EXPECT_EQ(overriding.creat("/f", 0600), 42);
    EXPECT_EQ(overriding.opened, "/f 577 384");
}

TEST_F(FDAdapterTest, UnknownDescriptor_FailsWithNotFoundAndKeepsErrno) {
    struct stat st;
    char buf[8];
    QString response;
    const auto notFound = [](long long result) {
        const bool isExpected = result == -1 && liberrno == NotFound && errno == EXDEV;
        liberrno = Ok;
        return isExpected;
    };
    for (const int fd :
         {3, -1, 0, std::numeric_limits<int>::max(), std::numeric_limits<int>::min(), 999999}) {
        EXPECT_TRUE(notFound(adapter.read(fd, buf, 8)));
        EXPECT_TRUE(notFound(adapter.write(fd, buf, 8)));
        EXPECT_TRUE(notFound(adapter.pread(fd, buf, 8, 0)));
        EXPECT_TRUE(notFound(adapter.pwrite(fd, buf, 8, 0)));
        EXPECT_TRUE(notFound(adapter.lseek(fd, 0, SEEK_SET)));
        EXPECT_TRUE(notFound(adapter.fstat(fd, &st)));
        EXPECT_TRUE(notFound(adapter.ftruncate(fd, 0)));
        EXPECT_TRUE(notFound(adapter.fsync(fd)));
        EXPECT_TRUE(notFound(adapter.fdatasync(fd)));
        EXPECT_TRUE(notFound(adapter.fcntl(fd, F_GETFL, 0L)));
        EXPECT_TRUE(notFound(adapter.flock(fd, 1)));
        EXPECT_TRUE(notFound(adapter.fchmod(fd, 0600)));
        EXPECT_TRUE(notFound(adapter.ioctl(fd, "x", response)));
        EXPECT_TRUE(notFound(adapter.close(fd)));
    }
    EXPECT_EQ(fs->take(), QStringList());
}

TEST_F(FDAdapterTest, NullPointers_FailWithEFAULTWithoutACall) {
    struct stat st;
    struct statfs sfs;
    char buf[8];
    const auto fault = [](bool failed) {
        const bool isExpected = failed && errno == EFAULT && liberrno == Ok;
        errno = 0;
        liberrno = NotFound;
        return isExpected;
    };
    fault(false);
    EXPECT_TRUE(fault(adapter.lstat(nullptr, &st) == -1));
    EXPECT_TRUE(fault(adapter.stat(nullptr, &st) == -1));
    EXPECT_TRUE(fault(adapter.stat("/f", nullptr) == -1));
    EXPECT_TRUE(fault(adapter.lstat("/f", nullptr) == -1));
    EXPECT_TRUE(fault(adapter.statfs(nullptr, &sfs) == -1));
    EXPECT_TRUE(fault(adapter.statfs("/f", nullptr) == -1));
    EXPECT_TRUE(fault(adapter.link(nullptr, "/g") == -1));
    EXPECT_TRUE(fault(adapter.link("/f", nullptr) == -1));
    EXPECT_TRUE(fault(adapter.unlink(nullptr) == -1));
    EXPECT_TRUE(fault(adapter.mkdir(nullptr, 0755) == -1));
    EXPECT_TRUE(fault(adapter.rmdir(nullptr) == -1));
    EXPECT_TRUE(fault(adapter.rename(nullptr, "/g") == -1));
    EXPECT_TRUE(fault(adapter.rename("/f", nullptr) == -1));
    EXPECT_TRUE(fault(adapter.getxattr(nullptr, "n", buf, 8) == -1));
    EXPECT_TRUE(fault(adapter.getxattr("/f", nullptr, buf, 8) == -1));
    EXPECT_TRUE(fault(adapter.setxattr(nullptr, "n", buf, 8, 0) == -1));
    EXPECT_TRUE(fault(adapter.setxattr("/f", nullptr, buf, 8, 0) == -1));
    EXPECT_TRUE(fault(adapter.removexattr(nullptr, "n") == -1));
    EXPECT_TRUE(fault(adapter.removexattr("/f", nullptr) == -1));
    EXPECT_TRUE(fault(adapter.listxattr(nullptr, buf, 8) == -1));
    EXPECT_TRUE(fault(adapter.symlink(nullptr, "/l") == -1));
    EXPECT_TRUE(fault(adapter.symlink("t", nullptr) == -1));
    EXPECT_TRUE(fault(adapter.readlink(nullptr, buf, 8) == -1));
    EXPECT_TRUE(fault(adapter.truncate(nullptr, 0) == -1));
    EXPECT_TRUE(fault(adapter.chmod(nullptr, 0600) == -1));
    EXPECT_TRUE(fault(adapter.open(nullptr, O_RDONLY, 0) == -1));
    EXPECT_TRUE(fault(adapter.creat(nullptr, 0644) == -1));
    EXPECT_TRUE(fault(adapter.opendir(nullptr) == nullptr));
    EXPECT_EQ(fs->take(), QStringList());
    const int fd = adapter.open("/f", O_RDWR, 0);
    fs->take();
    fault(false);
    EXPECT_TRUE(fault(adapter.fstat(fd, nullptr) == -1));
    EXPECT_EQ(fs->take(), QStringList());
    EXPECT_EQ(adapter.close(fd), 0);
}

TEST_F(FDAdapterTest, InvalidUtf8_FailsWithEILSEQWithoutACall) {
    struct stat st;
    EXPECT_EQ(adapter.stat("/\xff", &st), -1);
    EXPECT_EQ(errno, EILSEQ);
    errno = 0;
    EXPECT_EQ(adapter.rename("/f", "/\xc0\xaf"), -1);
    EXPECT_EQ(errno, EILSEQ);
    errno = 0;
    EXPECT_EQ(adapter.open("/\xff", O_RDONLY, 0), -1);
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(adapter.opendir("/\xff"), nullptr);
    EXPECT_EQ(fs->take(), QStringList());
}

TEST_F(FDAdapterTest, Open_ClearsLiberrnoFirst) {
    liberrno = NotFound;
    fs->answerWith(-1);
    EXPECT_EQ(adapter.open("/f", O_RDONLY, 0), -1);
    EXPECT_EQ(liberrno, Ok);
}

namespace {

/// A directory that calls a function of the test in readdir().
class CallbackDirectory : public PosixDir {
public:
    CallbackDirectory() : PosixDir(nullptr) {}
    ~CallbackDirectory() override {
        errno = ETXTBSY;
        liberrno = NotFound;
    }
    std::function<void()> onReaddir = [] {};
    struct dirent* readdir() override {
        onReaddir();
        errno = EDOM;
        liberrno = NotImplemented;
        return nullptr;
    }
};

/// Opens one given file and one given directory.
class SingleUseFS : public RecordingFS {
public:
    QSharedPointer<File> file;
    QSharedPointer<File> open(QString, int, int) override {
        return std::exchange(file, {});
    }
    QSharedPointer<Directory> directory;
    QSharedPointer<Directory> opendir(QString) override {
        return std::exchange(directory, {});
    }
};

} // namespace

TEST_F(FDAdapterTest, ClosedDuringCall_ErrnoOfTheCallStands) {
    const auto single = QSharedPointer<SingleUseFS>::create();
    FDAdapter over(single);
    auto callback = QSharedPointer<CallbackFile>::create();
    const QWeakPointer<CallbackFile> weak = callback;
    int fd = -1;
    callback->onFlock = [&] { over.close(fd); };
    single->file = callback;
    callback.reset();
    fd = over.open("/f", O_RDWR, 0);
    ASSERT_NE(fd, -1);
    EXPECT_EQ(over.flock(fd, 1), -1);
    EXPECT_TRUE(weak.isNull());
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(liberrno, NotImplemented);
}

TEST_F(FDAdapterTest, ClosedDuringReaddir_ErrnoOfReaddirStands) {
    const auto single = QSharedPointer<SingleUseFS>::create();
    FDAdapter over(single);
    auto callback = QSharedPointer<CallbackDirectory>::create();
    const QWeakPointer<CallbackDirectory> weak = callback;
    void* handle = nullptr;
    callback->onReaddir = [&] { EXPECT_EQ(over.closedir(handle), 0); };
    single->directory = callback;
    callback.reset();
    handle = over.opendir("/d");
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(over.readdir(handle), nullptr);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(liberrno, NotImplemented);
    EXPECT_TRUE(weak.isNull());
}

TEST_F(FDAdapterTest, OpenFails_ErrnoOfTheFileSystemStands) {
    FDAdapter memory(QSharedPointer<MemFS>::create());
    liberrno = NotFound;
    EXPECT_EQ(memory.open("/missing", O_RDONLY, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(liberrno, Ok);
}

TEST_F(FDAdapterTest, OverSwitchWithoutMount_FailsWithNotFoundAndKeepsErrno) {
    FDAdapter empty(QSharedPointer<FSSwitch>::create());
    EXPECT_EQ(empty.open("/f", O_RDONLY, 0), -1);
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(empty.opendir("/d"), nullptr);
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_EQ(empty.type(), "FSSwitchFS");
}

TEST_F(FDAdapterTest, NullFileSystem_FailsWithNotFound) {
    FDAdapter none{QSharedPointer<FS>()};
    struct stat st;
    EXPECT_EQ(none.stat("/", &st), -1);
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_EQ(none.open("/f", O_RDWR | O_CREAT, 0644), -1);
    none.sync();
}

TEST_F(FDAdapterTest, Directory_IsOpenedReadRewoundAndClosed) {
    FDAdapter memory(QSharedPointer<MemFS>::create());
    ASSERT_EQ(memory.mkdir("/a", 0755), 0);
    void* const handle = memory.opendir("/");
    ASSERT_NE(handle, nullptr);
    const auto countEntries = [&] {
        int count = 0;
        while (memory.readdir(handle))
            ++count;
        return count;
    };
    EXPECT_EQ(countEntries(), 3);
    ASSERT_EQ(memory.mkdir("/b", 0755), 0);
    memory.rewinddir(handle);
    EXPECT_EQ(countEntries(), 4);
    EXPECT_EQ(memory.closedir(handle), 0);
    EXPECT_EQ(memory.readdir(handle), nullptr);
    EXPECT_EQ(memory.closedir(handle), 0);
}

TEST_F(FDAdapterTest, UnknownHandle_KeepsErrnoAndLiberrno) {
    int unknown = 0;
    liberrno = LibraryFailure;
    EXPECT_EQ(adapter.readdir(&unknown), nullptr);
    EXPECT_EQ(adapter.readdir(nullptr), nullptr);
    adapter.rewinddir(&unknown);
    adapter.rewinddir(nullptr);
    EXPECT_EQ(adapter.closedir(&unknown), 0);
    EXPECT_EQ(adapter.closedir(reinterpret_cast<void*>(quintptr{8})), 0);
    EXPECT_EQ(adapter.closedir(nullptr), -1);
    EXPECT_EQ(liberrno, LibraryFailure);
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(FDAdapterTest, Closedir_DestroysTheDirectoryWithoutCallingIt) {
    void* const handle = adapter.opendir("/d");
    fs->take();
    EXPECT_EQ(adapter.closedir(handle), 0);
    EXPECT_EQ(fs->take(), QStringList{"~directory"});
}

TEST_F(FDAdapterTest, OpendirMissingOverLocalFiles_ReturnsAHandle) {
    TempDir dir;
    FDAdapter local(QSharedPointer<PosixFS>::create(dir.path()));
    void* const handle = local.opendir("/missing");
    EXPECT_EQ(errno, ENOENT);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(local.readdir(handle), nullptr);
    EXPECT_EQ(local.closedir(handle), 0);
}

TEST_F(FDAdapterTest, TwoAdapters_ShareDescriptorsAndHandles) {
    FDAdapter memory(QSharedPointer<MemFS>::create());
    const int fd = memory.open("/f", O_RDWR | O_CREAT, 0644);
    ASSERT_NE(fd, -1);
    EXPECT_EQ(memory.write(fd, "abc", 3), 3);
    char buf[4] = {};
    EXPECT_EQ(adapter.pread(fd, buf, 3, 0), 3);
    EXPECT_STREQ(buf, "abc");
    void* const handle = memory.opendir("/");
    EXPECT_NE(adapter.readdir(handle), nullptr);
    EXPECT_EQ(adapter.closedir(handle), 0);
    EXPECT_EQ(adapter.close(fd), 0);
    EXPECT_EQ(memory.close(fd), -1);
    EXPECT_EQ(liberrno, NotFound);
}

TEST_F(FDAdapterTest, Descriptors_OutliveTheirAdapter) {
    int fd = -1;
    {
        FDAdapter memory(QSharedPointer<MemFS>::create());
        fd = memory.open("/f", O_RDWR | O_CREAT, 0644);
    }
    EXPECT_EQ(adapter.write(fd, "abc", 3), 3);
    EXPECT_EQ(adapter.close(fd), 0);
}

TEST_F(FDAdapterTest, FaultOnEachCall_ErrnoIsReturnedAndNothingLeaks) {
    const auto faulty = QSharedPointer<test::FaultFS>::create(QSharedPointer<MemFS>::create());
    FDAdapter local(faulty);
    // open, write, pread, fsync and close: each fails once, and its errno is returned.
    for (int failing = 1; failing <= 5; ++failing) {
        faulty->plan().failCall(failing, EIO);
        char buf[4];
        int failures = 0;
        const auto note = [&failures](int result) {
            failures += result == -1 && errno == EIO && liberrno == Ok;
            errno = 0;
        };
        const int fd = local.open("/f", O_RDWR | O_CREAT, 0644);
        note(fd);
        if (fd != -1) {
            note(local.write(fd, "abc", 3));
            note(local.pread(fd, buf, 3, 0));
            note(local.fsync(fd));
            note(local.close(fd));
            EXPECT_EQ(local.close(fd), -1);
        }
        EXPECT_EQ(failures, 1) << "call " << failing;
    }
}

TEST_F(FDAdapterTest, ManyThreads_DescriptorsAreDistinct) {
    FDAdapter memory(QSharedPointer<MemFS>::create());
    constexpr int rounds = 500;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const QByteArray path = "/f" + QByteArray::number(t);
            for (int i = 0; i < rounds; ++i) {
                const int fd = memory.open(path.constData(), O_RDWR | O_CREAT, 0644);
                const char mine = static_cast<char>('0' + t);
                char seen = 0;
                wrong += memory.pwrite(fd, &mine, 1, 0) != 1;
                wrong += memory.pread(fd, &seen, 1, 0) != 1 || seen != mine;
                void* const handle = memory.opendir("/");
                wrong += memory.readdir(handle) == nullptr;
                wrong += memory.closedir(handle) != 0;
                wrong += memory.close(fd) != 0;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(FDAdapterTest, CloseDuringUse_FileStaysAlive) {
    FDAdapter memory(QSharedPointer<MemFS>::create());
    for (int i = 0; i < 200; ++i) {
        const int fd = memory.open("/f", O_RDWR | O_CREAT, 0644);
        std::thread writer([&] {
            // The call succeeds, or fails for a closed file or an unknown descriptor. It never uses
            // a freed file.
            while (memory.pwrite(fd, "x", 1, 0) == 1) {
            }
        });
        EXPECT_EQ(memory.close(fd), 0);
        writer.join();
    }
}

TEST(FDAdapterRootfs, ManyThreads_GetTheSameAdapter) {
    std::vector<FDAdapter*> seen(8);
    std::vector<std::thread> threads;
    for (auto& slot : seen)
        threads.emplace_back([&slot] { slot = FDAdapter::rootfs(); });
    for (std::thread& thread : threads)
        thread.join();
    for (FDAdapter* adapter : seen)
        EXPECT_EQ(adapter, seen.front());
    ASSERT_NE(seen.front(), nullptr);
    EXPECT_EQ(seen.front()->type(), "FSSwitchFS");
}

TEST(FDAdapterRootfs, RootSwitchReplacedLater_AdapterKeepsTheFirst) {
    FDAdapter* const adapter = FDAdapter::rootfs();
    const auto first = FSSwitch::rootfs();
    auto other = QSharedPointer<FSSwitch>::create();
    other->add("/m", QSharedPointer<MemFS>::create());
    FSSwitch::setRootfs(other);
    struct stat st;
    EXPECT_EQ(FDAdapter::rootfs(), adapter);
    EXPECT_EQ(adapter->stat("/m", &st), -1);
    EXPECT_EQ(liberrno, NotFound);
    first->add("/m", QSharedPointer<MemFS>::create());
    EXPECT_EQ(adapter->stat("/m", &st), 0);
}

} // namespace oru::io
