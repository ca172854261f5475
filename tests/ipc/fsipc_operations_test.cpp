// SPDX-License-Identifier: Apache-2.0
// IPCFS: calls on paths, files and directories with a server in another process.

#include "support/ipc/elapsed.h"
#include "support/ipc/ipcfstest.h"
#include "support/ipc/ipcservice.h"
#include "support/suite/logcapture.h"

#include <oruio/error.h>
#include <oruio/fsipc.h>

#include <QFileInfo>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <semaphore.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace oru::io {

using namespace ipcwire;
using test::Clock;
using test::IPCFSTest;
using test::LogCapture;
using test::secondsSince;
using ::testing::HasSubstr;

TEST_F(IPCFSTest, XattrWatchAndIoctl_FailWithNotImplemented) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    const auto directory = fs.opendir("/");
    LogCapture log("fsipc=12");
    QString response;
    QVector<QString> names;
    char buf[4];
    for (const int result :
         {fs.getxattr("/f", "user.a", buf, 4), fs.setxattr("/f", "user.a", buf, 4, 0),
          fs.removexattr("/f", "user.a"), fs.listxattr("/f", names), fs.listxattr("/f", buf, 4),
          fs.addWatch("/"), fs.remWatch("/")})
        EXPECT_EQ(result, -1);
    EXPECT_EQ(liberrno, NotImplemented);
    EXPECT_EQ(log.messages(), QStringList());
    EXPECT_EQ(fs.ioctl("a", response), -1);
    EXPECT_EQ(file->ioctl("a", response), -1);
    EXPECT_EQ(directory->ioctl("a", response), -1);
    EXPECT_EQ(log.messages(), QStringList({"fsipc 12 'ioctl' Not implemented",
                                           "fsipc 12 'file::ioctl' Not implemented",
                                           "fsipc 12 'dir::ioctl' Not implemented"}));
}

TEST_F(IPCFSTest, RequestTooLong_FailsWithE2BIGAndIsNotPosted) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const QString longest(8704 - 1 - 5, 'p');
    EXPECT_EQ(fs.stat(longest, st), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    LogCapture log("fsipc=12");
    liberrno = NotFound;
    EXPECT_EQ(fs.stat(longest + 'p', st), -1);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(liberrno, Ok);
    const QStringList messages = log.messages();
    ASSERT_EQ(messages.size(), 1);
    EXPECT_TRUE(messages[0].startsWith("fsipc 12 Request 'stat pppp"));
    EXPECT_EQ(requestState(test::AreaView().area()), Done);
    EXPECT_EQ(fs.rename(longest, "/b"), -1);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(fs.stat("/", st), 0);
}

TEST_F(IPCFSTest, PathWithNulOrLoneSurrogate_FailsWithEINVALOrEILSEQ) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.stat(QString("/a") + QChar(QChar::Null), st), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fs.stat(QString("/") + QChar(0xD800), st), -1);
    EXPECT_EQ(errno, EILSEQ);
}

TEST_F(IPCFSTest, LeadingBlanks_ArePartOfTheName) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.mkdir("/  two", 0755), 0);
    EXPECT_EQ(fs.chmod("/  two", 0700), 0);
    const auto file = fs.open("/  f ", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    EXPECT_EQ(fs.truncate("/  f ", 5), 0);
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_size, 5);
    EXPECT_TRUE(QFileInfo::exists(dir / "  two"));
}

TEST_F(IPCFSTest, TransferAboveOneMebibyte_ReturnsShortCount) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    constexpr int buffer = 1 << 20;
    std::vector<char> data(3 * buffer, 'a');
    EXPECT_EQ(file->write(data.data(), data.size()), buffer);
    EXPECT_EQ(file->pwrite(data.data(), data.size(), buffer), buffer);
    EXPECT_EQ(file->lseek(0, SEEK_SET), 0);
    std::fill(data.begin(), data.end(), 'b');
    EXPECT_EQ(file->read(data.data(), data.size()), buffer);
    EXPECT_EQ(data[buffer - 1], 'a');
    EXPECT_EQ(data[buffer], 'b');
    EXPECT_EQ(file->pread(data.data(), 0xFFFFFFFF, buffer - 10), buffer);
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_size, 2 * buffer);
}

