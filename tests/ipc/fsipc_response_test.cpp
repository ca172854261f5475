// SPDX-License-Identifier: Apache-2.0
// IPCFS: the format of its requests, and how it handles valid and malformed responses.

#include "ipc/fsipc_p.h"
#include "support/ipc/fakeserver.h"
#include "support/ipc/ipccalls.h"
#include "support/suite/logcapture.h"

#include <oruio/error.h>
#include <oruio/fsipc.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <semaphore.h>
#include <sys/file.h>

namespace oru::io {

using namespace ipcwire;
using test::FakeServer;
using test::IPCFSWithFakeServer;
using test::LogCapture;

TEST_F(IPCFSWithFakeServer, MalformedHeader_FailsWithEBADMSG) {
    for (const char* header : {"", "1", "1,2", "1,2,", "a,b,c", "1,2,x", "1;2;3", " 1,2,3",
                               "1,2,3,4", "99999999999,0,0", "0,0,-1"}) {
        LogCapture log("fsipc=12");
        server.answer(QByteArray(header, static_cast<int>(std::strlen(header)) + 1));
        expectBadMessage(fs.mkdir("/d", 0755));
        EXPECT_TRUE(log.messages().contains(
            QStringLiteral("fsipc 12 Malformed response '%1'").arg(header)));
    }
}

TEST_F(IPCFSWithFakeServer, ResponseWithoutNul_EndsWithTheArea) {
    server.answer(QByteArray(8704, 'x'));
    expectBadMessage(fs.mkdir("/d", 0755));
    server.answer(QByteArray("0,0,0") + QByteArray(8699, '0'));
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
    char buf[16];
    server.answer(QByteArray("0,0,0") + QByteArray(8699, '0'));
    EXPECT_EQ(fs.readlink("/l", buf, sizeof buf), 0);
}

TEST_F(IPCFSWithFakeServer, AnsweredError_SetsErrnoAndLiberrno) {
    server.answer(QByteArray("-1,28,0", 8));
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(liberrno, Ok);
    server.answer(QByteArray("-1,0,3", 7));
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(liberrno, LibraryFailure);
}

TEST_F(IPCFSWithFakeServer, AnsweredENOTCONNOrESHUTDOWN_EndsTheSession) {
    for (const int reason : {ENOTCONN, ESHUTDOWN}) {
        ASSERT_EQ(fs.connect(1, nullptr), 0);
        server.answer("-1," + QByteArray::number(reason) + QByteArray(",0", 3));
        EXPECT_EQ(fs.mkdir("/d", 0755), -1);
        EXPECT_EQ(errno, reason);
        EXPECT_FALSE(fs.isConnected());
        // The server has received a disconnect request.
        EXPECT_EQ(requestState(server.area()), Idle);
    }
}

TEST_F(IPCFSWithFakeServer, AnsweredSuccessWithENOTCONN_KeepsTheSession) {
    server.answer(QByteArray("0,107,0", 8));
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
    EXPECT_TRUE(fs.isConnected());
    const auto file = openAs(7);
    char byte;
    server.answer(QByteArray("0,107,0 0 1", 12));
    EXPECT_EQ(file->read(&byte, 1), 1);
    EXPECT_TRUE(fs.isConnected());
}

TEST_F(IPCFSWithFakeServer, InvalidRecord_FailsWithEBADMSG) {
    struct statfs sfs;
    server.answer(QByteArray("0,0,0 text", 11));
    expectBadMessage(fs.stat("/f", st));
    server.answer(QByteArray("0,0,0 text", 11));
    expectBadMessage(fs.statfs("/f", sfs));
    server.answer(QByteArray("0,0,0") + QByteArray(8690, '0') + '\0');
    expectBadMessage(fs.stat("/f", st));
    server.answer(QByteArray("5,0,0", 6));
    expectBadMessage(fs.stat("/f", st));
    server.answer(QByteArray("-7,0,0", 7));
    expectBadMessage(fs.mkdir("/d", 0755));
}

TEST_F(IPCFSWithFakeServer, DescriptorZero_OperationsFailWithEBADF) {
    const auto file = openAs(0);
    ASSERT_TRUE(file);
    char byte;
    struct flock lock = {};
    EXPECT_EQ(file->read(&byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(file->write(&byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    for (const long long result :
         {file->lseek(0, SEEK_SET), 0LL + file->fstat(st), 0LL + file->ftruncate(0),
          0LL + file->fsync(), 0LL + file->fdatasync(), 0LL + file->flock(LOCK_SH),
          0LL + file->fchmod(0), 0LL + file->fcntl(F_SETLK, &lock), 0LL + file->close(),
          0LL + file->pread(&byte, 1, 0), 0LL + file->pwrite(&byte, 1, 0)})
        EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_TRUE(server.request().startsWith("open "));
}

TEST_F(IPCFSWithFakeServer, OpenRefused_ReturnsNull) {
    server.answer(QByteArray("-1,13,0", 8));
    EXPECT_FALSE(fs.open("/f", O_RDWR, 0));
    EXPECT_EQ(errno, EACCES);
}

TEST_F(IPCFSWithFakeServer, CloseRefused_FileIsClosedAnyway) {
    const auto file = openAs(7);
    server.answer(QByteArray("-1,5,0", 7));
    EXPECT_EQ(file->close(), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(server.request(), "close 7");
    EXPECT_EQ(file->close(), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(IPCFSWithFakeServer, CountOutOfRange_FailsWithEBADMSG) {
    const auto file = openAs(7);
    char buf[16];
    for (const char* answer : {"0,0,0 0 17", "0,0,0 0 -1", "0,0,0 1 3", "0,0,0 0", "0,0,0 x",
                               "0,0,0", "0,0,0 0 99999999999999999999"}) {
        server.answer(QByteArray(answer, static_cast<int>(std::strlen(answer)) + 1));
        expectBadMessage(file->read(buf, sizeof buf));
    }
    for (const char* answer : {"0,0,0 17", "0,0,0 -1", "0,0,0 x", "0,0,0"}) {
        server.answer(QByteArray(answer, static_cast<int>(std::strlen(answer)) + 1));
        expectBadMessage(file->pread(buf, sizeof buf, 0));
        server.answer(QByteArray(answer, static_cast<int>(std::strlen(answer)) + 1));
        expectBadMessage(file->write(buf, sizeof buf));
        server.area().control.bufferMap = 0; // as a server does after a write
        sem_post(&server.area().control.bufferSem);
    }
    server.answer(QByteArray("0,0,0 x", 8));
    expectBadMessage(file->lseek(0, SEEK_SET));
    EXPECT_EQ(server.area().control.bufferMap, 0U);
}

TEST_F(IPCFSWithFakeServer, Lseek_ReturnsTheAnsweredPosition) {
    const auto file = openAs(7);
    server.answer(QByteArray("0,0,0 5000000000", 17));
    EXPECT_EQ(file->lseek(-3, SEEK_END), 5'000'000'000);
    EXPECT_EQ(server.request(), "lseek 7 -3 2");
    server.answer(QByteArray("-1,22,0 -1", 11));
    EXPECT_EQ(file->lseek(0, 99), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(IPCFSWithFakeServer, EntryNameWithoutNul_IsTerminated) {
    server.answer(QByteArray("0,0,0 0x1234", 13));
    const auto directory = fs.opendir("/");
    ASSERT_TRUE(directory);
    EXPECT_EQ(server.request(), "opendir /");
    server.answer(QByteArray("0,0,0", 6) + QByteArray(sizeof(struct dirent), 'n'));
    const struct dirent* entry = directory->readdir();
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(strnlen(entry->d_name, sizeof entry->d_name), sizeof entry->d_name - 1);
    EXPECT_EQ(server.request(), "readdir 0x1234");
}

TEST_F(IPCFSWithFakeServer, InvalidHandle_OpendirFailsWithEBADMSG) {
    for (const char* answer : {"0,0,0 (nil)", "0,0,0", "0,0,0 x", "0,0,0 0x0"}) {
        server.answer(QByteArray(answer, static_cast<int>(std::strlen(answer)) + 1));
        expectBadMessage(fs.opendir("/") ? 0 : -1);
    }
    server.answer(QByteArray("-1,2,0 (nil)", 13));
    EXPECT_FALSE(fs.opendir("/"));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(IPCFSWithFakeServer, ClosedirRefused_KeepsTheHandle) {
    server.answer(QByteArray("0,0,0 0x1234", 13));
    const auto directory = fs.opendir("/");
    server.answer(QByteArray("-1,5,0", 7));
    EXPECT_EQ(directory->closedir(), -1);
    EXPECT_EQ(directory->closedir(), 0);
    EXPECT_EQ(server.request(), "closedir 0x1234");
    EXPECT_TRUE(fs.mkdir("/d", 0755) == 0);
    EXPECT_EQ(directory->closedir(), 0);
    EXPECT_EQ(server.request(), "mkdir 493 /d");
    errno = 0;
    EXPECT_EQ(directory->readdir(), nullptr);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(IPCFSWithFakeServer, Readlink_ReturnsTheLengthOfTheCopiedTarget) {
    char buf[4] = {'#', '#', '#', '#'};
    server.answer(QByteArray("4096,0,0 abcdef", 16));
    EXPECT_EQ(fs.readlink("/l", buf, 3), 0);
    EXPECT_EQ(std::string(buf, 4), "abc#");
    QString target;
    server.answer(QByteArray("4096,0,0 abcdef", 16));
    EXPECT_EQ(fs.readlink("/l", target), 0);
    EXPECT_EQ(target, "abcdef");
    server.answer(QByteArray("-1,22,0 ", 9));
    EXPECT_EQ(fs.readlink("/l", target), -1);
    EXPECT_EQ(target, "abcdef");
}

TEST_F(IPCFSWithFakeServer, Requests_HaveTheirFormat) {
    const auto sent = [this](long long) { return server.request(); };
    EXPECT_EQ(sent(fs.chmod("/f", 0640)), "chmod 416 /f");
    EXPECT_EQ(sent(fs.truncate("/f", 5'000'000'000)), "truncate 5000000000 /f");
    EXPECT_EQ(sent(fs.truncate("/f", -1)), "truncate 18446744073709551615 /f");
    EXPECT_EQ(sent(fs.unlink(QString::fromUtf8("/\u00e4"))), "unlink /\xc3\xa4");
    EXPECT_EQ(sent(fs.rmdir("/d")), "rmdir /d");
    EXPECT_EQ(sent((fs.sync(), 0)), "sync");
    const auto file = openAs(7);
    EXPECT_EQ(server.request(), "open 2 0 /f");
    EXPECT_EQ(sent(file->ftruncate(-5)), "ftruncate 7 -5");
    EXPECT_EQ(sent(file->fsync()), "fsync 7");
    EXPECT_EQ(sent(file->fdatasync()), "fdatasync 7");
    EXPECT_EQ(sent(file->flock(LOCK_UN)), "flock 7 8");
    EXPECT_EQ(sent(file->fchmod(0644)), "fchmod 7 420");
    char byte = 'x';
    server.answer(QByteArray("0,0,0 1", 8));
    EXPECT_EQ(sent(file->pwrite(&byte, 1, 5'000'000'000)), "pwrite 7 0 1 5000000000");
    server.answer(QByteArray("0,0,0 1 1", 10));
    EXPECT_EQ(sent(file->read(&byte, 1)), "read 7 1 1");
}

TEST_F(IPCFSWithFakeServer, NoAnswer_FailsWithENOTCONNAfterTenSeconds) {
    test::limitSemaphoreWaits(5);
    server.setSilent();
    const double before = test::skippedSeconds();
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(fs.unavailable(), IPCFS::Unavailable::NoAnswer);
    EXPECT_NEAR(test::skippedSeconds() - before, 10, 0.5);
    test::limitSemaphoreWaits(0);
}

TEST_F(IPCFSWithFakeServer, WaitFails_EndsTheSession) {
    server.setSilent();
    LogCapture log("fsipc=12");
    test::failCall("sem_clockwait", 1, EINVAL);
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(log.messages(),
              QStringList({"fsipc 12 Send request 'mkdir 493 /d'",
                           "fsipc 12 Response wait error: Invalid argument. Disconnecting."}));
}

TEST(IPCFSData, RequestWithPayload_FailsWithE2BIGAboveTheAreaSize) {
    FakeServer server;
    IPCFS::Data session;
    ASSERT_EQ(session.init(nullptr), 0);
    const std::vector<char> payload(8704, 'p');
    const std::string text = "fcntl 7 13";
    LogCapture log("fsipc=12");
    EXPECT_EQ(session.sendBufRequest(op::fcntl, payload.data(), 8704 - text.size(),
                                     args::fdAndNumber, 7, 13),
              -1);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(log.messages(), QStringList({"fsipc 12 Request 'fcntl 7 13' exceeds max 8704"}));
    EXPECT_EQ(requestState(server.area()), Done);
    EXPECT_EQ(session.sendBufRequest(op::fcntl, payload.data(), 8703 - text.size(),
                                     args::fdAndNumber, 7, 13),
              0);
    EXPECT_EQ(session.getResponse(), 0);
    EXPECT_EQ(server.request(), "fcntl 7 13");
    session.end();
}

} // namespace oru::io
