// SPDX-License-Identifier: Apache-2.0
#include "support/system/udevd.h"

#include "support/system/files.h"
#include "support/system/loopdisk.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace oru::io::test {

namespace {

constexpr char rulesFile[] = "/run/udev/rules.d/10-test.rules";
constexpr char logFile[] = "/run/udev/log";

// For "remove" udevd adds the properties from its database.
constexpr char rules[] = R"(SUBSYSTEM!="block", GOTO="end"
ACTION=="remove", GOTO="end"
ENV{DEVTYPE}=="disk", IMPORT{file}="/run/id-paths/$kernel"
ENV{DEVTYPE}=="partition", IMPORT{parent}="ID_*"
ENV{ID_PATH}=="", GOTO="end"
IMPORT{builtin}="blkid"
LABEL="end"
)";

QString udevdProgram() {
    return QStandardPaths::findExecutable("systemd-udevd", {"/usr/lib/systemd", "/lib/systemd"});
}

QString idPathFile(const QString& disk) {
    return "/run/id-paths/" + disk;
}

/// Replaces the child process with udevd.
int runUdevd(const QByteArray& program) {
    const int log = ::open(logFile, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ::dup2(log, STDOUT_FILENO);
    ::dup2(log, STDERR_FILENO);
    // The program chooses its function by its name.
    ::execl(program.constData(), "systemd-udevd", nullptr);
    return 127;
}

} // namespace

QString Udevd::missing() {
    if (udevdProgram().isEmpty())
        return QStringLiteral("systemd-udevd is not installed");
    const QString tool = missingTool({"udevadm"});
    return tool.isEmpty() ? QString() : tool + " is not installed";
}

Udevd::Udevd() {
    // Hides the system's rules, and /dev/block: links created there would be visible to all.
    QDir().mkpath("/dev/block");
    for (const char* directory : {"/run", "/dev/block", "/etc/udev/rules.d",
                                  "/usr/local/lib/udev/rules.d", "/usr/lib/udev/rules.d"}) {
        if (QFile::exists(directory) && !mountTmpfs(directory)) {
            m_problem =
                QStringLiteral("cannot mount on %1: %2").arg(directory, std::strerror(errno));
            return;
        }
    }
    if (!QDir().mkpath("/run/udev/rules.d") || !QDir().mkpath("/run/id-paths") ||
        !makeFile(rulesFile, rules)) {
        m_problem = QStringLiteral("cannot write to /run");
        return;
    }
    const QByteArray program = udevdProgram().toUtf8();
    m_process = std::make_unique<ChildProcess>([&] { return runUdevd(program); });
    if (!eventually([] { return QFile::exists("/run/udev/control"); }) || !settle())
        m_problem = "udevd does not answer: " + QString::fromUtf8(contents(logFile));
}

Udevd::~Udevd() {
    if (m_process) {
        m_process->signal(SIGTERM);
        m_process->wait();
        m_process.reset();
    }
    while (!m_mounted.isEmpty())
        ::umount2(qPrintable(m_mounted.takeLast()), MNT_DETACH);
}

bool Udevd::mountTmpfs(const QString& directory) {
    if (::mount("tmpfs", qPrintable(directory), "tmpfs", 0, "mode=755") != 0)
        return false;
    m_mounted.append(directory);
    return true;
}

QString Udevd::problem() const {
    return m_problem;
}

bool Udevd::setIdPath(const QString& disk, const QString& idPath) const {
    // Events queued before must not get it.
    return settle() && makeFile(idPathFile(disk), "ID_PATH=" + idPath.toUtf8() + '\n');
}

void Udevd::clearIdPath(const QString& disk) const {
    settle();
    QFile::remove(idPathFile(disk));
}

bool Udevd::settle() const {
    return runTool({"udevadm", "settle", "--timeout=30"}).status == 0;
}

} // namespace oru::io::test
