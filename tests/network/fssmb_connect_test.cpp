// SPDX-License-Identifier: Apache-2.0
// Connecting to a share of a real SMB server, and disconnecting.
#include "network/fssmb_fixtures.h"
#include "support/suite/logcapture.h"
#include "support/system/files.h"
#include "support/system/tempdir.h"

#include <QDir>
#include <QFile>

#include <cstring>
#include <utility>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace oru::io {
namespace {

using test::expectRefused;
using test::FaultProxy;
using test::LogCapture;
using test::login;
using test::Smb;
using test::SmbServer;
using test::SmbShare;
using test::SmbWire;
using test::utf16;
using test::with;
using Reason = Smb2FS::ConnectFailure::Reason;

} // namespace

TEST_F(Smb, Connect_LogsUserAddressAndOptions) {
    const QString address = server.address();
    const Properties anybody = {{"server", address}, {"share", "guest"}};
    const Properties user = login(address);
    const std::vector<std::pair<Properties, QString>> cases = {
        {anybody, "smb://anonymous@%1/guest"},
        {user, "smb://tester:****@%1/rw"},
        {with(user, "domain", "TESTGRP"), "smb://TESTGRP\\tester:****@%1/rw"},
        {with(user, "version", "3.0.2"), "smb://tester:****@%1/rw vers=3.0.2"},
        {with(user, "version", "3"), "smb://tester:****@%1/rw vers=3"},
        {with(user, "workstation", "recorder"), "smb://tester:****@%1/rw workstation=recorder"},
        {with(with(with(user, "domain", "TESTGRP"), "version", "3.0.2"), "workstation", "recorder"),
         "smb://TESTGRP\\tester:****@%1/rw vers=3.0.2 workstation=recorder"},
    };
    for (const auto& [props, description] : cases) {
        LogCapture log("libio_smb2=12");
        Smb2FS fs(10);
        EXPECT_EQ(fs.connect(props), 0) << strerror();
        EXPECT_EQ(log.messages(),
                  QStringList("libio_smb2 12 SMB Connect '" + description.arg(address) + "' OK"));
        EXPECT_TRUE(fs.isConnected());
    }
}

TEST_F(Smb, LongestLogin_Connects) {
    const auto longest = [](char c) { return QString(1024, c); };
    LogCapture log("libio_smb2=12");
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect({{"server", server.address()},
                          {"share", "guest"},
                          {"domain", longest('d')},
                          {"user", longest('u')},
                          {"version", longest('v')},
                          {"workstation", longest('w')}}),
              0)
        << strerror();
    EXPECT_EQ(fs.getDialect(), "3.1.1");
    EXPECT_TRUE(fs.isConnected());
    const QString message = log.messages().value(0); // truncated to the length of a message
    const QString begin = "libio_smb2 12 SMB Connect 'smb://" + longest('d').left(100);
    EXPECT_EQ(message.left(begin.size()), begin);
}

TEST_F(Smb, Version_SelectsTheDialect) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"2.0.2", "2.0.2"}, {"2.1.0", "2.1.0"}, {"3.0.0", "3.0.0"}, {"3.0.2", "3.0.2"},
        {"3.1.1", "3.1.1"}, {"2.x", "2.1.0"},   {"3.x", "3.1.1"},   {"", "3.1.1"},
        {"3", "3.1.1"},     {"any", "3.1.1"},
    };
    for (const auto& [version, dialect] : cases) {
        Smb2FS fs(10);
        EXPECT_EQ(fs.connect(with(login(server.address()), "version", version)), 0) << version;
        EXPECT_EQ(fs.getDialect(), dialect) << version;
        const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
        ASSERT_TRUE(file) << version;
        const QByteArray content(300'000, 'd');
        EXPECT_EQ(file->write(content.constData(), content.size()), content.size());
        file->close();
        EXPECT_EQ(getLocal("/f"), content) << version;
        EXPECT_EQ(fs.unlink("/f"), 0) << version;
        EXPECT_EQ(fs.disconnect(), 0);
        EXPECT_EQ(fs.getDialect(), "unknown");
    }
}

