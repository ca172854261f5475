// SPDX-License-Identifier: Apache-2.0
// The table of descriptors and directory handles.
#include "callbackfile.h"
#include "support/doubles/recordingfs.h"

#include <oruio/error.h>
#include <oruio/fdadapter.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <memory>
#include <set>

#include <fcntl.h>
#include <unistd.h>

namespace {

// The limit that sysconf() returns for the next descriptor tables; unset: that of the system.
constexpr long systemLimit = -2;
long openMax = systemLimit;

} // namespace

// The C library's sysconf(), by a name that nothing overrides.
extern "C" long __sysconf(int name) noexcept;

// The library calls this definition, because the symbols of the program precede those of the C
// library. The sanitizers call it before they are initialised, so it is not instrumented.
extern "C"
    __attribute__((visibility("default"), no_sanitize("address", "thread", "undefined"))) long
    sysconf(int name) noexcept {
    return name == _SC_OPEN_MAX && openMax != systemLimit ? openMax : __sysconf(name);
}

namespace oru::io {

using test::CallbackFile;
using test::RecordingFS;

namespace {

/// A descriptor table made under another limit of system descriptors.
class LimitedMap {
public:
    explicit LimitedMap(long limit) {
        openMax = limit;
        m_map = std::make_unique<FDMap>();
        openMax = systemLimit;
    }
    FDMap& operator*() {
        return *m_map;
    }
    FDMap* operator->() {
        return m_map.get();
    }

private:
    std::unique_ptr<FDMap> m_map;
};

} // namespace

class FDMapTest : public ::testing::Test {
protected:
    void SetUp() override {
        errno = EXDEV;
        liberrno = Ok;
    }

    QSharedPointer<File> newFile() {
        return fs.open("/f", O_RDWR | O_CREAT, 0644);
    }

