// SPDX-License-Identifier: Apache-2.0
// The layout of the shared area, and how client and server hand over requests and responses.

#include "ipc/ipcsync_p.h"
#include "ipc/ipcwire_p.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <thread>

#include <semaphore.h>

namespace oru::io {

using namespace ipcwire;

TEST(IpcLayout, Area_HasTheSameSizesOnEveryPlatform) {
    EXPECT_EQ(areaSize, 0x205000U);
    EXPECT_EQ(blockOverhead, 40U);
    EXPECT_EQ(sizeof(Area::request), 8704U);
    EXPECT_EQ(sizeof(Area::response), 8704U);
    EXPECT_EQ(sizeof(Area::buffers[0]), 0x100000U);
    EXPECT_EQ(sizeof(Area::buffers), 0x200000U);
}

TEST(IpcLayout, Area_FieldsAreInOrder) {
    EXPECT_EQ(offsetof(AreaControl, magic), 0U);
    EXPECT_LT(offsetof(AreaControl, clientMutex), offsetof(AreaControl, serverMutex));
    EXPECT_LT(offsetof(AreaControl, serverMutex), offsetof(AreaControl, bufferMutex));
    EXPECT_LT(offsetof(AreaControl, bufferMutex), offsetof(AreaControl, requestSem));
    EXPECT_LT(offsetof(AreaControl, requestSem), offsetof(AreaControl, responseSem));
    EXPECT_LT(offsetof(AreaControl, responseSem), offsetof(AreaControl, bufferSem));
    EXPECT_LT(offsetof(AreaControl, bufferSem), offsetof(AreaControl, bufferMap));
    EXPECT_EQ(offsetof(Area, request), sizeof(AreaControl));
    EXPECT_EQ(offsetof(Area, response), offsetof(Area, request) + 8704);
    EXPECT_EQ(offsetof(Area, sessions), offsetof(Area, response) + 8704);
    EXPECT_EQ(offsetof(Area, unused), offsetof(Area, sessions) + 4);
    EXPECT_EQ(offsetof(Area, buffers) % 16, 0U);
}

TEST(IpcLayout, Area_FitsIntoTheObject) {
    EXPECT_LE(sizeof(BlockHeader) + sizeof(Area), 0x205028U);
    EXPECT_GE(sizeof(BlockHeader) + sizeof(Area), 0x205020U);
}

TEST(IpcSessions, CountSession_IncrementsTheNumberInTheArea) {
    const auto area = std::make_unique<Area>();
    countSession(*area);
    EXPECT_EQ(area->sessions, 1U);
    area->sessions = 0xFFFFFFFF;
    countSession(*area);
    EXPECT_EQ(area->sessions, 0U);
}

TEST(IpcLocks, Commands_HaveTheTargetsNumbersOnTheWire) {
    EXPECT_EQ(wireLockCommand(F_GETLK), 12);
    EXPECT_EQ(wireLockCommand(F_SETLK), 13);
    EXPECT_EQ(wireLockCommand(F_SETLKW), 14);
    EXPECT_EQ(wireLockCommand(F_GETFL), -1);
    EXPECT_EQ(platformLockCommand(12), F_GETLK);
    EXPECT_EQ(platformLockCommand(13), F_SETLK);
    EXPECT_EQ(platformLockCommand(14), F_SETLKW);
    EXPECT_EQ(platformLockCommand(11), -1);
    EXPECT_EQ(platformLockCommand(15), -1);
}

TEST(IpcLocks, IntegerCommands_AreZeroToFourAnd1030) {
    for (int command = -1; command < 2000; ++command)
        EXPECT_EQ(isIntegerCommand(command), (command >= 0 && command <= 4) || command == 1030)
            << command;
}

class IpcRequest : public ::testing::Test {
protected:
    IpcRequest() {
        setIdle(*area);
    }

    void publishString(const std::string& request) {
        publish(*area, request.c_str(), request.size() + 1);
    }

