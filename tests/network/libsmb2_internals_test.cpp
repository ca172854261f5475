// SPDX-License-Identifier: Apache-2.0
// What the library reads out of libsmb2's contexts and messages.

#include "network/libsmb2_internals_p.h"
#include "network/libsmb2_p.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

namespace oru::io {

namespace {

struct ContextDeleter {
    void operator()(smb2_context* context) const {
        libsmb2::destroyContext(context);
    }
};

using Context = std::unique_ptr<smb2_context, ContextDeleter>;

} // namespace

TEST(Libsmb2Flags, SetAndCleared_AreReadBack) {
    const Context context(libsmb2::makeContext());
    for (const int sign : {0, 1, 0}) {
        for (const int seal : {1, 0}) {
            smb2_set_sign(context.get(), sign);
            smb2_set_seal(context.get(), seal);
            EXPECT_EQ(libsmb2::isSigned(context.get()), sign);
            EXPECT_EQ(libsmb2::isSealed(context.get()), seal);
        }
    }
}

TEST(Libsmb2Flags, NewContext_HasNeither) {
    const Context context(libsmb2::makeContext());
    EXPECT_EQ(libsmb2::isSigned(context.get()), 0);
    EXPECT_EQ(libsmb2::isSealed(context.get()), 0);
}

TEST(Libsmb2Flags, SetterThatChangesNoBitOrSeveral_IsNotFound) {
    const Context context(libsmb2::makeContext());
    const libsmb2::Flag none([](smb2_context*, int) {});
    EXPECT_EQ(none.of(context.get()), -ENOTSUP);
    const libsmb2::Flag twoBits([](smb2_context* of, int value) {
        smb2_set_sign(of, value);
        smb2_set_seal(of, value);
    });
    EXPECT_EQ(twoBits.of(context.get()), -ENOTSUP);
    const libsmb2::Flag twoBytes([](smb2_context* of, int value) {
        smb2_set_sign(of, value);
        smb2_set_security_mode(of, value != 0);
    });
    EXPECT_EQ(twoBytes.of(context.get()), -ENOTSUP);
}

TEST(Libsmb2Credits, OneNumberSmallerByOne_IsFoundAndRead) {
    const std::unique_ptr<void, decltype(&std::free)> memory(std::calloc(64, sizeof(int)),
                                                             std::free);
    auto* const numbers = static_cast<int*>(memory.get());
    const auto* const context = static_cast<smb2_context*>(memory.get());
    const auto search = [&](const std::vector<int>& places, int change) {
        const libsmb2::CreditSearch comparison(context);
        for (const int place : places)
            numbers[place] += change;
    };
    EXPECT_EQ(libsmb2::credits(context), -ENOTSUP);
    search({}, 0);
    search({5}, 1);
    search({5}, -2);
    search({5, 9}, -1);
    EXPECT_EQ(libsmb2::credits(context), -ENOTSUP);
    numbers[7] = 31;
    search({7}, -1);
    EXPECT_EQ(libsmb2::credits(context), 30);
    search({9}, -1); // the place is known
    EXPECT_EQ(libsmb2::credits(context), 30);
}

TEST(Libsmb2Contexts, MadeAndDestroyedByManyThreads_StayApart) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            for (int round = 0; round < 200; ++round) {
                const Context context(libsmb2::makeContext());
                smb2_set_sign(context.get(), i % 2);
                ASSERT_EQ(libsmb2::isSigned(context.get()), i % 2);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

TEST(Libsmb2ConnectError, MessageOfAFailedConnect_HasItsErrno) {
    const Context context(libsmb2::makeContext());
    smb2_set_error(context.get(), "Connect failed with errno : Network is unreachable(%d)",
                   ENETUNREACH);
    EXPECT_EQ(libsmb2::connectError(context.get(), -EIO), -ENETUNREACH);
    smb2_set_error(context.get(), "Failed to open smb2 socket. Errno:Too many open files(%d).",
                   EMFILE);
    EXPECT_EQ(libsmb2::connectError(context.get(), -EIO), -EMFILE);
}

TEST(Libsmb2ConnectError, OtherMessages_KeepTheResult) {
    const Context context(libsmb2::makeContext());
    for (const char* message :
         {"", "Invalid address: (5)", "Connect failed", "Connect failed (", "Connect failed (x)",
          "Connect failed (0)", "Connect failed (-3)"}) {
        smb2_set_error(context.get(), "%s", message);
        EXPECT_EQ(libsmb2::connectError(context.get(), -EIO), -EIO) << message;
    }
}

// 255.255.255.255 is refused by connect(2) at once, so that no socket is left to ask.
TEST(Libsmb2ConnectError, OfARealConnect_IsTheErrnoOfConnect) {
    const Context context(libsmb2::makeContext());
    const int result = smb2_connect_share_async(
        context.get(), "255.255.255.255", "share", nullptr, [](smb2_context*, int, void*, void*) {},
        nullptr);
    ASSERT_LT(result, 0);
    const int error = libsmb2::connectError(context.get(), result);
    EXPECT_TRUE(error == -ENETUNREACH || error == -EACCES) << error;
}

} // namespace oru::io
