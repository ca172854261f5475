// SPDX-License-Identifier: Apache-2.0
// The SMB server of the tests, with Samba's client.
#include "support/doubles/faultproxy.h"
#include "support/suite/qtprint.h"
#include "support/system/childprocess.h"
#include "support/system/files.h"
#include "support/system/loopback.h"
#include "support/system/smbserver.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryFile>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <string>

#include <sys/socket.h>
#include <unistd.h>

namespace oru::io::test {

namespace {

using Fault = FaultProxy::Fault;
using ::testing::HasSubstr;

class SmbServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!SmbServer::missing().isEmpty())
            GTEST_SKIP() << qPrintable(SmbServer::missing());
        if (QStandardPaths::findExecutable("smbclient").isEmpty())
            GTEST_SKIP() << "smbclient is not installed";
    }
};

QStringList asUser() {
    return {"-U", QString(SmbServer::user) + '%' + SmbServer::password};
}

/// A run of Samba's client on a share.
class SmbClient {
public:
    SmbClient(quint16 port, const QString& share, const QString& commands,
              const QStringList& options = asUser()) {
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        m_process.start("smbclient", QStringList{"-s", "/dev/null", "-p", QString::number(port),
                                                 "//127.0.0.1/" + share, "-c", commands} +
                                         options);
    }

    bool hasEnded(int waitMs) {
        return m_process.waitForFinished(waitMs);
    }
    /// The output. Failures are printed as names that begin with NT_STATUS.
    std::string output() {
        m_process.waitForFinished();
        return m_process.readAll().toStdString();
    }

private:
    QProcess m_process;
};

bool hasEnded(pid_t process) {
    // An orphan stays a zombie until init waits for it.
    const QByteArray stat = contents(QStringLiteral("/proc/%1/stat").arg(process));
    return stat.isEmpty() || stat.contains(") Z ");
}

} // namespace

TEST_F(SmbServerTest, Shares_PermitTheirUsersOnly) {
    const SmbServer server;
    ASSERT_EQ(server.problem(), "");
    QTemporaryFile source;
    ASSERT_TRUE(source.open());
    source.write("data");
    source.flush();
    const QString put = "put " + source.fileName() + " copy; ls";

    for (const char* const share : {"rw", "rw2"}) {
        EXPECT_THAT(SmbClient(server.port(), share, put).output(), HasSubstr("  copy"));
        EXPECT_EQ(contents(server.directory(share) + "/copy"), "data");
    }
    EXPECT_THAT(SmbClient(server.port(), "guest", put, {"-N"}).output(), HasSubstr("  copy"));
    EXPECT_EQ(contents(server.directory("guest") + "/copy"), "data");

    EXPECT_THAT(SmbClient(server.port(), "ro", put).output(), HasSubstr("NT_STATUS_ACCESS_DENIED"));
    EXPECT_THAT(SmbClient(server.port(), "ro", "get file.txt -").output(),
                HasSubstr("read only file\n"));

    EXPECT_THAT(SmbClient(server.port(), "rw", "ls", {"-N"}).output(),
                HasSubstr("NT_STATUS_ACCESS_DENIED"));
    EXPECT_THAT(SmbClient(server.port(), "rw", "ls", {"-U", "tester%wrong"}).output(),
                HasSubstr("NT_STATUS_LOGON_FAILURE"));
}

TEST_F(SmbServerTest, OldestDialect_IsSupported) {
    const SmbServer server;
    ASSERT_EQ(server.problem(), "");
    EXPECT_THAT(
        SmbClient(server.port(), "ro", "ls", asUser() + QStringList{"-m", "SMB2_02"}).output(),
        HasSubstr("file.txt"));
}

TEST_F(SmbServerTest, Options_AreInTheConfiguration) {
    SmbServer::Options options;
    options.global << "server max protocol = SMB2_10";
    options.shares["more"] << "read only = no";
    const SmbServer server(options);
    ASSERT_EQ(server.problem(), "");
    EXPECT_THAT(SmbClient(server.port(), "more", "mkdir made; ls").output(), HasSubstr("  made"));
    EXPECT_TRUE(QFileInfo(server.directory("more") + "/made").isDir());
    const QStringList newer = {"--option=client min protocol=SMB3"};
    EXPECT_THAT(SmbClient(server.port(), "more", "ls", asUser() + newer).output(),
                HasSubstr("NT_STATUS_NOT_SUPPORTED"));
}

TEST_F(SmbServerTest, WrongConfiguration_ProblemHasTheMessageOfSmbd) {
    SmbServer::Options options;
    options.global << "passdb backend = nonsense";
    const SmbServer server(options);
    EXPECT_THAT(server.problem().toStdString(), HasSubstr("nonsense"));
}