    RecordingFS fs;
};

TEST_F(FDMapTest, Descriptors_StartAtTheLimitOfTheSystem) {
    LimitedMap map(1024);
    auto file = newFile();
    EXPECT_EQ(map->add(file), 1024);
    EXPECT_EQ(map->add(file), 1025);
    EXPECT_EQ(map->remove(1024), 0);
    EXPECT_EQ(map->add(file), 1024);
    EXPECT_EQ(map->add(file), 1026);
}

TEST_F(FDMapTest, ReleasedNumbers_LowestIsUsedFirst) {
    LimitedMap map(100);
    auto file = newFile();
    for (int fd = 100; fd < 110; ++fd)
        ASSERT_EQ(map->add(file), fd);
    for (const int fd : {107, 102, 105})
        EXPECT_EQ(map->remove(fd), 0);
    EXPECT_EQ(map->add(file), 102);
    EXPECT_EQ(map->remove(100), 0);
    EXPECT_EQ(map->add(file), 100);
    EXPECT_EQ(map->add(file), 105);
    EXPECT_EQ(map->add(file), 107);
    EXPECT_EQ(map->add(file), 110);
}

TEST_F(FDMapTest, RandomOpensAndCloses_UseTheLowestFreeNumber) {
    LimitedMap map(1000);
    auto file = newFile();
    std::set<int> open;
    unsigned state = 12345;
    for (int i = 0; i < 5000; ++i) {
        state = state * 1664525U + 1013904223U;
        if (open.empty() || (state >> 16) % 5 < 3) {
            int lowest = 1000;
            while (open.count(lowest))
                ++lowest;
            ASSERT_EQ(map->add(file), lowest);
            open.insert(lowest);
        } else {
            const auto victim =
                std::next(open.begin(), static_cast<long>((state >> 8) % open.size()));
            ASSERT_EQ(map->remove(*victim), 0);
            open.erase(victim);
        }
    }
}

TEST_F(FDMapTest, TenThousandFiles_AllGetDescriptors) {
    LimitedMap map(1024);
    auto file = newFile();
    for (int i = 0; i < 10000; ++i)
        ASSERT_EQ(map->add(file), 1024 + i);
    EXPECT_EQ(map->get(1024 + 9999), file);
}

TEST_F(FDMapTest, UnknownLimit_EveryAddFails) {
    LimitedMap map(-1);
    auto file = newFile();
    EXPECT_EQ(map->add(file), -1);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(map->get(-1), nullptr);
    // The table holds no reference: releasing the last one destroys the file.
    fs.take();
    file.reset();
    EXPECT_EQ(fs.take(), QStringList{"~file"});
}

TEST_F(FDMapTest, NumbersExhausted_FailsWithEMFILE) {
    LimitedMap map(std::numeric_limits<int>::max() - 1);
    auto file = newFile();
    EXPECT_EQ(map->add(file), std::numeric_limits<int>::max() - 1);
    liberrno = NotFound;
    EXPECT_EQ(map->add(file), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(map->remove(std::numeric_limits<int>::max() - 1), 0);
    EXPECT_EQ(map->add(file), std::numeric_limits<int>::max() - 1);
}

TEST_F(FDMapTest, AddNull_Fails) {
    LimitedMap map(1024);
    QSharedPointer<File> none;
    EXPECT_EQ(map->add(none), -1);
    QSharedPointer<Directory> nothing;
    EXPECT_EQ(map->add(nothing), nullptr);
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(FDMapTest, Get_SetsLiberrnoAndKeepsErrno) {
    LimitedMap map(1024);
    auto file = newFile();
    const int fd = map->add(file);
    liberrno = LibraryFailure;
    EXPECT_EQ(map->get(fd), file);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(map->get(fd + 1), nullptr);
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(FDMapTest, Remove_CloseMayUseTheTableAndItsErrnoStands) {
    LimitedMap map(1024);
    auto callback = QSharedPointer<CallbackFile>::create();
    const QWeakPointer<CallbackFile> weak = callback;
    ErrorCode whenClosing = LibraryFailure;
    callback->onClose = [&] {
        whenClosing = liberrno;
        // This would deadlock if the table were locked.
        EXPECT_EQ(map->get(1024), nullptr);
    };
    QSharedPointer<File> file = callback;
    ASSERT_EQ(map->add(file), 1024);
    file.reset();
    callback.reset();
    liberrno = NotFound;
    EXPECT_EQ(map->remove(1024), -1);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(liberrno, LibraryFailure);
    EXPECT_EQ(whenClosing, Ok);
    EXPECT_TRUE(weak.isNull());
}

TEST_F(FDMapTest, Get_KeepsTheFileAndSetsLiberrno) {
    LimitedMap map(1024);
    auto file = newFile();
    const int fd = map->add(file);
    fs.take();
    liberrno = LibraryFailure;
    QSharedPointer<File> held = map->get(fd);
    EXPECT_EQ(held, file);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(map->remove(fd), 0);
    file.reset();
    EXPECT_EQ(fs.take(), QStringList{"close"});
    held.reset();
    EXPECT_EQ(fs.take(), QStringList{"~file"});
    EXPECT_FALSE(map->get(fd));
    EXPECT_EQ(liberrno, NotFound);
}

TEST_F(FDMapTest, Remove_ClosesOnceAndReturnsItsResult) {
    LimitedMap map(1024);
    auto file = newFile();
    const int fd = map->add(file);
    fs.take();
    fs.answerWith(7);
    EXPECT_EQ(map->remove(fd), 7);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(fs.take(), QStringList{"close"});
    EXPECT_EQ(map->remove(fd), -1);
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(fs.take(), QStringList());
    file.reset();
    EXPECT_EQ(fs.take(), QStringList{"~file"});
}

TEST_F(FDMapTest, AddDirectory_HandleIsTheAddress) {
    LimitedMap map(1024);
    auto dir = fs.opendir("/d");
    fs.take();
    liberrno = LibraryFailure;
    EXPECT_EQ(map->add(dir), dir.data());
    EXPECT_EQ(map->add(dir), dir.data());
    EXPECT_EQ(map->getdir(dir.data()), dir);
    EXPECT_EQ(map->getdir(this), nullptr);
    EXPECT_EQ(map->getdir(nullptr), nullptr);
    void* const handle = dir.data();
    dir.reset();
    EXPECT_EQ(fs.take(), QStringList());
    EXPECT_EQ(map->remove(handle), 0);
    EXPECT_EQ(fs.take(), QStringList{"~directory"});
    EXPECT_EQ(map->getdir(handle), nullptr);
    EXPECT_EQ(map->remove(handle), 0);
    EXPECT_EQ(map->remove(static_cast<void*>(nullptr)), -1);
    EXPECT_EQ(liberrno, LibraryFailure);
    EXPECT_EQ(errno, EXDEV);
}

} // namespace oru::io
