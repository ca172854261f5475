// SPDX-License-Identifier: Apache-2.0
// Error codes, their descriptions, and snapshots of them.
#include <oruio/error.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <thread>

namespace oru::io {

class ErrorTest : public ::testing::Test {
protected:
    void SetUp() override {
        liberrno = Ok;
        errno = 0;
    }
    void TearDown() override {
        liberrno = Ok;
    }
};

TEST_F(ErrorTest, CodeZero_DescribesErrno) {
    errno = ENOENT;
    EXPECT_STREQ(strerror(), std::strerror(ENOENT));
    errno = 0;
    EXPECT_STREQ(strerror(), std::strerror(0));
}

TEST_F(ErrorTest, LibraryCode_IsDescribedInsteadOfErrno) {
    errno = ENOENT;
    liberrno = NotImplemented;
    EXPECT_STREQ(strerror(), "Not Implemented");
    liberrno = NotFound;
    EXPECT_STREQ(strerror(), "Not Found");
    liberrno = LibraryFailure;
    EXPECT_STREQ(strerror(), "Library Failure");
}

TEST_F(ErrorTest, Codes_HaveFixedNumbers) {
    EXPECT_EQ(static_cast<int>(Ok), 0);
    EXPECT_EQ(static_cast<int>(NotImplemented), 1);
    EXPECT_EQ(static_cast<int>(NotFound), 2);
    EXPECT_EQ(static_cast<int>(LibraryFailure), 3);
}

TEST_F(ErrorTest, UnknownCode_HasNoDescription) {
    liberrno = static_cast<ErrorCode>(4);
    EXPECT_STREQ(strerror(), "No description available");
    liberrno = static_cast<ErrorCode>(7);
    EXPECT_STREQ(strerror(), "No description available");
}

TEST_F(ErrorTest, NegativeCode_ReturnsNull) {
    liberrno = static_cast<ErrorCode>(-1);
    EXPECT_EQ(strerror(), nullptr);
    EXPECT_EQ(Error().strerror(), nullptr);
    liberrno = static_cast<ErrorCode>(4);
    EXPECT_STREQ(strerror(), "No description available");
    liberrno = NotFound;
    EXPECT_STREQ(strerror(), "Not Found");
}

TEST_F(ErrorTest, IsError_IsFalseOnlyWhenBothAreZero) {
    EXPECT_FALSE(isError());
    errno = EIO;
    EXPECT_TRUE(isError());
    errno = 0;
    liberrno = NotFound;
    EXPECT_TRUE(isError());
    errno = EIO;
    EXPECT_TRUE(isError());
}

TEST_F(ErrorTest, IsError_ClearsNothing) {
    errno = EIO;
    liberrno = NotFound;
    isError();
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(liberrno, NotFound);
}

TEST_F(ErrorTest, Snapshot_KeepsItsValues) {
    errno = EACCES;
    liberrno = NotFound;
    const Error error;
    errno = ENOSPC;
    liberrno = Ok;
    EXPECT_EQ(error.code, NotFound);
    EXPECT_EQ(error.sysErrno, EACCES);
    EXPECT_STREQ(error.strerror(), "Not Found");
}

TEST_F(ErrorTest, SnapshotOfErrno_DescribesTheCapturedValue) {
    errno = EACCES;
    const Error error;
    errno = ENOSPC;
    EXPECT_STREQ(error.strerror(), std::strerror(EACCES));
}

TEST_F(ErrorTest, SnapshotOfUnknownCode_HasNoDescription) {
    liberrno = static_cast<ErrorCode>(99);
    EXPECT_STREQ(Error().strerror(), "No description available");
}

TEST_F(ErrorTest, NewThread_HasItsOwnCodeZero) {
    liberrno = NotFound;
    ErrorCode initial = LibraryFailure;
    std::thread([&initial] {
        initial = liberrno;
        liberrno = NotImplemented;
    }).join();
    EXPECT_EQ(initial, Ok);
    EXPECT_EQ(liberrno, NotFound);
}

TEST_F(ErrorTest, SnapshotOfAnotherThread_KeepsThatThreadsValues) {
    std::unique_ptr<Error> error;
    std::thread([&error] {
        liberrno = LibraryFailure;
        errno = EPIPE;
        error = std::make_unique<Error>();
    }).join();
    EXPECT_EQ(error->code, LibraryFailure);
    EXPECT_EQ(error->sysErrno, EPIPE);
}

} // namespace oru::io
