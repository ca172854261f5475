// SPDX-License-Identifier: Apache-2.0
// Why a share is unusable, and why connecting to it has failed.
#include "network/fssmb_fixtures.h"
#include "support/system/loopback.h"

#include <QElapsedTimer>

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>

namespace {

std::atomic<int> connectError = 0; // errno of connect(2); 0: it works

} // namespace

// This definition precedes the one of the C library, for libsmb2 as well.

extern "C" Q_DECL_EXPORT int connect(int fd, const struct sockaddr* to, socklen_t size) {
    using Function = int(int, const struct sockaddr*, socklen_t);
    static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "connect"));
    if (connectError == 0)
        return real(fd, to, size);
    errno = connectError;
    return -1;
}

namespace oru::io {

using Reason = Smb2FS::ConnectFailure::Reason;

/// Prints a reason as a number.
static void PrintTo(Reason reason, std::ostream* out) {
    *out << static_cast<int>(reason);
}

namespace {

using test::FaultProxy;
using test::login;
using test::Smb;
using test::SmbShare;
using test::with;
using Fault = FaultProxy::Fault;

/// Replaces a response by an error response with the NT status `status`.
Fault refuse(quint32 status) {
    return Fault::edit([status](QByteArray& message) {
        for (int i = 0; i < 4; ++i)
            message[8 + i] = static_cast<char>(status >> (8 * i));
        message.replace(64, -1, QByteArray("\x09", 1) + QByteArray(8, '\0'));
    });
}

/// Connects with `props`, which must fail. \returns why.
Smb2FS::ConnectFailure failureOf(const Properties& props, unsigned int timeout = 10) {
    Smb2FS fs(timeout);
    errno = 0;
    EXPECT_EQ(fs.connect(props), -1);
    const int error = errno;
    const Smb2FS::ConnectFailure failure = fs.connectFailure();
    EXPECT_EQ(failure.error, error);
    EXPECT_FALSE(failure.message.isEmpty());
    EXPECT_EQ(errno, error);
    return failure;
}

} // namespace

TEST(SmbFailure, NeverConnected_ENOTCONNAndNoReason) {
    const Smb2FS fs(1);
    errno = 4711;
    EXPECT_EQ(fs.brokenBy(), ENOTCONN);
    EXPECT_EQ(fs.connectFailure().reason, Reason::None);
    EXPECT_EQ(fs.connectFailure().error, 0);
    EXPECT_EQ(fs.connectFailure().message, "");
    EXPECT_EQ(fs.connectFailure().unknownKeys, QStringList());
    EXPECT_EQ(errno, 4711);
}

TEST(SmbFailure, UnusableProperty_IsNamed) {
    for (const char* key :
         {"server", "share", "user", "password", "domain", "version", "workstation"}) {
        const auto expectNamed = [key](const QString& value, int error) {
            const auto failure = failureOf({{key, value}});
            EXPECT_EQ(failure.reason, Reason::BadProperties) << key;
            EXPECT_EQ(failure.error, error) << key;
            EXPECT_TRUE(failure.message.startsWith('"' + QString(key) + '"')) << key;
        };
        expectNamed(QString(QChar(0)), EINVAL);
        expectNamed(QString(QChar(0xdc00)), EILSEQ);
        expectNamed(QString(1025, 'a'), ENAMETOOLONG);
    }
}

TEST(SmbFailure, ServerThatIsNoNameOrAddress_IsABadProperty) {
    for (const char* server : {"", "smb://nas/clips", "\\\\nas\\clips", "recorder:secret@nas"}) {
        const auto failure = failureOf(with(login(server), "user", ""));
        EXPECT_EQ(failure.reason, Reason::BadProperties) << server;
        EXPECT_TRUE(failure.error == EIO || failure.error == EAGAIN) << failure.error;
        EXPECT_TRUE(failure.message.startsWith("\"server\" is ")) << failure.message.toStdString();
        EXPECT_FALSE(failure.message.contains("secret"));
    }
    const auto failure = failureOf(login("[::1"));
    EXPECT_EQ(failure.reason, Reason::BadProperties);
    EXPECT_EQ(failure.error, EINVAL);
}

TEST(SmbFailure, UnknownHost_HostNotFound) {
    const auto failure = failureOf(login("host.invalid"));
    EXPECT_EQ(failure.reason, Reason::HostNotFound);
    EXPECT_TRUE(failure.message.contains("host.invalid")) << failure.message.toStdString();
}

TEST(SmbFailure, ClosedPort_NobodyListens) {
    const test::Socket unused = test::boundSocket();
    const QString address = QStringLiteral("127.0.0.1:%1").arg(unused.port());
    const auto failure = failureOf(login(address));
    EXPECT_EQ(failure.reason, Reason::NobodyListens);
    EXPECT_EQ(failure.error, ECONNREFUSED);
}

TEST(SmbFailure, NoRoute_Unreachable) {
    for (const int error : {EHOSTUNREACH, ENETUNREACH}) {
        connectError = error;
        const auto failure = failureOf(login("127.0.0.1:1"));
        connectError = 0;
        EXPECT_EQ(failure.reason, Reason::Unreachable);
        EXPECT_EQ(failure.error, error);
    }
}

TEST_F(Smb, SilentServer_TimedOut) {
    FaultProxy proxy(server.port());
    proxy.silence();
    const auto failure = failureOf(login(proxy.address()), 1);
    EXPECT_EQ(failure.reason, Reason::TimedOut);
    EXPECT_EQ(failure.error, ETIMEDOUT);
}

TEST_F(Smb, ServerEndsTheConnection_ConnectionLost) {
    FaultProxy proxy(server.port());
    proxy.resetOnConnect();
    EXPECT_EQ(failureOf(login(proxy.address())).reason, Reason::ConnectionLost);
    proxy.accept();
    for (const auto command :
         {FaultProxy::Negotiate, FaultProxy::SessionSetup, FaultProxy::TreeConnect}) {
        for (const Fault& fault : {Fault::reset(), Fault::reset(30), Fault::close(70)}) {
            proxy.on({FaultProxy::Response, command}, fault);
            const auto failure = failureOf(login(proxy.address()));
            EXPECT_EQ(failure.reason, Reason::ConnectionLost)
                << command << failure.message.toStdString();
            EXPECT_EQ(failure.error, ECONNRESET);
        }
    }
}

namespace {

/// A server that supports SMB 1 only.
class Smb1Only : public Smb {
protected:
    Smb1Only()
        : Smb(test::SmbServer::Options{{"server min protocol = NT1", "server max protocol = NT1"},
                                       {}}) {}
};

} // namespace

TEST_F(Smb1Only, Connect_ConnectionLost) {
    EXPECT_EQ(failureOf(login(server.address())).reason, Reason::ConnectionLost);
}

TEST_F(Smb, AnswerThatCannotBeParsed_ProtocolError) {
    FaultProxy proxy(server.port());
    for (const auto command :
         {FaultProxy::Negotiate, FaultProxy::SessionSetup, FaultProxy::TreeConnect}) {
        proxy.on({FaultProxy::Response, command},
                 Fault::edit([](QByteArray& message) { message[64] = 77; })); // its size
        const auto failure = failureOf(login(proxy.address()));
        EXPECT_EQ(failure.reason, Reason::ProtocolError)
            << command << failure.message.toStdString();
        EXPECT_EQ(failure.error, ECONNRESET);
    }
}

TEST_F(Smb, WrongPassword_LoginRefusedWithTheStatus) {
    const auto failure = failureOf(with(login(server.address()), "password", "wrong"));
    EXPECT_EQ(failure.reason, Reason::LoginRefused);
    EXPECT_EQ(failure.error, ECONNREFUSED);
    EXPECT_TRUE(failure.message.contains("LOGON_FAILURE")) << failure.message.toStdString();
    EXPECT_FALSE(failure.message.contains("wrong"));
}

TEST_F(Smb, RefusedRequest_ReasonFollowsFromItsStatus) {
    struct Case {
        FaultProxy::Command command;
        int occurrence;
        quint32 status;
        Reason reason;
        int error;
    };
    const std::vector<Case> cases = {
        {FaultProxy::SessionSetup, 2, 0xc000006a, Reason::LoginRefused, EIO},    // WRONG_PASSWORD
        {FaultProxy::SessionSetup, 2, 0xc000006e, Reason::LoginRefused, EACCES}, // RESTRICTION
        {FaultProxy::SessionSetup, 2, 0xc0000071, Reason::LoginRefused, EACCES}, // EXPIRED
        {FaultProxy::SessionSetup, 2, 0xc0000072, Reason::LoginRefused, EACCES}, // DISABLED
        {FaultProxy::SessionSetup, 2, 0xc0000234, Reason::LoginRefused, EIO},    // LOCKED_OUT
        {FaultProxy::SessionSetup, 2, 0xc0000022, Reason::NoAccess, EACCES},     // ACCESS_DENIED
        {FaultProxy::SessionSetup, 1, 0xc0000205, Reason::Other, ENOMEM},        // SERVER_RESOURCES
        {FaultProxy::TreeConnect, 1, 0xc00000ca, Reason::NoAccess, EACCES}, // NETWORK_ACCESS_DENIED
        {FaultProxy::TreeConnect, 1, 0xc00000d0, Reason::Other, EIO},       // REQUEST_NOT_ACCEPTED
        {FaultProxy::TreeConnect, 1, 0xc00000b5, Reason::Other, ETIMEDOUT}, // IO_TIMEOUT
        {FaultProxy::Negotiate, 1, 0xc00000bb, Reason::DialectRefused, EINVAL}, // NOT_SUPPORTED
        {FaultProxy::Negotiate, 1, 0xc000000d, Reason::Other, EINVAL},          // INVALID_PARAMETER
    };
    FaultProxy proxy(server.port());
    for (const Case& refused : cases) {
        proxy.on({FaultProxy::Response, refused.command, refused.occurrence},
                 refuse(refused.status));
        const auto failure = failureOf(login(proxy.address()));
        EXPECT_EQ(failure.reason, refused.reason) << failure.message.toStdString();
        EXPECT_EQ(failure.error, refused.error) << failure.message.toStdString();
        const QString status = QStringLiteral("(0x%1)").arg(refused.status, 8, 16, QChar('0'));
        EXPECT_TRUE(failure.message.contains(status)) << failure.message.toStdString();
    }
}

TEST_F(Smb, MissingShare_NoSuchShare) {
    const auto failure = failureOf(login(server.address(), "missing"));
    EXPECT_EQ(failure.reason, Reason::NoSuchShare);
    EXPECT_EQ(failure.error, ENOENT);
    const auto empty = failureOf(login(server.address(), ""));
    EXPECT_EQ(empty.reason, Reason::BadProperties);
    EXPECT_EQ(empty.error, ENOENT);
    EXPECT_EQ(empty.message, "\"share\" is missing or empty");
}

// Otherwise a misspelt key would only show as a user without access.
TEST_F(Smb, UnknownKeys_AreNamed) {
    const Properties misspelt = {
        {"server", server.address()}, {"share", "rw"}, {"username", "tester"}, {"pass", "Secret1"}};
    const auto failure = failureOf(misspelt);
    EXPECT_EQ(failure.reason, Reason::NoAccess);
    EXPECT_EQ(failure.error, EACCES);
    EXPECT_EQ(failure.unknownKeys, QStringList({"pass", "username"}));
    EXPECT_EQ(failureOf({{"Server", "nas"}}).unknownKeys, QStringList("Server"));
    // Also after a success.
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(with(misspelt, "share", "guest")), 0) << strerror();
    EXPECT_EQ(fs.connectFailure().reason, Reason::None);
    EXPECT_EQ(fs.connectFailure().unknownKeys, QStringList({"pass", "username"}));
    EXPECT_EQ(fs.connect(login(server.address())), 0) << strerror();
    EXPECT_EQ(fs.connectFailure().unknownKeys, QStringList());
}

