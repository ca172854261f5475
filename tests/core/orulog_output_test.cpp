// SPDX-License-Identifier: Apache-2.0
// The logging service: the lines of messages, and their outputs.
#include "orulog_fixtures.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <set>
#include <thread>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace orulog::test {

namespace {

void logOnce() {
    REQUIRE(log(registerChannel("some"), 10, "once"));
}

void moveAwayFromRelativeFile() {
    const fs::path directory = scenarioDirectory();
    REQUIRE(chdir(directory.c_str()) == 0);
    REQUIRE(oruLogSetOutput("file:relative.log") == 0);
    const fs::path elsewhere = directory / "elsewhere";
    fs::create_directory(elsewhere);
    REQUIRE(chdir(elsewhere.c_str()) == 0);
    const int channel = registerChannel("some");
    for (size_t size = 0; size <= ORULOG_FILE_SIZE; size += 200)
        logOrWait(channel, 10, std::string(200, 'x'));
    REQUIRE(oruLogFlush() == 0);
    REQUIRE(fs::exists(directory / "relative.log"));
    REQUIRE(fs::exists(directory / "relative.1.log"));
    REQUIRE(fs::is_empty(elsewhere));
}

void outgrowTheFileSystem() {
    const int channel = registerChannel("some");
    REQUIRE(oruLogSetOutput((std::string("file:") + scenarioDirectory() + "/log").c_str()) == 0);
    const rlimit limit{1000, 1000};
    REQUIRE(setrlimit(RLIMIT_FSIZE, &limit) == 0);
    for (const auto& text : numbered("", 0, 100))
        logOrWait(channel, 10, text);
}

/// Enters a new user namespace as its root, so that this process may create other namespaces.
bool enterUserNamespace() {
    const std::string user = std::to_string(getuid());
    const std::string group = std::to_string(getgid());
    if (unshare(CLONE_NEWUSER) == -1)
        return false;
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " + user + " 1";
    std::ofstream("/proc/self/gid_map") << "0 " + group + " 1";
    return getuid() == 0 && getgid() == 0;
}

bool enterPrivateMounts() {
    if (unshare(CLONE_NEWNS) == -1 && !(enterUserNamespace() && unshare(CLONE_NEWNS) == 0))
        return false;
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/dev", "tmpfs", 0, nullptr) == 0;
}

void logToTheSystem() {
    if (!enterPrivateMounts())
        _exit(scenarioCannotRun);
    const int receiver = socket(AF_UNIX, SOCK_DGRAM, 0);
    const sockaddr_un address{AF_UNIX, "/dev/log"};
    REQUIRE(bind(receiver, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);

    REQUIRE(oruLogSetOutput("syslog") == 0);
    const int channel = registerChannel("some");
    const struct {
        int level;
        const char* priority; // of the facility "user"
        const char* name;
    } levels[] = {
        {9, "<11>", "error"}, {10, "<12>", "warning"}, {11, "<14>", "info"}, {12, "<15>", "debug"}};
    for (const auto& level : levels) {
        REQUIRE(log(channel, level.level, "to the system\n"));
        REQUIRE(oruLogFlush() == 0);
        char datagram[1024];
        const ssize_t size = recv(receiver, datagram, sizeof datagram, MSG_DONTWAIT);
        REQUIRE(size > 0);
        const std::string received(datagram, static_cast<size_t>(size));
        const std::string end = "[" + std::to_string(getpid()) + "]: " + level.name + " some" +
                                messagePlace + "to the system";
        fprintf(stderr, "%s\n", received.c_str());
        REQUIRE(received.substr(0, 4) == level.priority);
        REQUIRE(received.size() > end.size());
        REQUIRE(received.substr(received.size() - end.size()) == end);
    }
}

using LogEnvironment = LogProcess;
using LogLine = LogService;
using LogOutput = LogService;

} // namespace

const std::map<std::string, void (*)()> scenarios{
    {"log once", logOnce},
    {"move away from relative file", moveAwayFromRelativeFile},
    {"outgrow the file system", outgrowTheFileSystem},
    {"log to the system", logToTheSystem},
};

TEST_F(LogLine, Levels_HaveTheirNames) {
    const int channel = registerChannel("levels");
    const struct {
        int level;
        const char* name;
    } levels[] = {{INT_MIN, "critical"}, {0, "critical"},   {8, "critical"}, {9, "error"},
                  {10, "warning"},       {11, "info"},      {12, "debug"},   {13, "trace"},
                  {100, "trace"},        {INT_MAX, "trace"}};
    std::string lines;
    for (const auto& level : levels) {
        ASSERT_TRUE(log(channel, level.level, "text"));
        lines += lineOf(level.name, "levels", "text");
    }
    EXPECT_EQ(logged(), lines);
}

TEST_F(LogLine, TrailingNewline_OneIsNotPartOfTheMessage) {
    const int channel = registerChannel("newline");
    for (const char* text : {"none", "one\n", "two\n\n", "in\nside", "\n", ""})
        ASSERT_TRUE(log(channel, 10, text));
    std::string lines;
    for (const char* text : {"none", "one", "two\n", "in\nside", "", ""})
        lines += lineOf("warning", "newline", text);
    EXPECT_EQ(logged(), lines);
}

TEST_F(LogLine, FormatDirectives_AreNotExpanded) {
    ASSERT_TRUE(log(registerChannel("formats"), 10, "%s %d {} {0} %v"));
    EXPECT_EQ(logged(), lineOf("warning", "formats", "%s %d {} {0} %v"));
}

TEST_F(LogLine, UnregisteredChannel_IsWrittenAsQuestionMark) {
    for (const int channel : {-1, ORULOG_CHANNELS - 1, ORULOG_CHANNELS, INT_MAX, INT_MIN})
        ASSERT_TRUE(log(channel, 10, "text"));
    std::string lines;
    for (int i = 0; i < 5; ++i)
        lines += lineOf("warning", "?", "text");
    EXPECT_EQ(logged(), lines);
}

TEST_F(LogLine, InvalidRecord_IsWritten) {
    using Limits = std::numeric_limits<time_t>;
    const int channel = registerChannel("nonsense");
    for (const time_t seconds : {Limits::min(), time_t(-1), time_t(0), Limits::max()}) {
        for (const long nanoseconds : {LONG_MIN, -1L, 1000000000L, LONG_MAX}) {
            oruLogMsg* const msg = oruLogMsgAlloc();
            ASSERT_TRUE(msg);
            memset(msg->text, 'x', sizeof msg->text);
            msg->time = {seconds, nanoseconds};
            msg->channel = channel;
            msg->level = 10;
            msg->line = INT_MIN;
            msg->file = nullptr;
            msg->tid = UINT_MAX;
            msg->length = -1; // the message has no terminator
            oruLogMsgPush(msg);
        }
    }
    const std::string lines = logged();
    const std::string end =
        " warning nonsense ?:-2147483648 [4294967295] " + std::string(256, 'x') + '\n';
    size_t count = 0;
    for (size_t at = 0; (at = lines.find(end, at)) != lines.npos; at += end.size())
        ++count;
    EXPECT_EQ(count, 16u);
}

// ---------------------------------------------------------------------------------------------
// Outputs

TEST_F(LogOutput, StandardError_GetsTheLine) {
    testing::internal::CaptureStderr();
    ASSERT_EQ(oruLogSetOutput("stderr"), 0);
    ASSERT_TRUE(log(registerChannel("standard"), 10, "text\n"));
    ASSERT_EQ(oruLogFlush(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), lineOf("warning", "standard", "text"));
    EXPECT_EQ(logged(), "");
}

TEST_F(LogEnvironment, NothingSet_OutputIsStandardError) {
    const Outcome outcome = run("log once");
    EXPECT_TRUE(outcome.succeeded());
    EXPECT_EQ(outcome.standardError, lineOf("warning", "some", "once"));
}

TEST_F(LogOutputProcess, FileInEnvironment_GetsTheLine) {
    const Outcome outcome = run("log once", {"ORULOG_OUTPUT=file:" + path("given").string()});
    EXPECT_TRUE(outcome.succeeded());
    EXPECT_EQ(outcome.standardError, "");
    EXPECT_EQ(contentOf(path("given")), lineOf("warning", "some", "once"));
}

TEST_F(LogOutputProcess, UnusableFileInEnvironment_IsReportedAndStandardErrorUsed) {
    const std::string output = "file:" + path("missing/given").string();
    const Outcome outcome = run("log once", {"ORULOG_OUTPUT=" + output});
    EXPECT_TRUE(outcome.succeeded());
    EXPECT_EQ(outcome.standardError, "orulog: cannot use ORULOG_OUTPUT='" + output +
                                         "', stderr instead\n" + lineOf("warning", "some", "once"));
}

TEST_F(LogOutput, File_IsAppendedTo) {
    const int channel = registerChannel("appends");
    ASSERT_TRUE(log(channel, 10, "first"));
    ASSERT_EQ(oruLogFlush(), 0);
    ASSERT_EQ(setOutputFile("other"), 0);
    ASSERT_TRUE(log(channel, 10, "elsewhere"));
    ASSERT_EQ(oruLogFlush(), 0);
    ASSERT_EQ(setOutputFile("log"), 0);
    ASSERT_TRUE(log(channel, 10, "second"));
    EXPECT_EQ(messagesIn(logged()), (Strings{"first", "second"}));
    EXPECT_EQ(messagesIn(contentOf(path("other"))), Strings{"elsewhere"});
}

TEST_F(LogOutput, File_IsClosedOnExec) {
    bool found = false;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (fs::read_symlink(entry.path(), error) != path("log"))
            continue;
        found = true;
        const int fd = std::stoi(entry.path().filename());
        EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
    EXPECT_TRUE(found);
}

TEST_F(LogOutput, GrowingFile_IsRotatedAndTheOldestRemoved) {
    const int channel = registerChannel("grows");
    const std::string padding(200, '.');
    const size_t lineSize = lineOf("warning", "grows", "000000" + padding).size();
    const int count = static_cast<int>(size_t(6) * ORULOG_FILE_SIZE / lineSize);
    ASSERT_EQ(setOutputFile("grows.txt"), 0);
    for (int i = 0; i < count; ++i)
        logOrWait(channel, 10, std::to_string(100000 + i) + padding);
    ASSERT_EQ(oruLogFlush(), 0);

    Strings texts;
    for (const char* name : {"grows.3.txt", "grows.2.txt", "grows.1.txt", "grows.txt"}) {
        ASSERT_TRUE(fs::exists(path(name))) << name;
        EXPECT_LE(fs::file_size(path(name)), size_t(ORULOG_FILE_SIZE)) << name;
        for (const auto& text : messagesIn(contentOf(path(name))))
            texts.push_back(text);
    }
    EXPECT_FALSE(fs::exists(path("grows.4.txt")));
    // The files hold the last messages without a gap: at least as many as fill three files.
    EXPECT_GE(texts.size(), ORULOG_FILE_SIZE / lineSize * ORULOG_FILES_KEPT);
    const int first = count - static_cast<int>(texts.size());
    for (size_t i = 0; i < texts.size(); ++i)
        ASSERT_EQ(texts[i], std::to_string(100000 + first + static_cast<int>(i)) + padding);
}

TEST_F(LogOutputProcess, RelativeFileThenChdir_StaysInTheFormerDirectory) {
    const Outcome outcome = runHere("move away from relative file");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
}

TEST_F(LogOutput, UnusableOutput_KeepsTheFormerOutput) {
    const int channel = registerChannel("unusable");
    const struct {
        std::string text;
        int error;
    } outputs[] = {{"", EINVAL},
                   {"stdout", EINVAL},
                   {"stderr ", EINVAL},
                   {"file", EINVAL},
                   {"file:", EINVAL},
                   {"file:" + path("missing/log").string(), ENOENT},
                   {"file:" + path("").string(), EISDIR},
                   {"file:" + path("log/log").string(), ENOTDIR},
                   {"file:/" + std::string(5000, 'x'), ENAMETOOLONG}};
    for (const auto& output : outputs) {
        errno = 0;
        EXPECT_EQ(oruLogSetOutput(output.text.c_str()), -1) << output.text;
        EXPECT_EQ(errno, output.error) << output.text;
    }
    errno = 0;
    EXPECT_EQ(oruLogSetOutput(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(fs::exists(path("missing")));
    ASSERT_TRUE(log(channel, 10, "still here"));
    EXPECT_EQ(messagesIn(logged()), Strings{"still here"});
}

TEST_F(LogOutput, PipeWithoutReader_FailsWithENXIO) {
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    errno = 0;
    EXPECT_EQ(setOutputFile("pipe"), -1);
    EXPECT_EQ(errno, ENXIO);
}

TEST_F(LogOutput, FullDevice_SwitchesToStandardError) {
    const int channel = registerChannel("full");
    ASSERT_EQ(oruLogSetOutput("file:/dev/full"), 0);
    testing::internal::CaptureStderr();
    ASSERT_TRUE(log(channel, 10, "first"));
    ASSERT_TRUE(log(channel, 10, "second"));
    ASSERT_EQ(oruLogFlush(), 0);
    const std::string written = testing::internal::GetCapturedStderr();
    const auto firstLine = written.find('\n') + 1;
    EXPECT_EQ(written.substr(0, 8), "orulog: ");
    EXPECT_NE(written.substr(0, firstLine).find("/dev/full"), written.npos);
    EXPECT_NE(written.substr(0, firstLine).find(strerror(ENOSPC)), written.npos);
    EXPECT_EQ(written.substr(firstLine),
              lineOf("warning", "full", "first") + lineOf("warning", "full", "second"));

    ASSERT_EQ(setOutputFile("log"), 0);
    ASSERT_TRUE(log(channel, 10, "third"));
    EXPECT_EQ(messagesIn(logged()), Strings{"third"});
}

TEST_F(LogOutputProcess, FileSizeLimitReached_RestGoesToStandardError) {
    const Outcome outcome = runHere("outgrow the file system");
    EXPECT_TRUE(outcome.succeeded());
    // A line that is incomplete in the file is complete on standard error.
    const std::string file = contentOf(path("log"));
    Strings texts = messagesIn(file.substr(0, file.rfind('\n') + 1));
    EXPECT_FALSE(texts.empty());
    for (const auto& text : messagesIn(outcome.standardError))
        texts.push_back(text);
    EXPECT_EQ(texts, numbered("", 0, 100));
}

TEST_F(LogProcess, SystemLog_GetsPriorityAndLine) {
    const Outcome outcome = run("log to the system");
    if (outcome.exitedWith(scenarioCannotRun))
        GTEST_SKIP() << "needs root or user namespaces to create a private mount namespace";
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
}

TEST_F(LogOutput, OutputChangedWhileLogging_LosesNoMessage) {
    const int channel = registerChannel("changes");
    std::thread writer([channel] {
        for (const auto& text : numbered("", 0, 5000))
            logOrWait(channel, 10, text);
    });
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(setOutputFile(i % 2 == 0 ? "other" : "log"), 0);
    writer.join();
    Strings texts = messagesIn(logged());
    for (const auto& text : messagesIn(contentOf(path("other"))))
        texts.push_back(text);
    const Strings expected = numbered("", 0, 5000);
    EXPECT_EQ(std::multiset<std::string>(texts.begin(), texts.end()),
              std::multiset<std::string>(expected.begin(), expected.end()));
}

} // namespace orulog::test
