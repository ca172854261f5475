// SPDX-License-Identifier: Apache-2.0
#include "support/system/smbserver.h"

#include "support/system/childprocess.h"
#include "support/system/files.h"

#include <QDir>
#include <QStandardPaths>

#include <csignal>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace oru::io::test {

namespace {

/// The password for smbpasswd(5): the MD4 sum of SmbServer::password in UTF-16. Writing the file is
/// instant, while pdbedit takes as long as a start of the server.
constexpr char passwordHash[] = "ED50BDC9FAA370E31AC4EE119FD51F48";

/// smb.conf(5) without the shares. %1 is the server's directory, %2 the port. The server uses no
/// files of the system and no other services, and starts only the helpers that it needs. "change
/// notify" is off: its helper starts later than the listener, and connections made before that
/// fail.
constexpr char configuration[] = R"([global]
server role = standalone server
workgroup = TESTGRP
netbios name = TESTSRV
interfaces = 127.0.0.1
bind interfaces only = yes
smb ports = %2
private dir = %1/private
lock directory = %1/state
state directory = %1/state
cache directory = %1/state
pid directory = %1/state
ncalrpc dir = %1/state/ncalrpc
binddns dir = %1/state/binddns
passdb backend = smbpasswd:%1/private/smbpasswd
username map = %1/users
map to guest = Bad User
guest account = nobody
server min protocol = SMB2_02
disable netbios = yes
disable spoolss = yes
load printers = no
printcap name = /dev/null
rpc start on demand helpers = no
usershare max shares = 0
change notify = no
log level = 1
max log size = 0
)";

QString smbdProgram() {
    const QString program = QStandardPaths::findExecutable("smbd");
    // /usr/sbin is often missing in the PATH of users other than root.
    return !program.isEmpty() ? program : QStandardPaths::findExecutable("smbd", {"/usr/sbin"});
}

QString accountName() {
    const struct passwd* const account = getpwuid(geteuid());
    return account ? QString::fromLocal8Bit(account->pw_name) : QString();
}

void makeDirectory(const QString& path, mode_t mode) {
    QDir().mkpath(path);
    ::chmod(qPrintable(path), mode); // independent of the umask
}

/// Starts a program in a new session. It inherits only its standard descriptors: a socket of the
/// test that is also open in another process would stay open when the test closes it.
pid_t spawn(const QStringList& command, int input, const QString& output) {
    std::vector<std::string> words;
    for (const QString& word : command)
        words.push_back(word.toStdString());
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, 0);
    posix_spawn_file_actions_addopen(&actions, 1, qPrintable(output), O_WRONLY | O_CREAT | O_APPEND,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);

    pid_t pid;
    if (posix_spawn(&pid, arguments[0], &actions, &attributes, arguments.data(), environ) != 0)
        std::abort();
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

/// Reads /proc/net/tcp: a connection would make smbd start a process.
bool isListening(quint16 port) {
    const QString socket = QStringLiteral(":%1 00000000:0000 0A ").arg(port, 4, 16, QChar('0'));
    return contents("/proc/net/tcp").contains(socket.toUpper().toLatin1());
}

bool hasEnded(pid_t pid) {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == pid;
}

} // namespace

QString SmbServer::missing() {
    if (smbdProgram().isEmpty())
        return QStringLiteral("smbd is not installed");
    if (accountName().isEmpty())
        return QStringLiteral("this user has no account, which smbd needs");
    return {};
}

SmbServer::SmbServer(const Options& options) : m_port(boundSocket()) {
    writeFiles(options);
    restart();
}

SmbServer::~SmbServer() {
    kill();
}

SmbServer& SmbServer::shared() {
    // Never destroyed: at the exit of the process the parts of Qt that the destructor needs are
    // gone. The guard kills smbd.
    static auto& server = *new SmbServer;
    QDir(server.m_directory / "shares").removeRecursively();
    server.writeFiles({});
    server.cont();
    if (!isListening(server.port()))
        server.restart();
    return server;
}

