// SPDX-License-Identifier: Apache-2.0
// SysCmd.
#include <oruio/error.h>
#include <oruio/maintenancejob.h>
#include <oruio/sysutils.h>

#include "support/doubles/maintenanceprogram.h"
#include "support/suite/logcapture.h"
#include "support/suite/qtprint.h"
#include "support/system/isolated.h"
#include "support/system/localecodec.h"
#include "support/system/tempdir.h"

#include <QElapsedTimer>
#include <QFile>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// execv() writes to standard output and never returns; execve() never returns.
bool execHangs = false;

/// close_range() fails with ENOSYS. CLOSE_RANGE_CLOEXEC needs Linux 5.11.
bool hasNoCloseRange = false;

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

// The definitions in the program take precedence over those in the C library.

extern "C" Q_DECL_EXPORT int execv(const char* path, char* const* arguments) noexcept {
    while (execHangs) {
        [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, "x", 1);
        pause();
    }
    return next<int(const char*, char* const*)>("execv")(path, arguments);
}

// QProcess calls it when the program gets variables of its own.
extern "C" Q_DECL_EXPORT int execve(const char* path, char* const* arguments,
                                    char* const* environment) noexcept {
    while (execHangs)
        pause();
    return next<int(const char*, char* const*, char* const*)>("execve")(path, arguments,
                                                                        environment);
}

extern "C" Q_DECL_EXPORT long syscall(long number, ...) noexcept {
    if (hasNoCloseRange && number == SYS_close_range) {
        errno = ENOSYS;
        return -1;
    }
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long& argument : arguments)
        argument = va_arg(list, long);
    va_end(list);
    return next<long(long, ...)>("syscall")(number, arguments[0], arguments[1], arguments[2],
                                            arguments[3], arguments[4], arguments[5]);
}