TEST_F(Smb, ConnectAgain_ReplacesTheReason) {
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(login(server.address(), "missing")), -1);
    EXPECT_EQ(fs.brokenBy(), ENOTCONN); // the errno of operations, not that of connect()
    EXPECT_EQ(fs.connect(with(login(server.address()), "password", "wrong")), -1);
    EXPECT_EQ(fs.brokenBy(), ECONNREFUSED);
    EXPECT_EQ(fs.connectFailure().reason, Reason::LoginRefused);
    EXPECT_EQ(fs.connect(login(server.address())), 0) << strerror();
    EXPECT_EQ(fs.brokenBy(), 0);
    EXPECT_EQ(fs.connectFailure().reason, Reason::None);
    EXPECT_EQ(fs.connectFailure().error, 0);
    EXPECT_EQ(fs.connectFailure().message, "");
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_EQ(fs.brokenBy(), ENOTCONN);
}

TEST_F(SmbShare, FatalErrno_IsReturnedUntilTheNextConnect) {
    set_errno(&fs, -EBUSY, nullptr, "open", "f");
    EXPECT_EQ(fs.brokenBy(), EBUSY);
    set_errno(&fs, -ENOSPC, nullptr, "write", "f");
    EXPECT_EQ(fs.brokenBy(), 0); // the connection still works
    set_errno(&fs, -ECONNRESET, nullptr, "write", "f");
    errno = 4711;
    EXPECT_EQ(fs.brokenBy(), ECONNRESET);
    EXPECT_EQ(errno, 4711);
    EXPECT_EQ(fs.connect(login(server.address())), 0) << strerror();
    EXPECT_EQ(fs.brokenBy(), 0);
}