TEST_F(IPCFSTest, ReadAllAboveOneMebibyte_ReturnsEmpty) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    constexpr int buffer = 1 << 20;
    EXPECT_EQ(file->ftruncate(buffer), 0);
    EXPECT_EQ(file->readAll(buffer + 1).size(), buffer);
    EXPECT_EQ(file->lseek(0, SEEK_SET), 0);
    EXPECT_EQ(file->ftruncate(buffer + 1), 0);
    EXPECT_EQ(file->readAll(buffer + 1), QByteArray());
    EXPECT_EQ(file->lseek(0, SEEK_SET), 0);
    EXPECT_EQ(file->readAll(buffer).size(), buffer);
}

TEST_F(IPCFSTest, ZeroBytes_ReturnsZero) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    char byte = 0;
    LogCapture log("fsipc=12");
    EXPECT_EQ(file->read(&byte, 0), 0);
    EXPECT_TRUE(log.messages().contains("fsipc 12 Got response: '0,0,0 0 0'"));
    EXPECT_EQ(file->write(&byte, 0), 0);
    EXPECT_EQ(file->read(nullptr, 0), 0);
    EXPECT_EQ(file->write(nullptr, 0), 0);
}

TEST_F(IPCFSTest, NullBuffer_FailsWithEFAULT) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    for (int i = 0; i < 5; ++i) {
        errno = 0;
        const int result = i == 0   ? file->read(nullptr, 1)
                           : i == 1 ? file->write(nullptr, 1)
                           : i == 2 ? file->pread(nullptr, 1, 0)
                           : i == 3 ? file->pwrite(nullptr, 1, 0)
                                    : fs.readlink("/f", nullptr, 1);
        EXPECT_EQ(result, -1);
        EXPECT_EQ(errno, EFAULT);
    }
    errno = 0;
    EXPECT_EQ(file->fcntl(F_SETLK, nullptr), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(test::AreaView().area().control.bufferMap, 0U);
}

TEST_F(IPCFSTest, FailedTransfers_ReleaseTheirDataBuffers) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    ASSERT_TRUE(openNew("f"));
    const auto reader = fs.open("/f", O_RDONLY, 0);
    const auto writer = fs.open("/f", O_WRONLY, 0);
    char byte = 0;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(reader->write(&byte, 1), -1);
        EXPECT_EQ(errno, EBADF);
        EXPECT_EQ(writer->read(&byte, 1), -1);
        EXPECT_EQ(errno, EBADF);
        EXPECT_EQ(reader->pwrite(&byte, 1, 0), -1);
        EXPECT_EQ(writer->pread(&byte, 1, 0), -1);
        EXPECT_EQ(reader->pread(&byte, 1, -1), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    const test::AreaView view;
    EXPECT_EQ(view.area().control.bufferMap, 0U);
    int freeBuffers = 0;
    sem_getvalue(&view.area().control.bufferSem, &freeBuffers);
    EXPECT_EQ(freeBuffers, 2);
}

TEST_F(IPCFSTest, AllDataBuffersTaken_WriteFailsWithETIMEDOUTAfterTwoSeconds) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    const test::AreaView view;
    ASSERT_EQ(view.shm()->allocDataBuf(1), 0);
    ASSERT_EQ(view.shm()->allocDataBuf(1), 1);
    char byte = 0;
    const auto start = Clock::now();
    EXPECT_EQ(file->write(&byte, 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(secondsSince(start), 1.9);
    EXPECT_LT(secondsSince(start), 5);
    view.shm()->freeDataBuf(1);
    EXPECT_EQ(file->write(&byte, 1), 1);
}

TEST_F(IPCFSTest, FcntlIntegerCommands_AreSentAsFstat) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    LogCapture log("fsipc=12");
    for (const int command : {F_DUPFD, F_GETFD, F_SETFD, F_GETFL, F_SETFL, F_DUPFD_CLOEXEC})
        EXPECT_EQ(file->fcntl(command, 5L), 0) << command;
    const QStringList messages = log.messages();
    ASSERT_EQ(messages.size(), 12);
    EXPECT_THAT(qPrintable(messages[0]), HasSubstr("Send request 'fstat "));
    EXPECT_TRUE(messages[0].endsWith(" 0 5'"));
    EXPECT_EQ(messages[1], "fsipc 12 Got response: '0,0,0'");
    EXPECT_TRUE(messages[10].endsWith(" 1030 5'"));
    for (const int command : {5000, F_SETOWN, F_GETPIPE_SZ, -1}) {
        errno = 0;
        liberrno = NotFound;
        EXPECT_EQ(file->fcntl(command, 5L), -1);
        EXPECT_EQ(errno, EOPNOTSUPP);
        EXPECT_EQ(liberrno, Ok);
    }
    EXPECT_EQ(log.messages(), QStringList());
}

