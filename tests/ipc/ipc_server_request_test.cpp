// SPDX-License-Identifier: Apache-2.0
// IPCServer: the answers to valid and invalid requests.

#include "ipc/ipc_server_p.h"
#include "support/doubles/recordingfs.h"
#include "support/ipc/runningserver.h"
#include "support/suite/logcapture.h"
#include "support/system/childprocess.h"

#include <oruio/error.h>
#include <oruio/fdadapter.h>
#include <oruio/ipc_server.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <semaphore.h>
#include <sys/stat.h>

namespace oru::io {

using namespace ipcwire;
using test::eventually;
using test::GatedFS;
using test::LogCapture;
using test::RawClient;
using test::RunningServer;

class IPCServerRequests : public ::testing::Test {
protected:
    IPCServerRequests() {
        EXPECT_EQ(client.ask("connect"), "0,0,0");
        fd = client.ask("open 66 420 /f").split(',').first();
        dir = client.ask("opendir /").split(' ').value(1);
    }

    /// Sends a request. FD and DIR stand for the session's open file and directory.
    QByteArray ask(QByteArray request) {
        return client.ask(request.replace("FD", fd).replace("DIR", dir));
    }

    QSharedPointer<GatedFS> fs = QSharedPointer<GatedFS>::create();
    RunningServer running{fs};
    RawClient client;
    QByteArray fd;
    QByteArray dir;
};

TEST_F(IPCServerRequests, UnknownName_AnswersEOPNOTSUPP) {
    LogCapture log("fsipcsrv=12");
    EXPECT_EQ(ask("format /dev/sda"), "-1,95,0");
    EXPECT_TRUE(log.messages().contains("fsipcsrv 12 Request not supported 'format'"));
    EXPECT_EQ(ask("Stat /"), "-1,95,0");
    EXPECT_EQ(ask("statx /"), "-1,95,0");
    EXPECT_EQ(ask(" stat /"), "-1,95,0");
    EXPECT_EQ(ask("\xff\xfe"), "-1,95,0");
    EXPECT_EQ(ask(QByteArray(8000, 'x')), "-1,95,0");
    EXPECT_EQ(ask("sync"), "0,0,0");
}

TEST_F(IPCServerRequests, MissingOrBadArguments_AnswersEINVAL) {
    for (const char* name :
         {"mkdir",     "rmdir",    "statfs", "stat",   "lstat",    "link",      "symlink",
          "unlink",    "readlink", "rename", "chmod",  "truncate", "opendir",   "open",
          "read",      "write",    "pread",  "pwrite", "lseek",    "ftruncate", "fsync",
          "fdatasync", "fstat",    "fcntl",  "flock",  "fchmod",   "close"})
        EXPECT_EQ(ask(name), "-1,22,0") << name;
    for (const char* request :
         {"mkdir /d",     "mkdir x /d",     "mkdir 493",       "mkdir 99999999999 /d",
          "chmod 420/f",  "truncate -1 /f", "truncate /f",     "link /f",
          "rename /f",    "symlink /f",     "open 66 /f",      "open 66 420",
          "open x 0 /f",  "read FD 0",      "read FD x 1",     "read FD 0 -1",
          "write FD 0",   "pread FD 0 1",   "pwrite FD 0 1 x", "lseek FD 0",
          "lseek FD x 0", "ftruncate FD",   "ftruncate FD x",  "fsync x",
          "fstat x",      "fcntl FD",       "fcntl FD 3",      "fcntl FD 13",
          "flock FD",     "flock FD x",     "fchmod FD",       "close x",
          "close "})
        EXPECT_EQ(ask(request), "-1,22,0") << request;
}

TEST_F(IPCServerRequests, DescriptorNotOpenedByTheSession_AnswersEINVAL) {
    for (const char* other : {"0", "1", "2", "-1", "999999", "2147483647"}) {
        const QByteArray bad = other;
        EXPECT_EQ(ask("read " + bad + " 0 1"), "-1,22,2 0 -1");
        EXPECT_EQ(ask("write " + bad + " 0 1"), "-1,22,2 -1");
        EXPECT_EQ(ask("pread " + bad + " 0 1 0"), "-1,22,2 -1");
        EXPECT_EQ(ask("pwrite " + bad + " 0 1 0"), "-1,22,2 -1");
        EXPECT_EQ(ask("lseek " + bad + " 0 0"), "-1,22,2 -1");
        for (const QByteArray& request :
             {"ftruncate " + bad + " 0", "fsync " + bad, "fdatasync " + bad, "fstat " + bad,
              "fstat " + bad + " 3 0", "fcntl " + bad + " 3 0", "flock " + bad + " 1",
              "fchmod " + bad + " 1", "close " + bad})
            EXPECT_EQ(ask(request), "-1,22,2") << request.constData();
    }
    EXPECT_EQ(ask("close FD"), "0,0,0");
    EXPECT_EQ(ask("close FD"), "-1,22,2");
    EXPECT_EQ(ask("lseek FD 0 0"), "-1,22,2 -1");
}

TEST_F(IPCServerRequests, DescriptorOfTheServerProcess_AnswersEINVAL) {
    FDAdapter own(fs);
    const int ownFd = own.open("/secret", O_RDWR | O_CREAT, 0600);
    ASSERT_GE(ownFd, 0);
    EXPECT_EQ(ask("read " + QByteArray::number(ownFd) + " 0 1"), "-1,22,2 0 -1");
    EXPECT_EQ(ask("close " + QByteArray::number(ownFd)), "-1,22,2");
    EXPECT_EQ(own.close(ownFd), 0);
}

TEST_F(IPCServerRequests, HandleNotOpenedByTheSession_AnswersEINVAL) {
    for (const char* request :
         {"readdir", "readdir 0x1", "readdir (nil)", "readdir x", "readdir 1234", "rewinddir 0x1",
          "closedir 0x1", "closedir", "rewinddir", "readdir 0xffffffffffffffffff"})
        EXPECT_EQ(ask(request), "-1,22,2") << request;
    EXPECT_EQ(ask("rewinddir DIR"), "0,0,0");
    EXPECT_EQ(ask("closedir DIR"), "0,0,0");
    EXPECT_EQ(ask("closedir DIR"), "-1,22,2");
    EXPECT_EQ(ask("readdir DIR"), "-1,22,2");
}

TEST_F(IPCServerRequests, BufferOrCountOutOfRange_AnswersEINVAL) {
    for (const char* index : {"2", "-1", "1000000", "2147483647", "-2147483648"}) {
        const QByteArray bad = index;
        EXPECT_EQ(ask("read FD " + bad + " 1"), "-1,22,0 " + bad + " -1");
        EXPECT_EQ(ask("write FD " + bad + " 1"), "-1,22,0 -1");
        EXPECT_EQ(ask("pread FD " + bad + " 1 0"), "-1,22,0 -1");
        EXPECT_EQ(ask("pwrite FD " + bad + " 1 0"), "-1,22,0 -1");
    }
    EXPECT_EQ(ask("read FD 0 1048577"), "-1,22,0 0 -1");
    EXPECT_EQ(ask("write FD 0 1048577"), "-1,22,0 -1");
    EXPECT_EQ(ask("pread FD 0 4294967295 0"), "-1,22,0 -1");
    EXPECT_EQ(ask("pwrite FD 0 4294967296 0"), sizeof(void*) == 4 ? "-1,22,0" : "-1,22,0 -1");
    EXPECT_EQ(ask("write FD 1 1048576"), "0,0,0 1048576");
}

TEST_F(IPCServerRequests, Write_ReleasesTheDataBufferEvenOnFailure) {
    for (const char* request : {"write FD 0 1", "write 5 0 1", "write FD 0 1048577",
                                "pwrite FD 0 1 0", "pwrite 5 0 1 0"}) {
        IPCShm* const shm = reinterpret_cast<IPCShm*>(&client.area());
        ASSERT_EQ(shm->allocDataBuf(1), 0) << request;
        ask(request);
        EXPECT_EQ(client.area().control.bufferMap, 0U) << request;
    }
    // After a read, the client releases the data buffer.
    IPCShm* const shm = reinterpret_cast<IPCShm*>(&client.area());
    ASSERT_EQ(shm->allocDataBuf(1), 0);
    EXPECT_EQ(ask("pread FD 0 1 0"), "0,0,0 1");
    EXPECT_EQ(client.area().control.bufferMap, 1U);
}

TEST_F(IPCServerRequests, Transfers_UseTheDataBuffers) {
    std::memcpy(client.area().buffers[1], "footage", 7);
    EXPECT_EQ(ask("write FD 1 7"), "0,0,0 7");
    EXPECT_EQ(ask("lseek FD 0 0"), "0,0,0 0");
    EXPECT_EQ(ask("read FD 0 100"), "0,0,0 0 7");
    EXPECT_EQ(std::memcmp(client.area().buffers[0], "footage", 7), 0);
    EXPECT_EQ(ask("pread FD 1 3 4"), "0,0,0 3");
    EXPECT_EQ(std::memcmp(client.area().buffers[1], "age", 3), 0);
    EXPECT_EQ(ask("read FD 0 0"), "0,0,0 0 0");
}

TEST_F(IPCServerRequests, SecondArgument_FollowsTheNulOfTheFirst) {
    EXPECT_EQ(ask(QByteArray("symlink target\0/l", 17)), "0,0,0");
    EXPECT_EQ(ask("readlink /l"), "6,0,0 target");
    EXPECT_EQ(ask(QByteArray("rename /l\0/m", 12)), "0,0,0");
    EXPECT_EQ(ask(QByteArray("link /f\0/g", 10)), "0,0,0");
    EXPECT_EQ(ask("readlink /f"), "-1,22,0 ");
    // A missing second argument is not taken from the request before.
    EXPECT_EQ(ask("rename /m"), "-1,22,0");
    EXPECT_EQ(ask("readlink /m"), "6,0,0 target");
}

TEST_F(IPCServerRequests, RequestWithoutNul_AnswersAnError) {
    for (const char* name : {"stat ", "link ", "rename ", "open 66 420 ", "bogus"}) {
        const QByteArray whole = QByteArray(name).leftJustified(8704, 'p');
        std::memcpy(client.area().request + 1, whole.constData() + 1, whole.size() - 1);
        client.area().response[0] = 'r';
        __atomic_store_n(&client.area().request[0], whole[0], __ATOMIC_SEQ_CST);
        sem_post(&client.area().control.requestSem);
        EXPECT_TRUE(client.receive().startsWith("-1,")) << name;
    }
    EXPECT_EQ(ask("sync"), "0,0,0");
}

TEST_F(IPCServerRequests, PostWithoutARequest_IsNotAnswered) {
    for (int i = 0; i < 5; ++i)
        sem_post(&client.area().control.requestSem);
    EXPECT_EQ(ask("sync"), "0,0,0");
    int answers = -1;
    sem_getvalue(&client.area().control.responseSem, &answers);
    EXPECT_EQ(answers, 0);
}

TEST_F(IPCServerRequests, Fcntl_AcceptsOnlyLocksAndIntegerCommands) {
    EXPECT_EQ(ask("fcntl FD 99 0"), "-1,95,0");
    EXPECT_EQ(ask("fcntl FD 5 0"), "-1,95,0");
    EXPECT_EQ(ask("fcntl FD 1030"), "-1,22,0");
    struct flock lock = {};
    QByteArray request = "fcntl FD 13";
    request.replace("FD", fd).append('\0').append(reinterpret_cast<const char*>(&lock),
                                                  sizeof lock);
    // The file system in memory does not implement locks.
    EXPECT_EQ(client.ask(request), "-1,0,1");
    EXPECT_EQ(ask("fcntl FD 3 0"), "2,0,0"); // F_GETFL
}

TEST_F(IPCServerRequests, FstatWithMoreArguments_AnswersNoRecord) {
    LogCapture log("fsipcsrv=12");
    EXPECT_EQ(ask("fstat FD 3 0"), "0,0,0");
    EXPECT_EQ(ask("fstat FD"), "0,0,0");
    const QStringList messages = log.messages();
    EXPECT_TRUE(messages.contains("fsipcsrv 12 Send response '0,0,0'"));
    EXPECT_TRUE(messages.contains(
        QStringLiteral("fsipcsrv 12 Send BufResponse 0,0,0 + %1 bytes").arg(sizeof(struct stat))));
}

TEST_F(IPCServerRequests, Records_FollowTheNulOfTheHeader) {
    QByteArray answer = client.ask("stat /f", 6 + sizeof(struct stat));
    struct stat st;
    std::memcpy(&st, answer.constData() + 6, sizeof st);
    EXPECT_EQ(st.st_mode & 0777, 0644U);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    const QByteArray entry = client.ask("readdir " + dir, 6 + sizeof(struct dirent));
    struct dirent record;
    std::memcpy(&record, entry.constData() + 6, sizeof record);
    EXPECT_STREQ(record.d_name, ".");
    EXPECT_EQ(client.ask("statfs /", 5), "0,0,0");
}

TEST_F(IPCServerRequests, OpendirOfAMissingPath_AnswersNullHandle) {
    EXPECT_EQ(ask("opendir /missing"), "-1,2,0 (nil)");
}

TEST_F(IPCServerRequests, LongLinkTarget_IsCutTo4096Bytes) {
    const QByteArray target(4096, 't');
    EXPECT_EQ(ask("symlink " + target + QByteArray("\0/l", 3)), "0,0,0");
    EXPECT_EQ(ask("readlink /l"), "4096,0,0 " + target);
    EXPECT_EQ(ask("symlink " + target + QByteArray("t\0/m", 4)), "0,0,0");
    EXPECT_EQ(ask("readlink /m"), "4096,0,0 " + target);
}

TEST_F(IPCServerRequests, EndOfDirectory_AnswersErrnoMinusOne) {
    EXPECT_EQ(ask("readdir DIR"), "0,0,0");
    EXPECT_EQ(ask("readdir DIR"), "0,0,0");
    EXPECT_EQ(ask("readdir DIR"), "0,0,0");
    EXPECT_EQ(ask("readdir DIR"), "-1,-1,0");
    EXPECT_EQ(ask("rewinddir DIR"), "0,0,0");
    EXPECT_EQ(ask("readdir DIR"), "0,0,0");
}

TEST_F(IPCServerRequests, ErrorOfOneRequest_IsClearedForTheNext) {
    EXPECT_EQ(ask("stat /missing"), "-1,2,0");
    EXPECT_EQ(ask("read 5 0 1"), "-1,22,2 0 -1");
    EXPECT_EQ(ask("sync"), "0,0,0");
    EXPECT_EQ(ask("stat /missing"), "-1,2,0");
}

TEST_F(IPCServerRequests, Disconnect_ClosesFilesAndResetsTheArea) {
    IPCShm* const shm = reinterpret_cast<IPCShm*>(&client.area());
    ASSERT_EQ(shm->allocDataBuf(1), 0);
    LogCapture log("fsipcsrv=12");
    client.send("disconnect");
    ASSERT_TRUE(eventually([&] { return requestState(client.area()) == Idle; }));
    int value = -1;
    sem_getvalue(&client.area().control.responseSem, &value);
    EXPECT_EQ(value, 0);
    sem_getvalue(&client.area().control.bufferSem, &value);
    EXPECT_EQ(value, 2);
    EXPECT_EQ(client.area().control.bufferMap, 0U);
    EXPECT_TRUE(log.messages().contains("fsipcsrv 12 Close Session. 1 files 1 dirs"));
    EXPECT_EQ(ask("lseek FD 0 0"), "-1,22,2 -1");
    EXPECT_EQ(ask("readdir DIR"), "-1,22,2");
}

// --- The session without a thread ---------------------------------------------------------------

/// The server's session, without a thread and with an area in ordinary memory.
class IPCServerData : public ::testing::Test {
protected:
    IPCServerData() {
        SharedMutexAttributes().makeMutex(area->control.bufferMutex);
        data.shm = reinterpret_cast<IPCShm*>(area.get());
        EXPECT_EQ(data.resetSession(), 0);
        std::strcpy(data.request.bytes, "readlink");
    }