void SmbServer::writeFiles(const Options& options) {
    const QString account = accountName();
    const QString forUser = QStringLiteral("valid users = ") + account;
    QMap<QString, QStringList> shares = options.shares;
    shares["rw"] = QStringList{forUser, "read only = no"};
    shares["rw2"] = QStringList{forUser, "read only = no"};
    shares["ro"] = QStringList{forUser, "read only = yes"};
    shares["guest"] = QStringList{"guest ok = yes", "guest only = yes", "read only = no"};

    // A server of root accesses the files of guests as another user.
    makeDirectory(m_directory.path(), 0755);
    makeDirectory(m_directory / "state", 0755);
    makeDirectory(m_directory / "private", 0700);
    QString config = QString::fromLatin1(configuration).arg(m_directory.path()).arg(port());
    config += options.global.join('\n') + '\n';
    for (auto share = shares.cbegin(); share != shares.cend(); ++share) {
        makeDirectory(directory(share.key()), share.key() == "guest" ? 0777 : 0755);
        config += QStringLiteral("[%1]\npath = %2\n").arg(share.key(), directory(share.key()));
        config += share.value().join('\n') + '\n';
    }
    makeFile(m_directory / "smb.conf", config.toUtf8());
    makeFile(m_directory / "users", (account + " = " + user + '\n').toUtf8());
    makeFile(m_directory / "private/smbpasswd",
             QStringLiteral("%1:%2:%3:%4:[U          ]:LCT-00000001:\n")
                 .arg(account)
                 .arg(geteuid())
                 .arg(QString(32, 'X'), QLatin1String(passwordHash))
                 .toUtf8());
    makeFile(directory("ro") + "/file.txt", "read only file\n");
}

QString SmbServer::problem() const {
    return m_problem;
}

quint16 SmbServer::port() const {
    return m_port.port();
}

QString SmbServer::address() const {
    return QStringLiteral("127.0.0.1:%1").arg(port());
}

QString SmbServer::directory(const QString& share) const {
    return m_directory.path() + "/shares/" + share;
}

bool SmbServer::restart() {
    kill();
    m_problem = missing();
    if (!m_problem.isEmpty())
        return false;
    // The reading end reports end of file when this process ends for any reason. smbd watches for
    // it on its standard input, but not while it is stopped; the guard always does.
    int lifeline[2];
    if (pipe2(lifeline, O_CLOEXEC) == -1)
        std::abort();
    m_lifeline = lifeline[1];
    const QString logFile = m_directory / "log";
    // smbd resolves this machine's name for each connection: a name server that does not answer
    // must not delay it beyond the time-outs of the tests.
    m_smbd = spawn({"/usr/bin/env", "RES_OPTIONS=timeout:1 attempts:1", smbdProgram(), "-F",
                    "--no-process-group", "--debug-stdout", "-s", m_directory / "smb.conf", "-l",
                    m_directory.path()},
                   lifeline[0], logFile);
    m_guard = spawn({"/bin/sh", "-c", R"(read -r _; kill -s KILL -- "-$1"; rm -rf "$2")", "guard",
                     QString::number(m_smbd), m_directory.path()},
                    lifeline[0], logFile);
    ::close(lifeline[0]);
    eventually([this] { return hasEnded(m_smbd) || isListening(port()); }, 30);
    if (!isListening(port()))
        m_problem = QStringLiteral("smbd does not listen:\n") + QString::fromUtf8(log());
    return m_problem.isEmpty();
}

void SmbServer::kill() {
    if (m_smbd == -1)
        return;
    signal(SIGKILL);
    ::kill(m_guard, SIGKILL);
    eventually([this] { return processes().isEmpty(); });
    waitpid(std::exchange(m_smbd, -1), nullptr, 0);
    waitpid(std::exchange(m_guard, -1), nullptr, 0);
    ::close(std::exchange(m_lifeline, -1));
}

void SmbServer::stop() {
    signal(SIGSTOP);
}

void SmbServer::cont() {
    signal(SIGCONT);
}

void SmbServer::signal(int number) {
    if (m_smbd != -1)
        ::kill(-m_smbd, number);
}

QList<pid_t> SmbServer::processes() const {
    QList<pid_t> members;
    for (const QString& name : QDir("/proc").entryList({"[0-9]*"}, QDir::Dirs)) {
        // "PID (NAME) STATE PARENT GROUP ...", where NAME may have spaces.
        const QByteArray stat = contents("/proc/" + name + "/stat");
        const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
        if (fields.size() > 2 && fields[0] != "Z" && fields[2].toInt() == m_smbd)
            members.append(name.toInt());
    }
    return members;
}

QByteArray SmbServer::log() const {
    return contents(m_directory / "log");
}

} // namespace oru::io::test
