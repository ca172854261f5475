// SPDX-License-Identifier: Apache-2.0
// Answers that break the protocol: none may crash the client, leave a buffer or count as a success.
#include "network/fssmb_fixtures.h"

#include <QtEndian>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace oru::io {
namespace {

using test::FaultProxy;
using test::login;
using test::names;
using test::timeoutSeconds;
using Fault = FaultProxy::Fault;

constexpr int statusAt = 8;
constexpr int nextAt = 20;
constexpr int bodyAt = 64;
constexpr quint32 endOfFile = 0xc0000011;

void put32(QByteArray& message, int at, quint32 value) {
    qToLittleEndian(value, message.data() + at);
}

/// Connected through a proxy that changes the answers of the server.
class SmbHostile : public test::Smb {
protected:
    void SetUp() override {
        Smb::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        proxy = std::make_unique<FaultProxy>(server.port());
        ASSERT_EQ(connect(), 0) << strerror();
        file = fs.open("/file", O_RDWR | O_CREAT, 0644);
        ASSERT_TRUE(file);
        ASSERT_EQ(file->write("content", 7), 7);
    }

    int connect(const QString& version = {}) {
        return fs.connect(test::with(login(proxy->address()), "version", version));
    }
    void edit(FaultProxy::Command command, std::function<void(QByteArray&)> editor) {
        proxy->on({FaultProxy::Response, command}, Fault::edit(std::move(editor)));
    }
    /// Expects a result of -1 and an unusable connection, which is made again.
    void expectReset(long long result) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(errno, ECONNRESET) << std::strerror(errno);
        EXPECT_EQ(proxy->armed(), 0);
        file.reset();
        ASSERT_EQ(connect(), 0) << strerror();
        file = fs.open("/file", O_RDWR, 0);
        ASSERT_TRUE(file);
    }
    void expectUsable() {
        struct stat st;
        EXPECT_EQ(fs.stat("/file", st), 0) << strerror();
        EXPECT_EQ(st.st_size, 7);
        EXPECT_EQ(proxy->armed(), 0);
    }
    long long list() {
        return fs.opendir("/") ? 0 : -1;
    }
    long long readLink() {
        QString target;
        return fs.readlink("/file", target);
    }
    long long stat() {
        struct stat st;
        return fs.stat("/file", st);
    }

    std::unique_ptr<FaultProxy> proxy;
    Smb2FS fs{timeoutSeconds};
    QSharedPointer<File> file;
};

/// Replaces an answer with an error in the same place of its chain.
auto failWith(quint32 status) {
    return [status](QByteArray& message) {
        put32(message, statusAt, status);
        message = message.left(bodyAt) + QByteArray(std::max(message.size() - bodyAt, 8), '\0');
        message[bodyAt] = 9;
    };
}

/// Replaces an answer, also inside of a chain.
auto replaceBody(const QByteArray& body) {
    return [body](QByteArray& message) {
        const bool isLast = qFromLittleEndian<quint32>(message.constData() + nextAt) == 0;
        put32(message, statusAt, 0);
        message = message.left(bodyAt) + body;
        message.append(QByteArray(-message.size() & 7, '\0'));
        if (!isLast)
            put32(message, nextAt, message.size());
    };
}

/// The offset of a field of the first record of a listing.
constexpr int inRecord(int at) {
    return bodyAt + 8 + at;
}

} // namespace

// libsmb2 would ask for 60 MiB into a buffer of 100 bytes, or send that much.
TEST_F(SmbHostile, SizesBelow4KiB_AreRefusedWithEPROTO) {
    const QString version = QStringLiteral("3.0.2"); // 3.1.1 would notice the change
    for (const int at : {28, 32, 36}) {              // of transactions, reads and writes
        for (const quint32 size : {0U, 1U, 4095U}) {
            edit(FaultProxy::Negotiate,
                 [=](QByteArray& message) { put32(message, bodyAt + at, size); });
            EXPECT_EQ(connect(version), -1);
            EXPECT_EQ(errno, EPROTO);
            EXPECT_FALSE(fs.isConnected());
            EXPECT_EQ(stat(), -1);
            EXPECT_EQ(errno, ENOTCONN); // not a fatal failure
        }
    }
    edit(FaultProxy::Negotiate, [](QByteArray& message) {
        for (const int at : {28, 32, 36})
            put32(message, bodyAt + at, 4096);
    });
    EXPECT_EQ(connect(version), 0) << strerror();
    expectUsable();
}