    std::unique_ptr<Area> area = std::make_unique<Area>();
    QSharedPointer<test::RecordingFS> fs = QSharedPointer<test::RecordingFS>::create();
    IPCServer::Data data{fs};
};

TEST_F(IPCServerData, ResponseTooLong_AnswersE2BIG) {
    LogCapture log("fsipcsrv=12");
    errno = ENOENT;
    liberrno = NotFound;
    const std::string longest(8704 - 1 - 6, 'x');
    errno = 0;
    EXPECT_EQ(data.sendResponse(data.shm, 0, "%s", longest.c_str()), 0);
    EXPECT_EQ(std::string(area->response), "0,0,2 " + longest);
    EXPECT_EQ(data.sendResponse(data.shm, 0, "%s", (longest + "x").c_str()), -1);
    EXPECT_STREQ(area->response, "-1,7,2 Server Error");
    EXPECT_TRUE(log.messages().contains("fsipcsrv 12 Response 'readlink' exceeds max 8704"));
}

TEST_F(IPCServerData, RecordTooLong_AnswersE2BIG) {
    LogCapture log("fsipcsrv=12");
    const std::vector<char> record(8704, 'r');
    errno = 0;
    liberrno = Ok;
    EXPECT_EQ(data.sendBufResponse(data.shm, 0, record.data(), 8704 - 6), 0);
    EXPECT_STREQ(area->response, "0,0,0");
    EXPECT_EQ(area->response[8703], 'r');
    area->unused[0] = 'u';
    EXPECT_EQ(data.sendBufResponse(data.shm, 0, record.data(), 8704 - 5), -1);
    EXPECT_STREQ(area->response, "-1,7,0 Server Error");
    EXPECT_EQ(area->unused[0], 'u');
    EXPECT_TRUE(log.messages().contains("fsipcsrv 12 Response 'readlink' exceeds max 8704"));
}

TEST_F(IPCServerData, SyncRequests_CallTheMatchingFunction) {
    const auto process = [this](const QByteArray& request) {
        std::strcpy(data.request.bytes, request.constData());
        data.process();
        return fs->take();
    };
    EXPECT_EQ(process("open 2 0 /f"), QStringList("open /f 2 0"));
    ASSERT_EQ(data.files.size(), 1);
    const QByteArray fd = QByteArray::number(data.files.first());
    EXPECT_EQ(process("sync"), QStringList("sync"));
    EXPECT_EQ(process("fsync " + fd), QStringList("fsync"));
    EXPECT_EQ(process("fdatasync " + fd), QStringList("fdatasync"));
}

TEST_F(IPCServerData, Handlers_CoverEveryOperation) {
    EXPECT_EQ(
        data.handlers.keys(),
        QStringList({"chmod",     "close",     "closedir", "connect", "disconnect", "fchmod",
                     "fcntl",     "fdatasync", "flock",    "fstat",   "fsync",      "ftruncate",
                     "link",      "lseek",     "lstat",    "mkdir",   "open",       "opendir",
                     "pread",     "pwrite",    "read",     "readdir", "readlink",   "rename",
                     "rewinddir", "rmdir",     "stat",     "statfs",  "symlink",    "sync",
                     "truncate",  "unlink",    "write"}));
}

} // namespace oru::io
