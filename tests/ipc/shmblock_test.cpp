// SPDX-License-Identifier: Apache-2.0
// ShmBlock: creating, opening, locking and removing a named block of shared memory.

#include "ipc/ipcwire_p.h"
#include "support/ipc/elapsed.h"
#include "support/ipc/ipccalls.h"
#include "support/ipc/ipcservice.h"
#include "support/ipc/sharedobject.h"
#include "support/system/childprocess.h"
#include "support/system/files.h"

#include <oruio/error.h>
#include <oruio/fsipc.h>

#include <QtEndian>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace oru::io {

using namespace ipcwire;
using test::ChildProcess;
using test::Clock;
using test::descriptorsOf;
using test::objectExists;
using test::objectPath;
using test::objectSize;
using test::secondsSince;

namespace {

/// A write-only standard error, as most services have it. perror(3) fails to reopen it for reading
/// and writing, and changes errno.
class WriteOnlyStandardError {
public:
    WriteOnlyStandardError() : m_original(dup(STDERR_FILENO)) {
        EXPECT_EQ(pipe(m_ends), 0);
        dup2(m_ends[1], STDERR_FILENO);
        close(m_ends[1]);
    }
    ~WriteOnlyStandardError() {
        restore();
        close(m_ends[0]);
    }

    /// Restores standard error. \returns what was written to it before.
    std::string take() {
        restore();
        char output[256];
        const ssize_t length = ::read(m_ends[0], output, sizeof output);
        return {output, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
    }

private:
    void restore() {
        if (m_original == -1)
            return;
        dup2(m_original, STDERR_FILENO);
        close(std::exchange(m_original, -1));
    }

    int m_original;
    int m_ends[2];
};

} // namespace

TEST(ShmBlock, MissingObjectWithoutCreate_InvalidAfterTenMilliseconds) {
    const auto start = Clock::now();
    ShmBlock block("t-none", 100, 0);
    EXPECT_GE(secondsSince(start), 0.009);
    EXPECT_LT(secondsSince(start), 1);
    EXPECT_FALSE(block.isValid());
    EXPECT_EQ(block.base(), nullptr);
    EXPECT_EQ(block.lock(), nullptr);
    EXPECT_EQ(block.tryLock(), nullptr);
    EXPECT_EQ(block.unlock(), 0);
    EXPECT_FALSE(objectExists("t-none"));
}

TEST(ShmBlock, Create_MakesObjectFortyBytesLargerThanTheData) {
    ShmBlock block("t-new", 100, ShmBlock::Create);
    EXPECT_TRUE(block.isValid());
    EXPECT_EQ(objectSize("t-new"), 140);
    const auto& header = *static_cast<BlockHeader*>(block.base());
    EXPECT_EQ(header.magic, 0x0CAB005EU);
    EXPECT_EQ(header.size, 140U);
    shm_unlink("/_blk_t-new");
}

TEST(ShmBlock, Create_ModeIs0666WithoutTheUmask) {
    const mode_t before = umask(0);
    for (const mode_t masked : {0, 027}) {
        umask(masked);
        const ShmBlock block("t-mode", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
        struct stat st = {};
        EXPECT_EQ(::stat(qPrintable(objectPath("t-mode")), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0666 & ~masked);
    }
    umask(before);
}

TEST(ShmBlock, CreatorsDescriptor_StaysOpenAsLongAsTheBlock) {
    {
        ShmBlock block("t-fd", 100, ShmBlock::Create);
        EXPECT_EQ(descriptorsOf("t-fd"), 1);
        ShmBlock second("t-fd", 100, ShmBlock::Create);
        ShmBlock third("t-fd", 100, 0);
        EXPECT_TRUE(second.isValid());
        EXPECT_TRUE(third.isValid());
        EXPECT_EQ(descriptorsOf("t-fd"), 1);
    }
    EXPECT_EQ(descriptorsOf("t-fd"), 0);
    shm_unlink("/_blk_t-fd");
}

TEST(ShmBlock, SecondOpener_SeesTheSameData) {
    ShmBlock creator("t-two", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    ShmBlock opener("t-two", 100, 0);
    ASSERT_TRUE(opener.isValid());
    auto* data = static_cast<char*>(creator.lock());
    ASSERT_NE(data, nullptr);
    std::strcpy(data, "footage");
    EXPECT_EQ(creator.unlock(), 0);
    data = static_cast<char*>(opener.lock());
    ASSERT_NE(data, nullptr);
    EXPECT_STREQ(data, "footage");
    EXPECT_EQ(opener.unlock(), 0);
}

TEST(ShmBlock, Lock_ReturnsAddressAfterTheHeader) {
    ShmBlock block("t-data", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    EXPECT_EQ(block.lock(), static_cast<char*>(block.base()) + sizeof(BlockHeader));
    EXPECT_EQ(block.unlock(), 0);
}

TEST(ShmBlock, RemoveAtClose_RemovesTheObject) {
    {
        ShmBlock block("t-gone", 100, ShmBlock::Create);
        ShmBlock second("t-gone", 100, 0);
        block.removeAtClose();
        EXPECT_TRUE(objectExists("t-gone"));
    }
    EXPECT_FALSE(objectExists("t-gone"));
}

TEST(ShmBlock, WithoutRemoveAtClose_ObjectStays) {
    { ShmBlock block("t-stays", 100, ShmBlock::Create); }
    EXPECT_TRUE(objectExists("t-stays"));
    shm_unlink("/_blk_t-stays");
}

TEST(ShmBlock, RemovedByAnotherBlock_InvalidAndNotRemovedAgain) {
    auto first =
        std::make_unique<ShmBlock>("t-again", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    ShmBlock other("t-again", 100, 0);
    ASSERT_NE(other.lock(), nullptr);
    other.remove();
    EXPECT_EQ(other.unlock(), 0);
    EXPECT_FALSE(first->isValid());
    EXPECT_EQ(first->lock(), nullptr);
    ShmBlock next("t-again", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    EXPECT_TRUE(next.isValid());
    first.reset();
    EXPECT_TRUE(objectExists("t-again"));
}

TEST(ShmBlock, RemoveAfterNameWasReused_KeepsTheNewObject) {
    ShmBlock old("t-name", 100, ShmBlock::Create);
    shm_unlink("/_blk_t-name");
    ShmBlock next("t-name", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    ASSERT_NE(old.lock(), nullptr);
    EXPECT_TRUE(old.remove());
    EXPECT_EQ(old.unlock(), 0);
    EXPECT_FALSE(old.isValid());
    EXPECT_TRUE(objectExists("t-name"));
    EXPECT_TRUE(next.isValid());
}

TEST(ShmBlock, RemoveAfterNameWasUnlinked_Succeeds) {
    ShmBlock block("t-hand", 100, ShmBlock::Create);
    shm_unlink("/_blk_t-hand");
    ASSERT_NE(block.lock(), nullptr);
    // A new object could get the name at any time, so remove() must not unlink it.
    bool isUnlinked = false;
    test::runAtCall("shm_unlink", 1, [&] { isUnlinked = true; });
    EXPECT_TRUE(block.remove());
    EXPECT_FALSE(isUnlinked);
    EXPECT_FALSE(block.isValid());
    EXPECT_EQ(block.unlock(), 0);
    // The name is unlinked after remove() has checked it.
    ShmBlock next("t-hand", 100, ShmBlock::Create);
    ASSERT_NE(next.lock(), nullptr);
    test::runAtCall("shm_unlink", 1, [] { ::unlink("/dev/shm/_blk_t-hand"); });
    EXPECT_TRUE(next.remove());
    EXPECT_FALSE(next.isValid());
    EXPECT_EQ(next.unlock(), 0);
}

TEST(ShmBlock, RemoveWithoutFreeDescriptor_RemovesTheObject) {
    for (const int error : {EMFILE, ENFILE, ENOMEM}) {
        ShmBlock block("t-fds", 100, ShmBlock::Create);
        ASSERT_NE(block.lock(), nullptr);
        test::failCall("shm_open", 1, error);
        EXPECT_TRUE(block.remove());
        EXPECT_FALSE(block.isValid());
        EXPECT_FALSE(objectExists("t-fds"));
        EXPECT_EQ(block.unlock(), 0);
    }
}

TEST(ShmBlock, RemoveAgainWithoutFreeDescriptor_KeepsTheNewObject) {
    ShmBlock old("t-fds", 100, ShmBlock::Create);
    ASSERT_NE(old.lock(), nullptr);
    EXPECT_TRUE(old.remove());
    EXPECT_EQ(old.unlock(), 0);
    const ShmBlock next("t-fds", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    ASSERT_TRUE(next.isValid());
    test::failCall("shm_open", 1, ENFILE);
    EXPECT_TRUE(old.remove());
    EXPECT_TRUE(objectExists("t-fds"));
}

TEST(ShmBlock, UnlinkFails_RemoveFailsAndBlockStaysValid) {
    ShmBlock block("t-fast", 100, ShmBlock::Create);
    ASSERT_NE(block.lock(), nullptr);
    test::failCall("shm_unlink", 1, EACCES);
    errno = 0;
    EXPECT_FALSE(block.remove());
    EXPECT_EQ(errno, EACCES);
    EXPECT_TRUE(block.isValid());
    EXPECT_TRUE(objectExists("t-fast"));
    EXPECT_TRUE(block.remove());
    EXPECT_FALSE(block.isValid());
    EXPECT_FALSE(objectExists("t-fast"));
    EXPECT_EQ(block.unlock(), 0);
}

TEST(ShmBlock, RemovedWhileLocked_WaitingLockReturnsNull) {
    const unsigned int flags = ShmBlock::Create;
    ShmBlock holder("t-wait", 100, flags);
    ShmBlock waiting("t-wait", 100, 0);
    ASSERT_NE(holder.lock(), nullptr);
    void* got = &holder;
    std::thread waiter([&] { got = waiting.lock(); });
    holder.remove();
    EXPECT_EQ(holder.unlock(), 0);
    waiter.join();
    EXPECT_EQ(got, nullptr);
}

TEST(ShmBlock, ObjectOfAnotherSize_OpenFailsAndCreateInitialisesIt) {
    ShmBlock small("t-size", 100, ShmBlock::Create);
    ASSERT_TRUE(small.isValid());
    ShmBlock opener("t-size", 200, 0);
    EXPECT_FALSE(opener.isValid());
    EXPECT_EQ(objectSize("t-size"), 140);
    ShmBlock smallerOpener("t-size", 50, 0);
    EXPECT_FALSE(smallerOpener.isValid());
    EXPECT_EQ(objectSize("t-size"), 140);
    ShmBlock creator("t-size", 200, ShmBlock::Create);
    EXPECT_TRUE(creator.isValid());
    EXPECT_EQ(objectSize("t-size"), 240);
    EXPECT_EQ(static_cast<BlockHeader*>(creator.base())->size, 240U);
    shm_unlink("/_blk_t-size");
}

TEST(ShmBlock, HeaderOfAnotherAbi_CreateFailsWithEBUSYAndObjectIsUnchanged) {
    constexpr std::uint32_t size = 140;
    constexpr std::uint32_t sizeOffsets[] = {28, 48, 56};
    for (const std::uint32_t sizeOffset : sizeOffsets) {
        if (sizeOffset == offsetof(BlockHeader, size))
            continue;
        SCOPED_TRACE(sizeOffset);
        QByteArray object(size, '\x55');
        qToLittleEndian(0x0CAB005EU, object.data());
        qToLittleEndian(size, object.data() + sizeOffset);
        ASSERT_TRUE(test::makeFile(objectPath("t-word"), object));
        EXPECT_FALSE(ShmBlock("t-word", 100, 0).isValid());
        errno = 0;
        EXPECT_FALSE(ShmBlock("t-word", 100, ShmBlock::Create).isValid());
        EXPECT_EQ(errno, EBUSY);
        EXPECT_EQ(test::contents(objectPath("t-word")), object);
        // Without the magic number the object is initialised.
        ASSERT_TRUE(test::makeFile(objectPath("t-word"), object.replace(0, 4, "none")));
        EXPECT_TRUE(ShmBlock("t-word", 100, ShmBlock::Create).isValid());
    }
    shm_unlink("/_blk_t-word");
}

TEST(ShmBlock, ObjectWithoutHeader_InvalidUntilCreated) {
    const int fd = shm_open("/_blk_t-raw", O_RDWR | O_CREAT, 0600);
    ASSERT_NE(fd, -1);
    EXPECT_FALSE(ShmBlock("t-raw", 100, 0).isValid());
    ASSERT_EQ(ftruncate(fd, 140), 0);
    EXPECT_FALSE(ShmBlock("t-raw", 100, 0).isValid());
    ShmBlock creator("t-raw", 100, ShmBlock::Create);
    EXPECT_TRUE(creator.isValid());
    EXPECT_TRUE(ShmBlock("t-raw", 100, 0).isValid());
    close(fd);
    shm_unlink("/_blk_t-raw");
}

TEST(ShmBlock, InitialisedDuringThePauseOfOpen_Valid) {
    const int fd = shm_open("/_blk_t-look", O_RDWR | O_CREAT, 0600);
    ASSERT_NE(fd, -1);
    ASSERT_EQ(ftruncate(fd, 140), 0);
    std::unique_ptr<ShmBlock> creator;
    test::runAtCall("nanosleep", 1, [&] {
        creator =
            std::make_unique<ShmBlock>("t-look", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    });
    const ShmBlock opener("t-look", 100, 0);
    ASSERT_TRUE(creator);
    EXPECT_TRUE(opener.isValid());
    close(fd);
}

TEST(ShmBlock, InitialisedByAnotherThread_RepeatedOpenBecomesValid) {
    const int fd = shm_open("/_blk_t-late", O_RDWR | O_CREAT, 0600);
    ASSERT_NE(fd, -1);
    bool hasBeenValid = false;
    std::thread opener([&] {
        for (int i = 0; i < 1000 && !hasBeenValid; ++i)
            hasBeenValid = ShmBlock("t-late", 100, 0).isValid();
    });
    ShmBlock creator("t-late", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    opener.join();
    EXPECT_TRUE(hasBeenValid);
    close(fd);
}

TEST(ShmBlock, CreationLockNotReleased_InvalidAfterOneSecondAndObjectIsUnchanged) {
    const int fd = shm_open("/_blk_t-slow", O_RDWR | O_CREAT, 0600);
    ASSERT_NE(fd, -1);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    const auto start = Clock::now();
    EXPECT_FALSE(ShmBlock("t-slow", 100, ShmBlock::Create).isValid());
    EXPECT_GE(secondsSince(start), 0.9);
    EXPECT_LT(secondsSince(start), 5);
    std::uint32_t header = 1;
    EXPECT_EQ(pread(fd, &header, sizeof header, 0), static_cast<ssize_t>(sizeof header));
    EXPECT_EQ(header, 0U);
    EXPECT_EQ(flock(fd, LOCK_UN), 0);
    EXPECT_TRUE(ShmBlock("t-slow", 100, ShmBlock::Create).isValid());
    close(fd);
    shm_unlink("/_blk_t-slow");
}

TEST(ShmBlock, ConcurrentCreators_ShareOneMutex) {
    for (int round = 0; round < 20; ++round) {
        int counter = 0;
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([&counter] {
                ShmBlock block("t-many", 100, ShmBlock::Create);
                ASSERT_NE(block.lock(), nullptr);
                const int seen = counter;
                std::this_thread::yield();
                counter = seen + 1;
                EXPECT_EQ(block.unlock(), 0);
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(counter, 8);
        shm_unlink("/_blk_t-many");
    }
}

TEST(ShmBlock, HeldByAnotherThread_TryLockFailsAndLockWaits) {
    ShmBlock block("t-held", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    ShmBlock other("t-held", 100, 0);
    ASSERT_NE(block.lock(), nullptr);
    std::atomic<bool> hasTried{false};
    std::thread thread([&] {
        EXPECT_EQ(other.tryLock(), nullptr);
        EXPECT_EQ(other.unlock(), EPERM);
        hasTried = true;
        EXPECT_NE(other.lock(), nullptr);
        EXPECT_EQ(other.unlock(), 0);
    });
    EXPECT_TRUE(test::eventually([&] { return hasTried.load(); }));
    EXPECT_EQ(block.unlock(), 0);
    thread.join();
}

TEST(ShmBlock, HeldForLong_LockReturnsNullAfterTenSeconds) {
    ShmBlock block("t-long", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    ASSERT_NE(block.lock(), nullptr);
    std::thread thread([&] {
        const auto start = Clock::now();
        EXPECT_EQ(block.lock(), nullptr);
        EXPECT_GE(secondsSince(start), 9.9);
        EXPECT_LT(secondsSince(start), 15);
    });
    thread.join();
    EXPECT_EQ(block.unlock(), 0);
}

TEST(ShmBlock, HolderDied_LockSucceeds) {
    if (!test::hasRobustMutexes())
        GTEST_SKIP() << "the system does not report the death of a mutex owner";
    ShmBlock block("t-dead", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    ChildProcess child([&] { return block.lock() ? 0 : 1; });
    ASSERT_EQ(child.wait(), 0);
    EXPECT_NE(block.lock(), nullptr);
    EXPECT_EQ(block.unlock(), 0);
    EXPECT_NE(block.tryLock(), nullptr);
    EXPECT_EQ(block.unlock(), 0);
}

TEST(ShmBlock, SizeThatOverflows_Invalid) {
    EXPECT_FALSE(ShmBlock("t-huge", 0xFFFFFFFF, ShmBlock::Create).isValid());
    EXPECT_FALSE(ShmBlock("t-huge", 0xFFFFFFFF - 39, ShmBlock::Create).isValid());
    EXPECT_FALSE(objectExists("t-huge"));
}

TEST(ShmBlock, InvalidName_PrintsTheReasonOnStandardError) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(ShmBlock("a/b", 100, ShmBlock::Create).isValid());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "/_blk_a/b: Invalid argument\n");
}

TEST(ShmBlock, ShmOpenFails_PrintsTheReasonAndKeepsErrno) {
    // The first 20 calls try to open an existing object.
    test::failCall("shm_open", 21, EACCES);
    liberrno = NotFound;
    WriteOnlyStandardError output;
    const ShmBlock block("t-denied", 100, ShmBlock::Create);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_FALSE(block.isValid());
    EXPECT_EQ(output.take(), "/_blk_t-denied: Permission denied\n");
}

TEST(ShmBlock, MappingFails_PrintsTheReasonAndSetsErrno) {
    for (const char* call : {"mmap", "ftruncate"}) {
        test::failCall(call, 1, ENOMEM);
        testing::internal::CaptureStderr();
        ShmBlock block("t-map", 100, ShmBlock::Create);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_FALSE(block.isValid());
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "ShmBlock mmap error: Cannot allocate memory\n");
        EXPECT_EQ(descriptorsOf("t-map"), 0);
        shm_unlink("/_blk_t-map");
    }
}

TEST(ShmBlock, MutexInitialisationFails_InvalidWithErrno) {
    for (const char* call : {"pthread_mutexattr_init", "pthread_mutexattr_setrobust",
                             "pthread_mutexattr_setpshared", "pthread_mutex_init"}) {
        test::failCall(call, 1, EAGAIN);
        ShmBlock block("t-init", 100, ShmBlock::Create);
        EXPECT_EQ(errno, EAGAIN) << call;
        EXPECT_FALSE(block.isValid()) << call;
        EXPECT_EQ(block.base(), nullptr) << call;
        EXPECT_FALSE(ShmBlock("t-init", 100, 0).isValid()) << call;
        shm_unlink("/_blk_t-init");
    }
}

TEST(ShmBlock, Access_LocksTheBlockForItsScope) {
    const auto block = QSharedPointer<ShmBlock>::create("t-access", 0x205000U,
                                                        ShmBlock::Create | ShmBlock::RemoveAtClose);
    {
        const ShmBlock::Access<IPCShm> access(block);
        EXPECT_EQ(static_cast<void*>(access.data()),
                  static_cast<char*>(block->base()) + sizeof(BlockHeader));
        EXPECT_EQ(access.block(), block);
        std::thread([&] { EXPECT_EQ(block->tryLock(), nullptr); }).join();
    }
    EXPECT_NE(block->tryLock(), nullptr);
    block->unlock();
    const ShmBlock::Access<IPCShm> none(
        QSharedPointer<ShmBlock>::create("t-access2", 0x205000U, 0U));
    EXPECT_EQ(none.data(), nullptr);
}

// --- The clock -----------------------------------------------------------------------------------

TEST(ShmBlock, Abstime_CarriesOnlyMoreThanOneSecond) {
    test::setClock(100, 999'000'000);
    struct timespec time = ShmBlock::abstime(1);
    EXPECT_EQ(time.tv_sec, 100);
    EXPECT_EQ(time.tv_nsec, 1'000'000'000);
    test::setClock(100, 999'000'001);
    time = ShmBlock::abstime(1);
    EXPECT_EQ(time.tv_sec, 101);
    EXPECT_EQ(time.tv_nsec, 1);
    time = ShmBlock::abstime(12'345);
    EXPECT_EQ(time.tv_sec, 113);
    EXPECT_EQ(time.tv_nsec, 344'000'001);
    test::setClock(0, -1);
}

} // namespace oru::io
