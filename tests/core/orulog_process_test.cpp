// SPDX-License-Identifier: Apache-2.0
// The logging service: its thread, and the exit and forks of the process.
#include "orulog_fixtures.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__SANITIZE_THREAD__)
// Some scenarios create threads in a forked child, which the service supports.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
    return "die_after_fork=0";
}
#endif

namespace orulog::test {

namespace {

/// Forks a child that may log.
pid_t forkWriter() {
    const pid_t child = fork();
    if (child != 0)
        return child;
    setDeadline();
#if defined(__SANITIZE_THREAD__)
    // The sanitizer confuses a thread of the child with a thread of the parent whose stack it
    // reuses. No stack of the parent is large enough for this size.
    pthread_attr_t attributes;
    size_t stackSize = 0;
    REQUIRE(pthread_getattr_default_np(&attributes) == 0);
    REQUIRE(pthread_attr_getstacksize(&attributes, &stackSize) == 0);
    REQUIRE(pthread_attr_setstacksize(&attributes, 2 * stackSize) == 0);
    REQUIRE(pthread_setattr_default_np(&attributes) == 0);
#endif
    return 0;
}

/// Waits for a forked child and requires exit status 0.
void join(pid_t child) {
    int status = 0;
    REQUIRE(child != -1);
    REQUIRE(waitpid(child, &status, 0) == child);
    REQUIRE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

/// The ids (gettid(2)) of the service's threads in this process.
Strings serviceThreads() {
    Strings threads;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        if (contentOf(task.path() / "comm") == "orulog\n")
            threads.push_back(task.path().filename());
    }
    return threads;
}

void countThreads() {
    const int channel = registerChannel("some");
    REQUIRE(oruLogSetThresholds("12") == 0);
    REQUIRE(oruLogSetOutput("stderr") == 0);
    REQUIRE(oruLogFlush() == 0);
    REQUIRE(serviceThreads().empty());
    REQUIRE(log(channel, 10, "first"));
    REQUIRE(oruLogFlush() == 0);
    REQUIRE(serviceThreads().size() == 1);
    REQUIRE(log(channel, 10, "second"));
    REQUIRE(oruLogFlush() == 0);
    REQUIRE(serviceThreads().size() == 1);
}

void readBlockedSignals() {
    REQUIRE(log(registerChannel("some"), 10, "message"));
    REQUIRE(oruLogFlush() == 0);
    std::ifstream status("/proc/self/task/" + serviceThreads().at(0) + "/status");
    unsigned long long blocked = 0;
    for (std::string word; status >> word;) {
        if (word == "SigBlk:")
            status >> std::hex >> blocked;
    }
    for (int signal : {SIGHUP, SIGINT, SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM, SIGTERM, SIGCHLD, SIGIO,
                       SIGXFSZ, SIGPROF})
        REQUIRE(blocked >> (signal - 1) & 1);
    // The mask of the logging thread is restored.
    sigset_t mask;
    REQUIRE(pthread_sigmask(SIG_BLOCK, nullptr, &mask) == 0);
    REQUIRE(!sigismember(&mask, SIGUSR1) && !sigismember(&mask, SIGTERM));
}

void exitWithQueuedMessages() {
    const int channel = registerChannel("some");
    // Static: it blocks until after main().
    static BlockingHook hook;
    for (const auto& text : numbered("", 0, ORULOG_RECORDS))
        REQUIRE(log(channel, 10, text));
    // All messages but the first are still queued when the hook is destroyed.
    hook.waitUntilReached();
}

void exitInTheHook() {
    oruLogSetHook([](const oruLogMsg*, const char*, void*) { exit(0); }, nullptr);
    REQUIRE(log(registerChannel("some"), 10, "last"));
    oruLogFlush();
    failScenario(__FILE__, __LINE__, "the hook ended the process");
}

int lateChannel;

/// Called when the C library flushes its streams, after the destructors of all libraries.
ssize_t logLate(void*, const char*, size_t size) {
    errno = EXDEV;
    REQUIRE(log(lateChannel, 10, "late"));
    REQUIRE(log(lateChannel, 10, "later"));
    REQUIRE(errno == EXDEV);
    REQUIRE(oruLogFlush() == 0);
    return static_cast<ssize_t>(size);
}

void logAfterMain() {
    lateChannel = registerChannel("some");
    REQUIRE(log(lateChannel, 10, "early"));
    cookie_io_functions_t functions{};
    functions.write = logLate;
    FILE* const stream = fopencookie(nullptr, "w", functions);
    REQUIRE(stream && fputs("left in the buffer", stream) >= 0);
}

void closeReaderOfStandardError() {
    int ends[2];
    REQUIRE(pipe(ends) == 0);
    REQUIRE(dup2(ends[1], STDERR_FILENO) == STDERR_FILENO);
    close(ends[1]);
    close(ends[0]);
}

void logWithoutReader() {
    closeReaderOfStandardError();
    REQUIRE(log(registerChannel("some"), 10, "unread"));
    REQUIRE(oruLogFlush() == 0);
    logAfterMain();
}

void logWithoutThreads() {
    pthread_attr_t attributes;
    REQUIRE(pthread_attr_init(&attributes) == 0);
    REQUIRE(pthread_attr_setstacksize(&attributes, SIZE_MAX / 4 * 3 & ~size_t(0xffff)) == 0);
    REQUIRE(pthread_setattr_default_np(&attributes) == 0);
    const int channel = registerChannel("some");
    errno = EXDEV;
    REQUIRE(log(channel, 10, "first"));
    REQUIRE(log(channel, 10, "second"));
    REQUIRE(errno == EXDEV);
    REQUIRE(serviceThreads().empty());
    REQUIRE(oruLogFlush() == 0);
    REQUIRE(takeAll().size() == ORULOG_RECORDS);
}

void logInParentAndChild() {
    const int channel = registerChannel("some");
    BlockingHook hook;
    for (const auto& text : numbered("parent ", 0, ORULOG_RECORDS))
        REQUIRE(log(channel, 10, text));
    hook.waitUntilReached();
    // fork() waits for the message in the hook. Most of the others are still queued then.
    hook.release();
    const pid_t child = forkWriter();
    if (child == 0) {
        REQUIRE(oruLogFlush() == 0);
        // The records that the parent had queued are free in the child.
        REQUIRE(takeAll().size() == ORULOG_RECORDS);
        _exit(0);
    }
    join(child);

    const pid_t logging = forkWriter();
    if (logging == 0) {
        for (const auto& text : numbered("child ", 0, 100))
            REQUIRE(log(channel, 10, text));
        exit(0);
    }
    join(logging);
    logOrWait(channel, 10, "parent after");
}

void forkWhileThreadsLog() {
    constexpr int forks = 25;
    const int channel = registerChannel("some");
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads(4);
    for (auto& thread : threads) {
        thread = std::thread([&] {
            while (!stop)
                log(channel, 10, "noise");
        });
    }
    threads.emplace_back([&] {
        while (!stop)
            REQUIRE(oruLogSetThresholds("noise=11") == 0);
    });
    for (int i = 0; i < forks; ++i) {
        const pid_t child = forkWriter();
        if (child == 0) {
            REQUIRE(registerChannel("another") != -1);
            REQUIRE(oruLogSetThresholds("another=12") == 0);
            logOrWait(channel, 10, "child " + std::to_string(i));
            REQUIRE(oruLogFlush() == 0);
            REQUIRE(serviceThreads().size() == 1);
            _exit(0);
        }
        join(child);
    }
    stop = true;
    for (auto& thread : threads)
        thread.join();
}

void forkInTheHook() {
    static std::atomic<int> forked{0};
    const int channel = registerChannel("some");
    oruLogSetHook(
        [](const oruLogMsg*, const char*, void*) {
            const pid_t child = fork();
            if (child == 0)
                _exit(0);
            join(child);
            ++forked;
        },
        nullptr);
    REQUIRE(log(channel, 10, "first"));
    REQUIRE(log(channel, 10, "second"));
    REQUIRE(oruLogFlush() == 0);
    REQUIRE(forked == 2);
}

/// Standard error is a full pipe that nobody reads.
void forkWithAStuckOutput() {
    const int channel = registerChannel("some");
    const int terminal = dup(STDERR_FILENO);
    int ends[2];
    REQUIRE(pipe(ends) == 0);
    REQUIRE(dup2(ends[1], STDERR_FILENO) != -1);
    for (int i = 0; i < ORULOG_RECORDS; ++i)
        log(channel, 10, std::string(200, 'x'));
    char byte = 0;
    REQUIRE(read(ends[0], &byte, 1) == 1); // the service writes
    while (oruLogMsg* const msg = oruLogMsgAlloc())
        oruLogMsgPush(msg); // until all records wait for the pipe, or its reader has enough
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = forkWriter();
    if (child == 0) {
        REQUIRE(dup2(terminal, STDERR_FILENO) != -1);
        REQUIRE(log(channel, 10, "child"));
        REQUIRE(oruLogFlush() == 0);
        _exit(0);
    }
    REQUIRE(std::chrono::steady_clock::now() - start < std::chrono::seconds(5));
    join(child);
    _exit(0); // the parent's thread still waits for the pipe
}

/// A file is written to while the process forks.
void forkWhileAFileIsWritten() {
    const int channel = registerChannel("some");
    const std::string file = std::string(getenv("ORULOG_TEST_DIRECTORY")) + "log";
    REQUIRE(oruLogSetOutput(("file:" + file).c_str()) == 0);
    std::atomic<bool> stop{false};
    std::thread thread([&] {
        while (!stop) {
            log(channel, 10, "noise");
            usleep(20); // little enough that the file is not rotated
        }
    });
    for (int i = 0; i < 20; ++i) {
        const pid_t child = forkWriter();
        if (child == 0) {
            logOrWait(channel, 10, "child " + std::to_string(i));
            REQUIRE(oruLogFlush() == 0);
            _exit(0);
        }
        join(child);
    }
    stop = true;
    thread.join();
    REQUIRE(oruLogFlush() == 0);
    std::ifstream lines(file);
    int children = 0;
    for (std::string line; std::getline(lines, line);)
        children += line.find("child ") != std::string::npos ? 1 : 0;
    REQUIRE(children == 20);
}

/// Other threads have taken records, which the child could never get back from them.
void forkWithTakenRecords() {
    std::vector<oruLogMsg*> taken;
    std::thread([&] {
        for (int i = 0; i < 200; ++i)
            taken.push_back(oruLogMsgAlloc());
    }).join();
    const pid_t child = forkWriter();
    if (child == 0) {
        oruLogMsgPush(taken.front()); // of a thread that does not exist: has no effect
        int available = 0;
        while (oruLogMsgAlloc())
            ++available;
        REQUIRE(available == ORULOG_RECORDS);
        REQUIRE(oruLogFlush() == 0);
        _exit(0);
    }
    join(child);
    for (oruLogMsg* const msg : taken)
        REQUIRE(msg);
}

using LogFork = LogProcess;
using LogFileFork = LogOutputProcess;
using LogThread = LogProcess;
using LogExit = LogProcess;

} // namespace

const std::map<std::string, void (*)()> scenarios{
    {"count threads", countThreads},
    {"read blocked signals", readBlockedSignals},
    {"exit with queued messages", exitWithQueuedMessages},
    {"exit in the hook", exitInTheHook},
    {"log after main", logAfterMain},
    {"log without a reader", logWithoutReader},
    {"log without threads", logWithoutThreads},
    {"log in parent and child", logInParentAndChild},
    {"fork while threads log", forkWhileThreadsLog},
    {"fork in the hook", forkInTheHook},
    {"fork with a stuck output", forkWithAStuckOutput},
    {"fork while a file is written", forkWhileAFileIsWritten},
    {"fork with taken records", forkWithTakenRecords},
};

TEST_F(LogThread, FirstMessage_StartsTheOnlyThread) {
    const Outcome outcome = run("count threads");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
}

TEST_F(LogThread, Running_BlocksSignals) {
    const Outcome outcome = run("read blocked signals");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
}

TEST_F(LogThread, CannotStart_CallerWritesTheMessages) {
    const Outcome outcome = run("log without threads");
    EXPECT_TRUE(outcome.succeeded());
    EXPECT_EQ(outcome.standardError,
              lineOf("warning", "some", "first") + lineOf("warning", "some", "second"));
}

TEST_F(LogExit, QueuedMessages_AreWritten) {
    const Outcome outcome = run("exit with queued messages");
    EXPECT_TRUE(outcome.succeeded());
    EXPECT_EQ(messagesIn(outcome.standardError), numbered("", 0, ORULOG_RECORDS));
}

TEST_F(LogExit, MessagesAfterMain_AreWrittenAtOnce) {
    const Outcome outcome = run("log after main");
    EXPECT_TRUE(outcome.succeeded());
    EXPECT_EQ(outcome.standardError, lineOf("warning", "some", "early") +
                                         lineOf("warning", "some", "late") +
                                         lineOf("warning", "some", "later"));
}

TEST_F(LogExit, ExitInTheHook_DoesNotHang) {
    const Outcome outcome = run("exit in the hook");
    EXPECT_TRUE(outcome.succeeded());
    EXPECT_EQ(outcome.standardError, lineOf("warning", "some", "last"));
}

TEST_F(LogExit, StandardErrorWithoutReader_ProcessSurvives) {
    const Outcome outcome = run("log without a reader");
    EXPECT_TRUE(outcome.succeeded()) << outcome.status;
}

TEST_F(LogFork, ParentAndChild_WriteTheirOwnMessagesOnce) {
    const Outcome outcome = run("log in parent and child");
    EXPECT_TRUE(outcome.succeeded());
    Strings parents;
    Strings children;
    for (const auto& text : messagesIn(outcome.standardError))
        (text.compare(0, 6, "parent") == 0 ? parents : children).push_back(text);
    Strings expected = numbered("parent ", 0, ORULOG_RECORDS);
    expected.emplace_back("parent after");
    EXPECT_EQ(parents, expected);
    EXPECT_EQ(children, numbered("child ", 0, 100));
}

TEST_F(LogFork, WhileOtherThreadsLog_ChildCanLog) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's allocator may stay locked in the forked child";
#endif
    const Outcome outcome = run("fork while threads log");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError.substr(0, 2000);
    Strings children;
    for (const auto& text : messagesIn(outcome.standardError)) {
        if (text != "noise")
            children.push_back(text);
    }
    EXPECT_EQ(children, numbered("child ", 0, 25));
}

TEST_F(LogFork, OutputIsStuck_ForkReturnsAndChildCanLog) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the process does not end under the thread sanitizer";
#endif
    const Outcome outcome = run("fork with a stuck output");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
    EXPECT_EQ(messagesIn(outcome.standardError), (Strings{"child"}));
}

TEST_F(LogFileFork, WhileTheFileIsWritten_ChildrenWriteToIt) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's allocator may stay locked in the forked child";
#endif
    const Outcome outcome = runHere("fork while a file is written");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError.substr(0, 2000);
}

TEST_F(LogFork, RecordsTakenByOtherThreads_AreFreeInTheChild) {
    const Outcome outcome = run("fork with taken records");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
}

TEST_F(LogFork, ForkInTheHook_DoesNotHang) {
    const Outcome outcome = run("fork in the hook");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
    EXPECT_EQ(messagesIn(outcome.standardError), (Strings{"first", "second"}));
}

} // namespace orulog::test