    std::unique_ptr<Area> area = std::make_unique<Area>();
    Text text;
};

TEST_F(IpcRequest, Idle_TakeReturnsFalse) {
    EXPECT_EQ(requestState(*area), Idle);
    EXPECT_FALSE(take(*area, text));
    EXPECT_EQ(requestState(*area), Idle);
}

TEST_F(IpcRequest, Published_IsTakenOnce) {
    publishString("stat /a");
    EXPECT_TRUE(isPublished(requestState(*area)));
    ASSERT_TRUE(take(*area, text));
    EXPECT_STREQ(text.bytes, "stat /a");
    EXPECT_EQ(requestState(*area), Accepted);
    EXPECT_FALSE(take(*area, text));
}

TEST_F(IpcRequest, DisconnectTaken_StateIsEnding) {
    publishString("disconnect");
    ASSERT_TRUE(take(*area, text));
    EXPECT_EQ(requestState(*area), Ending);
    setIdle(*area);
    publishString("disconnect now");
    ASSERT_TRUE(take(*area, text));
    EXPECT_EQ(requestState(*area), Ending);
    setIdle(*area);
    publishString("disconnected");
    ASSERT_TRUE(take(*area, text));
    EXPECT_EQ(requestState(*area), Accepted);
}

TEST_F(IpcRequest, Cancelled_CannotBeTaken) {
    publishString("unlink /a");
    EXPECT_TRUE(cancel(*area));
    EXPECT_EQ(requestState(*area), Done);
    EXPECT_FALSE(take(*area, text));
    EXPECT_FALSE(cancel(*area));
}

TEST_F(IpcRequest, Taken_CannotBeCancelled) {
    publishString("unlink /a");
    ASSERT_TRUE(take(*area, text));
    EXPECT_FALSE(cancel(*area));
    EXPECT_EQ(requestState(*area), Accepted);
}

TEST_F(IpcRequest, ShorterRequest_KeepsNothingOfTheOneBefore) {
    publish(*area, "link /first\0/second", 20);
    ASSERT_TRUE(take(*area, text));
    EXPECT_STREQ(text.bytes + 12, "/second");
    publishString("link /first");
    ASSERT_TRUE(take(*area, text));
    EXPECT_STREQ(text.bytes, "link /first");
    EXPECT_EQ(text.end() - text.bytes, 12);
}

TEST_F(IpcRequest, PayloadAfterTheNul_IsTakenToo) {
    const char request[] = "fcntl 7 13\0\x01\x02\x03\0\x05";
    publish(*area, request, sizeof request);
    ASSERT_TRUE(take(*area, text));
    EXPECT_EQ(std::memcmp(text.bytes, request, sizeof request), 0);
    EXPECT_EQ(text.end(), text.bytes + 8704);
}

TEST_F(IpcRequest, RequestWithoutNul_IsTerminatedInTheCopy) {
    std::memset(area->request, 'x', sizeof area->request);
    ASSERT_TRUE(take(*area, text));
    EXPECT_EQ(std::strlen(text.bytes), 8704U);
    EXPECT_EQ(text.bytes[8705], '\0');
}

TEST_F(IpcRequest, LongestRequest_IsTakenWhole) {
    const std::string longest = "stat /" + std::string(8703 - 6, 'p');
    publishString(longest);
    ASSERT_TRUE(take(*area, text));
    EXPECT_EQ(text.bytes, longest);
}

TEST_F(IpcRequest, RequestTooLong_LeavesTheResponseAreaUnchanged) {
    const std::string tooLong(20'000, 'p');
    std::memset(area->response, 'r', sizeof area->response);
    publish(*area, tooLong.data(), tooLong.size());
    EXPECT_EQ(area->response[0], 'r');
}

TEST_F(IpcRequest, CopyResponse_IncludesTheRecordAfterTheHeader) {
    std::memset(area->response, 'x', sizeof area->response);
    std::memcpy(area->response, "0,0,0", 6);
    copyResponse(*area, text);
    EXPECT_STREQ(text.bytes, "0,0,0");
    EXPECT_GE(text.end() - text.bytes, 6 + 280);
    EXPECT_EQ(text.bytes[6 + 279], 'x');
    EXPECT_EQ(*text.end(), '\0');
}

TEST_F(IpcRequest, ResponseWithoutNul_IsTerminatedInTheCopy) {
    std::memset(area->response, '1', sizeof area->response);
    area->unused[0] = '2';
    copyResponse(*area, text);
    EXPECT_EQ(std::strlen(text.bytes), 8704U);
}

// The client cancels a request while the server takes it. One of them succeeds, and the next
// request is complete.
TEST_F(IpcRequest, TakeAndCancelAtOnce_OneOfThemSucceeds) {
    constexpr int rounds = 20'000;
    std::atomic<bool> ends{false};
    int served = 0;
    std::thread server([&] {
        Text request;
        while (!ends) {
            if (!take(*area, request))
                continue;
            ++served;
            const std::string got = request.bytes;
            EXPECT_TRUE(got == "rename /aaaa" || got == "unlink /bb") << got;
        }
    });
    int cancelled = 0;
    int taken = 0;
    for (int i = 0; i < rounds; ++i) {
        publishString(i % 2 ? "rename /aaaa" : "unlink /bb");
        if (cancel(*area)) {
            ++cancelled;
        } else {
            ++taken;
            while (requestState(*area) != Accepted)
                std::this_thread::yield();
            setDone(*area);
        }
    }
    ends = true;
    server.join();
    EXPECT_EQ(served, taken);
    EXPECT_EQ(cancelled + taken, rounds);
}

// The formats are those of the wire, whose exact bytes vsnprintf(3) defines.
template <class... Values>
void expectFormattedAsByTheCLibrary(const char* format, Values... values) {
    char expected[64];
    const int length = std::snprintf(expected, sizeof expected, format, values...);
    for (std::size_t size = 1; size <= sizeof expected; ++size) {
        char wanted[sizeof expected + 1];
        char formatted[sizeof expected + 1];
        std::memset(wanted, 'x', sizeof wanted);
        std::memset(formatted, 'x', sizeof formatted);
        std::snprintf(wanted, size, format, values...);
        EXPECT_EQ(formatFields(formatted, size, format, values...),
                  static_cast<std::size_t>(length));
        EXPECT_EQ(std::string(formatted, sizeof formatted), std::string(wanted, sizeof wanted))
            << format << " in " << size;
    }
}

TEST(IpcFields, Formats_GiveTheBytesOfVsnprintfInAnySize) {
    constexpr auto check = [](const char* format, auto... values) {
        expectFormattedAsByTheCLibrary(format, values...);
    };
    constexpr int least = std::numeric_limits<int>::min();
    constexpr int most = std::numeric_limits<int>::max();
    constexpr auto leastLong = std::numeric_limits<long long>::min();
    constexpr auto mostLong = std::numeric_limits<unsigned long long>::max();
    constexpr auto mostSize = std::numeric_limits<std::size_t>::max();
    check(args::path, "");
    check(args::path, "/100% \xc3\xa4");
    check(args::twoStrings, "/from", '\0', "to");
    check(args::modeAndPath, 0755, "/a b");
    check(args::lengthAndPath, mostLong, "/a");
    check(args::handle, static_cast<const void*>(nullptr));
    check(args::handle, static_cast<const void*>("an address"));
    check(args::open, least, most, "/a");
    check(args::transfer, -1, 0, mostSize);
    check(args::transferAt, 3, 1, std::size_t{0}, mostLong);
    check(args::lseek, 3, leastLong, 2);
    check(args::fdAndLength, 3, std::numeric_limits<long long>::max());
    check(args::fd, 0);
    check(args::fdAndNumber, 3, -4);
    check(args::fdAndTwoNumbers, 3, 1030, most);
    check(answer::header, -1, ENOENT, 0);
    check(answer::tooLong, -1, E2BIG, 0);
    check(answer::text, "target");
    check(answer::bufferAndCount, 1, ssize_t{-1});
    check(answer::count, std::numeric_limits<ssize_t>::min());
    check(answer::position, 4'294'967'296LL);
}

TEST(IpcFields, Numbers_AreReadInOrder) {
    int fd = 0;
    long long offset = 0;
    unsigned long long length = 0;
    FieldReader fields("7 -5000000000 18446744073709551615");
    EXPECT_TRUE(
        fields.number(fd).separator(' ').number(offset).separator(' ').number(length).isGood());
    EXPECT_EQ(fd, 7);
    EXPECT_EQ(offset, -5'000'000'000);
    EXPECT_EQ(length, ~0ULL);
    EXPECT_TRUE(fields.atEnd());
}

TEST(IpcFields, Rest_StartsAfterOneSeparator) {
    int mode = 0;
    FieldReader fields("511  two blanks");
    EXPECT_TRUE(fields.number(mode).separator(' ').isGood());
    EXPECT_STREQ(fields.rest(), " two blanks");
}

TEST(IpcFields, NotANumber_LaterFieldsAreNotRead) {
    for (const char* text : {"", "x", " 1", "+1", "99999999999999999999", "--1"}) {
        int value = 42;
        int next = 43;
        FieldReader fields(text);
        EXPECT_FALSE(fields.number(value).isGood()) << text;
        EXPECT_FALSE(fields.number(next).isGood()) << text;
        EXPECT_EQ(next, 43) << text;
    }
    std::size_t count = 0;
    EXPECT_FALSE(FieldReader("-1").number(count).isGood());
    EXPECT_FALSE(FieldReader(nullptr).number(count).isGood());
    EXPECT_FALSE(FieldReader(nullptr).separator(' ').isGood());
}

TEST(IpcFields, Pointer_IsReadAsPrinted) {
    int object = 0;
    char text[32];
    snprintf(text, sizeof text, "%p", static_cast<void*>(&object));
    void* read = nullptr;
    EXPECT_TRUE(FieldReader(text).pointer(read).isGood());
    EXPECT_EQ(read, &object);
    for (const char* bad : {"(nil)", "", "1234", "0x", "0xg", "0x11111111111111111"}) {
        read = &object;
        EXPECT_FALSE(FieldReader(bad).pointer(read).isGood()) << bad;
        EXPECT_EQ(read, nullptr) << bad;
    }
}

class IpcSpinWaiter : public ::testing::Test {
protected:
    IpcSpinWaiter() {
        sem_init(&semaphore, 0, 0);
    }

    sem_t semaphore;
    SpinWaiter spinWaiter;

    int wait() {
        return spinWaiter.take(semaphore) ? 0 : waitFor(semaphore);
    }
    int wait(int ms) {
        return spinWaiter.take(semaphore) ? 0 : waitFor(semaphore, ms);
    }
};

TEST_F(IpcSpinWaiter, PostedOnce_IsTakenOnce) {
    sem_post(&semaphore);
    EXPECT_EQ(wait(0), 0);
    EXPECT_EQ(wait(0), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(IpcSpinWaiter, PostedAfterSpinning_WaitReturns) {
    for (int i = 0; i < 20; ++i) {
        std::thread poster([this, i] {
            std::this_thread::sleep_for(std::chrono::microseconds(100 * i));
            sem_post(&semaphore);
        });
        EXPECT_EQ(i % 2 ? wait(10'000) : wait(), 0);
        poster.join();
    }
}

TEST_F(IpcSpinWaiter, ManyWaits_NoPostIsLost) {
    constexpr int rounds = 20'000;
    sem_t answer;
    sem_init(&answer, 0, 0);
    std::thread other([&] {
        for (int i = 0; i < rounds; ++i) {
            EXPECT_EQ(wait(), 0);
            sem_post(&answer);
        }
    });
    SpinWaiter mine;
    for (int i = 0; i < rounds; ++i) {
        sem_post(&semaphore);
        if (!mine.take(answer)) {
            ASSERT_EQ(waitFor(answer), 0);
        }
    }
    other.join();
    int left = -1;
    sem_getvalue(&answer, &left);
    EXPECT_EQ(left, 0);
}

} // namespace oru::io