namespace {

/// A server that supports SMB 2 only.
class Smb2Only : public Smb {
protected:
    Smb2Only() : Smb(SmbServer::Options{{"server max protocol = SMB2_10"}, {}}) {}
};

/// A server that accepts signed sessions only.
class SmbSigningRequired : public Smb {
protected:
    SmbSigningRequired() : Smb(SmbServer::Options{{"server signing = mandatory"}, {}}) {}
};

/// A server that accepts encrypted sessions only.
class SmbEncryptionRequired : public Smb {
protected:
    SmbEncryptionRequired() : Smb(SmbServer::Options{{"server smb encrypt = required"}, {}}) {}
};

/// A server that requires encryption for the share "sealed" only.
class SmbEncryptedShare : public Smb {
protected:
    SmbEncryptedShare()
        : Smb(SmbServer::Options{
              {}, {{"sealed", {"read only = no", "server smb encrypt = required"}}}}) {}
};

} // namespace

TEST_F(Smb2Only, Version3_ConnectFailsWithEINVAL) {
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(with(login(server.address()), "version", "3.1.1")), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fs.connectFailure().reason, Reason::DialectRefused);
    EXPECT_EQ(fs.connect(with(login(server.address()), "version", "3.x")), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fs.connect(login(server.address())), 0);
    EXPECT_EQ(fs.getDialect(), "2.1.0");
}

TEST_F(SmbSigningRequired, Connect_FailsWithEPERM) {
    for (const char* version : {"2.0.2", "2.1.0", "3.0.2", "3.1.1"})
        expectRefused(server, version);
    // A guest has no key to sign with.
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect({{"server", server.address()}, {"share", "guest"}}), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(fs.connectFailure().reason, Reason::Protected);
}

TEST_F(SmbEncryptionRequired, Connect_FailsWithEPERMOrEACCES) {
    for (const char* version : {"3.0.0", "3.1.1"})
        expectRefused(server, version);
    // These dialects have no encryption: the server rejects the session.
    for (const char* version : {"2.0.2", "2.1.0"}) {
        Smb2FS fs(10);
        EXPECT_EQ(fs.connect(with(login(server.address()), "version", version)), -1);
        EXPECT_EQ(errno, EACCES);
        EXPECT_EQ(fs.connectFailure().reason, Reason::NoAccess);
    }
}

TEST_F(SmbEncryptedShare, Connect_FailsWithEPERM) {
    for (const char* version : {"3.0.0", "3.1.1"})
        expectRefused(server, version, "sealed");
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(login(server.address())), 0) << strerror();
}

TEST_F(Smb, Connect_SendsUserDomainAndWorkstationWithoutSigning) {
    FaultProxy proxy(server.port());
    QByteArray authentication;
    proxy.on({FaultProxy::Request, FaultProxy::SessionSetup, 2},
             FaultProxy::Fault::edit([&](QByteArray& message) { authentication = message; }));
    Properties props = login(proxy.address());
    props["domain"] = "STUDIO";
    props["workstation"] = "recorder-7";
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(props), 0) << strerror();
    for (const QString& value :
         {QString(SmbServer::user), QString("STUDIO"), QString("recorder-7")})
        EXPECT_TRUE(authentication.contains(utf16(value))) << value.toStdString();
    EXPECT_FALSE(authentication.contains(utf16(SmbServer::password)));
    // The client neither enables nor requires signing.
    const auto negotiation = proxy.messages(FaultProxy::Request, FaultProxy::Negotiate);
    ASSERT_EQ(negotiation.size(), 1);
    EXPECT_EQ(negotiation[0].head[64 + 4], '\0');
    EXPECT_EQ(authentication[64 + 3], '\0');
}

