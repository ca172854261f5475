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

std::atomic<bool> answersPileUp = false;

} // namespace

// The program's own definitions come before those of the C library, for libsmb2 as well.

// Waits so long that all is there that comes within that time, as on a busy machine.
extern "C" Q_DECL_EXPORT int poll(struct pollfd* polled, nfds_t count, int limit) {
    using Function = int(struct pollfd*, nfds_t, int);
    static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "poll"));
    if (answersPileUp && count == 1 && polled->events == POLLIN)
        real(nullptr, 0, 200);
    return real(polled, count, limit);
}

namespace oru::io {
namespace {

using test::FaultProxy;
using test::login;
using test::timeLimitMs;
using test::timeout;
using Fault = FaultProxy::Fault;

/// Connected through a proxy that changes what the server says.
class SmbAnswer : public test::Smb {
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
    Smb2FS fs{timeout};
    QSharedPointer<File> file;
};

void put(QByteArray& message, int at, quint32 value) {
    qToLittleEndian(value, message.data() + at);
}

// Where a response has its status, and the length of what it tells.
constexpr int statusAt = 8;
constexpr int infoLengthAt = 64 + 4;

/// Makes a response one that refuses.
auto refuseWith(quint32 status) {
    return [status](QByteArray& message) {
        message.truncate(64);
        put(message, statusAt, status);
        put(message, 20, 0); // nothing follows
        message.append("\x09\0\0\0\0\0\0\0\0", 9);
    };
}

} // namespace

TEST_F(SmbAnswer, SuccessThatTellsNothing_BadMessage) {
    const auto tellNothing = [](QByteArray& message) { put(message, infoLengthAt, 0); };
    struct stat st;
    struct statfs sizes;
    edit(FaultProxy::QueryInfo, tellNothing);
    EXPECT_EQ(fs.stat("/file", st), -1);
    EXPECT_EQ(errno, EBADMSG);
    edit(FaultProxy::QueryInfo, tellNothing);
    EXPECT_EQ(fs.statfs("/", sizes), -1);
    EXPECT_EQ(errno, EBADMSG);
    edit(FaultProxy::QueryInfo, tellNothing);
    EXPECT_EQ(file->fstat(st), -1);
    EXPECT_EQ(errno, EBADMSG);
    expectUsable();
}

// What the server says decides, not whether it can be reached.
TEST_F(SmbAnswer, FatalStatus_GuardsALivingConnection) {
    edit(FaultProxy::Write, refuseWith(0xc000009a)); // STATUS_INSUFFICIENT_RESOURCES
    EXPECT_EQ(file->write("x", 1), -1);
    EXPECT_EQ(errno, EBUSY);
    proxy->clear();
    struct stat st;
    EXPECT_EQ(fs.stat("/", st), -1);
    EXPECT_TRUE(fs.isConnected());
    EXPECT_TRUE(proxy->messages().isEmpty());
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_EQ(proxy->messages(FaultProxy::Request, FaultProxy::TreeDisconnect).size(), 1);
    EXPECT_TRUE(fs.isConnected()); // leaving mends nothing
    EXPECT_EQ(fs.connect(login(proxy->address())), 0);
    EXPECT_EQ(fs.stat("/", st), 0);
}

TEST_F(SmbAnswer, FailedTransfer_MovesNothing) {
    const QByteArray content(100'000, 'x');
    const auto refuse = refuseWith(0xc000007f); // STATUS_DISK_FULL
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

// Asking where one is moves nothing, also where the next write is to go elsewhere.
TEST_F(SmbAnswer, AskingForTheBeginning_MovesNothing) {
    const QByteArray content(65536 + 10, 'x');
    proxy->on({FaultProxy::Response, FaultProxy::Write, 2}, Fault::edit(refuseWith(0xc000007f)));
    EXPECT_EQ(file->write(content.constData(), content.size()), -1);
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 0);
    EXPECT_EQ(file->write("behind", 6), 6);
    QFile local(server.directory("rw") + "/file");
    ASSERT_TRUE(local.open(QFile::ReadOnly) && local.seek(65536));
    EXPECT_EQ(local.read(6), "behind");
}

TEST_F(SmbAnswer, Refused_RecordsStayAsTheyWere) {
    struct stat st;
    struct statfs sizes;
    std::memset(&st, 0x5a, sizeof st);
    std::memset(&sizes, 0x5a, sizeof sizes);
    const struct stat stBefore = st;
    const struct statfs sizesBefore = sizes;
    edit(FaultProxy::QueryInfo, refuseWith(0xc0000022)); // STATUS_ACCESS_DENIED
    EXPECT_EQ(file->fstat(st), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(std::memcmp(&st, &stBefore, sizeof st), 0);
    EXPECT_EQ(fs.statfs("/missing", sizes), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(std::memcmp(&sizes, &sizesBefore, sizeof sizes), 0);
    expectUsable();
}

// No server at hand has links: the answer is made here.
TEST_F(SmbAnswer, Readlink_TargetAndNoLength) {
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

// Of the commands of one request the first to fail says why, whatever becomes of the others.
TEST_F(SmbAnswer, CloseOfWhatWasNotOpened_DoesNotHideWhy) {
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

TEST_F(SmbAnswer, SomeCommandsUnanswered_TimesOut) {
    edit(FaultProxy::Create, [](QByteArray& message) {
        // In place of all three answers only that to the last one.
        const quint64 id = qFromLittleEndian<quint64>(message.constData() + 24);
        message.truncate(64);
        message[12] = FaultProxy::Close;
        put(message, statusAt, 0);
        put(message, 20, 0); // no other follows
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

// libsmb2 hands a count on as it is, where an error would be negative.
TEST_F(SmbAnswer, CountThatReadsLikeAnErrno_IsNone) {
    edit(FaultProxy::Write, [](QByteArray& message) { put(message, infoLengthAt, 0xffff0000); });
    EXPECT_EQ(file->write("x", 1), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_TRUE(proxy->waitUntilClosed());
}

TEST_F(SmbAnswer, AnsweredThenReset_TheAnswerIsTold) {
    answersPileUp = true;
    proxy->on({FaultProxy::Response, FaultProxy::Create}, Fault::reset(1 << 20));
    struct stat st;
    EXPECT_EQ(fs.stat("/missing", st), -1);
    EXPECT_EQ(errno, ENOENT);
    answersPileUp = false;
    EXPECT_EQ(fs.stat("/missing", st), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST_F(SmbAnswer, ConnectRefused_TheShareIsNotConnected) {
    Properties missing = login(proxy->address());
    missing["share"] = "missing";
    EXPECT_EQ(fs.connect(missing), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(fs.unlink("/file"), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(SmbAnswer, SessionSetupUnreadable_ConnectionReset) {
    edit(FaultProxy::SessionSetup, [](QByteArray& message) {
        message.replace(72, message.size() - 72, QByteArray(message.size() - 72, 'x'));
    });
    EXPECT_EQ(fs.connect(login(proxy->address())), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(fs.connect(login(proxy->address())), 0) << strerror();
}

// Those who wait for the lock while a broken share is connected anew use the new connection.
TEST_F(SmbAnswer, ConnectWhileOthersWait_TheShareIsUsable) {
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

TEST_F(SmbAnswer, DirectoryAskedWhileItIsRewound_IsOpenOrNot) {
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
