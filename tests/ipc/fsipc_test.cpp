// The shared-memory block, the service's area, and the client with a server in another process.

#include "ipc/fsipc_p.h"
#include "support/ipc/ipccalls.h"
#include "support/ipc/ipcservice.h"
#include "support/suite/fs_conformance.h"
#include "support/suite/logcapture.h"
#include "support/suite/slots.h"
#include "support/system/childprocess.h"
#include "support/system/files.h"
#include "support/system/tempdir.h"

#include <oruio/error.h>
#include <oruio/fsipc.h>
#include <oruio/posixfs.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QtEndian>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace oru::io {

using namespace ipcwire;
using test::ChildProcess;
using test::LogCapture;
using test::ServerProcess;
using test::TempDir;
using ::testing::HasSubstr;

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

QString objectPath(const char* name) {
    return QStringLiteral("/dev/shm/_blk_") + name;
}

bool objectExists(const char* name) {
    return access(qPrintable(objectPath(name)), F_OK) == 0;
}

long long objectSize(const char* name) {
    struct stat st;
    return ::stat(qPrintable(objectPath(name)), &st) == 0 ? st.st_size : -1;
}

/// The descriptors of this process that are open on an object.
int descriptorsOf(const char* name) {
    int count = 0;
    for (int fd = 0; fd < 256; ++fd) {
        struct stat st;
        struct stat object;
        if (fstat(fd, &st) == 0 && ::stat(qPrintable(objectPath(name)), &object) == 0 &&
            st.st_ino == object.st_ino && st.st_dev == object.st_dev)
            ++count;
    }
    return count;
}

int mappingsOf(const char* name) {
    return test::contents("/proc/self/maps").count(objectPath(name).toUtf8());
}

/// A standard error as most services have it: perror(3) cannot open it for reading too, and leaves
/// that failure in errno.
class WriteOnlyStandardError {
public:
    WriteOnlyStandardError() : m_kept(dup(STDERR_FILENO)) {
        EXPECT_EQ(pipe(m_ends), 0);
        dup2(m_ends[1], STDERR_FILENO);
        close(m_ends[1]);
    }
    ~WriteOnlyStandardError() {
        restore();
        close(m_ends[0]);
    }

    /// What was written, when all is.
    std::string text() {
        restore();
        char text[256];
        const ssize_t length = ::read(m_ends[0], text, sizeof text);
        return {text, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
    }

private:
    void restore() {
        if (m_kept == -1)
            return;
        dup2(m_kept, STDERR_FILENO);
        close(std::exchange(m_kept, -1));
    }

    int m_kept;
    int m_ends[2];
};

} // namespace

// --- ShmBlock -----------------------------------------------------------------------------------