TEST_F(Smb, UnusableLogins_FailWithTheReason) {
    struct Case {
        const char* name;
        Properties props;
        int error;
    };
    const Properties good = login(server.address());
    const FaultProxy proxy(server.port());
    const std::vector<Case> cases = {
        {"wrong password", with(good, "password", "wrong"), ECONNREFUSED},
        {"missing share", with(good, "share", "missing"), ENOENT},
        {"no share", with(good, "share", ""), ENOENT},
        {"no server", with(good, "server", ""), EIO},
        {"unknown host", with(good, "server", "host.invalid"), EIO},
        {"port closed", with(good, "server", "127.0.0.1:1"), ECONNREFUSED},
        {"no address", with(good, "server", "[::1"), EINVAL},
    };
    for (const Case& refused : cases) {
        Smb2FS fs(10);
        errno = 0;
        EXPECT_EQ(fs.connect(refused.props), -1) << refused.name;
        // Without a resolver, the lookup fails with EAGAIN.
        if (refused.error == EIO && errno == EAGAIN)
            errno = EIO;
        EXPECT_EQ(errno, refused.error) << refused.name;
        EXPECT_EQ(fs.getDialect(), "unknown");
        EXPECT_EQ(fs.isConnected(), refused.error == ECONNREFUSED) << refused.name;
        EXPECT_EQ(fs.connect(good), 0) << refused.name;
        EXPECT_TRUE(fs.isConnected());
    }
}

// libsmb2 also reads passwords from the file in NTLM_USER_FILE. The library does not use it.
TEST_F(Smb, PasswordFileInEnvironment_IsIgnored) {
    const test::TempDir directory;
    const QString passwords = directory / "passwords";
    ASSERT_TRUE(qputenv("NTLM_USER_FILE", QFile::encodeName(passwords)));
    const Properties right = login(server.address());
    EXPECT_TRUE(test::makeFile(passwords, ":tester:wrong\n"));
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(right), 0) << strerror();
    EXPECT_EQ(fs.mkdir("/d", 0755), 0) << strerror();
    // Without a password the session is anonymous, even with a user name.
    EXPECT_TRUE(test::makeFile(passwords, ":tester:Secret1\n"));
    EXPECT_EQ(fs.connect(with(right, "password", "")), -1);
    EXPECT_EQ(errno, EACCES);
    qunsetenv("NTLM_USER_FILE");
}

// When connect(2) fails at once, its errno is reported.
TEST(Smb2FS, UnreachableAddress_FailsWithErrnoOfConnect) {
    const int plain = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in everybody = {};
    everybody.sin_family = AF_INET;
    everybody.sin_port = htons(445);
    everybody.sin_addr.s_addr = INADDR_BROADCAST;
    ASSERT_EQ(::connect(plain, reinterpret_cast<sockaddr*>(&everybody), sizeof everybody), -1);
    const int reason = errno;
    ::close(plain);
    Smb2FS fs(5);
    EXPECT_EQ(fs.connect(login("255.255.255.255")), -1);
    EXPECT_EQ(errno, reason);
    EXPECT_NE(reason, EIO);
}

TEST_F(Smb, Guest_ConnectsWithoutAPassword) {
    for (const char* version : {"2.0.2", "3.0.2", "3.1.1"}) {
        for (const char* user : {"", "somebody"}) {
            Smb2FS fs(10);
            ASSERT_EQ(fs.connect({{"server", server.address()},
                                  {"share", "guest"},
                                  {"user", user},
                                  {"version", version}}),
                      0)
                << version << user << strerror();
            EXPECT_EQ(fs.mkdir("/d", 0755), 0);
            EXPECT_EQ(fs.rmdir("/d"), 0);
        }
    }
}

TEST_F(Smb, HostName_Connects) {
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(login("localhost:" + QString::number(server.port()))), 0) << strerror();
    EXPECT_TRUE(fs.isConnected());
}

