// SPDX-License-Identifier: Apache-2.0
// MaintenanceJob: signals, results and cancelling.
#include "maintenancejobtest.h"

#include <oruio/error.h>

#include "support/suite/logcapture.h"
#include "support/suite/qtprint.h"
#include "support/system/localecodec.h"

#include <gmock/gmock.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QThread>
#include <QTimer>

#include <cerrno>
#include <csignal>
#include <memory>

namespace oru::io::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using MaintenanceJobTest = JobTest;

const QByteArray wholeFormat = scriptFunctions + R"(
report 'phase wiping'
report 'surprise 7'
report committed
report 'phase making the file system'
report 'progress 250'
report 'progress 1000'
echo done; echo warning >&2
exit 0
)";
const QStringList formatSignals = {"wiping -1", "making the file system -1",
                                   "making the file system 1000", "end 0"};

/// Leaves out progress that is not the last of its phase: whether it is reported depends on when
/// the pipe is read.
QStringList withoutSteps(QStringList signalList) {
    signalList.removeAll("making the file system 250");
    return signalList;
}

SysCmd formatCommand() {
    return SysCmd("format").addArg("/dev/sda");
}

/// Runs the event loop until the job ends.
void runEventLoop(MaintenanceJob& job) {
    QEventLoop loop;
    QObject::connect(&job, &MaintenanceJob::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(20'000, &loop, &QEventLoop::quit);
    loop.exec();
}

} // namespace

TEST_F(MaintenanceJobTest, WithoutEventLoop_WaitEmitsSignals) {
    const MaintenanceProgram program(wholeFormat);
    ASSERT_EQ(program.problem(), "");
    MaintenanceJob job(formatCommand());
    const Signals signalsOf(job);
    EXPECT_FALSE(job.isRunning());
    EXPECT_EQ(job.status(), -1);
    EXPECT_EQ(job.permille(), -1);
    EXPECT_TRUE(job.waitForFinished()); // it was not started
    ASSERT_EQ(job.start(), 0);
    EXPECT_TRUE(job.isRunning());
    EXPECT_THAT(signalsOf.list, IsEmpty());
    EXPECT_TRUE(job.waitForFinished());
    EXPECT_EQ(withoutSteps(signalsOf.list), formatSignals);
    EXPECT_FALSE(job.isRunning());
    EXPECT_EQ(job.status(), 0);
    EXPECT_EQ(job.phase(), "making the file system");
    EXPECT_EQ(job.permille(), 1000);
    EXPECT_EQ(job.lastLines(), QStringList({"done", "warning"}));
    EXPECT_EQ(job.reason(), ""); // it has not failed
    EXPECT_TRUE(job.waitForFinished());
    EXPECT_EQ(withoutSteps(signalsOf.list), formatSignals); // once
    EXPECT_EQ(program.calls(), (QList<QStringList>{{"format", "/dev/sda"}}));
}

TEST_F(MaintenanceJobTest, EventLoop_EmitsSignals) {
    const MaintenanceProgram program(wholeFormat);
    int none = 0;
    const QCoreApplication application(none, nullptr);
    MaintenanceJob job(formatCommand());
    const Signals signalsOf(job);
    ASSERT_EQ(job.start(), 0);
    runEventLoop(job);
    EXPECT_EQ(withoutSteps(signalsOf.list), formatSignals);
}

TEST_F(MaintenanceJobTest, EventLoopOfOtherThread_EmitsSignals) {
    const MaintenanceProgram program(wholeFormat);
    int none = 0;
    const QCoreApplication application(none, nullptr);
    QStringList found;
    const std::unique_ptr<QThread> thread(QThread::create([&found] {
        MaintenanceJob job(formatCommand());
        const Signals signalsOf(job);
        EXPECT_EQ(job.start(), 0);
        runEventLoop(job);
        found = signalsOf.list;
    }));
    thread->start();
    ASSERT_TRUE(thread->wait(30'000));
    EXPECT_EQ(withoutSteps(found), formatSignals);
}

// A timer would find the end of each program up to 50 ms late.
TEST_F(MaintenanceJobTest, EventLoop_TakesNotLongerThanExec) {
    const MaintenanceProgram program("exit 1");
    int none = 0;
    const QCoreApplication application(none, nullptr);
    constexpr int times = 20;
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < times; ++i)
        EXPECT_EQ(formatCommand().exec(1), 1);
    const qint64 ofExec = timer.restart();
    for (int i = 0; i < times; ++i) {
        MaintenanceJob job(formatCommand());
        ASSERT_EQ(job.start(), 0);
        runEventLoop(job);
        EXPECT_EQ(job.status(), 1);
    }
    EXPECT_LT(timer.elapsed(), 3 * ofExec + times * 20);
}

TEST_F(MaintenanceJobTest, StartAndShortWait_ReturnWhileTheProgramRuns) {
    const MaintenanceProgram program(scriptFunctions + "await " + file("go") + "; exit 4");
    MaintenanceJob job(formatCommand());
    ASSERT_EQ(job.start(), 0);
    EXPECT_FALSE(job.waitForFinished(0));
    EXPECT_FALSE(job.waitForFinished(30));
    EXPECT_TRUE(job.isRunning());
    make("go");
    EXPECT_TRUE(job.waitForFinished(30'000));
    EXPECT_EQ(job.status(), 4);
}

TEST_F(MaintenanceJobTest, TwoJobs_RunAtTheSameTime) {
    const MaintenanceProgram program(scriptFunctions + "await $2; exit 0");
    MaintenanceJob first(SysCmd("fsck").addArg(temp / "first"));
    MaintenanceJob second(SysCmd("fsck").addArg(temp / "second"));
    ASSERT_EQ(first.start(), 0);
    ASSERT_EQ(second.start(), 0);
    make("second");
    EXPECT_TRUE(second.waitForFinished(30'000));
    EXPECT_TRUE(first.isRunning());
    make("first");
    EXPECT_TRUE(first.waitForFinished(30'000));
}

TEST_F(MaintenanceJobTest, ProgramReportsNothing_RunsAsWithExec) {
    const MaintenanceProgram program("echo \"out $run\"; echo \"err $run\" >&2; [ $run = 3 ]");
    LogCapture log("libio=12");
    EXPECT_EQ(SysCmd("fsck").addArg("vfat", "-t").exec(3), 0);
    const QStringList messages = log.messages();
    program.calls();
    const MaintenanceProgram again("echo \"out $run\"; echo \"err $run\" >&2; [ $run = 3 ]");
    MaintenanceJob job(SysCmd("fsck").addArg("vfat", "-t"), 3);
    const Signals signalsOf(job);
    ASSERT_EQ(job.start(), 0);
    job.waitForFinished();
    EXPECT_EQ(log.messages(), messages);
    EXPECT_EQ(signalsOf.list, QStringList("end 0"));
    EXPECT_EQ(again.calls().size(), 3);
}

TEST_F(MaintenanceJobTest, FurtherRun_BeginsWithUnknownPhase) {
    const MaintenanceProgram program(scriptFunctions + R"(
        report "phase checking, pass $run"
        report "progress 9"
        [ $run = 2 ])");
    MaintenanceJob job(SysCmd("fsck"), 3);
    const Signals signalsOf(job);
    ASSERT_EQ(job.start(), 0);
    job.waitForFinished();
    EXPECT_THAT(signalsOf.list, ElementsAre("checking, pass 1 -1", "checking, pass 1 9", " -1",
                                            "checking, pass 2 -1", "checking, pass 2 9", "end 0"));
}

TEST_F(MaintenanceJobTest, Fails_LastLinesAndReason) {
    const MaintenanceProgram program(R"(
        seq 1 5000
        printf 'first\n\noruio_sysutils: \303\274ber the \377 disk  \r\n\n' >&2
        exit 22)");
    MaintenanceJob job(formatCommand());
    ASSERT_EQ(job.start(), 0);
    job.waitForFinished();
    EXPECT_EQ(job.status(), 22);
    EXPECT_EQ(job.reason(), QString::fromUtf8("oruio_sysutils: über the \ufffd disk"));
    const QStringList lines = job.lastLines();
    ASSERT_EQ(lines.size(), 22);
    EXPECT_EQ(lines.first(), "4981");
    EXPECT_EQ(lines[19], "5000");
    EXPECT_EQ(lines[20], "first");
    EXPECT_EQ(lines[21], job.reason());
}

TEST_F(MaintenanceJobTest, FailsInSilence_NoReason) {
    const MaintenanceProgram program("exit 1");
    MaintenanceJob job(formatCommand());
    ASSERT_EQ(job.start(), 0);
    job.waitForFinished();
    EXPECT_EQ(job.reason(), "");
    EXPECT_EQ(job.lastLines(), QStringList());
}

TEST_F(MaintenanceJobTest, Killed_MinusOne) {
    const MaintenanceProgram program("kill -9 $$");
    MaintenanceJob job(formatCommand());
    const Signals signalsOf(job);
    ASSERT_EQ(job.start(), 0);
    job.waitForFinished();
    EXPECT_THAT(signalsOf.list, ElementsAre("end -1"));
}

TEST_F(MaintenanceJobTest, ProgramMissing_FinishedWithMinusOne) {
    const MaintenanceProgram program;
    ASSERT_TRUE(QFile::remove(MaintenanceProgram::path()));
    int none = 0;
    const QCoreApplication application(none, nullptr);
    for (const bool hasLoop : {false, true}) {
        LogCapture log("libio=9");
        MaintenanceJob job(formatCommand(), 3);
        const Signals signalsOf(job);
        ASSERT_EQ(job.start(), 0);
        if (hasLoop)
            runEventLoop(job);
        else
            job.waitForFinished();
        EXPECT_THAT(signalsOf.list, ElementsAre("end -1"));
        EXPECT_EQ(log.messages(), QStringList("libio 9 Unable to exec SysCmd format /dev/sda\n"));
        EXPECT_EQ(job.lastLines(), QStringList());
        EXPECT_EQ(job.reason(), "");
    }
}

TEST_F(MaintenanceJobTest, CannotBeStarted_ErrnoAndNoSignal) {
    const MaintenanceProgram program;
    const auto startError = [](const SysCmd& command, int runs) {
        MaintenanceJob job(command, runs);
        const Signals signalsOf(job);
        liberrno = NotFound;
        errno = 0;
        EXPECT_EQ(job.start(), -1);
        const int error = errno;
        EXPECT_EQ(liberrno, Ok);
        EXPECT_FALSE(job.isRunning());
        EXPECT_TRUE(job.waitForFinished());
        EXPECT_EQ(job.status(), -1);
        EXPECT_THAT(signalsOf.list, IsEmpty());
        EXPECT_EQ(job.start(), -1);
        EXPECT_EQ(errno, EALREADY);
        return error;
    };
    EXPECT_EQ(startError(formatCommand(), 0), EINVAL);
    EXPECT_EQ(startError(SysCmd("fsck").addArg(QString("a") + QChar(0)), 1), EINVAL);
    EXPECT_EQ(startError(SysCmd("fsck").addArg(QString(QChar(0xd800))), 1), EILSEQ);
    {
        const LocaleCodec latin("ISO-8859-1");
        EXPECT_EQ(startError(SysCmd("fsck").addArg(QString::fromUtf8("bä")), 1), EILSEQ);
    }
    struct sigaction ignore = {};
    struct sigaction before = {};
    ignore.sa_handler = SIG_IGN;
    ASSERT_EQ(sigaction(SIGCHLD, &ignore, &before), 0);
    EXPECT_EQ(startError(formatCommand(), 1), ECHILD);
    ASSERT_EQ(sigaction(SIGCHLD, &before, nullptr), 0);
    EXPECT_THAT(program.calls(), IsEmpty());
}

TEST_F(MaintenanceJobTest, StartedTwice_EALREADY) {
    const MaintenanceProgram program;
    MaintenanceJob job(formatCommand());
    ASSERT_EQ(job.start(), 0);
    EXPECT_EQ(job.start(), -1);
    EXPECT_EQ(errno, EALREADY);
    job.waitForFinished();
    EXPECT_EQ(job.start(), -1);
    EXPECT_EQ(errno, EALREADY);
    EXPECT_EQ(program.calls().size(), 1);
}

TEST_F(MaintenanceJobTest, DeletedInItsSignals_NothingIsUsedAfterwards) {
    const MaintenanceProgram program(wholeFormat);
    int none = 0;
    const QCoreApplication application(none, nullptr);
    for (const bool hasLoop : {false, true}) {
        for (const bool atEnd : {false, true}) {
            auto job = std::make_unique<MaintenanceJob>(formatCommand());
            QEventLoop loop;
            const auto remove = [&] {
                job.reset();
                loop.quit();
            };
            if (atEnd)
                QObject::connect(job.get(), &MaintenanceJob::finished, remove);
            else
                QObject::connect(job.get(), &MaintenanceJob::progressed, remove);
            ASSERT_EQ(job->start(), 0);
            if (hasLoop)
                loop.exec();
            else
                EXPECT_TRUE(job->waitForFinished());
            EXPECT_EQ(job, nullptr);
        }
    }
}

TEST_F(MaintenanceJobTest, ReceiverWaits_EachSignalOnce) {
    const MaintenanceProgram program(wholeFormat);
    MaintenanceJob job(formatCommand());
    const Signals signalsOf(job);
    QObject::connect(&job, &MaintenanceJob::progressed, [&job] { job.waitForFinished(); });
    ASSERT_EQ(job.start(), 0);
    job.waitForFinished();
    EXPECT_EQ(signalsOf.list.filter("end"), QStringList("end 0"));
    EXPECT_EQ(signalsOf.list.filter("wiping"), QStringList("wiping -1"));
}

// --- cancelling -----------------------------------------------------------------------------

namespace {

struct CancelCase {
    const char* command;
    const char* report; ///< what the program has reported; null for nothing
    int error;          ///< of cancel(); 0 when it is accepted
};

std::ostream& operator<<(std::ostream& out, const CancelCase& tested) {
    return out << tested.command << ", " << (tested.report ? tested.report : "nothing");
}

class CancelTable : public JobTest, public testing::WithParamInterface<CancelCase> {};

} // namespace

TEST_P(CancelTable, Cancel_AcceptedOrRefused) {
    const CancelCase& tested = GetParam();
    const QByteArray report = tested.report ? QByteArray("report '") + tested.report + "'" : ":";
    const MaintenanceProgram program(scriptFunctions + "trap 'exit 31' TERM; " + report + "; : >" +
                                     file("reported") + "; await " + file("go") + "; exit 5");
    MaintenanceJob job(SysCmd(tested.command), 3);
    const Signals signalsOf(job);
    ASSERT_EQ(job.start(), 0);
    ASSERT_TRUE(appears("reported"));
    errno = 0;
    liberrno = NotFound;
    const int result = job.cancel();
    EXPECT_EQ(result == 0 ? 0 : errno, tested.error);
    EXPECT_EQ(liberrno, Ok);
    if (tested.error == 0) {
        EXPECT_TRUE(job.waitForFinished(30'000));
        EXPECT_EQ(job.status(), 31);
        EXPECT_EQ(program.calls().size(), 1) << "no further run";
    } else {
        EXPECT_FALSE(job.waitForFinished(30));
        make("go");
        EXPECT_TRUE(job.waitForFinished(30'000));
        EXPECT_EQ(job.status(), 5);
        EXPECT_EQ(program.calls().size(), 3);
    }
    EXPECT_EQ(job.cancel(), -1);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_EQ(signalsOf.list.filter("end").size(), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, CancelTable,
    testing::Values(
        CancelCase{"format", nullptr, EBUSY}, CancelCase{"format", "unknown line", EBUSY},
        CancelCase{"format", "phase wiping", 0}, CancelCase{"format", "committed", EBUSY},
        CancelCase{"mkfs", nullptr, EBUSY}, CancelCase{"mkfs", "phase waiting for the disk", 0},
        CancelCase{"mkfs", "committed", EBUSY}, CancelCase{"fsck", nullptr, EBUSY},
        CancelCase{"fsck", "progress 1", 0}, CancelCase{"fsck", "committed", EBUSY},
        CancelCase{"mount.nfs", nullptr, 0}, CancelCase{"mount.nfs", "phase mounting", 0},
        CancelCase{"mount.nfs", "committed", 0}, CancelCase{"other", nullptr, EBUSY},
        CancelCase{"other", "phase anything", EBUSY}));

TEST_F(MaintenanceJobTest, CancelBeforeStart_ESRCH) {
    MaintenanceJob job(SysCmd("mount.nfs"));
    EXPECT_EQ(job.cancel(), -1);
    EXPECT_EQ(errno, ESRCH);
}

// The program may pass the point of no return before it gets the signal.
TEST_F(MaintenanceJobTest, SignalIgnored_StatusOfTheWholeCommand) {
    const MaintenanceProgram program(scriptFunctions + "trap '' TERM; report 'phase wiping'; : >" +
                                     file("reported") + "; await " + file("go") + "; exit 0");
    MaintenanceJob job(formatCommand());
    ASSERT_EQ(job.start(), 0);
    ASSERT_TRUE(appears("reported"));
    EXPECT_EQ(job.cancel(), 0);
    EXPECT_FALSE(job.waitForFinished(30));
    make("go");
    EXPECT_TRUE(job.waitForFinished(30'000));
    EXPECT_EQ(job.status(), 0);
}

TEST_F(MaintenanceJobTest, CancelledAtOnce_SignalReachesTheProgramOnly) {
    const MaintenanceProgram program("exec sleep 60");
    static volatile sig_atomic_t signalsHere = 0;
    struct sigaction count = {};
    struct sigaction before = {};
    count.sa_handler = [](int) { signalsHere = signalsHere + 1; };
    ASSERT_EQ(sigaction(SIGTERM, &count, &before), 0);
    MaintenanceJob job(SysCmd("mount.nfs"));
    ASSERT_EQ(job.start(), 0);
    EXPECT_EQ(job.cancel(), 0);
    EXPECT_TRUE(job.waitForFinished(30'000));
    EXPECT_EQ(job.status(), -1); // killed by the signal
    EXPECT_EQ(signalsHere, 0);
    ASSERT_EQ(sigaction(SIGTERM, &before, nullptr), 0);
}

} // namespace oru::io::test