TEST(ShmBlock, NoObjectWithoutCreate_InvalidAfterTenMilliseconds) {
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

TEST(ShmBlock, Create_ObjectOfTheSizeAndFortyBytes) {
    ShmBlock block("t-new", 100, ShmBlock::Create);
    EXPECT_TRUE(block.isValid());
    EXPECT_EQ(objectSize("t-new"), 140);
    const auto& header = *static_cast<BlockHeader*>(block.base());
    EXPECT_EQ(header.magic, 0x0CAB005EU);
    EXPECT_EQ(header.size, 140U);
    shm_unlink("/_blk_t-new");
}

TEST(ShmBlock, Create_ForEverybodyThatTheUmaskLeaves) {
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

TEST(ShmBlock, CreatorsDescriptor_StaysOpenWithTheBlock) {
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

TEST(ShmBlock, UserData_BehindTheHeader) {
    ShmBlock block("t-data", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    EXPECT_EQ(block.lock(), static_cast<char*>(block.base()) + sizeof(BlockHeader));
    EXPECT_EQ(block.unlock(), 0);
}

TEST(ShmBlock, RemoveAtClose_RemovesTheObject) {
    {
        ShmBlock block("t-gone", 100, ShmBlock::Create);
        ShmBlock kept("t-gone", 100, 0);
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

TEST(ShmBlock, RemovedBySomebodyElse_InvalidAndNotRemovedAgain) {
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

TEST(ShmBlock, NameOfAnotherObject_NotRemoved) {
    ShmBlock lost("t-name", 100, ShmBlock::Create);
    shm_unlink("/_blk_t-name");
    ShmBlock next("t-name", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    ASSERT_NE(lost.lock(), nullptr);
    EXPECT_TRUE(lost.remove());
    EXPECT_EQ(lost.unlock(), 0);
    EXPECT_FALSE(lost.isValid());
    EXPECT_TRUE(objectExists("t-name"));
    EXPECT_TRUE(next.isValid());
}

TEST(ShmBlock, NameTakenAwayByHand_RemovedAllTheSame) {
    ShmBlock block("t-hand", 100, ShmBlock::Create);
    shm_unlink("/_blk_t-hand");
    ASSERT_NE(block.lock(), nullptr);
    // By then it might be that of another object.
    bool isUnlinked = false;
    test::atCall("shm_unlink", 1, [&] { isUnlinked = true; });
    EXPECT_TRUE(block.remove());
    EXPECT_FALSE(isUnlinked);
    EXPECT_FALSE(block.isValid());
    EXPECT_EQ(block.unlock(), 0);
    // Between the two looks at the name.
    ShmBlock next("t-hand", 100, ShmBlock::Create);
    ASSERT_NE(next.lock(), nullptr);
    test::atCall("shm_unlink", 1, [] { ::unlink("/dev/shm/_blk_t-hand"); });
    EXPECT_TRUE(next.remove());
    EXPECT_FALSE(next.isValid());
    EXPECT_EQ(next.unlock(), 0);
}

TEST(ShmBlock, NoDescriptorToLookAtTheName_RemovedAllTheSame) {
    for (const int error : {EMFILE, ENFILE, ENOMEM}) {
        ShmBlock block("t-blind", 100, ShmBlock::Create);
        ASSERT_NE(block.lock(), nullptr);
        test::failCall("shm_open", 1, error);
        EXPECT_TRUE(block.remove());
        EXPECT_FALSE(block.isValid());
        EXPECT_FALSE(objectExists("t-blind"));
        EXPECT_EQ(block.unlock(), 0);
    }
}

TEST(ShmBlock, NoDescriptorToLookAtTheNameOfAnotherBlock_NotRemoved) {
    ShmBlock old("t-blind", 100, ShmBlock::Create);
    ASSERT_NE(old.lock(), nullptr);
    EXPECT_TRUE(old.remove());
    EXPECT_EQ(old.unlock(), 0);
    const ShmBlock next("t-blind", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    ASSERT_TRUE(next.isValid());
    test::failCall("shm_open", 1, ENFILE);
    EXPECT_TRUE(old.remove());
    EXPECT_TRUE(objectExists("t-blind"));
}

TEST(ShmBlock, NameCannotBeTakenAway_StaysValid) {
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

TEST(ShmBlock, RemovedByItsHolder_WaiterGetsNothing) {
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

TEST(ShmBlock, OtherSize_RejectedByOpenerInitialisedAnewByCreator) {
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

TEST(ShmBlock, HeaderOfAnotherWordSize_RejectedAndLeftAsItIs) {
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
        // Without the magic it is nobody's.
        ASSERT_TRUE(test::makeFile(objectPath("t-word"), object.replace(0, 4, "none")));
        EXPECT_TRUE(ShmBlock("t-word", 100, ShmBlock::Create).isValid());
    }
    shm_unlink("/_blk_t-word");
}

TEST(ShmBlock, ObjectWithoutAHeader_InvalidUntilSomebodyCreates) {
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

TEST(ShmBlock, InitialisedBetweenAnOpenersTwoLooks_Valid) {
    const int fd = shm_open("/_blk_t-look", O_RDWR | O_CREAT, 0600);
    ASSERT_NE(fd, -1);
    ASSERT_EQ(ftruncate(fd, 140), 0);
    std::unique_ptr<ShmBlock> creator;
    test::atCall("nanosleep", 1, [&] {
        creator =
            std::make_unique<ShmBlock>("t-look", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    });
    const ShmBlock opener("t-look", 100, 0);
    ASSERT_TRUE(creator);
    EXPECT_TRUE(opener.isValid());
    close(fd);
}

TEST(ShmBlock, InitialisedWhileAnOpenerLooks_Valid) {
    const int fd = shm_open("/_blk_t-late", O_RDWR | O_CREAT, 0600);
    ASSERT_NE(fd, -1);
    bool isEverValid = false;
    std::thread opener([&] {
        for (int i = 0; i < 1000 && !isEverValid; ++i)
            isEverValid = ShmBlock("t-late", 100, 0).isValid();
    });
    ShmBlock creator("t-late", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    opener.join();
    EXPECT_TRUE(isEverValid);
    close(fd);
}

TEST(ShmBlock, SomebodyElseInitialisesForLong_InvalidAndNotTouched) {
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

TEST(ShmBlock, ManyCreatorsAtOnce_OneMutexForAll) {
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

TEST(ShmBlock, LockHeldElsewhere_TryLockFailsLockWaits) {
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

TEST(ShmBlock, HeldForLong_NullAfterTenSeconds) {
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

TEST(ShmBlock, HolderDied_LockIsMadeGood) {
    if (!test::ownerDeathIsSeen())
        GTEST_SKIP() << "the death of a mutex's owner is not seen here";
    ShmBlock block("t-dead", 100, ShmBlock::Create | ShmBlock::RemoveAtClose);
    ChildProcess child([&] { return block.lock() ? 0 : 1; });
    ASSERT_EQ(child.wait(), 0);
    EXPECT_NE(block.lock(), nullptr);
    EXPECT_EQ(block.unlock(), 0);
    EXPECT_NE(block.tryLock(), nullptr);
    EXPECT_EQ(block.unlock(), 0);
}

TEST(ShmBlock, SizesThatCannotBe_Invalid) {
    EXPECT_FALSE(ShmBlock("t-huge", 0xFFFFFFFF, ShmBlock::Create).isValid());
    EXPECT_FALSE(ShmBlock("t-huge", 0xFFFFFFFF - 39, ShmBlock::Create).isValid());
    EXPECT_FALSE(objectExists("t-huge"));
}

TEST(ShmBlock, NameThatCannotBe_SaysSoOnStandardError) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(ShmBlock("a/b", 100, ShmBlock::Create).isValid());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "/_blk_a/b: Invalid argument\n");
}

TEST(ShmBlock, ObjectCannotBeMade_SaysSoOnStandardErrorAndKeepsTheReason) {
    // Looking for the object takes 20 attempts.
    test::failCall("shm_open", 21, EACCES);
    liberrno = NotFound;
    WriteOnlyStandardError output;
    const ShmBlock block("t-denied", 100, ShmBlock::Create);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_FALSE(block.isValid());
    EXPECT_EQ(output.text(), "/_blk_t-denied: Permission denied\n");
}

TEST(ShmBlock, MappingFails_SaysSoOnStandardError) {
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

TEST(ShmBlock, HeaderCannotBeInitialised_Invalid) {
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

TEST(ShmBlock, Access_LocksForItsScope) {
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

// --- The clock ----------------------------------------------------------------------------------

TEST(ShmBlockTime, Abstime_CarriesOnlyMoreThanASecond) {
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

TEST(ShmBlockTime, SetTimeout_Normalised) {
    test::setClock(100, 999'000'000);
    struct timespec time;
    EXPECT_EQ(IPCShm::setTimeout(&time, 1), &time);
    EXPECT_EQ(time.tv_sec, 101);
    EXPECT_EQ(time.tv_nsec, 0);
    IPCShm::setTimeout(&time, 86'400'500);
    EXPECT_EQ(time.tv_sec, 100 + 86'401);
    EXPECT_EQ(time.tv_nsec, 499'000'000);
    IPCShm::setTimeout(&time, ~0ULL);
    EXPECT_GT(time.tv_sec, 1'000'000'000);
    EXPECT_LT(time.tv_nsec, 1'000'000'000);
    test::setClock(0, -1);
}

// --- IPCShm -------------------------------------------------------------------------------------

TEST(IPCShm, Size_OfTheArea) {
    EXPECT_EQ(IPCShm::size(), 0x205000U);
}

TEST(IPCShm, DebugMask_HexadecimalFromTheEnvironment) {
    setenv("IO_IPCDBG", "7", 1);
    EXPECT_EQ(IPCShm::debugMask(), 7U);
    setenv("IO_IPCDBG", "0x1F", 1);
    EXPECT_EQ(IPCShm::debugMask(), 31U);
    setenv("IO_IPCDBG", "ten", 1);
    EXPECT_EQ(IPCShm::debugMask(), 0U);
    setenv("IO_IPCDBG", "", 1);
    EXPECT_EQ(IPCShm::debugMask(), 0U);
    unsetenv("IO_IPCDBG");
    EXPECT_EQ(IPCShm::debugMask(), 0U);
}

class IPCShmBuffers : public ::testing::Test {
protected:
    IPCShmBuffers() {
        AreaControl& control = areaOf(shm).control;
        SharedMutexAttributes().makeMutex(control.bufferMutex);
        sem_init(&control.bufferSem, 1, dataBuffers);
        control.bufferMap = 0;
    }

    int freeBuffers() {
        int value = -1;
        sem_getvalue(&areaOf(shm).control.bufferSem, &value);
        return value;
    }

    std::unique_ptr<Area> area = std::make_unique<Area>();
    IPCShm* const shm = reinterpret_cast<IPCShm*>(area.get());
};

TEST_F(IPCShmBuffers, Addresses_OneMebibyteApart) {
    auto* const first = static_cast<char*>(shm->databufAddr(0));
    auto* const second = static_cast<char*>(shm->databufAddr(1));
    EXPECT_EQ(first, area->buffers[0]);
    EXPECT_EQ(second - first, 1 << 20);
    EXPECT_EQ(shm->databufAddr(2), nullptr);
    EXPECT_EQ(shm->databufAddr(-1), nullptr);
}

TEST_F(IPCShmBuffers, Alloc_LowestFree) {
    EXPECT_EQ(shm->allocDataBuf(2), 0);
    EXPECT_EQ(area->control.bufferMap, 1U);
    EXPECT_EQ(shm->allocDataBuf(2), 1);
    EXPECT_EQ(area->control.bufferMap, 3U);
    EXPECT_EQ(shm->freeDataBuf(0), 0);
    EXPECT_EQ(area->control.bufferMap, 2U);
    EXPECT_EQ(shm->allocDataBuf(2), 0);
    EXPECT_EQ(freeBuffers(), 0);
}

TEST_F(IPCShmBuffers, BothTaken_FailsAfterTheTimeout) {
    ASSERT_EQ(shm->allocDataBuf(2), 0);
    ASSERT_EQ(shm->allocDataBuf(2), 1);
    const auto start = Clock::now();
    errno = 0;
    EXPECT_EQ(shm->allocDataBuf(2), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(secondsSince(start), 1.9);
    EXPECT_LT(secondsSince(start), 4);
}

TEST_F(IPCShmBuffers, FreedWhileSomebodyWaits_Given) {
    ASSERT_EQ(shm->allocDataBuf(2), 0);
    ASSERT_EQ(shm->allocDataBuf(2), 1);
    int got = -1;
    std::thread waiter([&] { got = shm->allocDataBuf(30); });
    EXPECT_EQ(shm->freeDataBuf(1), 0);
    waiter.join();
    EXPECT_EQ(got, 1);
}

TEST_F(IPCShmBuffers, FreeOfNoBuffer_EINVAL) {
    for (const int index : {2, -1, 1000}) {
        errno = 0;
        EXPECT_EQ(shm->freeDataBuf(index), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(freeBuffers(), 2);
}

TEST_F(IPCShmBuffers, FreedTwice_CountsOnce) {
    ASSERT_EQ(shm->allocDataBuf(2), 0);
    EXPECT_EQ(shm->freeDataBuf(0), 0);
    EXPECT_EQ(shm->freeDataBuf(0), 0);
    EXPECT_EQ(freeBuffers(), 2);
}

TEST_F(IPCShmBuffers, SemaphoreTellsMoreThanTheMap_FailsAndTheUnitIsGone) {
    area->control.bufferMap = 3;
    EXPECT_EQ(shm->allocDataBuf(2), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(freeBuffers(), 1);
}

TEST_F(IPCShmBuffers, HolderOfTheMutexStopped_FailsInTime) {
    test::failCall("pthread_mutex_timedlock", 1, ETIMEDOUT);
    EXPECT_EQ(shm->allocDataBuf(1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(freeBuffers(), 2);
    test::failCall("pthread_mutex_timedlock", 1, ETIMEDOUT);
    EXPECT_EQ(shm->freeDataBuf(0), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

// --- The client with a server in another process
// --------------------------------------------------

namespace {

/// A server over a local directory, and a client that is connected to it.
test::Backend connectedBackend() {
    struct Parts {
        TempDir directory;
        ServerProcess server{directory.path()};
        IPCFS::SPtr client = IPCFS::SPtr::create();

        // While the server is there.
        ~Parts() {
            client->disconnect();
        }
    };
    const auto parts = std::make_shared<Parts>();
    EXPECT_TRUE(parts->server.isReady());
    EXPECT_EQ(parts->client->connect(1, nullptr), 0);
    test::Backend backend;
    backend.fs = parts->client;
    backend.can.type = "IPCFS";
    backend.can.fileType = "IPCFile";
    backend.can.directoryType = "IPCDirectory";
    backend.can.opendirIsNeverNull = true;
    backend.can.threadSafe = false;
    backend.can.closeAgain = -1;
    backend.can.closedirAgain = 0;
    backend.can.readlinkPads = true;
    backend.can.answers[test::Op::Xattr] = test::Answer::notImplemented();
    backend.can.answers[test::Op::Listxattr] = test::Answer::notImplemented();
    backend.can.answers[test::Op::FileFchmod] = test::Answer::isSomethingElse();
    backend.can.answers[test::Op::FileFcntlFlags] = test::Answer::isSomethingElse();
    backend.keep = parts;
    return backend;
}

} // namespace

namespace test {

ORUIO_CONFORMS(IPCFS, connectedBackend);

} // namespace test

class IPCFSTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.isReady());
    }

    /// Expects -1, no session, and ENOTCONN.
    void expectNotConnected(long long result) {
        const Error reason;
        EXPECT_EQ(result, -1);
        EXPECT_EQ(reason.code, Ok);
        EXPECT_EQ(reason.sysErrno, ENOTCONN) << std::strerror(reason.sysErrno);
        EXPECT_FALSE(fs.isConnected());
        EXPECT_EQ(fs.state(), 0);
    }

    QSharedPointer<File> openNew(const char* name) {
        return fs.open(QStringLiteral("/") + name, O_RDWR | O_CREAT, 0644);
    }

    TempDir dir;
    ServerProcess server{dir.path()};
    IPCFS fs;
    struct stat st;
};

TEST_F(IPCFSTest, Session_BeginsAndEnds) {
    EXPECT_EQ(fs.state(), 0);
    EXPECT_FALSE(fs.isConnected());
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.state(), 1);
    EXPECT_TRUE(fs.isConnected());
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.connect(0, nullptr), 0);
    EXPECT_EQ(fs.stat("/", st), 0);
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_EQ(fs.state(), 0);
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_EQ(server.terminate(), 0);
    EXPECT_FALSE(test::serviceExists());
}

TEST_F(IPCFSTest, Session_MessagesOfBothEnds) {
    {
        LogCapture log("fsipc=12");
        ASSERT_EQ(fs.connect(1, nullptr), 0);
        EXPECT_EQ(fs.mkdir("/d", 0755), 0);
        fs.disconnect();
        EXPECT_EQ(
            log.messages(),
            QStringList({"fsipc 12 Client connecting", "fsipc 12 Detected Server online",
                         "fsipc 12 Send request 'connect'", "fsipc 12 Got response: '0,0,0'",
                         "fsipc 12 IPC Client Ready", "fsipc 12 Send request 'mkdir 493 /d'",
                         "fsipc 12 Got response: '0,0,0'", "fsipc 12 Send request 'disconnect'"}));
    }
    EXPECT_EQ(server.terminate(), 0);
    QStringList messages = server.messages();
    // Of another thread, which need not have waited for the one that serves to wait again.
    EXPECT_EQ(messages.removeAll("fsipcsrv 12 Terminate server"), 1);
    EXPECT_EQ(
        messages,
        QStringList({"fsipcsrv 12 Serving 'PosixFS'",        "fsipcsrv 12 IPC Server initializing",
                     "fsipcsrv 12 Create new FSShm: OK",     "fsipcsrv 12 Initialize FSShm",
                     "fsipcsrv 12 FSShm ready for use",      "fsipcsrv 12 Session reset OK",
                     "fsipcsrv 12 IPC Server Ready",         "fsipcsrv 12 Wait for request",
                     "fsipcsrv 12 Process 'connect'",        "fsipcsrv 12 Send response '0,0,0'",
                     "fsipcsrv 12 Client connected OK",      "fsipcsrv 12 Wait for request",
                     "fsipcsrv 12 Process 'mkdir'",          "fsipcsrv 12 Send response '0,0,0'",
                     "fsipcsrv 12 Wait for request",         "fsipcsrv 12 Process 'disconnect'",
                     "fsipcsrv 12 Send response '0,0,0'",    "fsipcsrv 12 Session reset OK",
                     "fsipcsrv 12 Wait for request",         "fsipcsrv 12 IPC Server stopping",
                     "fsipcsrv 12 Send response '-1,125,0'", "fsipcsrv 12 IPC Server stopped"}));
}

TEST_F(IPCFSTest, OpenAtDisconnect_ClosedByTheServer) {
    const int before = server.process().descriptors();
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    const auto directory = fs.opendir("/");
    ASSERT_TRUE(file);
    ASSERT_TRUE(directory);
    EXPECT_EQ(server.process().descriptors(), before + 2);
    fs.disconnect();
    EXPECT_EQ(server.process().descriptors(), before);
    EXPECT_EQ(server.terminate(), 0);
    EXPECT_TRUE(server.messages().contains("fsipcsrv 12 Close Session. 1 files 1 dirs"));
}

TEST_F(IPCFSTest, OfAnEarlierSession_EBADF) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto oldFile = openNew("old");
    const auto oldDirectory = fs.opendir("/");
    ASSERT_TRUE(oldFile);
    fs.disconnect();
    char byte = 'x';
    expectNotConnected(oldFile->write(&byte, 1));
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    // It has the same number in the server as the old one had.
    const auto newFile = openNew("new");
    ASSERT_TRUE(newFile);
    liberrno = LibraryFailure;
    EXPECT_EQ(oldFile->write(&byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(oldFile->close(), -1);
    errno = 0;
    EXPECT_EQ(oldDirectory->readdir(), nullptr);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(oldDirectory->rewinddir(), 0);
    EXPECT_EQ(oldDirectory->closedir(), 0);
    EXPECT_EQ(newFile->fstat(st), 0);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(newFile->close(), 0);
}

TEST_F(IPCFSTest, FileThatOutlivesTheFS_NotConnected) {
    auto client = std::make_unique<IPCFS>();
    ASSERT_EQ(client->connect(1, nullptr), 0);
    const auto file = client->open("/f", O_RDWR | O_CREAT, 0644);
    const auto directory = client->opendir("/");
    client.reset();
    char byte = 'x';
    expectNotConnected(file->write(&byte, 1));
    expectNotConnected(file->close());
    EXPECT_EQ(directory->readdir(), nullptr);
    EXPECT_EQ(errno, ENOTCONN);
    expectNotConnected(directory->closedir());
}

TEST_F(IPCFSTest, NotConnected_EveryOperationFails) {
    struct statfs sfs;
    char buf[16];
    QString text;
    expectNotConnected(fs.stat("/", st));
    expectNotConnected(fs.lstat("/", st));
    expectNotConnected(fs.statfs("/", sfs));
    expectNotConnected(fs.link("/a", "/b"));
    expectNotConnected(fs.symlink("/a", "/b"));
    expectNotConnected(fs.unlink("/a"));
    expectNotConnected(fs.mkdir("/a", 0755));
    expectNotConnected(fs.rmdir("/a"));
    expectNotConnected(fs.rename("/a", "/b"));
    expectNotConnected(fs.readlink("/a", buf, sizeof buf));
    expectNotConnected(fs.readlink("/a", text));
    expectNotConnected(fs.truncate("/a", 1));
    expectNotConnected(fs.chmod("/a", 0644));
    expectNotConnected(fs.open("/a", O_RDWR | O_CREAT, 0644) ? 0 : -1);
    expectNotConnected(fs.opendir("/") ? 0 : -1);
    errno = 0;
    fs.sync();
    expectNotConnected(-1);
    EXPECT_TRUE(QDir(dir.path()).isEmpty());
}

TEST_F(IPCFSTest, WhatIsNeverSent_NotImplemented) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    const auto directory = fs.opendir("/");
    LogCapture log("fsipc=12");
    QString response;
    QVector<QString> names;
    char buf[4];
    for (const int result :
         {fs.getxattr("/f", "user.a", buf, 4), fs.setxattr("/f", "user.a", buf, 4, 0),
          fs.removexattr("/f", "user.a"), fs.listxattr("/f", names), fs.listxattr("/f", buf, 4),
          fs.addWatch("/"), fs.remWatch("/")})
        EXPECT_EQ(result, -1);
    EXPECT_EQ(liberrno, NotImplemented);
    EXPECT_EQ(log.messages(), QStringList());
    EXPECT_EQ(fs.ioctl("a", response), -1);
    EXPECT_EQ(file->ioctl("a", response), -1);
    EXPECT_EQ(directory->ioctl("a", response), -1);
    EXPECT_EQ(log.messages(), QStringList({"fsipc 12 'ioctl' Not implemented",
                                           "fsipc 12 'file::ioctl' Not implemented",
                                           "fsipc 12 'dir::ioctl' Not implemented"}));
}

TEST_F(IPCFSTest, SecondClient_Refused) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    LogCapture log("fsipc=12");
    IPCFS second;
    EXPECT_EQ(second.connect(1, nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(log.messages(),
              QStringList({"fsipc 12 Client connecting", "fsipc 12 Detected Server online",
                           "fsipc 12 Existing client detected. Aborting."}));
    EXPECT_EQ(fs.stat("/", st), 0);
    fs.disconnect();
    EXPECT_EQ(second.connect(1, nullptr), 0);
    EXPECT_EQ(second.stat("/", st), 0);
}

TEST_F(IPCFSTest, RequestOfTheWholeArea_RefusedAndNotPosted) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const QString longest(8704 - 1 - 5, 'p');
    EXPECT_EQ(fs.stat(longest, st), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    LogCapture log("fsipc=12");
    liberrno = NotFound;
    EXPECT_EQ(fs.stat(longest + 'p', st), -1);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(liberrno, Ok);
    const QStringList messages = log.messages();
    ASSERT_EQ(messages.size(), 1);
    EXPECT_TRUE(messages[0].startsWith("fsipc 12 Request 'stat pppp"));
    EXPECT_EQ(requestState(test::AreaView().area()), Done);
    EXPECT_EQ(fs.rename(longest, "/b"), -1);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(fs.stat("/", st), 0);
}

TEST_F(IPCFSTest, PathThatCannotCross_RefusedHere) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.stat(QString("/a") + QChar(QChar::Null), st), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fs.stat(QString("/") + QChar(0xD800), st), -1);
    EXPECT_EQ(errno, EILSEQ);
}

TEST_F(IPCFSTest, LeadingBlanks_BelongToTheName) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.mkdir("/  two", 0755), 0);
    EXPECT_EQ(fs.chmod("/  two", 0700), 0);
    const auto file = fs.open("/  f ", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(file);
    EXPECT_EQ(fs.truncate("/  f ", 5), 0);
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_size, 5);
    EXPECT_TRUE(QFileInfo::exists(dir / "  two"));
}

TEST_F(IPCFSTest, MoreThanABuffer_ShortCount) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    constexpr int buffer = 1 << 20;
    std::vector<char> data(3 * buffer, 'a');
    EXPECT_EQ(file->write(data.data(), data.size()), buffer);
    EXPECT_EQ(file->pwrite(data.data(), data.size(), buffer), buffer);
    EXPECT_EQ(file->lseek(0, SEEK_SET), 0);
    std::fill(data.begin(), data.end(), 'b');
    EXPECT_EQ(file->read(data.data(), data.size()), buffer);
    EXPECT_EQ(data[buffer - 1], 'a');
    EXPECT_EQ(data[buffer], 'b');
    EXPECT_EQ(file->pread(data.data(), 0xFFFFFFFF, buffer - 10), buffer);
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_size, 2 * buffer);
}

TEST_F(IPCFSTest, ReadAll_NothingOfMoreThanABuffer) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    constexpr int buffer = 1 << 20;
    EXPECT_EQ(file->ftruncate(buffer), 0);
    EXPECT_EQ(file->readAll(buffer + 1).size(), buffer);
    EXPECT_EQ(file->lseek(0, SEEK_SET), 0);
    EXPECT_EQ(file->ftruncate(buffer + 1), 0);
    EXPECT_EQ(file->readAll(buffer + 1), QByteArray());
    EXPECT_EQ(file->lseek(0, SEEK_SET), 0);
    EXPECT_EQ(file->readAll(buffer).size(), buffer);
}

TEST_F(IPCFSTest, NoBytes_NoNothing) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    char byte = 0;
    LogCapture log("fsipc=12");
    EXPECT_EQ(file->read(&byte, 0), 0);
    EXPECT_TRUE(log.messages().contains("fsipc 12 Got response: '0,0,0 0 0'"));
    EXPECT_EQ(file->write(&byte, 0), 0);
    EXPECT_EQ(file->read(nullptr, 0), 0);
    EXPECT_EQ(file->write(nullptr, 0), 0);
}

TEST_F(IPCFSTest, NullBuffer_EFAULT) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    for (int i = 0; i < 5; ++i) {
        errno = 0;
        const int result = i == 0   ? file->read(nullptr, 1)
                           : i == 1 ? file->write(nullptr, 1)
                           : i == 2 ? file->pread(nullptr, 1, 0)
                           : i == 3 ? file->pwrite(nullptr, 1, 0)
                                    : fs.readlink("/f", nullptr, 1);
        EXPECT_EQ(result, -1);
        EXPECT_EQ(errno, EFAULT);
    }
    errno = 0;
    EXPECT_EQ(file->fcntl(F_SETLK, nullptr), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(test::AreaView().area().control.bufferMap, 0U);
}

TEST_F(IPCFSTest, FailedTransfers_LeaveNoBufferTaken) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    ASSERT_TRUE(openNew("f"));
    const auto reader = fs.open("/f", O_RDONLY, 0);
    const auto writer = fs.open("/f", O_WRONLY, 0);
    char byte = 0;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(reader->write(&byte, 1), -1);
        EXPECT_EQ(errno, EBADF);
        EXPECT_EQ(writer->read(&byte, 1), -1);
        EXPECT_EQ(errno, EBADF);
        EXPECT_EQ(reader->pwrite(&byte, 1, 0), -1);
        EXPECT_EQ(writer->pread(&byte, 1, 0), -1);
        EXPECT_EQ(reader->pread(&byte, 1, -1), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    const test::AreaView view;
    EXPECT_EQ(view.area().control.bufferMap, 0U);
    int freeBuffers = 0;
    sem_getvalue(&view.area().control.bufferSem, &freeBuffers);
    EXPECT_EQ(freeBuffers, 2);
}

TEST_F(IPCFSTest, BuffersTaken_TransferFailsAfterTwoSeconds) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    const test::AreaView view;
    ASSERT_EQ(view.shm()->allocDataBuf(1), 0);
    ASSERT_EQ(view.shm()->allocDataBuf(1), 1);
    char byte = 0;
    const auto start = Clock::now();
    EXPECT_EQ(file->write(&byte, 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(secondsSince(start), 1.9);
    EXPECT_LT(secondsSince(start), 5);
    view.shm()->freeDataBuf(1);
    EXPECT_EQ(file->write(&byte, 1), 1);
}

TEST_F(IPCFSTest, FcntlNumbers_OnlyLookAtTheDescriptor) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    LogCapture log("fsipc=12");
    for (const int command : {F_DUPFD, F_GETFD, F_SETFD, F_GETFL, F_SETFL, F_DUPFD_CLOEXEC})
        EXPECT_EQ(file->fcntl(command, 5L), 0) << command;
    const QStringList messages = log.messages();
    ASSERT_EQ(messages.size(), 12);
    EXPECT_THAT(qPrintable(messages[0]), HasSubstr("Send request 'fstat "));
    EXPECT_TRUE(messages[0].endsWith(" 0 5'"));
    EXPECT_EQ(messages[1], "fsipc 12 Got response: '0,0,0'");
    EXPECT_TRUE(messages[10].endsWith(" 1030 5'"));
    for (const int command : {5000, F_SETOWN, F_GETPIPE_SZ, -1}) {
        errno = 0;
        liberrno = NotFound;
        EXPECT_EQ(file->fcntl(command, 5L), -1);
        EXPECT_EQ(errno, EOPNOTSUPP);
        EXPECT_EQ(liberrno, Ok);
    }
    EXPECT_EQ(log.messages(), QStringList());
}

TEST_F(IPCFSTest, FcntlLocks_TravelUnderTheTargetsNumbers) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 1;
    lock.l_len = 1;
    LogCapture log("fsipc=12");
    EXPECT_EQ(file->fcntl(F_SETLK, &lock), 0);
    EXPECT_EQ(file->fcntl(F_SETLKW, &lock), 0);
    EXPECT_EQ(file->fcntl(F_GETLK, &lock), 0);
    const QStringList messages = log.messages();
    ASSERT_EQ(messages.size(), 6);
    EXPECT_TRUE(messages[0].endsWith(" 13'"));
    EXPECT_TRUE(messages[2].endsWith(" 14'"));
    EXPECT_TRUE(messages[4].endsWith(" 12'"));
    // The server process has the lock.
    const int fd = ::open(qPrintable(dir / "f"), O_RDWR);
    struct flock seen = lock;
    EXPECT_EQ(::fcntl(fd, F_GETLK, &seen), 0);
    EXPECT_EQ(seen.l_type, F_WRLCK);
    EXPECT_EQ(seen.l_pid, server.process().pid());
    ::close(fd);
    EXPECT_EQ(::fcntl(fd, F_SETLK, &lock), -1);
    struct flock asked = lock;
    EXPECT_EQ(file->fcntl(F_GETLK, &asked), 0);
    EXPECT_EQ(asked.l_type, lock.l_type);
    EXPECT_EQ(asked.l_start, lock.l_start);
    EXPECT_EQ(asked.l_len, lock.l_len);
    EXPECT_EQ(asked.l_pid, lock.l_pid);
    lock.l_whence = 99;
    EXPECT_EQ(file->fcntl(F_SETLK, &lock), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(IPCFSTest, Fchmod_LocksTheFile) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    EXPECT_EQ(file->fchmod(LOCK_EX), 0);
    const int fd = ::open(qPrintable(dir / "f"), O_RDWR);
    EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    EXPECT_EQ(file->fchmod(LOCK_UN), 0);
    EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);
    ::close(fd);
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644U);
}

TEST_F(IPCFSTest, EndOfDirectory_NullWithErrnoMinusOne) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto directory = fs.opendir("/");
    EXPECT_NE(directory->readdir(), nullptr);
    EXPECT_NE(directory->readdir(), nullptr);
    errno = 0;
    EXPECT_EQ(directory->readdir(), nullptr);
    EXPECT_EQ(errno, -1);
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_NE(directory->readdir(), nullptr);
}

TEST_F(IPCFSTest, SuccessAfterAFailure_TellsNoOldReason) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.stat("/missing", st), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(fs.stat("/", st), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(liberrno, Ok);
}

TEST_F(IPCFSTest, SameRecordAsTheSystems) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    ASSERT_EQ(file->write("abc", 3), 3);
    struct stat system;
    ASSERT_EQ(::stat(qPrintable(dir / "f"), &system), 0);
    EXPECT_EQ(fs.stat("/f", st), 0);
    EXPECT_EQ(std::memcmp(&st, &system, sizeof st), 0);
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(std::memcmp(&st, &system, sizeof st), 0);
}

// --- Servers that end
// -----------------------------------------------------------------------------

TEST_F(IPCFSTest, ServerTerminated_NextCallFinds) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(server.terminate(), 0);
    LogCapture log("fsipc=12");
    expectNotConnected(fs.mkdir("/d", 0755));
    EXPECT_EQ(log.messages(), QStringList({"fsipc 12 Send request 'mkdir 493 /d'",
                                           "fsipc 12 Server offline. Stopping client"}));
    expectNotConnected(fs.mkdir("/d", 0755));
    EXPECT_EQ(log.messages(), QStringList());
    EXPECT_FALSE(QFileInfo::exists(dir / "d"));
}

TEST_F(IPCFSTest, ServerKilled_NextCallFinds) {
    if (!test::ownerDeathIsSeen())
        GTEST_SKIP() << "the death of a mutex's owner is not seen here";
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    server.process().signal(SIGKILL);
    ASSERT_EQ(server.process().wait(), -SIGKILL);
    LogCapture log("fsipc=12");
    char byte = 0;
    expectNotConnected(file->write(&byte, 1));
    const QStringList messages = log.messages();
    ASSERT_EQ(messages.size(), 3);
    EXPECT_EQ(messages[1], "fsipc 12 Server crashed.");
    EXPECT_EQ(messages[2], "fsipc 12 Server offline. Stopping client");
    // Who comes now finds an area that no server owns.
    EXPECT_EQ(fs.connect(1, nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(log.messages(),
              QStringList({"fsipc 12 Client connecting", "fsipc 12 Send request 'connect'",
                           "fsipc 12 Server offline. Stopping client",
                           "fsipc 12 No response from server"}));
    ServerProcess next(dir.path());
    ASSERT_TRUE(next.isReady());
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.stat("/f", st), 0);
}

TEST_F(IPCFSTest, ServerKilledAndRestarted_ClientFindsTheOldOneGone) {
    if (!test::ownerDeathIsSeen())
        GTEST_SKIP() << "the death of a mutex's owner is not seen here";
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    server.process().signal(SIGKILL);
    ASSERT_EQ(server.process().wait(), -SIGKILL);
    ServerProcess next(dir.path());
    ASSERT_TRUE(test::eventually([] {
        const test::AreaView view;
        return view.isThere() && isOwned(view.area()) && requestState(view.area()) == Idle;
    }));
    char byte = 0;
    expectNotConnected(file->write(&byte, 1));
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.stat("/f", st), 0);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(next.terminate(), 0);
    EXPECT_TRUE(next.messages().contains("fsipcsrv 12 Server crash detected. Resetting."));
    EXPECT_FALSE(test::serviceExists());
}

TEST_F(IPCFSTest, ServerKilledWithNobodyConnected_ClientIsTold) {
    if (!test::ownerDeathIsSeen())
        GTEST_SKIP() << "the death of a mutex's owner is not seen here";
    server.process().signal(SIGKILL);
    ASSERT_EQ(server.process().wait(), -SIGKILL);
    LogCapture log("fsipc=12");
    EXPECT_EQ(fs.connect(1, nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(log.messages(), QStringList({"fsipc 12 Client connecting",
                                           "fsipc 12 Server not online: Owner died"}));
}

TEST_F(IPCFSTest, ServerStoppedForElevenSeconds_ClientBeginsAnewInStep) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    auto file = openNew("f");
    server.process().signal(SIGSTOP);
    const auto start = Clock::now();
    LogCapture log("fsipc=12");
    expectNotConnected(fs.mkdir("/given-up", 0755));
    EXPECT_GE(secondsSince(start), 9.9);
    EXPECT_LT(secondsSince(start), 15);
    EXPECT_EQ(log.messages(), QStringList({"fsipc 12 Send request 'mkdir 493 /given-up'",
                                           "fsipc 12 Response wait error: Connection timed out. "
                                           "Disconnecting."}));
    std::this_thread::sleep_until(start + std::chrono::seconds(11));
    server.process().signal(SIGCONT);
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    // Each answer is its own.
    for (int i = 1; i <= 100; ++i) {
        const QString name = QStringLiteral("/link%1").arg(i);
        QString target;
        ASSERT_EQ(fs.symlink(QStringLiteral("target%1").arg(i), name), 0);
        const QString expected = QStringLiteral("target%1").arg(i);
        ASSERT_EQ(fs.readlink(name, target), expected.size());
        ASSERT_EQ(target, expected);
    }
    // What was given up was not done behind the client's back.
    EXPECT_FALSE(QFileInfo::exists(dir / "given-up"));
    file.reset();
    EXPECT_EQ(server.terminate(), 0);
    EXPECT_TRUE(server.messages().contains("fsipcsrv 12 Close Session. 1 files 0 dirs"));
}

TEST_F(IPCFSTest, AnswerThatComesTooLate_TakenForNoOther) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    test::shortenWaits(200);
    const auto holder = openNew("f");
    const auto waiter = fs.open("/f", O_RDWR, 0);
    ASSERT_EQ(holder->flock(LOCK_EX), 0);
    // The server is inside the file system until this process unlocks the file.
    const int fd = ::open(qPrintable(dir / "f"), O_RDWR);
    ASSERT_EQ(holder->flock(LOCK_UN), 0);
    ASSERT_EQ(::flock(fd, LOCK_EX), 0);
    expectNotConnected(waiter->flock(LOCK_EX));
    // It gets on when the next session has already begun to end this one.
    std::thread later([fd] {
        const test::AreaView view;
        EXPECT_TRUE(test::eventually([&] { return isPublished(requestState(view.area())); }));
        ::flock(fd, LOCK_UN);
    });
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(fs.stat(QStringLiteral("/missing%1").arg(i), st), -1);
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(fs.stat("/f", st), 0);
    }
    later.join();
    ::close(fd);
    test::shortenWaits(0);
}

// --- Many sessions
// --------------------------------------------------------------------------------

// What is lost is waited for: for a second or longer.
constexpr double longestOrderlySession = 0.9;

TEST_F(IPCFSTest, ThousandSessions_NoneLost) {
    for (int i = 0; i < 1000; ++i) {
        const auto start = Clock::now();
        ASSERT_EQ(fs.connect(1, nullptr), 0) << i;
        ASSERT_EQ(fs.stat("/", st), 0) << i;
        fs.disconnect();
        ASSERT_LT(secondsSince(start), longestOrderlySession) << i;
    }
}

TEST_F(IPCFSTest, ThousandSessionsOfTwoProcessesInTurn_NoneLost) {
    int toChild[2];
    int toParent[2];
    ASSERT_EQ(pipe(toChild), 0);
    ASSERT_EQ(pipe(toParent), 0);
    const auto play = [](int in, int out) {
        IPCFS client;
        struct stat seen;
        char turn;
        for (int i = 0; i < 500; ++i) {
            if (::read(in, &turn, 1) != 1)
                return i + 1;
            const auto start = Clock::now();
            if (client.connect(1, nullptr) != 0 || client.stat("/", seen) != 0 ||
                client.disconnect() != 0 || secondsSince(start) >= longestOrderlySession ||
                ::write(out, &turn, 1) != 1)
                return i + 1;
        }
        return 0;
    };
    ChildProcess child([&] { return play(toChild[0], toParent[1]) ? 1 : 0; });
    ASSERT_EQ(::write(toParent[1], "x", 1), 1);
    EXPECT_EQ(play(toParent[0], toChild[1]), 0);
    EXPECT_EQ(child.wait(), 0);
}

// Without taking turns: who is refused tries again, and everybody gets through.
TEST_F(IPCFSTest, TwoProcessesAtOnce_EachAnswerItsOwn) {
    const auto play = [](const char* name) {
        IPCFS::Data session;
        for (int sessions = 0; sessions < 100;) {
            // One attempt, without the pause that follows in connect().
            if (session.init(nullptr) != 0)
                continue;
            const char* answer = nullptr;
            const int length = session.call(&answer, op::readlink, "/%s", name);
            if (length != static_cast<int>(std::strlen(name)) || std::strcmp(answer, name) != 0)
                return 1;
            session.end();
            ++sessions;
        }
        return 0;
    };
    ASSERT_EQ(symlink("one", qPrintable(dir / "one")), 0);
    ASSERT_EQ(symlink("twotwo", qPrintable(dir / "twotwo")), 0);
    ChildProcess one([&] { return play("one"); });
    ChildProcess two([&] { return play("twotwo"); });
    EXPECT_EQ(one.wait(60), 0);
    EXPECT_EQ(two.wait(60), 0);
}

// --- The client with a server that misbehaves
// ------------------------------------------------------

/// A server that answers with what the test tells it, whatever it is asked.
class FakeServer {
public:
    FakeServer() {
        AreaControl& control = area().control;
        const SharedMutexAttributes attributes;
        for (pthread_mutex_t* mutex :
             {&control.clientMutex, &control.serverMutex, &control.bufferMutex})
            attributes.makeMutex(*mutex);
        sem_init(&control.requestSem, 1, 0);
        sem_init(&control.responseSem, 1, 0);
        sem_init(&control.bufferSem, 1, dataBuffers);
        setIdle(area());
        setOwned(area(), true);
        sem_init(&m_started, 0, 0);
        m_thread = std::thread([this] { serve(); });
        sem_wait(&m_started);
    }
    ~FakeServer() {
        m_ends = true;
        sem_post(&area().control.requestSem);
        m_thread.join();
    }

    Area& area() {
        return areaOf(shmAt(m_block.base()));
    }
    /// The answer to the next request, as it stands in the area; then "0,0,0" again.
    void answer(const QByteArray& bytes) {
        const std::lock_guard lock(m_mutex);
        m_answer = bytes;
    }
    /// Takes requests and answers none.
    void beSilent(bool isSilent = true) {
        m_isSilent = isSilent;
    }
    /// The last request.
    QByteArray request() {
        const std::lock_guard lock(m_mutex);
        return m_request.bytes;
    }

private:
    void serve() {
        pthread_mutex_lock(&area().control.serverMutex);
        sem_post(&m_started);
        while (waitFor(area().control.requestSem, nullptr) == 0 && !m_ends) {
            const std::lock_guard lock(m_mutex);
            if (!take(area(), m_request) || m_isSilent)
                continue;
            const QByteArray bytes = m_answer.isNull() ? QByteArray("0,0,0", 6) : m_answer;
            m_answer.clear();
            std::memcpy(area().response, bytes.constData(), bytes.size());
            sem_post(&area().control.responseSem);
            if (requestState(area()) == Ending) {
                sem_init(&area().control.responseSem, 1, 0);
                setIdle(area());
            }
        }
        pthread_mutex_unlock(&area().control.serverMutex);
    }

    ShmBlock m_block{blockName, areaSize, ShmBlock::Create | ShmBlock::RemoveAtClose};
    std::mutex m_mutex; // guards m_request and m_answer
    Text m_request = {};
    QByteArray m_answer;
    std::atomic<bool> m_ends{false};
    std::atomic<bool> m_isSilent{false};
    sem_t m_started;
    std::thread m_thread;
};

class IPCFSWithFakeServer : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(fs.connect(1, nullptr), 0);
    }

    QSharedPointer<File> openAs(int fd) {
        server.answer(QByteArray::number(fd) + QByteArray(",0,0", 5));
        return fs.open("/f", O_RDWR, 0);
    }
    void expectBadMessage(long long result) {
        const Error reason;
        EXPECT_EQ(result, -1);
        EXPECT_EQ(reason.sysErrno, EBADMSG) << std::strerror(reason.sysErrno);
        EXPECT_EQ(reason.code, Ok);
        // The session goes on.
        EXPECT_EQ(fs.mkdir("/next", 0755), 0);
    }

    FakeServer server;
    IPCFS fs;
    struct stat st;
};

TEST_F(IPCFSWithFakeServer, MalformedHeader_EBADMSG) {
    for (const char* header : {"", "1", "1,2", "1,2,", "a,b,c", "1,2,x", "1;2;3", " 1,2,3",
                               "1,2,3,4", "99999999999,0,0", "0,0,-1"}) {
        LogCapture log("fsipc=12");
        server.answer(QByteArray(header, static_cast<int>(std::strlen(header)) + 1));
        expectBadMessage(fs.mkdir("/d", 0755));
        EXPECT_TRUE(log.messages().contains(
            QStringLiteral("fsipc 12 Malformed response '%1'").arg(header)));
    }
}

TEST_F(IPCFSWithFakeServer, ResponseWithoutAnEnd_EBADMSG) {
    server.answer(QByteArray(8704, 'x'));
    expectBadMessage(fs.mkdir("/d", 0755));
    server.answer(QByteArray("0,0,0") + QByteArray(8699, '0'));
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
    char buf[16];
    server.answer(QByteArray("0,0,0") + QByteArray(8699, '0'));
    EXPECT_EQ(fs.readlink("/l", buf, sizeof buf), 0);
}

TEST_F(IPCFSWithFakeServer, AnsweredReason_IsTheCallers) {
    server.answer(QByteArray("-1,28,0", 8));
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(liberrno, Ok);
    server.answer(QByteArray("-1,0,3", 7));
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(liberrno, LibraryFailure);
}

TEST_F(IPCFSWithFakeServer, AnsweredNotConnected_EndsTheSession) {
    for (const int reason : {ENOTCONN, ESHUTDOWN}) {
        ASSERT_EQ(fs.connect(1, nullptr), 0);
        server.answer("-1," + QByteArray::number(reason) + QByteArray(",0", 3));
        EXPECT_EQ(fs.mkdir("/d", 0755), -1);
        EXPECT_EQ(errno, reason);
        EXPECT_FALSE(fs.isConnected());
        // In good order: the server knows.
        EXPECT_EQ(requestState(server.area()), Idle);
    }
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openAs(7);
    char byte;
    server.answer(QByteArray("0,107,0 0 1", 12));
    EXPECT_EQ(file->read(&byte, 1), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(IPCFSWithFakeServer, RecordThatIsNone_EBADMSG) {
    struct statfs sfs;
    server.answer(QByteArray("0,0,0 text", 11));
    expectBadMessage(fs.stat("/f", st));
    server.answer(QByteArray("0,0,0 text", 11));
    expectBadMessage(fs.statfs("/f", sfs));
    server.answer(QByteArray("0,0,0") + QByteArray(8690, '0') + '\0');
    expectBadMessage(fs.stat("/f", st));
    server.answer(QByteArray("5,0,0", 6));
    expectBadMessage(fs.stat("/f", st));
    server.answer(QByteArray("-7,0,0", 7));
    expectBadMessage(fs.mkdir("/d", 0755));
}

TEST_F(IPCFSWithFakeServer, DescriptorZero_CannotBeUsed) {
    const auto file = openAs(0);
    ASSERT_TRUE(file);
    char byte;
    struct flock lock = {};
    EXPECT_EQ(file->read(&byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(file->write(&byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    for (const long long result :
         {file->lseek(0, SEEK_SET), 0LL + file->fstat(st), 0LL + file->ftruncate(0),
          0LL + file->fsync(), 0LL + file->fdatasync(), 0LL + file->flock(LOCK_SH),
          0LL + file->fchmod(0), 0LL + file->fcntl(F_SETLK, &lock), 0LL + file->close(),
          0LL + file->pread(&byte, 1, 0), 0LL + file->pwrite(&byte, 1, 0)})
        EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_TRUE(server.request().startsWith("open "));
}

TEST_F(IPCFSWithFakeServer, OpenRefused_Null) {
    server.answer(QByteArray("-1,13,0", 8));
    EXPECT_FALSE(fs.open("/f", O_RDWR, 0));
    EXPECT_EQ(errno, EACCES);
}

TEST_F(IPCFSWithFakeServer, Close_ForgetsTheDescriptorWhateverTheAnswer) {
    const auto file = openAs(7);
    server.answer(QByteArray("-1,5,0", 7));
    EXPECT_EQ(file->close(), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(server.request(), "close 7");
    EXPECT_EQ(file->close(), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(IPCFSWithFakeServer, CountsThatCannotBe_EBADMSG) {
    const auto file = openAs(7);
    char buf[16];
    for (const char* answer : {"0,0,0 0 17", "0,0,0 0 -1", "0,0,0 1 3", "0,0,0 0", "0,0,0 x",
                               "0,0,0", "0,0,0 0 99999999999999999999"}) {
        server.answer(QByteArray(answer, static_cast<int>(std::strlen(answer)) + 1));
        expectBadMessage(file->read(buf, sizeof buf));
    }
    for (const char* answer : {"0,0,0 17", "0,0,0 -1", "0,0,0 x", "0,0,0"}) {
        server.answer(QByteArray(answer, static_cast<int>(std::strlen(answer)) + 1));
        expectBadMessage(file->pread(buf, sizeof buf, 0));
        server.answer(QByteArray(answer, static_cast<int>(std::strlen(answer)) + 1));
        expectBadMessage(file->write(buf, sizeof buf));
        server.area().control.bufferMap = 0; // a server releases what it was handed
        sem_post(&server.area().control.bufferSem);
    }
    server.answer(QByteArray("0,0,0 x", 8));
    expectBadMessage(file->lseek(0, SEEK_SET));
    EXPECT_EQ(server.area().control.bufferMap, 0U);
}

TEST_F(IPCFSWithFakeServer, Position_AsAnswered) {
    const auto file = openAs(7);
    server.answer(QByteArray("0,0,0 5000000000", 17));
    EXPECT_EQ(file->lseek(-3, SEEK_END), 5'000'000'000);
    EXPECT_EQ(server.request(), "lseek 7 -3 2");
    server.answer(QByteArray("-1,22,0 -1", 11));
    EXPECT_EQ(file->lseek(0, 99), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(IPCFSWithFakeServer, DirectoryEntryWithoutAnEnd_IsCut) {
    server.answer(QByteArray("0,0,0 0x1234", 13));
    const auto directory = fs.opendir("/");
    ASSERT_TRUE(directory);
    EXPECT_EQ(server.request(), "opendir /");
    server.answer(QByteArray("0,0,0", 6) + QByteArray(sizeof(struct dirent), 'n'));
    const struct dirent* entry = directory->readdir();
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(strnlen(entry->d_name, sizeof entry->d_name), sizeof entry->d_name - 1);
    EXPECT_EQ(server.request(), "readdir 0x1234");
}

TEST_F(IPCFSWithFakeServer, HandleThatIsNone_NoDirectory) {
    for (const char* answer : {"0,0,0 (nil)", "0,0,0", "0,0,0 x", "0,0,0 0x0"}) {
        server.answer(QByteArray(answer, static_cast<int>(std::strlen(answer)) + 1));
        expectBadMessage(fs.opendir("/") ? 0 : -1);
    }
    server.answer(QByteArray("-1,2,0 (nil)", 13));
    EXPECT_FALSE(fs.opendir("/"));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(IPCFSWithFakeServer, Closedir_KeepsTheHandleWhenRefused) {
    server.answer(QByteArray("0,0,0 0x1234", 13));
    const auto directory = fs.opendir("/");
    server.answer(QByteArray("-1,5,0", 7));
    EXPECT_EQ(directory->closedir(), -1);
    EXPECT_EQ(directory->closedir(), 0);
    EXPECT_EQ(server.request(), "closedir 0x1234");
    EXPECT_TRUE(fs.mkdir("/d", 0755) == 0);
    EXPECT_EQ(directory->closedir(), 0);
    EXPECT_EQ(server.request(), "mkdir 493 /d");
    errno = 0;
    EXPECT_EQ(directory->readdir(), nullptr);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(IPCFSWithFakeServer, LinkText_AsLongAsTheBuffer) {
    char buf[4] = {'#', '#', '#', '#'};
    server.answer(QByteArray("4096,0,0 abcdef", 16));
    EXPECT_EQ(fs.readlink("/l", buf, 3), 3);
    EXPECT_EQ(std::string(buf, 4), "abc#");
    QString target;
    server.answer(QByteArray("4096,0,0 abcdef", 16));
    EXPECT_EQ(fs.readlink("/l", target), 6);
    EXPECT_EQ(target, "abcdef");
    server.answer(QByteArray("-1,22,0 ", 9));
    EXPECT_EQ(fs.readlink("/l", target), -1);
    EXPECT_EQ(target, "abcdef");
}

TEST_F(IPCFSWithFakeServer, Requests_InTheirFormats) {
    const auto sent = [this](long long) { return server.request(); };
    EXPECT_EQ(sent(fs.chmod("/f", 0640)), "chmod 416 /f");
    EXPECT_EQ(sent(fs.truncate("/f", 5'000'000'000)), "truncate 5000000000 /f");
    EXPECT_EQ(sent(fs.truncate("/f", -1)), "truncate 18446744073709551615 /f");
    EXPECT_EQ(sent(fs.unlink(QString::fromUtf8("/\u00e4"))), "unlink /\xc3\xa4");
    EXPECT_EQ(sent(fs.rmdir("/d")), "rmdir /d");
    EXPECT_EQ(sent((fs.sync(), 0)), "sync");
    const auto file = openAs(7);
    EXPECT_EQ(server.request(), "open 2 0 /f");
    EXPECT_EQ(sent(file->ftruncate(-5)), "ftruncate 7 -5");
    EXPECT_EQ(sent(file->fsync()), "fsync 7");
    EXPECT_EQ(sent(file->fdatasync()), "fdatasync 7");
    EXPECT_EQ(sent(file->flock(LOCK_UN)), "flock 7 8");
    EXPECT_EQ(sent(file->fchmod(0644)), "fchmod 7 420");
    char byte = 'x';
    server.answer(QByteArray("0,0,0 1", 8));
    EXPECT_EQ(sent(file->pwrite(&byte, 1, 5'000'000'000)), "pwrite 7 0 1 5000000000");
    server.answer(QByteArray("0,0,0 1 1", 10));
    EXPECT_EQ(sent(file->read(&byte, 1)), "read 7 1 1");
}

TEST_F(IPCFSWithFakeServer, Answer_AwaitedForTenSeconds) {
    test::shortenWaits(50);
    server.beSilent();
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_NEAR(test::lastWaitSeconds(), 10, 0.2);
    test::shortenWaits(0);
}

TEST_F(IPCFSWithFakeServer, WaitFails_EndsTheSession) {
    server.beSilent();
    LogCapture log("fsipc=12");
    test::failCall("sem_timedwait", 1, EINVAL);
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(log.messages(),
              QStringList({"fsipc 12 Send request 'mkdir 493 /d'",
                           "fsipc 12 Response wait error: Invalid argument. Disconnecting."}));
}

TEST(IPCFSData, RequestWithPayload_FitsOrIsRefusedWhole) {
    FakeServer server;
    IPCFS::Data session;
    ASSERT_EQ(session.init(nullptr), 0);
    const std::vector<char> payload(8704, 'p');
    const std::string text = "fcntl 7 13";
    LogCapture log("fsipc=12");
    EXPECT_EQ(session.sendBufRequest(op::fcntl, payload.data(), 8704 - text.size(),
                                     args::fdAndNumber, 7, 13),
              -1);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(log.messages(), QStringList({"fsipc 12 Request 'fcntl 7 13' exceeds max 8704"}));
    EXPECT_EQ(requestState(server.area()), Done);
    EXPECT_EQ(session.sendBufRequest(op::fcntl, payload.data(), 8703 - text.size(),
                                     args::fdAndNumber, 7, 13),
              0);
    EXPECT_EQ(session.getResponse(), 0);
    EXPECT_EQ(server.request(), "fcntl 7 13");
    session.end();
}

// --- The client and the locks
// -----------------------------------------------------------------------

TEST_F(IPCFSWithFakeServer, ConnectingThreadEnded_SessionGoesOn) {
    if (!test::ownerDeathIsSeen())
        GTEST_SKIP() << "the death of a mutex's owner is not seen here";
    fs.disconnect();
    std::thread([this] { EXPECT_EQ(fs.connect(1, nullptr), 0); }).join();
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
    fs.disconnect();
    EXPECT_EQ(requestState(server.area()), Idle);
    EXPECT_EQ(fs.connect(1, nullptr), 0);
}

TEST_F(IPCFSWithFakeServer, PlaceTakenWhileTheThreadWasGone_SessionIsLost) {
    if (!test::ownerDeathIsSeen())
        GTEST_SKIP() << "the death of a mutex's owner is not seen here";
    fs.disconnect();
    std::thread([this] { EXPECT_EQ(fs.connect(1, nullptr), 0); }).join();
    IPCFS other;
    {
        LogCapture log("fsipc=12");
        EXPECT_EQ(other.connect(1, nullptr), 0);
        EXPECT_TRUE(log.messages().contains("fsipc 12 Client crash detected. Continuing."));
        other.disconnect();
    }
    LogCapture log("fsipc=12");
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_FALSE(fs.isConnected());
    EXPECT_EQ(log.messages(), QStringList({"fsipc 12 Session lost. Stopping client"}));
}

namespace {

/// The state of a process's first thread, as the system tells it: Z when it has ended.
char firstThreadState(pid_t process) {
    const QByteArray status = test::contents(QStringLiteral("/proc/%1/stat").arg(process));
    return status.mid(status.lastIndexOf(')') + 2, 1).append('\0').front();
}

} // namespace

/// A client in another process, which takes the place of one whose thread has ended. The server
/// gives both the same descriptor.
class IPCFSTakenPlace : public IPCFSTest {
protected:
    void SetUp() override {
        if (!test::ownerDeathIsSeen())
            GTEST_SKIP() << "the death of a mutex's owner is not seen here";
        IPCFSTest::SetUp();
        ASSERT_EQ(pipe(opened), 0);
        ASSERT_EQ(pipe(goOn), 0);
        // Forked while there are no threads yet.
        other = std::make_unique<ChildProcess>([this] {
            char byte;
            IPCFS client;
            if (::read(goOn[0], &byte, 1) != 1 || client.connect(1, nullptr) != 0)
                return 1;
            const auto file = client.open("/theirs", O_RDWR | O_CREAT, 0644);
            if (!file || ::write(opened[1], "o", 1) != 1 || ::read(goOn[0], &byte, 1) != 1)
                return 2;
            return file->write("theirs", 6) == 6 ? 0 : 3;
        });
    }

    void beginOnAThreadThatEnds() {
        std::thread([this] {
            ASSERT_EQ(fs.connect(1, nullptr), 0);
            mine = openNew("mine");
        }).join();
        ASSERT_TRUE(mine);
    }
    void letTheOtherOpen() {
        char byte;
        ASSERT_EQ(::write(goOn[1], "g", 1), 1);
        ASSERT_EQ(::read(opened[0], &byte, 1), 1);
    }
    void letTheOtherWrite() {
        ASSERT_EQ(::write(goOn[1], "g", 1), 1);
        EXPECT_EQ(other->wait(), 0);
        EXPECT_EQ(test::contents(dir / "theirs"), "theirs");
    }

    int opened[2];
    int goOn[2];
    std::unique_ptr<ChildProcess> other;
    QSharedPointer<File> mine;
};

TEST_F(IPCFSTakenPlace, OtherLives_NothingReachesItsFiles) {
    beginOnAThreadThatEnds();
    letTheOtherOpen();
    expectNotConnected(mine->write("mine", 4));
    letTheOtherWrite();
}

TEST_F(IPCFSTakenPlace, OtherHasDied_NothingReachesItsFilesAndTheNextBegins) {
    beginOnAThreadThatEnds();
    letTheOtherOpen();
    other->signal(SIGKILL);
    ASSERT_EQ(other->wait(), -SIGKILL);
    expectNotConnected(mine->write("mine", 4));
    EXPECT_EQ(test::contents(dir / "theirs"), "");
    const int descriptors = server.process().descriptors();
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(server.process().descriptors(), descriptors - 1); // of the one that died
    EXPECT_EQ(fs.stat("/theirs", st), 0);
}

TEST_F(IPCFSTakenPlace, FirstThreadHasEndedAndCannotBeReaped_NothingReachesItsFiles) {
    int begin[2];
    ASSERT_EQ(pipe(begin), 0);
    ChildProcess threads([&] {
        if (fs.connect(1, nullptr) != 0)
            return 1;
        mine = openNew("mine");
        std::thread([&] {
            char byte;
            const bool isRefused = ::read(begin[0], &byte, 1) == 1 &&
                                   mine->write("mine", 4) == -1 && errno == ENOTCONN &&
                                   !fs.isConnected();
            _exit(isRefused ? 0 : 2);
        }).detach();
        // As pthread_exit(3), but the test's own frames are not unwound.
        syscall(SYS_exit, 0);
        return 3;
    });
    ASSERT_TRUE(test::eventually([&] { return firstThreadState(threads.pid()) == 'Z'; }));
    letTheOtherOpen();
    ASSERT_EQ(::write(begin[1], "b", 1), 1);
    EXPECT_EQ(threads.wait(), 0);
    letTheOtherWrite();
}

TEST_F(IPCFSTest, SessionNumberOverwritten_SessionIsLostAndNothingElse) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    const auto file = openNew("f");
    ASSERT_TRUE(file);
    test::AreaView().area().sessions += 7;
    EXPECT_EQ(file->write("abc", 3), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_FALSE(fs.isConnected());
    // The mutex is free, and no list of this thread leads to memory that is gone.
    EXPECT_EQ(mappingsOf(blockName), 0);
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
}

TEST_F(IPCFSTest, ForkedChild_HasNoPartInTheSession) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    auto file = openNew("f");
    ASSERT_TRUE(file);
    ChildProcess child([&] {
        const bool isRefused = file->write("child", 5) == -1 && errno == ENOTCONN;
        file.reset();
        fs.disconnect();
        return isRefused && !fs.isConnected() ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(file->write("parent", 6), 6);
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_size, 6);
}

TEST_F(IPCFSTest, ForkedChildOfADeadParent_HasNoPartInTheSession) {
    if (!test::ownerDeathIsSeen())
        GTEST_SKIP() << "the death of a mutex's owner is not seen here";
    int lifeline[2];
    int told[2];
    ASSERT_EQ(pipe(lifeline), 0);
    ASSERT_EQ(pipe(told), 0);
    ChildProcess parent([&] {
        if (fs.connect(1, nullptr) != 0)
            return 1;
        const auto file = openNew("f");
        if (!file || file->write("parent", 6) != 6)
            return 2;
        if (fork() == 0) {
            char byte;
            ::close(lifeline[1]);
            const bool isRefused = ::read(lifeline[0], &byte, 1) == 0 && // the parent is dead
                                   file->write("child", 5) == -1 && errno == ENOTCONN &&
                                   !fs.isConnected();
            (void)!::write(told[1], isRefused ? "y" : "n", 1);
            _exit(0);
        }
        return raise(SIGKILL);
    });
    ::close(lifeline[1]);
    ::close(told[1]);
    EXPECT_EQ(parent.wait(), -SIGKILL);
    char isRefused = '?';
    EXPECT_EQ(::read(told[0], &isRefused, 1), 1);
    EXPECT_EQ(isRefused, 'y');
    EXPECT_EQ(test::contents(dir / "f"), "parent");
    EXPECT_EQ(requestState(test::AreaView().area()), Done);
    EXPECT_EQ(fs.connect(1, nullptr), 0);
}

namespace {

/// The exit status of a process that does `work` and, to itself, is number 1; `refused` when there
/// can be no such process.
int firstOfItsNumbers(const std::function<int()>& work, int refused) {
    if (unshare(CLONE_NEWPID) != 0)
        return refused;
    return ChildProcess(work).wait();
}

} // namespace

// The thread that began the session holds its mutex after another one has ended it. A child whose
// thread has the same number is not that thread.
TEST_F(IPCFSTest, DisconnectedByAnotherThread_NothingBreaksInAChildOfTheSameNumber) {
    if (!test::ownerDeathIsSeen())
        GTEST_SKIP() << "the death of a mutex's owner is not seen here";
    constexpr int cannotBe = 77;
    const auto connectInChild = [] { return IPCFS().connect(1, nullptr) == -1 ? 0 : 3; };
    ChildProcess outer([&] {
        return firstOfItsNumbers(
            [&] {
                if (fs.connect(1, nullptr) != 0)
                    return 1;
                std::thread([this] { fs.disconnect(); }).join();
                return firstOfItsNumbers(connectInChild, 2);
            },
            cannotBe);
    });
    const int status = outer.wait();
    if (status == cannotBe)
        GTEST_SKIP() << "no process numbers of one's own";
    EXPECT_EQ(status, 0);
    EXPECT_EQ(fs.connect(1, nullptr), 0);
}

TEST_F(IPCFSTest, EndOfAFile_TellsNothingAboutAnotherFailure) {
    ASSERT_EQ(fs.connect(1, nullptr), 0);
    auto file = openNew("f");
    auto directory = fs.opendir("/");
    EXPECT_EQ(fs.stat("/missing", st), -1);
    file.reset();
    directory.reset();
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(liberrno, Ok);
    file = openNew("g");
    EXPECT_EQ(file->close(), 0);
    EXPECT_EQ(fs.stat("/missing", st), -1);
    file.reset();
    EXPECT_EQ(errno, ENOENT);
}

// The session ends on another thread than the one that began it, which alone can let its place go.
TEST_F(IPCFSWithFakeServer, TimedOutOnAnotherThread_BeginnersThreadConnectsAgain) {
    test::shortenWaits(100);
    server.beSilent();
    std::thread([this] { EXPECT_EQ(fs.mkdir("/d", 0755), -1); }).join();
    EXPECT_FALSE(fs.isConnected());
    server.beSilent(false);
    std::thread([this] { EXPECT_EQ(fs.connect(1, nullptr), -1); }).join();
    EXPECT_EQ(fs.connect(1, nullptr), 0);
    EXPECT_EQ(fs.mkdir("/d", 0755), 0);
    test::shortenWaits(0);
}

TEST_F(IPCFSWithFakeServer, PlaceTakenBeforeTheAnswer_ThatIsTheOthers) {
    server.beSilent();
    AreaControl& control = server.area().control;
    std::thread other([this, &control] {
        EXPECT_TRUE(test::eventually([this] { return server.request().startsWith("mkdir"); }));
        beginSession(server.area());
        sem_post(&control.responseSem);
    });
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(errno, ENOTCONN);
    other.join();
    EXPECT_FALSE(fs.isConnected());
    int answers = 0;
    EXPECT_EQ(sem_getvalue(&control.responseSem, &answers), 0);
    EXPECT_EQ(answers, 1);
    EXPECT_EQ(requestState(server.area()), Accepted);
    EXPECT_EQ(pthread_mutex_trylock(&control.clientMutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&control.clientMutex), 0);
}

TEST_F(IPCFSWithFakeServer, DisconnectedByAnotherThread_NothingBreaks) {
    fs.disconnect();
    sem_t connected;
    sem_t goOn;
    sem_init(&connected, 0, 0);
    sem_init(&goOn, 0, 0);
    pid_t number = 0;
    std::thread owner([&] {
        number = static_cast<pid_t>(syscall(SYS_gettid));
        EXPECT_EQ(fs.connect(1, nullptr), 0);
        sem_post(&connected);
        sem_wait(&goOn);
        // Its list of robust mutexes is still good.
        ShmBlock block(blockName, areaSize, 0);
        EXPECT_NE(block.lock(), nullptr);
        EXPECT_EQ(block.unlock(), 0);
    });
    sem_wait(&connected);
    fs.disconnect();
    EXPECT_EQ(fs.connect(1, nullptr), -1); // as long as that thread lives
    EXPECT_EQ(mappingsOf(blockName), 2); // the server's, and one to which that thread's list leads
    sem_post(&goOn);
    owner.join();
    if (test::ownerDeathIsSeen()) {
        // The system is done with a thread a moment later than its joiner is told.
        EXPECT_TRUE(
            test::eventually([&] { return syscall(SYS_tgkill, getpid(), number, 0) == -1; }));
        EXPECT_EQ(fs.connect(1, nullptr), 0);
        EXPECT_EQ(mappingsOf(blockName), 2); // the server's and the session's
    }
}

TEST_F(IPCFSWithFakeServer, ClientMutexBeyondRecovery_SaysSo) {
    if (!test::ownerDeathIsSeen())
        GTEST_SKIP() << "the death of a mutex's owner is not seen here";
    fs.disconnect();
    pthread_mutex_t* const mutex = &server.area().control.clientMutex;
    std::thread([=] { pthread_mutex_lock(mutex); }).join();
    EXPECT_EQ(pthread_mutex_trylock(mutex), EOWNERDEAD);
    pthread_mutex_unlock(mutex);
    LogCapture log("fsipc=12");
    EXPECT_EQ(fs.connect(1, nullptr), -1);
    EXPECT_EQ(log.messages().last(),
              "fsipc 12 Client lock failed: State not recoverable. Aborting.");
}

TEST(IPCFSWithoutServer, Connect_TriesOncePerSecond) {
    // Servers that another test has ended leave it behind.
    QFile::remove(objectPath(blockName));
    IPCFS fs;
    LogCapture log("fsipc=12");
    auto start = Clock::now();
    errno = 0;
    EXPECT_EQ(fs.connect(0, nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_LT(secondsSince(start), 0.9);
    EXPECT_EQ(log.messages(), QStringList());
    start = Clock::now();
    EXPECT_EQ(fs.connect(3, nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_GE(secondsSince(start), 3);
    EXPECT_LT(secondsSince(start), 7);
    EXPECT_EQ(log.messages(),
              QStringList({"fsipc 12 Client connecting", "fsipc 12 No IPC Server found.",
                           "fsipc 12 Client connecting", "fsipc 12 No IPC Server found.",
                           "fsipc 12 Client connecting", "fsipc 12 No IPC Server found."}));
    EXPECT_FALSE(test::serviceExists());
}

TEST(IPCFSWithoutServer, AreaLeftBehindUnlocked_SaysSo) {
    ShmBlock block(blockName, areaSize, ShmBlock::Create | ShmBlock::RemoveAtClose);
    test::leaveBehind(block);
    IPCFS fs;
    LogCapture log("fsipc=12");
    EXPECT_EQ(fs.connect(1, nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(log.messages(), QStringList({"fsipc 12 Client connecting",
                                           "fsipc 12 Server not online: shm unlocked"}));
}

TEST(IPCFSSlots, OwnOperations_BehindThoseOfFS) {
    using test::slotOf;
    int slot = 27;
    EXPECT_EQ(slotOf(&IPCFS::connect), slot++);
    EXPECT_EQ(slotOf(&IPCFS::disconnect), slot++);
    EXPECT_EQ(slotOf(&IPCFS::isConnected), slot++);
    EXPECT_EQ(slotOf(&IPCFS::state), slot++);
    EXPECT_EQ(slotOf(&IPCFS::Data::File::isValid), 16 + 2);
    EXPECT_EQ(slotOf(&IPCFS::Data::Dir::isValid), 5 + 2);
}

} // namespace oru::io