TEST_F(IPCFSTest, FcntlLocks_AreSentWithTheTargetsNumbers) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 1;
    lock.l_len = 1;
    LogCapture log("fsipc=12");
    EXPECT_EQ(file->fcntl(F_SETLK, &lock), 0);
    EXPECT_EQ(file->fcntl(F_SETLKW, &lock), 0);
    EXPECT_EQ(file->fcntl(F_GETLK, &lock), 0);
    const QStringList messages = log.messages();
    ASSERT_EQ(messages.size(), 6);
    EXPECT_TRUE(messages[0].endsWith(" 13'"));
    EXPECT_TRUE(messages[2].endsWith(" 14'"));
    EXPECT_TRUE(messages[4].endsWith(" 12'"));
    // The server process holds the lock.
    const int fd = ::open(qPrintable(dir / "f"), O_RDWR);
    struct flock seen = lock;
    EXPECT_EQ(::fcntl(fd, F_GETLK, &seen), 0);
    EXPECT_EQ(seen.l_type, F_WRLCK);
    EXPECT_EQ(seen.l_pid, server.process().pid());
    ::close(fd);
    EXPECT_EQ(::fcntl(fd, F_SETLK, &lock), -1);
    struct flock asked = lock;
    EXPECT_EQ(file->fcntl(F_GETLK, &asked), 0);
    EXPECT_EQ(asked.l_type, lock.l_type);
    EXPECT_EQ(asked.l_start, lock.l_start);
    EXPECT_EQ(asked.l_len, lock.l_len);
    EXPECT_EQ(asked.l_pid, lock.l_pid);
    lock.l_whence = 99;
    EXPECT_EQ(file->fcntl(F_SETLK, &lock), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(IPCFSTest, Fchmod_LocksTheFile) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    EXPECT_EQ(file->fchmod(LOCK_EX), 0);
    const int fd = ::open(qPrintable(dir / "f"), O_RDWR);
    EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    EXPECT_EQ(file->fchmod(LOCK_UN), 0);
    EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);
    ::close(fd);
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644U);
}

TEST_F(IPCFSTest, EndOfDirectory_ReturnsNullWithErrnoMinusOne) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto directory = fs.opendir("/");
    EXPECT_NE(directory->readdir(), nullptr);
    EXPECT_NE(directory->readdir(), nullptr);
    errno = 0;
    EXPECT_EQ(directory->readdir(), nullptr);
    EXPECT_EQ(errno, -1);
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_NE(directory->readdir(), nullptr);
}

TEST_F(IPCFSTest, SuccessAfterFailure_ClearsErrno) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.stat("/missing", st), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(fs.stat("/", st), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(liberrno, Ok);
}

TEST_F(IPCFSTest, StatAndFstat_ReturnTheSystemsRecord) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    ASSERT_EQ(file->write("abc", 3), 3);
    struct stat system;
    ASSERT_EQ(::stat(qPrintable(dir / "f"), &system), 0);
    EXPECT_EQ(fs.stat("/f", st), 0);
    EXPECT_EQ(std::memcmp(&st, &system, sizeof st), 0);
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(std::memcmp(&st, &system, sizeof st), 0);
}

TEST_F(IPCFSTest, DestroyedFile_KeepsErrnoAndLiberrno) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    auto file = openNew("f");
    auto directory = fs.opendir("/");
    EXPECT_EQ(fs.stat("/missing", st), -1);
    file.reset();
    directory.reset();
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(liberrno, Ok);
    file = openNew("g");
    EXPECT_EQ(file->close(), 0);
    EXPECT_EQ(fs.stat("/missing", st), -1);
    file.reset();
    EXPECT_EQ(errno, ENOENT);
}

} // namespace oru::io