TEST_F(Smb, LostConnection_ErrnoStaysThatOfTheLoss) {
    FaultProxy proxy(server.port());
    Smb2FS fs(10);
    ASSERT_EQ(fs.connect(login(proxy.address())), 0) << strerror();
    proxy.dropConnections();
    EXPECT_EQ(fs.brokenBy(), 0); // no request was sent
    EXPECT_FALSE(fs.isConnected());
    EXPECT_EQ(fs.brokenBy(), ECONNRESET);
    // A later errno of another kind does not make the share usable.
    set_errno(&fs, -ENOENT, nullptr, "stat", "f");
    EXPECT_EQ(fs.brokenBy(), ECONNRESET);
    EXPECT_EQ(fs.connect(login(proxy.address())), 0) << strerror();
    EXPECT_EQ(fs.brokenBy(), 0);
}

TEST_F(Smb, AnotherThreadWaitsForTheServer_AnswersAtOnce) {
    FaultProxy proxy(server.port());
    Smb2FS fs(2);
    ASSERT_EQ(fs.connect(login(proxy.address())), 0) << strerror();
    const auto expectAtOnce = [&](int error, const std::function<void()>& call) {
        std::atomic<bool> hasEnded = false;
        std::thread waiting([&] {
            call();
            hasEnded = true;
        });
        EXPECT_TRUE(test::eventually([&] { return proxy.armed() == 0; }));
        EXPECT_EQ(fs.brokenBy(), error);
        EXPECT_EQ(fs.connectFailure().reason, Reason::None);
        EXPECT_FALSE(hasEnded);
        waiting.join();
        EXPECT_EQ(fs.brokenBy(), ETIMEDOUT);
    };
    proxy.on({FaultProxy::Request, FaultProxy::Create}, Fault::freeze());
    expectAtOnce(0, [&fs] {
        struct stat st;
        EXPECT_EQ(fs.stat("/", st), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
    });
    proxy.on({FaultProxy::Request, FaultProxy::Negotiate}, Fault::freeze());
    expectAtOnce(ENOTCONN, [&] { EXPECT_EQ(fs.connect(login(proxy.address())), -1); });
    EXPECT_EQ(fs.connectFailure().reason, Reason::TimedOut);
}

} // namespace oru::io
