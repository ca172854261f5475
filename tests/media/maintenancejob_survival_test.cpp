// SPDX-License-Identifier: Apache-2.0
// Programs that outlive the job, the process or the terminal that started them; and their output.
#include "maintenancejobtest.h"

#include "support/suite/logcapture.h"
#include "support/suite/qtprint.h"
#include "support/system/cancellablethread.h"

#include <gtest/gtest.h>

#include <QDir>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <functional>
#include <memory>

#include <sys/wait.h>
#include <unistd.h>

namespace oru::io::test {
namespace {

using MaintenanceSurvival = JobTest;

/// How many children this process has, with those that have ended and were not waited for.
int children() {
    int count = 0;
    for (const QString& pid : QDir("/proc").entryList({"[0-9]*"}, QDir::Dirs)) {
        const QByteArray afterName = contents("/proc/" + pid + "/stat").split(')').last();
        count += afterName.split(' ').value(2).toInt() == getpid();
    }
    return count;
}

/// The value of a line of /proc/self/status, in KiB.
long kibOf(const char* key) {
    for (const QByteArray& line : contents("/proc/self/status").split('\n')) {
        if (line.startsWith(key))
            return line.mid(line.indexOf(':') + 1).trimmed().split(' ').first().toLong();
    }
    return -1;
}

const QByteArray flood = "head -c 20000000 /dev/zero && head -c 20000000 /dev/zero >&2";

} // namespace

TEST_F(MaintenanceSurvival, JobDeleted_ProgramRunsOnAndIsReaped) {
    const MaintenanceProgram program(scriptFunctions + ": >" + file("started-$run") + "; await " +
                                     file("go") + "; " + flood + " && : >" + file("done-$run"));
    auto job = std::make_unique<MaintenanceJob>(SysCmd("fsck"), 3);
    ASSERT_EQ(job->start(), 0);
    job.reset(); // at once
    EXPECT_TRUE(appears("started-1"));
    job = std::make_unique<MaintenanceJob>(SysCmd("fsck"), 3);
    ASSERT_EQ(job->start(), 0);
    EXPECT_TRUE(appears("started-2")); // nobody has advanced the job until here
    job.reset();
    make("go");
    EXPECT_TRUE(appears("done-1"));
    EXPECT_TRUE(appears("done-2"));
    EXPECT_TRUE(eventually([] { return children() == 0; })) << "no zombie stays";
    EXPECT_EQ(program.calls().size(), 2) << "no further run";
}

// A thread that is cancelled leaves no program without a caller that waits for it. This one reaches
// no cancellation point after the command.
TEST_F(MaintenanceSurvival, ThreadCancelled_GetsResultOfTheCommand) {
    const MaintenanceProgram program(scriptFunctions + ": >" + file("started") + "; await " +
                                     file("go") + "; exit 3");
    for (const bool isJob : {false, true}) {
        int status = -1;
        CancellableThread thread([&] {
            if (isJob) {
                MaintenanceJob job(SysCmd("fsck"));
                job.start();
                job.waitForFinished();
                status = job.status();
            } else {
                status = SysCmd("fsck").exec(1);
            }
        });
        EXPECT_TRUE(appears("started"));
        thread.cancel();
        make("go");
        EXPECT_FALSE(thread.join());
        EXPECT_EQ(status, 3);
        EXPECT_TRUE(QFile::remove(temp / "started") && QFile::remove(temp / "go"));
    }
}

namespace {

/// How a process runs a command: waiting for it or not.
class KilledOwner : public JobTest, public testing::WithParamInterface<bool> {};

} // namespace

TEST_P(KilledOwner, ProgramWritesAndEndsByItself) {
    const MaintenanceProgram program(scriptFunctions + ": >" + file("started") + "; await " +
                                     file("go") + "; " + flood + "; echo \"$?\" >" + file("wrote") +
                                     "; mv " + file("wrote") + " " + file("done"));
    ChildProcess owner([] {
        if (GetParam())
            return SysCmd("fsck").exec(3);
        MaintenanceJob job(SysCmd("fsck"), 3);
        job.start();
        job.waitForFinished();
        return 0;
    });
    ASSERT_TRUE(appears("started"));
    owner.signal(SIGKILL);
    ASSERT_EQ(owner.wait(), -SIGKILL);
    make("go");
    ASSERT_TRUE(appears("done"));
    EXPECT_EQ(contents(temp / "done"), "0\n");
}

// A terminal sends the signal to each process of its foreground process group.
TEST_P(KilledOwner, CtrlC_DoesNotReachTheProgram) {
    const MaintenanceProgram program(scriptFunctions + ": >" + file("started") + "; await " +
                                     file("go") + "; exit 6");
    ChildProcess owner([] {
        setpgid(0, 0);
        signal(SIGINT, [](int) {});
        signal(SIGHUP, [](int) {});
        if (GetParam())
            return SysCmd("fsck").exec(1);
        MaintenanceJob job(SysCmd("fsck"));
        job.start();
        job.waitForFinished();
        return job.status();
    });
    ASSERT_TRUE(appears("started"));
    ASSERT_EQ(kill(-owner.pid(), SIGINT), 0);
    ASSERT_EQ(kill(-owner.pid(), SIGHUP), 0);
    make("go");
    EXPECT_EQ(owner.wait(), 6);
}

INSTANTIATE_TEST_SUITE_P(ExecAndJob, KilledOwner, testing::Bool(),
                         [](const auto& tested) { return tested.param ? "Exec" : "Job"; });

// The program waits until the memory of its output is freed.
TEST_F(MaintenanceSurvival, OutputOf300MB_MemoryIsBounded) {
    const MaintenanceProgram program(R"sh(
        head -c 300000000 /dev/zero | tr '\0' 'o'
        echo; echo the end
        tries=0
        while [ "$(stat -L -c %b /proc/$$/fd/1)" -gt $((4 << 20 >> 9)) ]; do
            sleep 0.01
            tries=$((tries + 1)); [ $tries -lt 1000 ] || exit 9
        done
        exit 1)sh");
    std::ofstream("/proc/self/clear_refs") << 5; // VmHWM begins again
    const long before = kibOf("VmHWM");
    const LogCapture log("libio=10"); // 1 MiB is read for it
    EXPECT_EQ(SysCmd("fsck").exec(1), 1);
    MaintenanceJob job(SysCmd("fsck"));
    ASSERT_EQ(job.start(), 0);
    job.waitForFinished();
    EXPECT_EQ(job.status(), 1);
    EXPECT_EQ(job.lastLines().last(), "the end");
    const long growth = kibOf("VmHWM") - before;
    RecordProperty("KiB", static_cast<int>(growth));
    EXPECT_LT(growth, 16 << 10);
}

TEST_F(MaintenanceSurvival, ProgressNotRead_ProgramDoesNotBlock) {
    const MaintenanceProgram program(R"sh(exec bash -c '
        printf -v comment "%100s"
        for ((i = 0; i < 1001; ++i)); do
            printf "progress $i\\n$comment\\n" >&$ORUIO_PROGRESS_FD
        done 2>/dev/null
        : >)sh" + file("done") + '\'');
    MaintenanceJob job(SysCmd("fsck"));
    const Signals signalsOf(job);
    ASSERT_EQ(job.start(), 0);
    EXPECT_TRUE(appears("done")); // while nothing reads the pipe
    EXPECT_TRUE(job.waitForFinished(30'000));
    EXPECT_EQ(job.status(), 0);
    EXPECT_GE(signalsOf.list.size(), 2);
    EXPECT_LE(signalsOf.list.size(), 10); // not one for each line
}

TEST_F(MaintenanceSurvival, DescriptorsOfTheProgram_StandardAndProgressOnly) {
    const MaintenanceProgram program("ls /proc/$$/fd >" + file("descriptors") +
                                     "; echo \"${ORUIO_PROGRESS_FD-none}\" >" + file("variable") +
                                     "; exit 0");
    // 10 and more are the shell's own.
    const auto below10 = [this](const QByteArray& other) {
        QByteArrayList found;
        for (const QByteArray& number : contents(temp / "descriptors").split('\n')) {
            if (number.toInt() > STDERR_FILENO && number != other && number.toInt() < 10)
                found += number;
        }
        return found;
    };
    qputenv("ORUIO_PROGRESS_FD", "7"); // of another program that has started this one
    EXPECT_EQ(SysCmd("fsck").exec(1), 0);
    qunsetenv("ORUIO_PROGRESS_FD");
    EXPECT_EQ(below10(""), QByteArrayList());
    EXPECT_EQ(contents(temp / "variable"), "none\n");
    MaintenanceJob job(SysCmd("fsck"));
    ASSERT_EQ(job.start(), 0);
    job.waitForFinished();
    const QByteArray variable = contents(temp / "variable").trimmed();
    EXPECT_GT(variable.toInt(), STDERR_FILENO);
    EXPECT_EQ(below10(variable), QByteArrayList());
    EXPECT_TRUE(contents(temp / "descriptors").split('\n').contains(variable));
}

TEST_F(MaintenanceSurvival, DescriptorsOfTheProcess_AreClosed) {
    const MaintenanceProgram program;
    EXPECT_EQ(SysCmd("fsck").exec(1), 0);
    const int before = openDescriptors();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(SysCmd("fsck").exec(1), 0);
        MaintenanceJob job(SysCmd("fsck"));
        ASSERT_EQ(job.start(), 0);
        job.waitForFinished();
    }
    EXPECT_EQ(openDescriptors(), before);
}

// A daemon may have closed them.
TEST_F(MaintenanceSurvival, StandardDescriptorsClosed_SameResults) {
    const auto resultOf = [](const std::function<int()>& work) {
        ChildProcess process([&] {
            ::close(STDIN_FILENO);
            ::close(STDOUT_FILENO);
            ::close(STDERR_FILENO);
            return work();
        });
        return process.wait();
    };
    const auto fails = [] {
        MaintenanceJob job(SysCmd("fsck"));
        job.start();
        job.waitForFinished();
        const bool isRight = job.status() == 3 && job.lastLines() == QStringList({"out", "err"});
        return isRight && SysCmd("fsck").exec(1) == 3 && SysCmd::failure() == "err" ? 0 : 1;
    };
    const MaintenanceProgram program("read -r line && exit 4; echo out; echo err >&2; exit 3");
    EXPECT_EQ(resultOf(fails), 0);
    ASSERT_TRUE(QFile::remove(MaintenanceProgram::path()));
    EXPECT_EQ(resultOf([] { return SysCmd("fsck").exec(1) == -1 ? 0 : 1; }), 0);
}

// A program may open the path of its own standard error, which truncates a file.
TEST_F(MaintenanceSurvival, ProgramOpensItsStandardErrorAgain_LaterOutputIsKept) {
    const MaintenanceProgram program(
        "echo first >&2; echo second >/proc/self/fd/2; echo third >&2; exit 1");
    MaintenanceJob job(SysCmd("fsck"));
    ASSERT_EQ(job.start(), 0);
    job.waitForFinished();
    EXPECT_EQ(job.lastLines(), QStringList({"second", "third"}));
}

} // namespace oru::io::test
