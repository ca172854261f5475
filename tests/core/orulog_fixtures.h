// What the tests of the stand-in logging service share: messages, the hook, and processes.
//
// What concerns a whole process (its start, its end, its forks, its signals) is tried in one of its
// own: the test program, started again with the name of a scenario in its environment.
#pragma once

#include <orulog/control.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>

namespace orulog::test {

namespace fs = std::filesystem;

using Strings = std::vector<std::string>;

// ---------------------------------------------------------------------------------------------
// A writer, and what it should give

constexpr timespec messageTime{1714566896, 123456789};
constexpr char messagePlace[] = " src/some.cpp:102 [4711] ";

int registerChannel(const char* name);

void fill(oruLogMsg& msg, int channel, int level, const std::string& text);

/// \returns false when the service has no record.
bool log(int channel, int level, const std::string& text);

/// Logs even if a record must be waited for.
void logSurely(int channel, int level, const std::string& text);

/// The line that a message of log() becomes.
std::string lineOf(const char* level, const char* channel, const std::string& text);

std::string contentOf(const fs::path& file);

/// The texts of all whole lines of messages in `lines`, in their order.
Strings textsOf(const std::string& lines);

Strings numbered(const std::string& stem, int first, int end);

int thresholdOf(int channel);

/// Takes all records that are free.
std::vector<oruLogMsg*> takeAll();

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

[[noreturn]] void failScenario(const char* file, int line, const char* condition);

#define REQUIRE(condition)                                                                         \
    do {                                                                                           \
        if (!(condition))                                                                          \
            failScenario(__FILE__, __LINE__, #condition);                                          \
    } while (false)

const char* scenarioDirectory();

/// Ends this process if it hangs.
void setDeadline();

/// The scenarios of this program, by their names. Each test program defines them.
extern const std::map<std::string, void (*)()> scenarios;

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

/// Runs a scenario with `variables` in its environment, each NAME=VALUE.
Outcome run(const std::string& scenario, Strings variables = {});

/// Whether this machine starts programs of this kind by itself. An emulator of another processor
/// may run this one, but not what it starts; then posix_spawn() succeeds and its child ends with
/// 127.
bool canRun();

/// A test that starts processes of this program.
class LogProcess : public testing::Test {
protected:
    void SetUp() override {
        if (!canRun())
            GTEST_SKIP() << "this machine starts no programs of this kind by itself";
    }
};

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

} // namespace orulog::test
