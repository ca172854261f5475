// The stand-in of the logging service: its four operations and its controls.
//
// What concerns a whole process (its start, its end, its forks, its signals) is tried in one of its
// own: this program, started again with the name of a scenario in its environment.

#include <orulog/control.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__SANITIZE_THREAD__)
// Some scenarios go on with threads in a forked child, which is what the service promises to allow.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
    return "die_after_fork=0";
}
#endif

namespace fs = std::filesystem;

namespace {

using Strings = std::vector<std::string>;

// ---------------------------------------------------------------------------------------------
// A writer, and what it should give

constexpr timespec messageTime{1714566896, 123456789};
constexpr char messagePlace[] = " src/some.cpp:102 [4711] ";

int registerChannel(const char* name) {
    return __oruLogChanReg(name, "src/some.cpp", 1, name);
}

void fill(oruLogMsg& msg, int channel, int level, const std::string& text) {
    msg.channel = channel;
    msg.level = level;
    msg.tid = 4711;
    msg.line = 102;
    msg.file = "src/some.cpp";
    msg.time = messageTime;
    msg.length = snprintf(msg.text, sizeof msg.text, "%s", text.c_str());
}

/// \returns false when the service has no record.
bool log(int channel, int level, const std::string& text) {
    oruLogMsg* msg = oruLogMsgAlloc();
    if (!msg)
        return false;
    fill(*msg, channel, level, text);
    oruLogMsgPush(msg);
    return true;
}

/// Logs even if a record must be waited for.
void logSurely(int channel, int level, const std::string& text) {
    while (!log(channel, level, text))
        oruLogFlush();
}

/// The line that a message of log() becomes.
std::string lineOf(const char* level, const char* channel, const std::string& text) {
    return std::string("2024-05-01 12:34:56.123456 ") + level + ' ' + channel + messagePlace +
           text + '\n';
}

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream content;
    content << stream.rdbuf();
    return content.str();
}

/// The texts of all whole lines of messages in `lines`, in their order.
Strings textsOf(const std::string& lines) {
    Strings texts;
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line);) {
        const auto place = line.find(messagePlace);
        if (place != line.npos)
            texts.push_back(line.substr(place + strlen(messagePlace)));
    }
    return texts;
}

Strings numbered(const std::string& stem, int first, int end) {
    Strings texts;
    for (int i = first; i < end; ++i)
        texts.push_back(stem + std::to_string(i));
    return texts;
}

int thresholdOf(int channel) {
    return __atomic_load_n(&oruLogLevel[channel], __ATOMIC_RELAXED);
}

/// Takes all records that are free.
std::vector<oruLogMsg*> takeAll() {
    std::vector<oruLogMsg*> taken;
    while (oruLogMsg* msg = oruLogMsgAlloc())
        taken.push_back(msg);
    return taken;
}

/// Notes what the hook sees while it lives. Read it after oruLogFlush() only.
class Seen {
public:
    Seen() {
        oruLogSetHook(note, this);
    }

    ~Seen() {
        oruLogSetHook(nullptr, nullptr);
    }

    std::vector<oruLogMsg> messages;
    Strings texts;
    Strings channels;

private:
    static void note(const oruLogMsg* msg, const char* channel, void* seen) {
        auto& self = *static_cast<Seen*>(seen);
        self.messages.push_back(*msg);
        self.texts.emplace_back(msg->text);
        self.channels.emplace_back(channel);
    }
};

/// Holds up the first message in the hook, until it is released.
class Gate {
public:
    Gate() {
        oruLogSetHook(
            [](const oruLogMsg*, const char*, void* gate) { static_cast<Gate*>(gate)->hold(); },
            this);
    }

    ~Gate() {
        release();
        oruLogSetHook(nullptr, nullptr);
    }

    void waitUntilReached() {
        while (!m_reached)
            std::this_thread::yield();
    }

    void release() {
        m_released = true;
    }

    bool wasLeft() const {
        return m_left;
    }

private:
    void hold() {
        m_reached = true;
        while (!m_released)
            std::this_thread::yield();
        m_left = true;
    }

    std::atomic<bool> m_reached{false};
    std::atomic<bool> m_released{false};
    std::atomic<bool> m_left{false};
};

// ---------------------------------------------------------------------------------------------
// Scenarios: each runs in a process of its own. Exit status 0 is success.

constexpr int scenarioCannotRun = 77;

[[noreturn]] void failScenario(int line, const char* condition) {
    fprintf(stderr, "%s:%d: not so: %s (errno %d)\n", __FILE__, line, condition, errno);
    fflush(stderr);
    _exit(1);
}

