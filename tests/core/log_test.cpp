// SPDX-License-Identifier: Apache-2.0
// The writer's side of logging. This program defines the operations of the logging service, and
// liboruio.so uses them, as it uses those of the device's service.

#include <oruio/fsswitch.h>
#include <oruio/posixfs.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

#include "core/log_p.h"

namespace {

struct Registration {
    const char* name;
    const char* file;
    int line;
    const char* description;
};

// The libraries register their channels before any constructor of this program runs: what that
// uses is initialised statically.
Registration registrations[1000];
int registrationCount = 0;
int levels[1000];
oruLogMsg record;
bool hasRecord = true;
int allocCount = 0;
int allocErrno = 0; // what the operations leave in errno, if not 0
std::vector<oruLogMsg>* pushed = nullptr;

} // namespace

int* oruLogLevel = levels;

int __oruLogChanReg(const char* name, const char* file, int line, const char* description) {
    registrations[registrationCount] = {name, file, line, description};
    return registrationCount++;
}

oruLogMsg* oruLogMsgAlloc() {
    ++allocCount;
    if (allocErrno != 0)
        errno = allocErrno;
    if (!hasRecord)
        return nullptr;
    // A field that the writer does not fill is not 0.
    memset(&record, 0x5a, sizeof record);
    record.service = &record;
    return &record;
}

void oruLogMsgPush(oruLogMsg* msg) {
    EXPECT_EQ(msg, &record);
    pushed->push_back(*msg);
    if (allocErrno != 0)
        errno = allocErrno;
}

namespace oru::io {

ORUIO_LOG_CHANNEL("the test's");

namespace {

/// A writer with records and thresholds; each test changes one condition.
class LogWriter : public testing::Test {
protected:
    LogWriter() {
        pushed = &messages;
        std::fill(std::begin(levels), std::end(levels), 10);
        hasRecord = true;
        allocCount = 0;
        allocErrno = 0;
    }

    ~LogWriter() override {
        pushed = nullptr;
    }

    /// What logging `message` in `file` writes to standard error.
    static std::string standardErrorOf(const char* file, const std::string& message) {
        testing::internal::CaptureStderr();
        __oruLog(LOG_CHAN, 10, file, 7, "%s", message.c_str());
        return testing::internal::GetCapturedStderr();
    }

