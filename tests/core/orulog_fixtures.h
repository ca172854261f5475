// SPDX-License-Identifier: Apache-2.0
// Shared by the tests of the logging service: messages, hooks and child processes.
//
// A scenario tests what concerns a whole process: its start, its end, forks and signals. The test
// program starts itself again, with the name of the scenario in the environment.
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
// Messages, and the lines that they become

constexpr timespec messageTime{1714566896, 123456789};
constexpr char messagePlace[] = " src/some.cpp:102 [4711] ";

int registerChannel(const char* name);

void fill(oruLogMsg& msg, int channel, int level, const std::string& text);

/// \returns false when the service has no record.
bool log(int channel, int level, const std::string& text);

/// Logs, and waits for a free record if necessary.
void logOrWait(int channel, int level, const std::string& text);

/// The line that a message of log() becomes.
std::string lineOf(const char* level, const char* channel, const std::string& text);

std::string contentOf(const fs::path& file);

/// The messages in the complete lines of `lines`, in their order.
Strings messagesIn(const std::string& lines);

Strings numbered(const std::string& stem, int first, int end);

int thresholdOf(int channel);

/// Takes all free records.
std::vector<oruLogMsg*> takeAll();

/// A hook that records messages. Read the members only after oruLogFlush().
class RecordingHook {
public:
    RecordingHook() {
        oruLogSetHook(record, this);
    }

    ~RecordingHook() {
        oruLogSetHook(nullptr, nullptr);
    }

    std::vector<oruLogMsg> messages;
    Strings texts;
    Strings channels;

private:
    static void record(const oruLogMsg* msg, const char* channel, void* hook) {
        auto& self = *static_cast<RecordingHook*>(hook);
        self.messages.push_back(*msg);
        self.texts.emplace_back(msg->text);
        self.channels.emplace_back(channel);
    }
};

/// A hook that blocks on the first message until release().
class BlockingHook {
public:
    BlockingHook() {
        oruLogSetHook([](const oruLogMsg*, const char*,
                         void* hook) { static_cast<BlockingHook*>(hook)->block(); },
                      this);
    }

    ~BlockingHook() {
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

    bool hasReturned() const {
        return m_hasReturned;
    }

private:
    void block() {
        m_reached = true;
        while (!m_released)
            std::this_thread::yield();
        m_hasReturned = true;
    }

    std::atomic<bool> m_reached{false};
    std::atomic<bool> m_released{false};
    std::atomic<bool> m_hasReturned{false};
};

// ---------------------------------------------------------------------------------------------
// Scenarios: each runs in its own process, and exits with 0 on success

constexpr int scenarioCannotRun = 77;

[[noreturn]] void failScenario(const char* file, int line, const char* condition);

#define REQUIRE(condition)                                                                         \
    do {                                                                                           \
        if (!(condition))                                                                          \
            failScenario(__FILE__, __LINE__, #condition);                                          \
    } while (false)

const char* scenarioDirectory();

/// Ends this process after a minute, in case it hangs.
void setDeadline();

/// The scenarios of this program, by their names. Each test program defines them.
extern const std::map<std::string, void (*)()> scenarios;

struct Outcome {
    int error;  // of posix_spawn(), or 0
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

/// Whether this program can start itself. An emulator of another processor may run it, but not its
/// children: posix_spawn() succeeds, and the child exits with 127.
bool canRun();

/// A test that starts processes of this program.
class LogProcess : public testing::Test {
protected:
    void SetUp() override {
        if (!canRun())
            GTEST_SKIP() << "the system cannot start programs of this architecture";
    }
};

/// A test in this process. Output goes to the file `log` in a temporary directory.
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

    /// The content of the file `log` after a flush.
    std::string logged() {
        EXPECT_EQ(oruLogFlush(), 0);
        return contentOf(path("log"));
    }

private:
    fs::path m_directory;
};

/// The same for tests that also start this program.
class LogOutputProcess : public LogService {
protected:
    void SetUp() override {
        if (!canRun())
            GTEST_SKIP() << "the system cannot start programs of this architecture";
    }

    Outcome runHere(const std::string& scenario) {
        return run(scenario, {"ORULOG_TEST_DIRECTORY=" + path("").string()});
    }
};

} // namespace orulog::test