#define REQUIRE(condition)                                                                         \
    do {                                                                                           \
        if (!(condition))                                                                          \
            failScenario(__LINE__, #condition);                                                    \
    } while (false)

const char* scenarioDirectory() {
    return getenv("ORULOG_TEST_DIRECTORY");
}

/// Ends this process if it hangs.
void setDeadline() {
    alarm(60);
}

/// Forks a child that may go on to log.
pid_t forkWriter() {
    const pid_t child = fork();
    if (child != 0)
        return child;
    setDeadline();
#if defined(__SANITIZE_THREAD__)
    // The sanitizer would take a thread for the parent's whose stack it gets: no stack there is
    // large enough now.
    pthread_attr_t attributes;
    size_t stackSize = 0;
    REQUIRE(pthread_getattr_default_np(&attributes) == 0);
    REQUIRE(pthread_attr_getstacksize(&attributes, &stackSize) == 0);
    REQUIRE(pthread_attr_setstacksize(&attributes, 2 * stackSize) == 0);
    REQUIRE(pthread_setattr_default_np(&attributes) == 0);
#endif
    return 0;
}

/// Waits for a forked child and requires that it went well.
void join(pid_t child) {
    int status = 0;
    REQUIRE(child != -1);
    REQUIRE(waitpid(child, &status, 0) == child);
    REQUIRE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

/// The kernel thread ids of the threads that the service runs in this process.
Strings serviceThreads() {
    Strings threads;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        if (contentOf(task.path() / "comm") == "orulog\n")
            threads.push_back(task.path().filename());
    }
    return threads;
}

void printDefaultLevels() {
    REQUIRE(thresholdOf(0) == 10 && thresholdOf(ORULOG_CHANNELS - 1) == 10);
    REQUIRE(thresholdOf(registerChannel("some")) == 10);
}

void levelsFromEnvironment() {
    REQUIRE(thresholdOf(registerChannel("other")) == 9);
    REQUIRE(thresholdOf(registerChannel("libio")) == 12);
    REQUIRE(thresholdOf(registerChannel("libio")) == 12);
    REQUIRE(oruLogSetThresholds("libio=13") == 0);
    REQUIRE(thresholdOf(0) == 9 && thresholdOf(1) == 13 && thresholdOf(2) == 13);
}

void fillTheTable() {
    for (int channel = 0; channel < ORULOG_CHANNELS; ++channel)
        REQUIRE(registerChannel("some") == channel);
    REQUIRE(registerChannel("some") == -1);
    REQUIRE(registerChannel("other") == -1);
    REQUIRE(oruLogSetThresholds("some=12") == 0);
    REQUIRE(thresholdOf(0) == 12 && thresholdOf(ORULOG_CHANNELS - 1) == 12);
}

void logOnce() {
    REQUIRE(log(registerChannel("some"), 10, "once"));
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
    // The mask of the thread that logged is its own again.
    sigset_t mask;
    REQUIRE(pthread_sigmask(SIG_BLOCK, nullptr, &mask) == 0);
    REQUIRE(!sigismember(&mask, SIGUSR1) && !sigismember(&mask, SIGTERM));
}

void exitWithAFullQueue() {
    const int channel = registerChannel("some");
    // Held until after the end of main.
    static Gate gate;
    for (const auto& text : numbered("", 0, ORULOG_RECORDS))
        REQUIRE(log(channel, 10, text));
    // When the gate is destroyed, all but the first are still queued.
    gate.waitUntilReached();
}

void exitInTheHook() {
    oruLogSetHook([](const oruLogMsg*, const char*, void*) { exit(0); }, nullptr);
    REQUIRE(log(registerChannel("some"), 10, "last"));
    oruLogFlush();
    failScenario(__LINE__, "the hook ended the process");
}

int lateChannel;

/// Called when the C library flushes its streams, after the end of every library.
ssize_t logLate(void*, const char*, size_t size) {
    errno = EXDEV;
    REQUIRE(log(lateChannel, 10, "late"));
    REQUIRE(log(lateChannel, 10, "later"));
    REQUIRE(errno == EXDEV);
    REQUIRE(oruLogFlush() == 0);
    return static_cast<ssize_t>(size);
}

void logAfterTheEnd() {
    lateChannel = registerChannel("some");
    REQUIRE(log(lateChannel, 10, "early"));
    cookie_io_functions_t functions{};
    functions.write = logLate;
    FILE* const stream = fopencookie(nullptr, "w", functions);
    REQUIRE(stream && fputs("left in the buffer", stream) >= 0);
}

void closeTheReaderOfStandardError() {
    int ends[2];
    REQUIRE(pipe(ends) == 0);
    REQUIRE(dup2(ends[1], STDERR_FILENO) == STDERR_FILENO);
    close(ends[1]);
    close(ends[0]);
}

void logToNobody() {
    closeTheReaderOfStandardError();
    REQUIRE(log(registerChannel("some"), 10, "unheard"));
    REQUIRE(oruLogFlush() == 0);
    logAfterTheEnd();
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
    Gate gate;
    for (const auto& text : numbered("parent ", 0, ORULOG_RECORDS))
        REQUIRE(log(channel, 10, text));
    gate.waitUntilReached();
    // The fork waits for the message that is held up; most of the others are queued then.
    gate.release();
    const pid_t child = forkWriter();
    if (child == 0) {
        REQUIRE(oruLogFlush() == 0);
        // All that the parent had queued are free here.
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
    logSurely(channel, 10, "parent after");
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
            logSurely(channel, 10, "child " + std::to_string(i));
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

void moveAwayFromRelativeFile() {
    const fs::path directory = scenarioDirectory();
    REQUIRE(chdir(directory.c_str()) == 0);
    REQUIRE(oruLogSetOutput("file:relative.log") == 0);
    const fs::path elsewhere = directory / "elsewhere";
    fs::create_directory(elsewhere);
    REQUIRE(chdir(elsewhere.c_str()) == 0);
    const int channel = registerChannel("some");
    for (size_t size = 0; size <= ORULOG_FILE_SIZE; size += 200)
        logSurely(channel, 10, std::string(200, 'x'));
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
        logSurely(channel, 10, text);
}

/// Makes this process the root of a user namespace in which it may make others.
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

const std::map<std::string, void (*)()> scenarios{
    {"nothing", [] {}},
    {"default levels", printDefaultLevels},
    {"levels from environment", levelsFromEnvironment},
    {"fill the table", fillTheTable},
    {"log once", logOnce},
    {"count threads", countThreads},
    {"read blocked signals", readBlockedSignals},
    {"exit with a full queue", exitWithAFullQueue},
    {"exit in the hook", exitInTheHook},
    {"log after the end", logAfterTheEnd},
    {"log to nobody", logToNobody},
    {"log without threads", logWithoutThreads},
    {"log in parent and child", logInParentAndChild},
    {"fork while threads log", forkWhileThreadsLog},
    {"fork in the hook", forkInTheHook},
    {"move away from relative file", moveAwayFromRelativeFile},
    {"outgrow the file system", outgrowTheFileSystem},
    {"log to the system", logToTheSystem},
};

std::string thisProgram;

struct Outcome {
    int error;  // why the program could not be started, or 0
    int status; // as of wait(2)
    std::string standardError;

    bool succeeded() const {
        return error == 0 && exitedWith(0);
    }

    bool exitedWith(int exitStatus) const {
        return WIFEXITED(status) && WEXITSTATUS(status) == exitStatus;
    }
};

std::string readAll(int fd) {
    std::string all;
    char part[4096];
    for (ssize_t size; (size = read(fd, part, sizeof part)) != 0;) {
        if (size > 0)
            all.append(part, static_cast<size_t>(size));
        else if (errno != EINTR)
            break;
    }
    return all;
}

/// Runs a scenario with `variables` in its environment, each NAME=VALUE.
Outcome run(const std::string& scenario, Strings variables = {}) {
    variables.push_back("ORULOG_TEST_SCENARIO=" + scenario);
    for (char** variable = environ; *variable; ++variable) {
        if (strncmp(*variable, "ORULOG_", strlen("ORULOG_")) != 0)
            variables.emplace_back(*variable);
    }
    std::vector<char*> environment;
    for (auto& variable : variables)
        environment.push_back(variable.data());
    environment.push_back(nullptr);
    char* const arguments[] = {thisProgram.data(), nullptr};

    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1)
        return {errno, 0, {}};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    Outcome outcome{};
    pid_t child = 0;
    outcome.error =
        posix_spawn(&child, thisProgram.c_str(), &actions, nullptr, arguments, environment.data());
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (outcome.error == 0) {
        outcome.standardError = readAll(ends[0]);
        waitpid(child, &outcome.status, 0);
    }
    close(ends[0]);
    return outcome;
}

/// Whether this machine starts programs of this kind by itself. An emulator of another processor
/// may run this one, but not what it starts; then posix_spawn() succeeds and its child ends with
/// 127.
bool canRun() {
    const Outcome outcome = run("nothing");
    return outcome.error != ENOEXEC && !outcome.exitedWith(127);
}

/// A test that starts processes of this program.
class LogProcess : public testing::Test {
protected:
    void SetUp() override {
        if (!canRun())
            GTEST_SKIP() << "this machine starts no programs of this kind by itself";
    }
};

using LogEnvironment = LogProcess;
using LogFork = LogProcess;
using LogThread = LogProcess;
using LogExit = LogProcess;

/// A test in this process: with a directory, where the output goes to the file `log`.
class LogService : public testing::Test {
protected:
    LogService() {
        std::string name = fs::temp_directory_path() / "orulog-XXXXXX";
        m_directory = mkdtemp(name.data());
        EXPECT_EQ(setOutputFile("log"), 0);
        EXPECT_EQ(oruLogSetThresholds("10"), 0);
    }

    ~LogService() override {
        oruLogFlush();
        oruLogSetHook(nullptr, nullptr);
        oruLogSetOutput("stderr");
        fs::remove_all(m_directory);
    }

    fs::path path(const char* name) const {
        return m_directory / name;
    }

    int setOutputFile(const char* name) {
        return oruLogSetOutput(("file:" + path(name).string()).c_str());
    }

    /// All that was logged so far.
    std::string logged() {
        EXPECT_EQ(oruLogFlush(), 0);
        return contentOf(path("log"));
    }

private:
    fs::path m_directory;
};

using LogThresholds = LogService;
using LogChannels = LogService;
using LogRecords = LogService;
using LogQueue = LogService;
using LogHook = LogService;
using LogLine = LogService;
using LogOutput = LogService;

/// The same with processes of this program.
class LogOutputProcess : public LogService {
protected:
    void SetUp() override {
        if (!canRun())
            GTEST_SKIP() << "this machine starts no programs of this kind by itself";
    }

    Outcome runHere(const std::string& scenario) {
        return run(scenario, {"ORULOG_TEST_DIRECTORY=" + path("").string()});
    }
};

// ---------------------------------------------------------------------------------------------
// Thresholds and channels

TEST_F(LogEnvironment, NothingSet_EveryThresholdIs10) {
    const Outcome outcome = run("default levels");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
    EXPECT_EQ(outcome.standardError, "");
}

TEST_F(LogEnvironment, LevelSet_CountsForChannelsRegisteredLater) {
    const Outcome outcome = run("levels from environment", {"ORULOG_LEVEL=9,libio=12"});
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
}

TEST_F(LogEnvironment, LevelUnreadable_IsNamedAndNotUsed) {
    const Outcome outcome = run("default levels", {"ORULOG_LEVEL=12,nonsense"});
    EXPECT_TRUE(outcome.succeeded());
    EXPECT_EQ(outcome.standardError, "orulog: cannot use ORULOG_LEVEL='12,nonsense', 10 instead\n");
}

TEST_F(LogThresholds, Number_CountsForEveryChannel) {
    const int before = registerChannel("before");
    ASSERT_EQ(oruLogSetThresholds("11"), 0);
    const int after = registerChannel("after");
    EXPECT_EQ(thresholdOf(before), 11);
    EXPECT_EQ(thresholdOf(after), 11);
    EXPECT_EQ(thresholdOf(ORULOG_CHANNELS - 1), 11);
}

TEST_F(LogThresholds, Name_CountsForAllChannelsOfThatNameOnly) {
    const int first = registerChannel("name-counts");
    const int other = registerChannel("name-counts-not");
    const int second = registerChannel("name-counts");
    ASSERT_EQ(oruLogSetThresholds("name-counts=12"), 0);
    const int third = registerChannel("name-counts");
    EXPECT_NE(first, second);
    EXPECT_EQ(thresholdOf(first), 12);
    EXPECT_EQ(thresholdOf(second), 12);
    EXPECT_EQ(thresholdOf(third), 12);
    EXPECT_EQ(thresholdOf(other), 10);
}

TEST_F(LogThresholds, NamesAndNumber_NameGoesFirstWhereverItStands) {
    const int one = registerChannel("mixed-one");
    const int two = registerChannel("mixed-two");
    const int other = registerChannel("mixed-other");
    ASSERT_EQ(oruLogSetThresholds("mixed-one=12,9,mixed-two=-1"), 0);
    EXPECT_EQ(thresholdOf(one), 12);
    EXPECT_EQ(thresholdOf(two), -1);
    EXPECT_EQ(thresholdOf(other), 9);
}

TEST_F(LogThresholds, SameNameTwice_LastCounts) {
    const int channel = registerChannel("twice");
    ASSERT_EQ(oruLogSetThresholds("twice=12,twice=11"), 0);
    EXPECT_EQ(thresholdOf(channel), 11);
}

TEST_F(LogThresholds, NamesOneAfterTheOther_AddUp) {
    const int one = registerChannel("adds-one");
    ASSERT_EQ(oruLogSetThresholds("adds-one=12"), 0);
    ASSERT_EQ(oruLogSetThresholds("adds-two=13"), 0);
    EXPECT_EQ(thresholdOf(one), 12);
    EXPECT_EQ(thresholdOf(registerChannel("adds-one")), 12);
    EXPECT_EQ(thresholdOf(registerChannel("adds-two")), 13);
}

TEST_F(LogThresholds, NumberAfterName_PutsTheNameBack) {
    const int channel = registerChannel("put-back");
    ASSERT_EQ(oruLogSetThresholds("put-back=12"), 0);
    ASSERT_EQ(oruLogSetThresholds("9"), 0);
    EXPECT_EQ(thresholdOf(channel), 9);
    EXPECT_EQ(thresholdOf(registerChannel("put-back")), 9);
}

TEST_F(LogThresholds, BadText_ChangesNothing) {
    const int channel = registerChannel("bad-text");
    ASSERT_EQ(oruLogSetThresholds("9,bad-text=11"), 0);
    const char* const texts[] = {
        nullptr,       "",           ",",           "12,",          ",12",
        " 12",         "12 ",        "+12",         "0x12",         "12.5",
        "12;13",       "bad-text",   "bad-text=",   "bad-text=x",   "bad-text=12=13",
        "=12",         "=",          "12,,13",      "bad-text= 12", "99999999999",
        "-2147483649", "13,other=x", "other=13,12x"};
    for (const char* text : texts) {
        errno = 0;
        EXPECT_EQ(oruLogSetThresholds(text), -1) << text;
        EXPECT_EQ(errno, EINVAL) << text;
        EXPECT_EQ(thresholdOf(channel), 11) << text;
        EXPECT_EQ(thresholdOf(ORULOG_CHANNELS - 1), 9) << text;
    }
    EXPECT_EQ(thresholdOf(registerChannel("other")), 9);
    EXPECT_EQ(thresholdOf(registerChannel("bad-text")), 11);
}

TEST_F(LogThresholds, ChangedWhileRead_GivesOldOrNew) {
    const int channel = registerChannel("read");
    ASSERT_EQ(oruLogSetThresholds("read=11"), 0);
    std::atomic<bool> stop{false};
    std::atomic<int> strange{0};
    std::thread reader([&] {
        while (!stop) {
            const int threshold = thresholdOf(channel);
            if (threshold != 11 && threshold != 12)
                ++strange;
        }
    });
    for (int i = 0; i < 1000; ++i)
        EXPECT_EQ(oruLogSetThresholds(i % 2 == 0 ? "read=12" : "read=11"), 0);
    stop = true;
    reader.join();
    EXPECT_EQ(strange, 0);
}

TEST_F(LogProcess, TableFull_GivesNoMoreChannels) {
    const Outcome outcome = run("fill the table");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
}

TEST_F(LogChannels, NullName_GivesNoChannel) {
    errno = EXDEV;
    EXPECT_EQ(__oruLogChanReg(nullptr, nullptr, 0, nullptr), -1);
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(LogChannels, OnlyNameGiven_IsEnough) {
    EXPECT_GE(__oruLogChanReg("only-name", nullptr, -1, nullptr), 0);
}

TEST_F(LogChannels, RegisteredByManyThreads_GivesEachItsOwn) {
    std::mutex mutex;
    std::set<int> channels;
    std::vector<std::thread> threads(4);
    for (auto& thread : threads) {
        thread = std::thread([&] {
            for (int k = 0; k < 5; ++k) {
                const int channel = registerChannel("of-many-threads");
                const std::lock_guard lock(mutex);
                channels.insert(channel);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(channels.size(), 20u);
    EXPECT_GE(*channels.begin(), 0);
}

// ---------------------------------------------------------------------------------------------
// Records and their queue

TEST_F(LogRecords, AllTaken_GivesNullUntilOneIsWritten) {
    const int channel = registerChannel("all-taken");
    Seen seen;
    const auto taken = takeAll();
    EXPECT_EQ(taken.size(), size_t(ORULOG_RECORDS));
    EXPECT_EQ(oruLogMsgAlloc(), nullptr);

    fill(*taken[3], channel, 10, "one");
    oruLogMsgPush(taken[3]);
    ASSERT_EQ(oruLogFlush(), 0);
    EXPECT_EQ(oruLogMsgAlloc(), taken[3]);
    EXPECT_EQ(oruLogMsgAlloc(), nullptr);

    for (oruLogMsg* msg : taken) {
        fill(*msg, channel, 10, "rest");
        oruLogMsgPush(msg);
    }
    ASSERT_EQ(oruLogFlush(), 0);
    EXPECT_EQ(seen.texts.size(), size_t(1 + ORULOG_RECORDS));

    const auto again = takeAll();
    EXPECT_EQ(std::set<oruLogMsg*>(again.begin(), again.end()),
              std::set<oruLogMsg*>(taken.begin(), taken.end()));
    for (oruLogMsg* msg : again) {
        fill(*msg, channel, 10, "rest");
        oruLogMsgPush(msg);
    }
}

TEST_F(LogRecords, WritingHeldUp_KeepsNobodyWaiting) {
    const int channel = registerChannel("held-up");
    Gate gate;
    for (const auto& text : numbered("", 0, ORULOG_RECORDS))
        ASSERT_TRUE(log(channel, 10, text));
    gate.waitUntilReached();
    EXPECT_FALSE(log(channel, 10, "one too many"));
    gate.release();
    EXPECT_EQ(textsOf(logged()), numbered("", 0, ORULOG_RECORDS));
    EXPECT_TRUE(log(channel, 10, "possible again"));
}

TEST_F(LogRecords, PushOfWhatIsNoTakenRecord_DoesNothing) {
    const int channel = registerChannel("no-record");
    Seen seen;

    oruLogMsg foreign{};
    fill(foreign, channel, 10, "foreign");
    oruLogMsg* const own = oruLogMsgAlloc();
    ASSERT_TRUE(own);
    fill(*own, channel, 10, "own");

    errno = EXDEV;
    oruLogMsgPush(nullptr);
    oruLogMsgPush(&foreign);
    oruLogMsgPush(own + ORULOG_RECORDS);
    oruLogMsgPush(own - ORULOG_RECORDS);
    oruLogMsgPush(reinterpret_cast<oruLogMsg*>(reinterpret_cast<char*>(own) + sizeof(void*)));
    oruLogMsgPush(own);
    EXPECT_EQ(oruLogFlush(), 0);
    oruLogMsgPush(own);
    EXPECT_EQ(oruLogFlush(), 0);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(seen.texts, Strings{"own"});

    // None got lost and none is there twice.
    const auto all = takeAll();
    EXPECT_EQ(std::set<oruLogMsg*>(all.begin(), all.end()).size(), size_t(ORULOG_RECORDS));
    EXPECT_EQ(all.size(), size_t(ORULOG_RECORDS));
    for (oruLogMsg* msg : all) {
        fill(*msg, channel, 10, "rest");
        oruLogMsgPush(msg);
    }
}

TEST_F(LogRecords, AllocAndPush_KeepErrno) {
    const int channel = registerChannel("errno");
    errno = EXDEV;
    for (int i = 0; i < 2 * ORULOG_RECORDS; ++i) {
        if (oruLogMsg* msg = oruLogMsgAlloc()) {
            EXPECT_EQ(errno, EXDEV);
            fill(*msg, channel, 10, "text");
            oruLogMsgPush(msg);
        }
        EXPECT_EQ(errno, EXDEV);
    }
}

TEST_F(LogQueue, Messages_AreWrittenInTheOrderOfTheirPush) {
    const int channel = registerChannel("in-order");
    const Strings texts = numbered("", 0, 2000);
    Seen seen;
    for (const auto& text : texts)
        logSurely(channel, 10, text);
    EXPECT_EQ(textsOf(logged()), texts);
    EXPECT_EQ(seen.texts, texts);
}

TEST_F(LogQueue, PushOrder_CountsNotAllocOrder) {
    const int channel = registerChannel("push-order");
    oruLogMsg* const first = oruLogMsgAlloc();
    oruLogMsg* const second = oruLogMsgAlloc();
    ASSERT_TRUE(first && second);
    fill(*first, channel, 10, "taken first");
    fill(*second, channel, 10, "taken second");
    oruLogMsgPush(second);
    oruLogMsgPush(first);
    EXPECT_EQ(textsOf(logged()), (Strings{"taken second", "taken first"}));
}

/// Runs `threads` writers of `each` messages; `write` makes "THREAD NUMBER" a message.
template <class Write>
void runWriters(int threads, int each, Write write) {
    std::vector<std::thread> writers(threads);
    for (int i = 0; i < threads; ++i) {
        writers[i] = std::thread([=] {
            for (const auto& text : numbered(std::to_string(i) + ' ', 0, each))
                write(text);
        });
    }
    for (auto& writer : writers)
        writer.join();
}

/// That each of the threads' messages is there once, and each thread's in order.
void expectAllOf(int threads, int each, const Strings& texts) {
    EXPECT_EQ(texts.size(), static_cast<size_t>(threads) * each);
    for (int i = 0; i < threads; ++i) {
        const std::string stem = std::to_string(i) + ' ';
        Strings own;
        for (const auto& text : texts) {
            if (text.compare(0, stem.size(), stem) == 0)
                own.push_back(text);
        }
        EXPECT_EQ(own, numbered(stem, 0, each));
    }
}

TEST_F(LogQueue, ManyThreadsWithinTheSupply_LoseNothing) {
    const int channel = registerChannel("many-threads");
    std::atomic<int> refused{0};
    runWriters(8, ORULOG_RECORDS / 8, [&refused, channel](const std::string& text) {
        if (!log(channel, 10, text))
            ++refused;
    });
    EXPECT_EQ(refused, 0);
    expectAllOf(8, ORULOG_RECORDS / 8, textsOf(logged()));
}

TEST_F(LogQueue, ManyThreadsBeyondTheSupply_LoseOnlyWhatWasRefused) {
    const int channel = registerChannel("more-threads");
    runWriters(4, 2000, [channel](const std::string& text) { logSurely(channel, 10, text); });
    expectAllOf(4, 2000, textsOf(logged()));
}

TEST_F(LogQueue, Flush_WaitsForTheHook) {
    const int channel = registerChannel("flush");
    Gate gate;
    ASSERT_TRUE(log(channel, 10, "message"));
    gate.waitUntilReached();
    std::atomic<bool> leftBeforeFlush{false};
    std::thread flusher([&] {
        EXPECT_EQ(oruLogFlush(), 0);
        leftBeforeFlush = gate.wasLeft();
    });
    gate.release();
    flusher.join();
    EXPECT_TRUE(leftBeforeFlush);
}

TEST_F(LogQueue, FlushOfNothing_ReturnsAtOnce) {
    EXPECT_EQ(oruLogFlush(), 0);
    EXPECT_EQ(oruLogFlush(), 0);
}

// ---------------------------------------------------------------------------------------------
// The hook

TEST_F(LogHook, Installed_SeesTheWholeMessage) {
    const int channel = registerChannel("seen");
    Seen seen;
    ASSERT_TRUE(log(channel, 12, "text\n"));
    ASSERT_EQ(oruLogFlush(), 0);
    ASSERT_EQ(seen.messages.size(), 1u);
    const oruLogMsg& msg = seen.messages[0];
    EXPECT_EQ(msg.channel, channel);
    EXPECT_EQ(msg.level, 12);
    EXPECT_EQ(msg.tid, 4711u);
    EXPECT_EQ(msg.line, 102);
    EXPECT_STREQ(msg.file, "src/some.cpp");
    EXPECT_EQ(msg.time.tv_sec, messageTime.tv_sec);
    EXPECT_EQ(msg.time.tv_nsec, messageTime.tv_nsec);
    EXPECT_STREQ(msg.text, "text\n");
    EXPECT_EQ(msg.length, 5);
    EXPECT_EQ(seen.channels, Strings{"seen"});
}

TEST_F(LogHook, Removed_IsNeitherCalledNorStillRunning) {
    const int channel = registerChannel("removed");
    Gate gate;
    ASSERT_TRUE(log(channel, 10, "seen"));
    gate.waitUntilReached();
    std::thread releaser([&] { gate.release(); });
    oruLogSetHook(nullptr, nullptr);
    EXPECT_TRUE(gate.wasLeft());
    releaser.join();

    const Seen seen;
    oruLogSetHook(nullptr, nullptr);
    ASSERT_TRUE(log(channel, 10, "unseen"));
    ASSERT_EQ(oruLogFlush(), 0);
    EXPECT_TRUE(seen.texts.empty());
}

TEST_F(LogHook, UsingTheService_GetsNoRecordAndMayNotFlush) {
    struct Result {
        oruLogMsg* record = reinterpret_cast<oruLogMsg*>(1);
        int flushed = 0;
        int error = 0;
    } result;
    oruLogSetHook(
        [](const oruLogMsg*, const char*, void* user) {
            auto& found = *static_cast<Result*>(user);
            found.record = oruLogMsgAlloc();
            found.flushed = oruLogFlush();
            found.error = errno;
        },
        &result);
    ASSERT_TRUE(log(registerChannel("hook-logs"), 10, "message"));
    ASSERT_EQ(oruLogFlush(), 0);
    EXPECT_EQ(result.record, nullptr);
    EXPECT_EQ(result.flushed, -1);
    EXPECT_EQ(result.error, EDEADLK);
}

TEST_F(LogHook, UsingTheControls_Succeeds) {
    struct Result {
        std::string output;
        int calls = 0;
        int thresholds = -1;
        int outputSet = -1;
    } result;
    result.output = "file:" + path("from-hook").string();
    oruLogSetHook(
        [](const oruLogMsg*, const char*, void* user) {
            auto& found = *static_cast<Result*>(user);
            ++found.calls;
            found.thresholds = oruLogSetThresholds("hook-controls=13");
            found.outputSet = oruLogSetOutput(found.output.c_str());
            oruLogSetHook(nullptr, nullptr);
        },
        &result);
    const int channel = registerChannel("hook-controls");
    ASSERT_TRUE(log(channel, 10, "first"));
    ASSERT_EQ(oruLogFlush(), 0);
    ASSERT_TRUE(log(channel, 10, "second"));
    ASSERT_EQ(oruLogFlush(), 0);
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.thresholds, 0);
    EXPECT_EQ(result.outputSet, 0);
    EXPECT_EQ(thresholdOf(channel), 13);
    EXPECT_EQ(textsOf(contentOf(path("log"))), Strings{"first"});
    EXPECT_EQ(textsOf(contentOf(path("from-hook"))), Strings{"second"});
}

// ---------------------------------------------------------------------------------------------
// Lines

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

TEST_F(LogLine, NewlineAtTheEnd_IsTakenOnceAndAddedOnce) {
    const int channel = registerChannel("newline");
    for (const char* text : {"none", "one\n", "two\n\n", "in\nside", "\n", ""})
        ASSERT_TRUE(log(channel, 10, text));
    std::string lines;
    for (const char* text : {"none", "one", "two\n", "in\nside", "", ""})
        lines += lineOf("warning", "newline", text);
    EXPECT_EQ(logged(), lines);
}

TEST_F(LogLine, FormatsInText_StayAsTheyAre) {
    ASSERT_TRUE(log(registerChannel("formats"), 10, "%s %d {} {0} %v"));
    EXPECT_EQ(logged(), lineOf("warning", "formats", "%s %d {} {0} %v"));
}

TEST_F(LogLine, UnregisteredChannel_IsAQuestionMark) {
    for (const int channel : {-1, ORULOG_CHANNELS - 1, ORULOG_CHANNELS, INT_MAX, INT_MIN})
        ASSERT_TRUE(log(channel, 10, "text"));
    std::string lines;
    for (int i = 0; i < 5; ++i)
        lines += lineOf("warning", "?", "text");
    EXPECT_EQ(logged(), lines);
}

TEST_F(LogLine, RecordFilledWithNonsense_IsWrittenAllTheSame) {
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
            msg->length = -1; // no byte of it ends the text before it
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

TEST_F(LogOutputProcess, UnusableFileInEnvironment_IsNamedAndStandardErrorUsed) {
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
    EXPECT_EQ(textsOf(logged()), (Strings{"first", "second"}));
    EXPECT_EQ(textsOf(contentOf(path("other"))), Strings{"elsewhere"});
}

TEST_F(LogOutput, File_IsNotPassedOnToOtherPrograms) {
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

TEST_F(LogOutput, GrowingFile_IsRotatedAndTheOldestGivenUp) {
    const int channel = registerChannel("grows");
    const std::string padding(200, '.');
    const size_t lineSize = lineOf("warning", "grows", "000000" + padding).size();
    const int count = static_cast<int>(size_t(6) * ORULOG_FILE_SIZE / lineSize);
    ASSERT_EQ(setOutputFile("grows.txt"), 0);
    for (int i = 0; i < count; ++i)
        logSurely(channel, 10, std::to_string(100000 + i) + padding);
    ASSERT_EQ(oruLogFlush(), 0);

    Strings texts;
    for (const char* name : {"grows.3.txt", "grows.2.txt", "grows.1.txt", "grows.txt"}) {
        ASSERT_TRUE(fs::exists(path(name))) << name;
        EXPECT_LE(fs::file_size(path(name)), size_t(ORULOG_FILE_SIZE)) << name;
        for (const auto& text : textsOf(contentOf(path(name))))
            texts.push_back(text);
    }
    EXPECT_FALSE(fs::exists(path("grows.4.txt")));
    // The last ones, without a gap, and as many as three full files have at least.
    EXPECT_GE(texts.size(), ORULOG_FILE_SIZE / lineSize * ORULOG_FILES_KEPT);
    const int first = count - static_cast<int>(texts.size());
    for (size_t i = 0; i < texts.size(); ++i)
        ASSERT_EQ(texts[i], std::to_string(100000 + first + static_cast<int>(i)) + padding);
}

TEST_F(LogOutputProcess, RelativeFile_StaysWhereItWasNamed) {
    const Outcome outcome = runHere("move away from relative file");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
}

TEST_F(LogOutput, UnusableText_LeavesTheOutputAlone) {
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
    EXPECT_EQ(textsOf(logged()), Strings{"still here"});
}

TEST_F(LogOutput, PipeWithoutReader_IsRefusedAtOnce) {
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    errno = 0;
    EXPECT_EQ(setOutputFile("pipe"), -1);
    EXPECT_EQ(errno, ENXIO);
}

TEST_F(LogOutput, FullDevice_HandsOverToStandardError) {
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
    EXPECT_EQ(textsOf(logged()), Strings{"third"});
}

TEST_F(LogOutputProcess, FileThatCannotGrow_LosesNoMessage) {
    const Outcome outcome = runHere("outgrow the file system");
    EXPECT_TRUE(outcome.succeeded());
    // The line that the file has a part of is on standard error as a whole.
    const std::string file = contentOf(path("log"));
    Strings texts = textsOf(file.substr(0, file.rfind('\n') + 1));
    EXPECT_FALSE(texts.empty());
    for (const auto& text : textsOf(outcome.standardError))
        texts.push_back(text);
    EXPECT_EQ(texts, numbered("", 0, 100));
}

TEST_F(LogProcess, SystemLog_GetsPriorityAndLine) {
    const Outcome outcome = run("log to the system");
    if (outcome.exitedWith(scenarioCannotRun))
        GTEST_SKIP() << "may not make a mount namespace";
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
}

TEST_F(LogOutput, ChangedWhileLogging_LosesNothing) {
    const int channel = registerChannel("changes");
    std::thread writer([channel] {
        for (const auto& text : numbered("", 0, 5000))
            logSurely(channel, 10, text);
    });
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(setOutputFile(i % 2 == 0 ? "other" : "log"), 0);
    writer.join();
    Strings texts = textsOf(logged());
    for (const auto& text : textsOf(contentOf(path("other"))))
        texts.push_back(text);
    const Strings expected = numbered("", 0, 5000);
    EXPECT_EQ(std::multiset<std::string>(texts.begin(), texts.end()),
              std::multiset<std::string>(expected.begin(), expected.end()));
}

// ---------------------------------------------------------------------------------------------
// The process

TEST_F(LogThread, FirstMessage_StartsTheOnlyOne) {
    const Outcome outcome = run("count threads");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
}

TEST_F(LogThread, Running_HasSignalsBlocked) {
    const Outcome outcome = run("read blocked signals");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
}

TEST_F(LogThread, Unavailable_WriterWritesItself) {
    const Outcome outcome = run("log without threads");
    EXPECT_TRUE(outcome.succeeded());
    EXPECT_EQ(outcome.standardError,
              lineOf("warning", "some", "first") + lineOf("warning", "some", "second"));
}

TEST_F(LogExit, QueuedMessages_AreWritten) {
    const Outcome outcome = run("exit with a full queue");
    EXPECT_TRUE(outcome.succeeded());
    EXPECT_EQ(textsOf(outcome.standardError), numbered("", 0, ORULOG_RECORDS));
}

TEST_F(LogExit, MessagesAfterTheEnd_AreWrittenAtOnce) {
    const Outcome outcome = run("log after the end");
    EXPECT_TRUE(outcome.succeeded());
    EXPECT_EQ(outcome.standardError, lineOf("warning", "some", "early") +
                                         lineOf("warning", "some", "late") +
                                         lineOf("warning", "some", "later"));
}

TEST_F(LogExit, InTheHook_DoesNotHang) {
    const Outcome outcome = run("exit in the hook");
    EXPECT_TRUE(outcome.succeeded());
    EXPECT_EQ(outcome.standardError, lineOf("warning", "some", "last"));
}

TEST_F(LogExit, StandardErrorWithoutReader_DoesNotKill) {
    const Outcome outcome = run("log to nobody");
    EXPECT_TRUE(outcome.succeeded()) << outcome.status;
}

TEST_F(LogFork, ParentAndChild_WriteEachTheirOwnOnce) {
    const Outcome outcome = run("log in parent and child");
    EXPECT_TRUE(outcome.succeeded());
    Strings parents;
    Strings children;
    for (const auto& text : textsOf(outcome.standardError))
        (text.compare(0, 6, "parent") == 0 ? parents : children).push_back(text);
    Strings expected = numbered("parent ", 0, ORULOG_RECORDS);
    expected.emplace_back("parent after");
    EXPECT_EQ(parents, expected);
    EXPECT_EQ(children, numbered("child ", 0, 100));
}

TEST_F(LogFork, WhileOtherThreadsLog_ChildCanLog) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's allocator may be locked for ever in a child forked meanwhile";
#endif
    const Outcome outcome = run("fork while threads log");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError.substr(0, 2000);
    Strings children;
    for (const auto& text : textsOf(outcome.standardError)) {
        if (text != "noise")
            children.push_back(text);
    }
    EXPECT_EQ(children, numbered("child ", 0, 25));
}

TEST_F(LogFork, InTheHook_DoesNotHang) {
    const Outcome outcome = run("fork in the hook");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
    EXPECT_EQ(textsOf(outcome.standardError), (Strings{"first", "second"}));
}

} // namespace

int main(int argc, char** argv) {
    // Lines hold the local time.
    setenv("TZ", "UTC", 1);
    tzset();
    if (const char* name = getenv("ORULOG_TEST_SCENARIO")) {
        setDeadline();
        scenarios.at(name)();
        return 0;
    }
    thisProgram = fs::canonical(argv[0]);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
