// SPDX-License-Identifier: Apache-2.0
// Unusual, wrong and missing responses of an SMB server.
#include "network/fssmb_fixtures.h"

#include <QElapsedTimer>
#include <QFile>
#include <QtEndian>

#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>

namespace {

std::atomic<bool> delayReads = false;

} // namespace

// This definition precedes the one of the C library, for libsmb2 as well.
//

// With delayReads, waits 200 ms before it polls for input: as on a busy machine, all data of this
// time arrives at once.
extern "C" Q_DECL_EXPORT int poll(struct pollfd* polled, nfds_t count, int limit) {
    using Function = int(struct pollfd*, nfds_t, int);
    static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "poll"));
    if (delayReads && count == 1 && polled->events == POLLIN)
        real(nullptr, 0, 200);
    return real(polled, count, limit);
}

namespace oru::io {
namespace {

using test::FaultProxy;
using test::login;
using test::timeLimitMs;
using test::timeoutSeconds;
using Fault = FaultProxy::Fault;

/// Connected through a proxy that changes the responses of the server.
class SmbResponse : public test::Smb {
protected:
    void SetUp() override {
        Smb::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        proxy = std::make_unique<FaultProxy>(server.port());
        ASSERT_EQ(fs.connect(login(proxy->address())), 0) << strerror();
        file = fs.open("/file", O_RDWR | O_CREAT, 0644);
        ASSERT_TRUE(file);
        proxy->clear();
    }

    void edit(FaultProxy::Command command, std::function<void(QByteArray&)> editor) {
        proxy->on({FaultProxy::Response, command}, Fault::edit(std::move(editor)));
    }
    void expectUsable() {
        struct stat st;
        EXPECT_EQ(fs.stat("/file", st), 0) << strerror();
        EXPECT_EQ(proxy->armed(), 0);
    }

