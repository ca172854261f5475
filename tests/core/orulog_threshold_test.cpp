// SPDX-License-Identifier: Apache-2.0
// The logging service: thresholds and channels.
#include "orulog_fixtures.h"

#include <atomic>
#include <cerrno>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace orulog::test {

namespace {

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

using LogEnvironment = LogProcess;
using LogThresholds = LogService;
using LogChannels = LogService;

} // namespace

const std::map<std::string, void (*)()> scenarios{
    {"default levels", printDefaultLevels},
    {"levels from environment", levelsFromEnvironment},
    {"fill the table", fillTheTable},
};

TEST_F(LogEnvironment, NothingSet_EveryThresholdIs10) {
    const Outcome outcome = run("default levels");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
    EXPECT_EQ(outcome.standardError, "");
}

TEST_F(LogEnvironment, LevelSet_AppliesToChannelsRegisteredLater) {
    const Outcome outcome = run("levels from environment", {"ORULOG_LEVEL=9,libio=12"});
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
}

TEST_F(LogEnvironment, InvalidLevel_IsReportedAndIgnored) {
    const Outcome outcome = run("default levels", {"ORULOG_LEVEL=12,nonsense"});
    EXPECT_TRUE(outcome.succeeded());
    EXPECT_EQ(outcome.standardError, "orulog: cannot use ORULOG_LEVEL='12,nonsense', 10 instead\n");
}

TEST_F(LogThresholds, Number_AppliesToEveryChannel) {
    const int before = registerChannel("before");
    ASSERT_EQ(oruLogSetThresholds("11"), 0);
    const int after = registerChannel("after");
    EXPECT_EQ(thresholdOf(before), 11);
    EXPECT_EQ(thresholdOf(after), 11);
    EXPECT_EQ(thresholdOf(ORULOG_CHANNELS - 1), 11);
}

TEST_F(LogThresholds, Name_AppliesToChannelsOfThatNameOnly) {
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

TEST_F(LogThresholds, NamesAndNumber_NameHasPrecedence) {
    const int one = registerChannel("mixed-one");
    const int two = registerChannel("mixed-two");
    const int other = registerChannel("mixed-other");
    ASSERT_EQ(oruLogSetThresholds("mixed-one=12,9,mixed-two=-1"), 0);
    EXPECT_EQ(thresholdOf(one), 12);
    EXPECT_EQ(thresholdOf(two), -1);
    EXPECT_EQ(thresholdOf(other), 9);
}

TEST_F(LogThresholds, SameNameTwice_LastApplies) {
    const int channel = registerChannel("twice");
    ASSERT_EQ(oruLogSetThresholds("twice=12,twice=11"), 0);
    EXPECT_EQ(thresholdOf(channel), 11);
}

TEST_F(LogThresholds, NamesInSeveralCalls_AllApply) {
    const int one = registerChannel("adds-one");
    ASSERT_EQ(oruLogSetThresholds("adds-one=12"), 0);
    ASSERT_EQ(oruLogSetThresholds("adds-two=13"), 0);
    EXPECT_EQ(thresholdOf(one), 12);
    EXPECT_EQ(thresholdOf(registerChannel("adds-one")), 12);
    EXPECT_EQ(thresholdOf(registerChannel("adds-two")), 13);
}

TEST_F(LogThresholds, NumberAfterName_ReplacesTheNamedThreshold) {
    const int channel = registerChannel("put-back");
    ASSERT_EQ(oruLogSetThresholds("put-back=12"), 0);
    ASSERT_EQ(oruLogSetThresholds("9"), 0);
    EXPECT_EQ(thresholdOf(channel), 9);
    EXPECT_EQ(thresholdOf(registerChannel("put-back")), 9);
}

TEST_F(LogThresholds, InvalidString_ChangesNothing) {
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

TEST_F(LogThresholds, ChangedWhileRead_IsOldOrNewValue) {
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

TEST_F(LogProcess, TableFull_RegistrationFails) {
    const Outcome outcome = run("fill the table");
    EXPECT_TRUE(outcome.succeeded()) << outcome.standardError;
}

TEST_F(LogChannels, NullName_RegistrationFails) {
    errno = EXDEV;
    EXPECT_EQ(__oruLogChanReg(nullptr, nullptr, 0, nullptr), -1);
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(LogChannels, OnlyNameGiven_Registers) {
    EXPECT_GE(__oruLogChanReg("only-name", nullptr, -1, nullptr), 0);
}

TEST_F(LogChannels, RegisteredByManyThreads_ChannelsAreDistinct) {
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

} // namespace orulog::test