TEST_F(SmbShare, ConnectAgain_ReplacesTheConnection) {
    EXPECT_EQ(fs.connect(login(server.address(), "rw2")), 0);
    EXPECT_EQ(fs.mkdir("/of-the-other", 0755), 0);
    EXPECT_TRUE(QDir(server.directory("rw2") + "/of-the-other").exists());
    EXPECT_EQ(fs.connect(login(server.address())), 0);
    struct stat st;
    EXPECT_EQ(fs.stat("/of-the-other", st), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(SmbWire, Disconnect_SendsTreeDisconnectAndLogoffAndCloses) {
    EXPECT_EQ(proxy->openConnections(), 1);
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_TRUE(proxy->waitUntilClosed());
    EXPECT_EQ(proxy->messages(FaultProxy::Request, FaultProxy::TreeDisconnect).size(), 1);
    EXPECT_EQ(proxy->messages(FaultProxy::Request, FaultProxy::Logoff).size(), 1);
    EXPECT_FALSE(fs.isConnected());
    proxy->clear();
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_EQ(proxy->messages().size(), 0);
    struct stat st;
    EXPECT_EQ(fs.stat("/", st), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(SmbWire, DisconnectRefused_StaysConnected) {
    proxy->on({FaultProxy::Response, FaultProxy::TreeDisconnect},
              FaultProxy::Fault::edit([](QByteArray& message) {
                  message.replace(8, 4, "\x22\x00\x00\xc0", 4); // STATUS_ACCESS_DENIED
                  message.replace(64, -1, QByteArray("\x09", 1) + QByteArray(8, '\0'));
              }));
    EXPECT_EQ(fs.disconnect(), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(fs.getDialect(), "3.1.1");
    EXPECT_EQ(proxy->openConnections(), 1);
}

TEST_F(SmbWire, DisconnectRefusedAfterFatalErrno_RequestsAreSentAgain) {
    proxy->on({FaultProxy::Response, FaultProxy::TreeDisconnect},
              FaultProxy::Fault::edit([](QByteArray& message) {
                  message.replace(8, 4, "\x22\x00\x00\xc0", 4); // STATUS_ACCESS_DENIED
                  message.replace(64, -1, QByteArray("\x09", 1) + QByteArray(8, '\0'));
              }));
    set_errno(&fs, -EBUSY, nullptr, "open", "f");
    struct stat st;
    EXPECT_EQ(fs.stat("/", st), -1);
    EXPECT_EQ(fs.disconnect(), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(fs.brokenBy(), 0);
    proxy->clear();
    fs.stat("/", st); // smbd has disconnected, so it refuses
    EXPECT_GT(proxy->messages().size(), 0);
}

TEST_F(SmbWire, Destroyed_ClosesTheConnectionWithoutARequest) {
    {
        Smb2FS other(10);
        ASSERT_EQ(other.connect(login(proxy->address(), "rw2")), 0);
        EXPECT_EQ(proxy->openConnections(), 2);
        proxy->clear();
    }
    EXPECT_EQ(proxy->messages().size(), 0);
    fs.disconnect();
    EXPECT_TRUE(proxy->waitUntilClosed());
}

TEST_F(SmbWire, IsConnected_SendsEcho) {
    EXPECT_TRUE(fs.isConnected());
    ASSERT_EQ(proxy->messages().size(), 2);
    EXPECT_EQ(proxy->messages()[0].command, FaultProxy::Echo);
}

// Otherwise a child process would keep the connection open.
TEST_F(SmbShare, Socket_IsClosedOnExec) {
    int sockets = 0;
    for (const QFileInfo& entry : QDir("/proc/self/fd").entryInfoList(QDir::System | QDir::Files)) {
        const int fd = entry.fileName().toInt();
        struct stat st;
        sockaddr_in peer = {};
        socklen_t size = sizeof peer;
        if (::fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode) ||
            getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0 ||
            ntohs(peer.sin_port) != server.port())
            continue;
        ++sockets;
        EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    }
    EXPECT_EQ(sockets, 1);
}

} // namespace oru::io