    std::unique_ptr<FaultProxy> proxy;
    Smb2FS fs{timeoutSeconds};
    QSharedPointer<File> file;
};

void put(QByteArray& message, int at, quint32 value) {
    qToLittleEndian(value, message.data() + at);
}

// The offsets of the status and of the payload length in a response.
constexpr int statusAt = 8;
constexpr int infoLengthAt = 64 + 4;

/// Replaces a response with an error response.
auto failWith(quint32 status) {
    return [status](QByteArray& message) {
        message.truncate(64);
        put(message, statusAt, status);
        put(message, 20, 0); // the last of its chain
        message.append("\x09\0\0\0\0\0\0\0\0", 9);
    };
}

} // namespace

TEST_F(SmbResponse, SuccessWithoutPayload_FailsWithEBADMSG) {
    const auto emptyPayload = [](QByteArray& message) { put(message, infoLengthAt, 0); };
    struct stat st;
    struct statfs sizes;
    edit(FaultProxy::QueryInfo, emptyPayload);
    EXPECT_EQ(fs.stat("/file", st), -1);
    EXPECT_EQ(errno, EBADMSG);
    edit(FaultProxy::QueryInfo, emptyPayload);
    EXPECT_EQ(fs.statfs("/", sizes), -1);
    EXPECT_EQ(errno, EBADMSG);
    edit(FaultProxy::QueryInfo, emptyPayload);
    EXPECT_EQ(file->fstat(st), -1);
    EXPECT_EQ(errno, EBADMSG);
    expectUsable();
}

// A fatal status blocks the share even while the connection works.
TEST_F(SmbResponse, FatalStatus_BlocksWorkingConnection) {
    edit(FaultProxy::Write, failWith(0xc000009a)); // STATUS_INSUFFICIENT_RESOURCES
    EXPECT_EQ(file->write("x", 1), -1);
    EXPECT_EQ(errno, EBUSY);
    proxy->clear();
    struct stat st;
    EXPECT_EQ(fs.stat("/", st), -1);
    EXPECT_TRUE(fs.isConnected());
    EXPECT_TRUE(proxy->messages().isEmpty());
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_EQ(proxy->messages(FaultProxy::Request, FaultProxy::TreeDisconnect).size(), 1);
    EXPECT_TRUE(fs.isConnected()); // disconnect() does not clear the fatal error
    EXPECT_EQ(fs.connect(login(proxy->address())), 0);
    EXPECT_EQ(fs.stat("/", st), 0);
}

TEST_F(SmbResponse, FailedTransfer_KeepsPositionAndEnd) {
    const QByteArray content(100'000, 'x');
    const auto refuse = failWith(0xc000007f); // STATUS_DISK_FULL
    EXPECT_EQ(file->pwrite("abc", 3, 50), 3);
    proxy->on({FaultProxy::Response, FaultProxy::Write, 2}, Fault::edit(refuse));
    EXPECT_EQ(file->write(content.constData(), content.size()), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 0);
    EXPECT_EQ(file->lseek(0, SEEK_END), 53);
    proxy->on({FaultProxy::Response, FaultProxy::Write}, Fault::edit(refuse));
    EXPECT_EQ(file->pwrite("abc", 3, 1000), -1);
    EXPECT_EQ(file->lseek(0, SEEK_END), 53);
    EXPECT_EQ(file->pwrite("abc", 3, 10), 3);
    EXPECT_EQ(file->lseek(0, SEEK_END), 53);
}

// After a write that failed halfway, the next write continues after the bytes that were written.
// lseek(0, SEEK_CUR) returns 0 and does not change that.
TEST_F(SmbResponse, LseekAfterFailedWrite_DoesNotMoveTheNextWrite) {
    const QByteArray content(65536 + 10, 'x');
    proxy->on({FaultProxy::Response, FaultProxy::Write, 2}, Fault::edit(failWith(0xc000007f)));
    EXPECT_EQ(file->write(content.constData(), content.size()), -1);
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 0);
    EXPECT_EQ(file->write("follow", 6), 6);
    QFile local(server.directory("rw") + "/file");
    ASSERT_TRUE(local.open(QFile::ReadOnly) && local.seek(65536));
    EXPECT_EQ(local.read(6), "follow");
}

TEST_F(SmbResponse, ErrorStatus_LeavesStatAndStatfsUnchanged) {
    struct stat st;
    struct statfs sizes;
    std::memset(&st, 0x5a, sizeof st);
    std::memset(&sizes, 0x5a, sizeof sizes);
    const struct stat stBefore = st;
    const struct statfs sizesBefore = sizes;
    edit(FaultProxy::QueryInfo, failWith(0xc0000022)); // STATUS_ACCESS_DENIED
    EXPECT_EQ(file->fstat(st), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(std::memcmp(&st, &stBefore, sizeof st), 0);
    EXPECT_EQ(fs.statfs("/missing", sizes), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(std::memcmp(&sizes, &sizesBefore, sizeof sizes), 0);
    expectUsable();
}

// Samba sends no links, so the proxy builds the response.
TEST_F(SmbResponse, Readlink_StoresTargetAndReturnsZero) {
    const auto isLinkTo = [](const QByteArray& target) {
        return [target](QByteArray& message) {
            QByteArray name;
            for (const char c : target)
                name.append(c).append('\0');
            QByteArray reparse(20, '\0');
            put(reparse, 0, 0xa000000c); // a symbolic link
            reparse[4] = char(12 + 2 * name.size());
            reparse[10] = char(name.size());
            reparse[12] = char(name.size());
            reparse[14] = char(name.size());
            reparse += name + name;
            QByteArray body(48, '\0');
            body[0] = 49;
            put(body, 4, 0x900a8); // FSCTL_GET_REPARSE_POINT
            put(body, 24, 112);
            put(body, 32, 112);
            put(body, 36, reparse.size());
            const bool isLast = qFromLittleEndian<quint32>(message.constData() + 20) == 0;
            message = message.left(64) + body + reparse;
            put(message, statusAt, 0);
            message.append(QByteArray(-message.size() & 7, '\0'));
            if (!isLast)
                put(message, 20, message.size());
        };
    };
    QString target;
    edit(FaultProxy::Ioctl, isLinkTo("target"));
    EXPECT_EQ(fs.readlink("/file", target), 0) << strerror();
    EXPECT_EQ(target, "target");
    char buf[10];
    std::memset(buf, '#', sizeof buf);
    edit(FaultProxy::Ioctl, isLinkTo("target"));
    EXPECT_EQ(fs.readlink("/file", buf, sizeof buf), 0);
    EXPECT_EQ(std::memcmp(buf, "target\0\0\0\0", sizeof buf), 0);
    edit(FaultProxy::Ioctl, isLinkTo("a longer target"));
    EXPECT_EQ(fs.readlink("/file", buf, sizeof buf), 0);
    EXPECT_EQ(std::memcmp(buf, "a longer t", sizeof buf), 0);
}

// The errno of a compound request is that of the first command that fails.
TEST_F(SmbResponse, CloseOfUnopenedFileInCompound_KeepsTheFirstError) {
    ASSERT_EQ(fs.mkdir("/d", 0755), 0);
    edit(FaultProxy::Close, [](QByteArray& message) {
        message.truncate(64);
        put(message, statusAt, 0);
        message.append(QByteArray(60, '\0'));
        message[64] = 60;
    });
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(errno, EEXIST);
    edit(FaultProxy::Close, [](QByteArray& message) {
        put(message, statusAt, 0xc0000128); // STATUS_FILE_CLOSED
    });
    EXPECT_EQ(fs.rmdir("/missing"), -1);
    EXPECT_EQ(errno, ENOENT);
    expectUsable();
}

TEST_F(SmbResponse, CompoundPartlyUnanswered_TimesOut) {
    edit(FaultProxy::Create, [](QByteArray& message) {
        // Replaces all three responses with one to the last command.
        const quint64 id = qFromLittleEndian<quint64>(message.constData() + 24);
        message.truncate(64);
        message[12] = FaultProxy::Close;
        put(message, statusAt, 0);
        put(message, 20, 0); // the last of its chain
        qToLittleEndian(id + 2, message.data() + 24);
        message.append(QByteArray(60, '\0'));
        message[64] = 60;
    });
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(fs.unlink("/file"), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_LT(timer.elapsed(), timeLimitMs);
}

// libsmb2 returns the count unchecked. As an int, this one is negative like an errno.
TEST_F(SmbResponse, CountLikeNegativeErrno_FailsWithECONNRESET) {
    edit(FaultProxy::Write, [](QByteArray& message) { put(message, infoLengthAt, 0xffff0000); });
    EXPECT_EQ(file->write("x", 1), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_TRUE(proxy->waitUntilClosed());
}

TEST_F(SmbResponse, ResponseThenReset_ReportsTheResponseFirst) {
    delayReads = true;
    proxy->on({FaultProxy::Response, FaultProxy::Create}, Fault::reset(1 << 20));
    struct stat st;
    EXPECT_EQ(fs.stat("/missing", st), -1);
    EXPECT_EQ(errno, ENOENT);
    delayReads = false;
    EXPECT_EQ(fs.stat("/missing", st), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST_F(SmbResponse, ConnectFails_ShareIsNotConnected) {
    Properties missing = login(proxy->address());
    missing["share"] = "missing";
    EXPECT_EQ(fs.connect(missing), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(fs.unlink("/file"), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(SmbResponse, MalformedSessionSetup_FailsWithECONNRESET) {
    edit(FaultProxy::SessionSetup, [](QByteArray& message) {
        message.replace(72, message.size() - 72, QByteArray(message.size() - 72, 'x'));
    });
    EXPECT_EQ(fs.connect(login(proxy->address())), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(fs.connect(login(proxy->address())), 0) << strerror();
}

// Threads that wait for the lock while the share connects again use the new connection.
TEST_F(SmbResponse, ConnectWhileThreadsWait_ShareIsUsable) {
    for (int round = 0; round < 20; ++round) {
        std::atomic<bool> isOver = false;
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                struct stat st;
                while (!isOver)
                    fs.stat("/", st);
            });
        }
        proxy->dropConnections();
        struct stat st;
        while (fs.stat("/", st) == 0)
            continue;
        EXPECT_EQ(fs.connect(login(proxy->address())), 0) << strerror();
        EXPECT_EQ(fs.stat("/", st), 0) << strerror();
        isOver = true;
        for (std::thread& thread : threads)
            thread.join();
    }
}

TEST_F(SmbResponse, IsOpenDuringRewinddir_DoesNotRace) {
    const auto directory = fs.opendir("/").staticCast<Smb2Dir>();
    std::atomic<bool> isOver = false;
    std::thread rewinding([&] {
        for (int i = 0; i < 50; ++i)
            EXPECT_EQ(directory->rewinddir(), 0);
        isOver = true;
    });
    while (!isOver)
        directory->isOpen();
    rewinding.join();
    EXPECT_TRUE(directory->isOpen());
}

} // namespace oru::io