// libsmb2 would free the answer twice.
TEST_F(SmbHostile, ListingCutShort_FailsWithECONNRESET) {
    edit(FaultProxy::QueryDirectory,
         [](QByteArray& message) { message.truncate(bodyAt + 8 + 40); });
    expectReset(list());
    edit(FaultProxy::QueryDirectory, [](QByteArray& message) { message[bodyAt + 2] = 70; });
    expectReset(list());
    edit(FaultProxy::QueryDirectory,
         [](QByteArray& message) { put32(message, bodyAt + 4, 0xffffff00); });
    expectReset(list());
    expectUsable();
}

TEST_F(SmbHostile, MalformedRecord_FailsWithEBADMSG) {
    const std::vector<std::function<void(QByteArray&)>> editors = {
        [](QByteArray& message) { put32(message, bodyAt + 4, 200); }, // cuts the second record
        [](QByteArray& message) { put32(message, bodyAt + 4, 0); },
        [](QByteArray& message) { put32(message, inRecord(60), 0xffffff); },  // the name
        [](QByteArray& message) { put32(message, inRecord(0), 0x7fffffff); }, // the distance
        [](QByteArray& message) { message[inRecord(80)] = '/'; },
        [](QByteArray& message) { message[inRecord(80)] = '\0'; },
    };
    for (const auto& editor : editors) {
        edit(FaultProxy::QueryDirectory, editor);
        proxy->clear();
        EXPECT_EQ(list(), -1);
        EXPECT_EQ(errno, EBADMSG) << std::strerror(errno);
        EXPECT_EQ(proxy->messages(FaultProxy::Request, FaultProxy::Close).size(), 1);
        expectUsable();
    }
    EXPECT_EQ(names(*fs.opendir("/")), QStringList({".", "..", "file"}));
}

TEST_F(SmbHostile, MalformedRecordAfterOpening_ClosesTheDirectory) {
    const auto directory = fs.opendir("/");
    edit(FaultProxy::QueryDirectory, [](QByteArray& message) { put32(message, bodyAt + 4, 200); });
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_EQ(errno, EBADMSG);
    EXPECT_FALSE(directory.staticCast<Smb2Dir>()->isOpen());
    EXPECT_EQ(directory->readdir(), nullptr);
    expectUsable();
}

TEST_F(SmbHostile, DirectoryWithoutEntries_IsEmpty) {
    edit(FaultProxy::QueryDirectory, failWith(0x80000006)); // STATUS_NO_MORE_FILES
    const auto directory = fs.opendir("/");
    ASSERT_TRUE(directory) << strerror();
    EXPECT_EQ(directory->readdir(), nullptr);
    EXPECT_EQ(errno, ENOENT);
    expectUsable();
}

