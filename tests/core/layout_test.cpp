// SPDX-License-Identifier: Apache-2.0
// The records in the interface of the library: their sizes on the target, and their large-file
// fields on all systems.

#include <oruio/error.h>
#include <oruio/fs.h>
#include <oruio/posixfs.h>

#include <orulog/orulog.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <ctime>
#include <type_traits>

#include <fcntl.h>

namespace oru::io {

#if defined(__arm__)
static_assert(sizeof(void*) == 4 && sizeof(long) == 4, "the target has 32-bit words");
static_assert(sizeof(struct stat) == 104, "stat record");
static_assert(sizeof(struct statfs) == 88, "statfs record");
static_assert(sizeof(struct dirent) == 280, "directory entry");
static_assert(sizeof(struct flock) == 32, "lock record");
static_assert(sizeof(time_t) == 4 && sizeof(struct timespec) == 8, "time records");
#endif
static_assert(sizeof(off_t) == 8 && sizeof(ino_t) == 8, "large files");
static_assert(sizeof(stat::st_size) == 8, "large files");
static_assert(sizeof(dirent::d_off) == 8 && sizeof(dirent::d_ino) == 8, "large files");
static_assert(sizeof(statfs::f_blocks) == 8, "large files");
static_assert(sizeof(flock::l_start) == 8, "large files");

static_assert(std::is_same_v<std::underlying_type_t<ErrorCode>, std::int32_t>, "32 bits, signed");
static_assert(offsetof(Error, code) == 0 && offsetof(Error, sysErrno) == 4 && sizeof(Error) == 8,
              "two 32-bit words");

TEST(Layout, LogRecord_HasFixedOffsets) {
    EXPECT_EQ(offsetof(oruLogMsg, channel), sizeof(void*));
    EXPECT_EQ(offsetof(oruLogMsg, level), sizeof(void*) + 4);
    EXPECT_EQ(offsetof(oruLogMsg, tid), sizeof(void*) + 8);
    EXPECT_EQ(offsetof(oruLogMsg, line), sizeof(void*) + 12);
    EXPECT_EQ(offsetof(oruLogMsg, file), sizeof(void*) + 16);
    EXPECT_EQ(offsetof(oruLogMsg, time), 2 * sizeof(void*) + 16);
    EXPECT_EQ(offsetof(oruLogMsg, text), offsetof(oruLogMsg, time) + sizeof(struct timespec));
    EXPECT_EQ(sizeof(oruLogMsg::text), 256U);
    EXPECT_EQ(offsetof(oruLogMsg, length), offsetof(oruLogMsg, text) + 256);
}

} // namespace oru::io
