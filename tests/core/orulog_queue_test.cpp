// SPDX-License-Identifier: Apache-2.0
// The logging service: records, their queue, and the hook.
#include "orulog_fixtures.h"

#include <atomic>
#include <cerrno>
#include <set>
#include <thread>
#include <vector>

namespace orulog::test {

namespace {

using LogRecords = LogService;
using LogQueue = LogService;
using LogHook = LogService;

} // namespace

const std::map<std::string, void (*)()> scenarios;

TEST_F(LogRecords, AllTaken_AllocReturnsNullUntilOneIsWritten) {
    const int channel = registerChannel("all-taken");
    RecordingHook seen;
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

TEST_F(LogRecords, HookBlocks_AllocFailsWithoutWaiting) {
    const int channel = registerChannel("held-up");
    BlockingHook hook;
    for (const auto& text : numbered("", 0, ORULOG_RECORDS))
        ASSERT_TRUE(log(channel, 10, text));
    hook.waitUntilReached();
    EXPECT_FALSE(log(channel, 10, "one too many"));
    hook.release();
    EXPECT_EQ(messagesIn(logged()), numbered("", 0, ORULOG_RECORDS));
    EXPECT_TRUE(log(channel, 10, "possible again"));
}

TEST_F(LogRecords, PushOfForeignOrUntakenRecord_IsIgnored) {
    const int channel = registerChannel("no-record");
    RecordingHook seen;

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

    // No record is lost, and none is listed twice.
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

TEST_F(LogQueue, Messages_AreWrittenInPushOrder) {
    const int channel = registerChannel("in-order");
    const Strings texts = numbered("", 0, 2000);
    RecordingHook seen;
    for (const auto& text : texts)
        logOrWait(channel, 10, text);
    EXPECT_EQ(messagesIn(logged()), texts);
    EXPECT_EQ(seen.texts, texts);
}

TEST_F(LogQueue, PushOrderDiffersFromAllocOrder_WrittenInPushOrder) {
    const int channel = registerChannel("push-order");
    oruLogMsg* const first = oruLogMsgAlloc();
    oruLogMsg* const second = oruLogMsgAlloc();
    ASSERT_TRUE(first && second);
    fill(*first, channel, 10, "taken first");
    fill(*second, channel, 10, "taken second");
    oruLogMsgPush(second);
    oruLogMsgPush(first);
    EXPECT_EQ(messagesIn(logged()), (Strings{"taken second", "taken first"}));
}

namespace {

/// Runs `threads` threads. Each passes `each` messages "THREAD NUMBER" to `write`.
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

/// Expects every message of runWriters() once, and those of each thread in order.
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

} // namespace

TEST_F(LogQueue, ManyThreadsWithinRecordCount_AllAreWritten) {
    const int channel = registerChannel("many-threads");
    std::atomic<int> refused{0};
    runWriters(8, ORULOG_RECORDS / 8, [&refused, channel](const std::string& text) {
        if (!log(channel, 10, text))
            ++refused;
    });
    EXPECT_EQ(refused, 0);
    expectAllOf(8, ORULOG_RECORDS / 8, messagesIn(logged()));
}

TEST_F(LogQueue, ManyThreadsBeyondRecordCount_AllAreWrittenAfterRetry) {
    const int channel = registerChannel("more-threads");
    runWriters(4, 2000, [channel](const std::string& text) { logOrWait(channel, 10, text); });
    expectAllOf(4, 2000, messagesIn(logged()));
}

TEST_F(LogQueue, Flush_WaitsForTheHook) {
    const int channel = registerChannel("flush");
    BlockingHook hook;
    ASSERT_TRUE(log(channel, 10, "message"));
    hook.waitUntilReached();
    std::atomic<bool> leftBeforeFlush{false};
    std::thread flusher([&] {
        EXPECT_EQ(oruLogFlush(), 0);
        leftBeforeFlush = hook.hasReturned();
    });
    hook.release();
    flusher.join();
    EXPECT_TRUE(leftBeforeFlush);
}

TEST_F(LogQueue, FlushEmptyQueue_ReturnsAtOnce) {
    EXPECT_EQ(oruLogFlush(), 0);
    EXPECT_EQ(oruLogFlush(), 0);
}

// ---------------------------------------------------------------------------------------------
// The hook

TEST_F(LogHook, Installed_GetsTheWholeMessage) {
    const int channel = registerChannel("seen");
    RecordingHook seen;
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

TEST_F(LogHook, Removed_HasReturnedAndIsNotCalled) {
    const int channel = registerChannel("removed");
    BlockingHook hook;
    ASSERT_TRUE(log(channel, 10, "seen"));
    hook.waitUntilReached();
    std::thread releaser([&] { hook.release(); });
    oruLogSetHook(nullptr, nullptr);
    EXPECT_TRUE(hook.hasReturned());
    releaser.join();

    const RecordingHook seen;
    oruLogSetHook(nullptr, nullptr);
    ASSERT_TRUE(log(channel, 10, "unseen"));
    ASSERT_EQ(oruLogFlush(), 0);
    EXPECT_TRUE(seen.texts.empty());
}

TEST_F(LogHook, LogsOrFlushes_AllocReturnsNullAndFlushFailsWithEDEADLK) {
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

TEST_F(LogHook, CallsControls_ControlsSucceed) {
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
    EXPECT_EQ(messagesIn(contentOf(path("log"))), Strings{"first"});
    EXPECT_EQ(messagesIn(contentOf(path("from-hook"))), Strings{"second"});
}

} // namespace orulog::test