    std::vector<oruLogMsg> messages;
};

using LogWriterWithoutRecords = LogWriter;

bool isBefore(const timespec& a, const timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

TEST(LogChannel, Registered_GivesNamePlaceAndNameAgain) {
    ASSERT_GE(LOG_CHAN, 0);
    const Registration& own = registrations[LOG_CHAN];
    EXPECT_STREQ(own.name, "the test's");
    EXPECT_STREQ(own.file, __FILE__);
    EXPECT_GT(own.line, 0);
    EXPECT_LT(own.line, __LINE__);
    EXPECT_STREQ(own.description, own.name);
}

TEST(LogChannel, OfTheLibrary_AreTheseEightEachOnce) {
    // The file names do not change when a source moves to another folder.
    std::vector<std::pair<std::string, std::string>> channels;
    for (int i = 0; i < registrationCount; ++i) {
        const Registration& registration = registrations[i];
        if (i == LOG_CHAN)
            continue;
        channels.emplace_back(registration.file, registration.name);
        EXPECT_GT(registration.line, 0) << registration.file;
        EXPECT_STREQ(registration.description, registration.name) << registration.file;
    }
    EXPECT_THAT(channels,
                testing::UnorderedElementsAre(testing::Pair("src/bdmon.cpp", "libio"),
                                              testing::Pair("src/fsipc.cpp", "fsipc"),
                                              testing::Pair("src/fsnfs.cpp", "NFS"),
                                              testing::Pair("src/fssmb.cpp", "libio_smb2"),
                                              testing::Pair("src/fsswitch.cpp", "libio"),
                                              testing::Pair("src/ipc_server.cpp", "fsipcsrv"),
                                              testing::Pair("src/storagelocation.cpp", "stg"),
                                              testing::Pair("src/sysutils.cpp", "libio")));
}

TEST_F(LogWriter, LevelEqualToThreshold_IsPushed) {
    levels[LOG_CHAN] = 11;
    ORUIO_LOG(LogNotice, "kept");
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_STREQ(messages[0].text, "kept");
}

TEST_F(LogWriter, LevelAboveThreshold_TakesNoRecord) {
    levels[LOG_CHAN] = 11;
    testing::internal::CaptureStderr();
    ORUIO_LOG(LogDebug, "dropped");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(allocCount, 0);
}

TEST_F(LogWriter, NegativeThreshold_ComparesSigned) {
    levels[LOG_CHAN] = -2;
    __oruLog(LOG_CHAN, -1, "f", 1, "above");
    __oruLog(LOG_CHAN, -2, "f", 1, "equal");
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_STREQ(messages[0].text, "equal");
}

TEST_F(LogWriter, ChangedThreshold_AppliesToTheNextMessage) {
    ORUIO_LOG(LogDebug, "dropped");
    levels[LOG_CHAN] = 12;
    ORUIO_LOG(LogDebug, "kept");
    levels[LOG_CHAN] = 11;
    ORUIO_LOG(LogDebug, "dropped again");
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_STREQ(messages[0].text, "kept");
}

TEST_F(LogWriter, ReplacedTable_IsUsed) {
    int others[1000] = {};
    others[LOG_CHAN] = 12;
    oruLogLevel = others;
    ORUIO_LOG(LogDebug, "kept");
    oruLogLevel = levels;
    EXPECT_EQ(messages.size(), 1u);
}

TEST_F(LogWriter, ChannelOutsideTable_LogsNothing) {
    testing::internal::CaptureStderr();
    for (const bool has : {true, false}) {
        hasRecord = has;
        __oruLog(-1, -1000, "f", 1, "nobody");
        __oruLog(1000, -1000, "f", 1, "nobody");
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(allocCount, 0);
}

TEST_F(LogWriter, LastChannelOfTable_IsPushed) {
    __oruLog(999, 10, "f", 1, "last");
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].channel, 999);
}

TEST_F(LogWriter, Message_FillsTheRecordExceptService) {
    static const char file[] = "src/some.cpp";
    timespec before;
    timespec after;
    clock_gettime(CLOCK_REALTIME, &before);
    __oruLog(LOG_CHAN, 9, file, 4711, "%s %d", "value", -5);
    clock_gettime(CLOCK_REALTIME, &after);

    ASSERT_EQ(messages.size(), 1u);
    const oruLogMsg& msg = messages[0];
    EXPECT_EQ(msg.service, &record);
    EXPECT_EQ(msg.channel, LOG_CHAN);
    EXPECT_EQ(msg.level, 9);
    EXPECT_EQ(static_cast<long>(msg.tid), syscall(SYS_gettid));
    EXPECT_EQ(msg.line, 4711);
    EXPECT_EQ(msg.file, static_cast<const char*>(file));
    EXPECT_FALSE(isBefore(msg.time, before));
    EXPECT_FALSE(isBefore(after, msg.time));
    EXPECT_STREQ(msg.text, "value -5");
    EXPECT_EQ(msg.length, 8);
}

TEST_F(LogWriter, Macro_RecordsFileAndLine) {
    ORUIO_LOG(LogWarning, "here");
    const int line = __LINE__ - 1;
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_STREQ(messages[0].file, __FILE__);
    EXPECT_EQ(messages[0].line, line);
}

TEST_F(LogWriter, Newline_IsNeitherAddedNorRemoved) {
    ORUIO_LOG(LogWarning, "with\n");
    ORUIO_LOG(LogWarning, "without");
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_STREQ(messages[0].text, "with\n");
    EXPECT_STREQ(messages[1].text, "without");
}

TEST_F(LogWriter, LongMessage_IsTruncatedTo255AndKeepsItsLength) {
    for (const size_t length : {255, 256, 1000}) {
        std::string text;
        for (size_t i = 0; i < length; ++i)
            text += static_cast<char>('a' + i % 26);
        messages.clear();
        ORUIO_LOG(LogWarning, "%s", text.c_str());
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_EQ(messages[0].text, text.substr(0, 255));
        EXPECT_EQ(messages[0].length, static_cast<int>(length));
    }
}

TEST_F(LogWriter, AnyOutcome_KeepsErrno) {
    allocErrno = EPIPE;

    errno = ENOENT;
    ORUIO_LOG(LogWarning, "kept");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(messages.size(), 1u);

    errno = EBUSY;
    ORUIO_LOG(LogDebug, "dropped");
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(allocCount, 1);

    hasRecord = false;
    testing::internal::CaptureStderr();
    errno = EXDEV;
    ORUIO_LOG(LogWarning, "without a record");
    const int left = errno;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "without a record");
    EXPECT_EQ(left, EXDEV);
}

TEST_F(LogWriterWithoutRecords, Message_GoesToStandardErrorWithoutPrefix) {
    hasRecord = false;
    EXPECT_EQ(standardErrorOf("src/some.cpp", "abc"), "abc");
    EXPECT_EQ(standardErrorOf("src/some.cpp", "abc\n"), "abc\n");
    EXPECT_EQ(standardErrorOf("src/some.cpp", ""), "");
    EXPECT_EQ(allocCount, 3);
    EXPECT_TRUE(messages.empty());
}

TEST_F(LogWriterWithoutRecords, LongMessage_IsTruncatedAsWithPrefix) {
    hasRecord = false;
    const size_t rest = 255 - strlen("LOG DROP: src/some.cpp:7: ");
    for (const size_t length : {rest - 1, rest, rest + 1, size_t(255), size_t(1000)}) {
        const std::string written = standardErrorOf("src/some.cpp", std::string(length, 'x'));
        EXPECT_EQ(written, std::string(std::min(length, rest), 'x')) << length;
    }
}

TEST_F(LogWriterWithoutRecords, LongFileName_LeavesNoRoomForTheMessage) {
    hasRecord = false;
    // "LOG DROP: ", ":7: " and a name of 240 bytes leave room for one character, longer names for
    // none.
    EXPECT_EQ(standardErrorOf(std::string(240, 'f').c_str(), "abc"), "a");
    for (const size_t length : {241, 242, 255, 256, 257, 5000})
        EXPECT_EQ(standardErrorOf(std::string(length, 'f').c_str(), "abc"), "") << length;
}

TEST_F(LogWriterWithoutRecords, LevelAboveThreshold_IsDropped) {
    hasRecord = false;
    testing::internal::CaptureStderr();
    ORUIO_LOG(LogDebug, "dropped");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(LogWriter, MessageOfTheLibrary_ReachesThisProgram) {
    std::fill(std::begin(levels), std::end(levels), 12);
    FSSwitch fsSwitch;
    fsSwitch.add(QStringLiteral("media"), PosixFS::SPtr::create(QStringLiteral("/")));
    ASSERT_EQ(messages.size(), 1u);
    const oruLogMsg& msg = messages[0];
    EXPECT_STREQ(msg.text, "Invalid mount point 'media'. Must be an absolute path.");
    EXPECT_EQ(msg.level, 12);
    EXPECT_STREQ(msg.file, "src/fsswitch.cpp");
    EXPECT_GT(msg.line, 0);
    ASSERT_GE(msg.channel, 0);
    ASSERT_LT(msg.channel, registrationCount);
    EXPECT_STREQ(registrations[msg.channel].name, "libio");
    EXPECT_STREQ(registrations[msg.channel].file, "src/fsswitch.cpp");
}

TEST_F(LogWriter, MessageOfTheLibraryAboveThreshold_IsDropped) {
    std::fill(std::begin(levels), std::end(levels), 11);
    FSSwitch fsSwitch;
    fsSwitch.add(QStringLiteral("media"), PosixFS::SPtr::create(QStringLiteral("/")));
    EXPECT_EQ(allocCount, 0);
}

} // namespace

} // namespace oru::io