TEST_F(SmbServerTest, KilledAndRestarted_ServesTheSamePortAndFiles) {
    SmbServer server;
    ASSERT_EQ(server.problem(), "");
    const int idle = server.processes().size();
    const Socket connection = connectedSocket(server.port());
    // smbd makes a process for the connection.
    ASSERT_TRUE(eventually([&] { return server.processes().size() > idle; }));
    EXPECT_THAT(SmbClient(server.port(), "rw", "mkdir made; ls").output(), HasSubstr("  made"));
    const QList<pid_t> processes = server.processes();

    server.kill();
    for (const pid_t process : processes)
        EXPECT_TRUE(hasEnded(process));
    char byte;
    EXPECT_TRUE(eventually([&] { return ::recv(connection.fd(), &byte, 1, MSG_DONTWAIT) == 0; }));
    errno = 0;
    EXPECT_FALSE(connectedSocket(server.port()).isOpen());
    EXPECT_EQ(errno, ECONNREFUSED);

    const QString address = server.address();
    EXPECT_TRUE(server.restart());
    EXPECT_EQ(server.address(), address);
    EXPECT_THAT(SmbClient(server.port(), "rw", "ls").output(), HasSubstr("  made"));
}

TEST_F(SmbServerTest, Stopped_RespondsAfterItContinues) {
    SmbServer server;
    ASSERT_EQ(server.problem(), "");
    server.stop();
    SmbClient client(server.port(), "ro", "ls");
    EXPECT_FALSE(client.hasEnded(300));
    server.cont();
    EXPECT_THAT(client.output(), HasSubstr("file.txt"));
}

TEST_F(SmbServerTest, Destroyed_LeavesNoProcessAndFile) {
    auto server = std::make_unique<SmbServer>();
    ASSERT_EQ(server->problem(), "");
    const Socket connection = connectedSocket(server->port());
    const QList<pid_t> processes = server->processes();
    const QString directory = server->directory("rw") + "/../..";
    EXPECT_FALSE(processes.isEmpty());
    EXPECT_TRUE(QFileInfo::exists(directory + "/smb.conf"));
    server.reset();
    for (const pid_t process : processes)
        EXPECT_TRUE(hasEnded(process));
    EXPECT_FALSE(QFileInfo::exists(directory));
}

TEST_F(SmbServerTest, TestKilledWhileServerIsStopped_LeavesNoProcessAndFile) {
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    ChildProcess test([&] {
        SmbServer server;
        server.stop();
        QByteArray found =
            QFileInfo(server.directory("rw") + "/../..").canonicalFilePath().toUtf8();
        for (const pid_t process : server.processes())
            found += '\n' + QByteArray::number(process);
        (void)!::write(report[1], found.constData(), static_cast<std::size_t>(found.size()));
        return ::kill(getpid(), SIGKILL);
    });
    ::close(report[1]);
    QFile reader;
    ASSERT_TRUE(reader.open(report[0], QIODevice::ReadOnly, QFile::AutoCloseHandle));
    QList<QByteArray> lines = reader.readAll().split('\n');
    EXPECT_EQ(test.wait(), -SIGKILL);
    const QString directory = QString::fromUtf8(lines.takeFirst());
    EXPECT_FALSE(directory.isEmpty());
    EXPECT_FALSE(lines.isEmpty());
    for (const QByteArray& process : lines)
        EXPECT_TRUE(eventually([&] { return hasEnded(process.toInt()); }));
    EXPECT_TRUE(eventually([&] { return !QFileInfo::exists(directory); }));
}

TEST_F(SmbServerTest, ServerBehindProxy_MessagesAreRecorded) {
    const SmbServer server;
    ASSERT_EQ(server.problem(), "");
    FaultProxy proxy(server.port());
    EXPECT_THAT(SmbClient(proxy.port(), "ro", "get file.txt -").output(),
                HasSubstr("read only file\n"));
    for (const int command : {FaultProxy::Negotiate, FaultProxy::SessionSetup,
                              FaultProxy::TreeConnect, FaultProxy::Create, FaultProxy::Close}) {
        EXPECT_FALSE(proxy.messages(FaultProxy::Request, command).isEmpty()) << command;
        EXPECT_FALSE(proxy.messages(FaultProxy::Response, command).isEmpty()) << command;
    }
    const QList<FaultProxy::Message> reads = proxy.messages(FaultProxy::Response, FaultProxy::Read);
    ASSERT_FALSE(reads.isEmpty());
    EXPECT_EQ(reads.last().length, 15U);
    EXPECT_TRUE(proxy.waitUntilClosed());

    proxy.on({FaultProxy::Response, FaultProxy::Create}, Fault::reset());
    EXPECT_THAT(SmbClient(proxy.port(), "ro", "get file.txt -").output(),
                HasSubstr("NT_STATUS_CONNECTION_"));
    EXPECT_EQ(proxy.armed(), 0);
}

} // namespace oru::io::test