namespace oru::io {
namespace {

using test::LogCapture;
using test::MaintenanceProgram;
using test::TempDir;

using SysCmdTest = test::WithMaintenanceProgram;

} // namespace

TEST_F(SysCmdTest, Arguments_PassedUnchanged) {
    const MaintenanceProgram program;
    ASSERT_EQ(program.problem(), "");
    SysCmd command("mkfs");
    command.addArg("ext4", "-t")
        .addArg("/dev/with blanks")
        .addArg("-L \"it's\" $HOME * \\ ;")
        .addArg("two\nlines")
        .addArg(QString(), "-k")
        .addArg(QString())
        .addArg("")
        .addArg("", "")
        .addArg("ümläut");
    EXPECT_EQ(command.exec(1), 0);
    const QStringList expected = {
        "mkfs", "-t", "ext4",  "/dev/with blanks", "-L \"it's\" $HOME * \\ ;", "two\nlines",
        "-k",   "",   "ümläut"};
    EXPECT_EQ(program.calls(), QList<QStringList>{expected});
}

TEST_F(SysCmdTest, ExecHangs_FailsAfterFiveSeconds) {
    const MaintenanceProgram program;
    LogCapture log("libio=9");
    execHangs = true;
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(SysCmd("fsck").addArg("/dev/sda1").exec(3), -1);
    execHangs = false;
    EXPECT_GE(timer.elapsed(), 5000);
    EXPECT_LT(timer.elapsed(), 10000); // no second run
    EXPECT_EQ(log.messages(), QStringList{"libio 9 Unable to exec SysCmd fsck /dev/sda1\n"});
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "the child has been reaped";
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(SysCmdTest, ExecHangsInJob_FinishedAfterFiveSeconds) {
    const MaintenanceProgram program;
    execHangs = true;
    MaintenanceJob job(SysCmd("fsck"), 3);
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(job.start(), 0);
    EXPECT_LT(timer.elapsed(), 4000); // at once
    EXPECT_TRUE(job.waitForFinished());
    execHangs = false;
    EXPECT_GE(timer.elapsed(), 5000);
    EXPECT_LT(timer.elapsed(), 10000);
    EXPECT_EQ(job.status(), -1);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "the child has been reaped";
    EXPECT_EQ(errno, ECHILD);
}

// Nothing has been changed by a program that has not begun.
TEST_F(SysCmdTest, JobDeletedWhileExecHangs_ChildIsKilled) {
    const MaintenanceProgram program;
    execHangs = true;
    {
        MaintenanceJob job(SysCmd("fsck"));
        EXPECT_EQ(job.start(), 0);
    }
    execHangs = false;
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "the child has been reaped";
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(SysCmdTest, ZeroOrNegativeRuns_StartsNothing) {
    const MaintenanceProgram program;
    for (const int runs : {0, -1}) {
        LogCapture log("libio=12");
        EXPECT_EQ(SysCmd("fsck").addArg("/dev/sda1").exec(runs), -1);
        EXPECT_EQ(log.messages(), QStringList{"libio 12 SysCmd: fsck /dev/sda1"});
    }
    EXPECT_TRUE(program.calls().isEmpty());
}

TEST_F(SysCmdTest, Succeeds_OneRun) {
    const MaintenanceProgram program("echo fine; exit 0");
    LogCapture log("libio=12");
    liberrno = NotFound;
    EXPECT_EQ(SysCmd("fsck").exec(3), 0);
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_EQ(log.messages(),
              (QStringList{"libio 12 SysCmd: fsck", "libio 12 Run 1 of 3 completed status 0\n"}));
    EXPECT_EQ(program.calls().size(), 1);
}

TEST_F(SysCmdTest, FailsTwiceThenSucceeds_Zero) {
    const MaintenanceProgram program("echo \"out $run\"; echo \"err $run\" >&2; [ $run = 3 ]");
    LogCapture log("libio=12");
    EXPECT_EQ(SysCmd("fsck").addArg("vfat", "-t").exec(3), 0);
    EXPECT_EQ(program.calls().size(), 3);
    EXPECT_EQ(log.messages(), (QStringList{
                                  "libio 12 SysCmd: fsck -t vfat",
                                  "libio 10 syscmd 'fsck -t vfat' failed\n",
                                  "libio 10 stderr: err 1\n\n",
                                  "libio 10 stdout: out 1\n\n",
                                  "libio 12 Run 1 of 3 completed status 1\n",
                                  "libio 12 'fsck -t vfat': Exited with status 1\n",
                                  "libio 10 syscmd 'fsck -t vfat' failed\n",
                                  "libio 10 stderr: err 2\n\n",
                                  "libio 10 stdout: out 2\n\n",
                                  "libio 12 Run 2 of 3 completed status 1\n",
                                  "libio 12 'fsck -t vfat': Exited with status 1\n",
                                  "libio 12 Run 3 of 3 completed status 0\n",
                              }));
}

TEST_F(SysCmdTest, FailsAlways_LastStatus) {
    const MaintenanceProgram program("exit $((run + 4))");
    EXPECT_EQ(SysCmd("fsck").exec(3), 7);
    EXPECT_EQ(program.calls().size(), 3);
}

TEST_F(SysCmdTest, Failure_LastLineOfTheLastRun) {
    {
        const MaintenanceProgram program("echo \"first $run\" >&2; echo \"last $run\" >&2; exit 2");
        EXPECT_EQ(SysCmd("fsck").exec(3), 2);
        EXPECT_EQ(SysCmd::failure(), "last 3");
        std::thread([] { EXPECT_EQ(SysCmd::failure(), ""); }).join(); // of another thread
        EXPECT_EQ(SysCmd("fsck").exec(0), -1);
        EXPECT_EQ(SysCmd::failure(), "");
    }
    const MaintenanceProgram program("echo bad >&2; [ $run = 2 ]");
    EXPECT_EQ(SysCmd("fsck").exec(1), 1);
    EXPECT_EQ(SysCmd::failure(), "bad");
    EXPECT_EQ(SysCmd("fsck").exec(1), 0);
    EXPECT_EQ(SysCmd::failure(), ""); // a warning of a command that has succeeded
    program.calls();
    EXPECT_EQ(SysCmd("fsck").exec(1), 1);
    ASSERT_TRUE(QFile::remove(MaintenanceProgram::path()));
    EXPECT_EQ(SysCmd("fsck").exec(1), -1);
    EXPECT_EQ(SysCmd::failure(), "");
}

TEST_F(SysCmdTest, Crashes_StatusOfPreviousRun) {
    {
        const MaintenanceProgram program("kill -9 $$");
        LogCapture log("libio=12");
        EXPECT_EQ(SysCmd("fsck").exec(2), -1);
        EXPECT_EQ(program.calls().size(), 2);
        EXPECT_TRUE(log.messages().contains("libio 12 Run 2 of 2 completed status -1\n"));
    }
    {
        const MaintenanceProgram program("[ $run = 2 ] && kill -9 $$; exit 3");
        EXPECT_EQ(SysCmd("fsck").exec(2), 3);
        program.calls();
        EXPECT_EQ(SysCmd("fsck").exec(1), 3);
    }
    {
        const MaintenanceProgram program("[ $run = 2 ] || kill -9 $$");
        EXPECT_EQ(SysCmd("fsck").exec(5), 0);
        EXPECT_EQ(program.calls().size(), 2);
    }
}

TEST_F(SysCmdTest, CannotBeStarted_NotRetried) {
    const MaintenanceProgram program;
    ASSERT_EQ(program.problem(), "");
    const QStringList expected = {"libio 12 SysCmd: fsck", "libio 9 Unable to exec SysCmd fsck\n"};
    QFile file(MaintenanceProgram::path());
    ASSERT_TRUE(file.setPermissions(QFile::ReadOwner));
    {
        LogCapture log("libio=12");
        EXPECT_EQ(SysCmd("fsck").exec(3), -1);
        EXPECT_EQ(log.messages(), expected);
    }
    ASSERT_TRUE(file.remove());
    {
        LogCapture log("libio=12");
        EXPECT_EQ(SysCmd("fsck").exec(3), -1);
        EXPECT_EQ(log.messages(), expected);
    }
}

// Both streams get more than a pipe can hold.
TEST_F(SysCmdTest, LargeOutput_ReadAndBeginningLogged) {
    const QByteArray flood = "head -c 3000000 /dev/zero | tr '\\0' o & "
                             "head -c 3000000 /dev/zero | tr '\\0' e >&2; wait; ";
    {
        const MaintenanceProgram program(flood + "exit 0");
        EXPECT_EQ(SysCmd("fsck").exec(1), 0);
    }
    const MaintenanceProgram program(flood + "exit 1");
    LogCapture log("libio=12");
    EXPECT_EQ(SysCmd("fsck").exec(1), 1);
    const QStringList messages = log.messages();
    ASSERT_EQ(messages.size(), 6);
    EXPECT_TRUE(messages[2].startsWith("libio 10 stderr: eeeeeeeeee")) << messages[2].toStdString();
    EXPECT_TRUE(messages[3].startsWith("libio 10 stdout: oooooooooo")) << messages[3].toStdString();
}

TEST_F(SysCmdTest, ProgramReadsInput_GetsEndOfFile) {
    const MaintenanceProgram program("read answer && exit 1; exit 5");
    EXPECT_EQ(SysCmd("fsck").exec(1), 5);
}

TEST_F(SysCmdTest, Descriptors_NotInherited) {
    const TempDir temp;
    // Above the descriptors that the shell uses for itself.
    const int open = ::open(QFile::encodeName(temp / "film").constData(), O_RDWR | O_CREAT, 0644);
    const int inherited = fcntl(open, F_DUPFD, 100); // without FD_CLOEXEC
    ASSERT_GE(inherited, 100);
    const MaintenanceProgram program("[ ! -e /proc/self/fd/$2 ]");
    struct rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    for (const bool isOld : {false, true}) {
        hasNoCloseRange = isOld;
        EXPECT_EQ(SysCmd("fsck").addArg(QString::number(inherited)).exec(1), 0);
        EXPECT_EQ(fcntl(inherited, F_GETFD), 0); // unchanged in this process
        struct rlimit lowered = before;
        lowered.rlim_cur = 90;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
        EXPECT_EQ(SysCmd("fsck").addArg(QString::number(inherited)).exec(1), 0);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    }
    hasNoCloseRange = false;
    ::close(inherited);
    ::close(open);
}

TEST_F(SysCmdTest, BlockedSignals_NotInherited) {
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const MaintenanceProgram program("kill -TERM $$; exit 0");
    EXPECT_EQ(SysCmd("fsck").exec(1), -1); // killed by SIGTERM
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// With SIGCHLD ignored or SA_NOCLDWAIT, the kernel discards the exit status of children.
TEST_F(SysCmdTest, SigchldIgnored_StartsNothing) {
    const MaintenanceProgram program("exit 3");
    struct sigaction before = {};
    for (const bool isIgnored : {true, false}) {
        struct sigaction action = {};
        action.sa_handler = isIgnored ? SIG_IGN : SIG_DFL;
        action.sa_flags = isIgnored ? 0 : SA_NOCLDWAIT;
        struct sigaction previous = {};
        ASSERT_EQ(sigaction(SIGCHLD, &action, &previous), 0);
        if (isIgnored)
            before = previous;
        LogCapture log("libio=9");
        EXPECT_EQ(SysCmd("fsck").exec(1), -1);
        EXPECT_EQ(log.messages(), QStringList("libio 9 Unable to exec SysCmd fsck\n"));
    }
    ASSERT_EQ(sigaction(SIGCHLD, &before, nullptr), 0);
    EXPECT_TRUE(program.calls().isEmpty());
    EXPECT_EQ(SysCmd("fsck").exec(1), 3);
}

TEST_F(SysCmdTest, UnencodableArgument_StartsNothing) {
    const MaintenanceProgram program;
    for (const QString& bad : {QString("/dev/sda") + QChar(0) + "x", QString(QChar(0xd800))}) {
        LogCapture log("libio=9");
        EXPECT_EQ(SysCmd("format").addArg(bad).exec(3), -1);
        EXPECT_EQ(log.messages().size(), 1);
    }
    EXPECT_TRUE(program.calls().isEmpty());
}

// QProcess encodes arguments with the codec of the locale.
TEST_F(SysCmdTest, ArgumentNotInLocalesCodec_StartsNothing) {
    MaintenanceProgram program;
    const QString label = QString::fromUtf8("bä");
    {
        const test::LocaleCodec latin("ISO-8859-1");
        LogCapture log("libio=9");
        EXPECT_EQ(SysCmd("mkfs").addArg(label).exec(3), -1);
        EXPECT_EQ(log.messages(),
                  QStringList{"libio 9 Unable to exec SysCmd mkfs " + label + '\n'});
        EXPECT_TRUE(program.calls().isEmpty());
        EXPECT_EQ(SysCmd("mkfs").addArg("plain").exec(1), 0);
        program.forget();
    }
    const test::LocaleCodec utf8("UTF-8");
    EXPECT_EQ(SysCmd("mkfs").addArg(label).exec(1), 0);
    EXPECT_EQ(program.calls(), (QList<QStringList>{{"mkfs", label}}));
}

TEST_F(SysCmdTest, Session_IsItsOwn) {
    const MaintenanceProgram program("read -r pid name state parent group session rest "
                                     "</proc/$$/stat; [ $session = $$ ] && [ $group = $$ ]");
    EXPECT_EQ(SysCmd("fsck").exec(1), 0);
}

// Longer than the 30 seconds that Qt waits by default.
TEST_F(SysCmdTest, RunOf31Seconds_WaitedFor) {
    const MaintenanceProgram program("sleep 31; exit 6");
    EXPECT_EQ(SysCmd("fsck").exec(1), 6);
}

TEST_F(SysCmdTest, GrandchildHoldsStreams_NotWaitedFor) {
    const MaintenanceProgram program("sleep 60 & exit 4");
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(SysCmd("fsck").exec(1), 4);
    EXPECT_LT(timer.elapsed(), 30'000);
}

TEST_F(SysCmdTest, SeveralThreads_EachGetsOwnStatus) {
    const MaintenanceProgram program("exit \"$2\"");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            for (int k = 0; k < 5; ++k)
                EXPECT_EQ(SysCmd("fsck").addArg(QString::number(i)).exec(1), i);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace oru::io

#if defined(__SANITIZE_THREAD__)
// Qt is not instrumented: the sanitizer does not see how a closed descriptor's number is passed to
// another thread that reuses it.
extern "C" Q_DECL_EXPORT const char* __tsan_default_suppressions() {
    return "race:libQt5Core.so\n";
}
#endif
