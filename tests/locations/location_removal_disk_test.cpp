// Locations of local media on real disks: a card is removed while it is mounted.

#include "locationdisk.h"
#include "support/system/childprocess.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include <fcntl.h>

namespace oru::io::test {
namespace {

using testing::AnyOf;

/// What writing fails with: the latter once the kernel has given the file system up.
const auto gaveUp = AnyOf(EIO, EROFS);

/// The card is mounted and will be pulled out.
class LocationPulledOut : public LocationCard {
protected:
    void SetUp() override {
        LocationCard::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        ASSERT_EQ(location().mount(nullptr), 0);
        ASSERT_TRUE(makeFile(files(), "/clip", "film"));
    }

    /// Has the location know.
    void learn() {
        ASSERT_TRUE(update().events);
        expectNoneSelected("-");
        EXPECT_EQ(fact("mounted"), "yes") << "for the owner to unmount";
        EXPECT_EQ(devicesAt(directory()), QStringList(card->node(1)));
        udevd->clearIdPath(card->name());
    }
    /// The next one works.
    void expectNextCardWorks() {
        const std::unique_ptr<LoopDisk> next = makeCard();
        insert(*next);
        expectSelected(next->node(), next->node(1));
        ASSERT_EQ(location().mount(nullptr), 0);
        EXPECT_EQ(location().access(), StorageLocation::Write);
        EXPECT_EQ(directoriesOf(next->node(1)), QStringList(directory()));
        EXPECT_FALSE(files().open("/clip", O_RDONLY, 0));
        EXPECT_EQ(errno, ENOENT);
        EXPECT_TRUE(makeFile(files(), "/next", "more"));
        EXPECT_EQ(contents(files(), "/next"), "more");
        EXPECT_EQ(location().umount(nullptr), 0);
        EXPECT_EQ(location().access(), StorageLocation::Presence);
        EXPECT_FALSE(isMountPoint(directory()));
    }
};

TEST_F(LocationPulledOut, WhileReading_ReadingFailsAndTheRestWorks) {
    // Of what was written just now, the kernel has a copy.
    ASSERT_EQ(location().umount(nullptr), 0);
    ASSERT_EQ(location().mount(nullptr), 0);
    const QSharedPointer<File> clip = files().open("/clip", O_RDONLY, 0);
    ASSERT_TRUE(clip);
    ASSERT_TRUE(card->pullOut());
    EXPECT_EQ(location().access(), StorageLocation::Write) << "nobody has told it";
    char byte;
    EXPECT_EQ(clip->read(&byte, 1), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(clip->close(), 0);
    learn();
    EXPECT_EQ(location().umount(nullptr), 0) << std::strerror(errno);
    expectNotMounted(StorageLocation::None);
    EXPECT_TRUE(eventually([&] { return !card->isAttached(); }));
    expectNextCardWorks();
}

TEST_F(LocationPulledOut, WhileRecording_RecordingFailsAndTheRestWorks) {
    const QSharedPointer<File> clip =
        FSSwitch::rootfs()->open(directory() + "/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(clip);
    std::atomic<int> blocks = 0;
    std::atomic<int> reason = 0;
    std::thread recorder([&] {
        const QByteArray block(64 * 1024, 'x');
        const auto isRecorded = [&] {
            const int place = blocks % 16 * block.size(); // however long it takes
            return clip->pwrite(block.constData(), block.size(), place) == block.size() &&
                   clip->fdatasync() == 0;
        };
        while (isRecorded())
            ++blocks;
        reason = errno;
    });
    EXPECT_TRUE(eventually([&] { return blocks > 4; }, 60));
    EXPECT_TRUE(card->pullOut());
    recorder.join();
    EXPECT_THAT(reason.load(), gaveUp);

    learn();
    EXPECT_EQ(location().umount(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(fact("mounted"), "yes");
    EXPECT_EQ(clip->close(), 0);
    EXPECT_EQ(location().umount(nullptr), 0) << std::strerror(errno);
    expectNotMounted(StorageLocation::None);
    expectNextCardWorks();
}

TEST_F(LocationPulledOut, UnmountedLazilyWhileAFileIsOpen_NextCardWorksBesideIt) {
    const QSharedPointer<File> clip = files().open("/clip", O_RDWR, 0);
    ASSERT_TRUE(clip);
    ASSERT_TRUE(card->pullOut());
    learn();
    EXPECT_EQ(location().umount(&lazyFalse), 0) << std::strerror(errno);
    expectNotMounted(StorageLocation::None);
    EXPECT_TRUE(card->isAttached()) << "the file holds it";
    expectNextCardWorks();
    EXPECT_FALSE(clip->pwrite("late", 4, 0) == 4 && clip->fdatasync() == 0);
    EXPECT_THAT(errno, gaveUp);
    EXPECT_EQ(clip->close(), 0);
    EXPECT_TRUE(eventually([&] { return !card->isAttached(); }));
}

TEST_F(LocationPulledOut, NextCardMountedBeforeTheUnmount_BothGo) {
    ASSERT_TRUE(card->pullOut());
    learn();
    const std::unique_ptr<LoopDisk> next = makeCard();
    insert(*next);
    expectSelected(next->node(), next->node(1));
    EXPECT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(devicesAt(directory()), QStringList({card->node(1), next->node(1)}));
    EXPECT_TRUE(makeFile(files(), "/next", "more"));
    EXPECT_EQ(location().umount(nullptr), 0);
    expectNotMounted(StorageLocation::Presence);
    EXPECT_EQ(fact("part"), next->node(1));
}

} // namespace
} // namespace oru::io::test