TEST_F(SmbHostile, ListingRefusedLater_FailsAndClosesTheHandle) {
    proxy->on({FaultProxy::Response, FaultProxy::QueryDirectory, 2},
              Fault::edit(failWith(0xc0000022))); // STATUS_ACCESS_DENIED
    proxy->clear();
    EXPECT_EQ(list(), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(proxy->messages(FaultProxy::Request, FaultProxy::Close).size(), 1);
    edit(FaultProxy::Close, failWith(0xc0000022));
    EXPECT_EQ(list(), -1);
    EXPECT_EQ(errno, EACCES);
    expectUsable();
}

TEST_F(SmbHostile, EndOfFile_IsNoSuccessOfAnOperation) {
    const auto expectFailure = [&](FaultProxy::Command command,
                                   const std::function<long long()>& call) {
        edit(command, failWith(endOfFile));
        errno = 0;
        EXPECT_EQ(call(), -1) << command;
        EXPECT_EQ(errno, EBADMSG) << command << ' ' << std::strerror(errno);
        EXPECT_EQ(proxy->armed(), 0);
    };
    putLocal("/other");
    struct stat st;
    std::memset(&st, 0x5a, sizeof st);
    const struct stat before = st;
    struct statfs sizes;
    expectFailure(FaultProxy::QueryInfo, [&] { return fs.stat("/file", st); });
    expectFailure(FaultProxy::QueryInfo, [&] { return file->fstat(st); });
    EXPECT_EQ(std::memcmp(&st, &before, sizeof st), 0);
    expectFailure(FaultProxy::QueryInfo, [&] { return fs.statfs("/", sizes); });
    expectFailure(FaultProxy::Create, [&] { return fs.mkdir("/d", 0755); });
    expectFailure(FaultProxy::SetInfo, [&] { return fs.rename("/other", "/renamed"); });
    expectFailure(FaultProxy::SetInfo, [&] { return fs.truncate("/file", 7); });
    expectFailure(FaultProxy::SetInfo, [&] { return file->ftruncate(7); });
    expectFailure(FaultProxy::Create, [&] { return fs.unlink("/renamed"); });
    expectFailure(FaultProxy::SetInfo, [&] { return fs.rmdir("/d"); });
    expectFailure(FaultProxy::Create, [&] { return fs.open("/file", O_RDONLY, 0) ? 0 : -1; });
    expectFailure(FaultProxy::Create, [&] { return list(); });
    expectFailure(FaultProxy::QueryDirectory, [&] { return list(); });
    expectFailure(FaultProxy::Close, [&] { return list(); });
    expectFailure(FaultProxy::Ioctl, [&] { return readLink(); });
    expectFailure(FaultProxy::Flush, [&] { return file->fsync(); });
    edit(FaultProxy::Echo, failWith(endOfFile));
    EXPECT_FALSE(fs.isConnected());
    expectUsable();
    expectFailure(FaultProxy::Close, [&] { return file->close(); });
    expectFailure(FaultProxy::TreeDisconnect, [&] { return fs.disconnect(); });
}

TEST_F(SmbHostile, EndOfFileWhileConnecting_IsNoConnection) {
    for (const auto command :
         {FaultProxy::Negotiate, FaultProxy::SessionSetup, FaultProxy::TreeConnect}) {
        edit(command, failWith(endOfFile));
        EXPECT_EQ(connect(), -1) << command;
        EXPECT_EQ(errno, ECONNRESET);
    }
    EXPECT_EQ(connect(), 0);
}

// libsmb2 would write 12 bytes into a buffer of up to 11.
TEST_F(SmbHostile, ShortTransformHeader_FailsWithECONNRESET) {
    for (const int size : {52, 53, 63}) {
        const QByteArray frame = "\xfdSMB" + QByteArray(size - 4, 'A');
        const auto replace = [=](QByteArray& message) { message = frame; };
        edit(FaultProxy::Flush, replace);
        expectReset(file->fsync());
        edit(FaultProxy::Negotiate, replace);
        EXPECT_EQ(connect(), -1);
        EXPECT_EQ(errno, ECONNRESET);
        EXPECT_EQ(connect(), 0);
        file = fs.open("/file", O_RDWR, 0);
    }
    expectUsable();
}

TEST_F(SmbHostile, TransformHeader_FailsWithECONNRESETOrEPERM) {
    const auto replace = [](QByteArray& message) { message = "\xfdSMB" + QByteArray(200, 'A'); };
    edit(FaultProxy::Write, replace);
    expectReset(file->write("x", 1));
    edit(FaultProxy::TreeConnect, replace);
    EXPECT_EQ(connect(), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(connect(), 0);
}

// libsmb2 would read a pointer that it has not set, or one that the server chooses.
TEST_F(SmbHostile, LinkWithoutTarget_FailsWithECONNRESET) {
    QByteArray body(48, '\0');
    body[0] = 49;
    put32(body, 4, 0x900a8); // FSCTL_GET_REPARSE_POINT
    edit(FaultProxy::Ioctl, replaceBody(body));
    expectReset(readLink());
    put32(body, 32, 112);
    put32(body, 36, 40);
    put32(body, 4, 0x60194); // another request
    edit(FaultProxy::Ioctl, replaceBody(body + QByteArray(40, 'A')));
    expectReset(readLink());
    put32(body, 4, 0x900a8);
    put32(body, 32, 0xffffff80);
    put32(body, 36, 200);
    edit(FaultProxy::Ioctl, replaceBody(body + QByteArray(200, 'A')));
    expectReset(readLink());
    expectUsable();
}

// libsmb2 would use what it has freed.
TEST_F(SmbHostile, CloseOfALinkAnsweredFirst_FailsWithECONNRESET) {
    for (const bool isAfterTransfer : {false, true}) {
        char buf[7];
        if (isAfterTransfer) {
            EXPECT_EQ(file->pread(buf, sizeof buf, 0), 7);
        }
        edit(FaultProxy::Create, [](QByteArray& message) {
            const auto number = qFromLittleEndian<quint64>(message.constData() + 24);
            qToLittleEndian<quint64>(number + 2, message.data() + 24);
            failWith(0xc0000022)(message);
        });
        expectReset(readLink());
    }
    // After a transfer, an echo precedes the request.
    char buf[7];
    EXPECT_EQ(file->pread(buf, sizeof buf, 0), 7);
    proxy->clear();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(readLink(), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(proxy->messages(FaultProxy::Request, FaultProxy::Echo).size(), 1);
}

// libsmb2 would read the name, however long it claims to be.
TEST_F(SmbHostile, NameLongerThanTheRecord_FailsWithECONNRESET) {
    const auto lengthen = [](QByteArray& message) { put32(message, inRecord(96), 0x7ffffffe); };
    edit(FaultProxy::QueryInfo, lengthen);
    expectReset(stat());
    edit(FaultProxy::QueryInfo, lengthen);
    struct stat st;
    expectReset(file->fstat(st));
    for (const quint32 size : {40, 99}) {
        edit(FaultProxy::QueryInfo, [=](QByteArray& message) { put32(message, bodyAt + 4, size); });
        expectReset(stat());
    }
}

// libsmb2 would acknowledge it, and call a null pointer when that is answered.
TEST_F(SmbHostile, OplockBreak_FailsWithECONNRESET) {
    edit(FaultProxy::Echo, [](QByteArray& message) {
        message[12] = 18;
        message.replace(24, 8, QByteArray(8, '\xff'));
        message = message.left(bodyAt) + QByteArray(24, '\0');
        message[bodyAt] = 24;
    });
    EXPECT_FALSE(fs.isConnected());
    file.reset();
    EXPECT_EQ(stat(), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

// libsmb2 would copy as much as the token claims to have.
TEST_F(SmbHostile, ChallengeWithWrongLengths_FailsWithECONNRESET) {
    const std::vector<QByteArray> tokens = {
        QByteArray("\xa1\x84\x7f\xff\xff\xf0\x30\x84\x7f\xff\xff\xe0\xa2\x84\x7f\xff\xff\xd0"
                   "\x04\x84\x7f\xff\xff\xc0NTLMSSP\0\2\0\0\0",
                   36) +
            QByteArray(40, 'A'),
        QByteArray("NTLMSSP\0\2\0\0\0", 12) + QByteArray(35, '\0'),
        QByteArray(),
    };
    for (const QByteArray& token : tokens) {
        edit(FaultProxy::SessionSetup, [token](QByteArray& message) {
            qToLittleEndian<quint16>(token.size(), message.data() + bodyAt + 6);
            message.replace(bodyAt + 8, -1, token);
        });
        EXPECT_EQ(connect(), -1);
        EXPECT_EQ(errno, ECONNRESET);
    }
    EXPECT_EQ(connect(), 0);
}

TEST_F(SmbHostile, InterimAnswerWithoutBody_FailsWithECONNRESET) {
    edit(FaultProxy::Write, [](QByteArray& message) {
        put32(message, statusAt, 0x103); // STATUS_PENDING
        message.truncate(64);
    });
    expectReset(file->write("x", 1));
}

} // namespace oru::io
