// SPDX-License-Identifier: Apache-2.0
// Local media locations on loop disks: the card is removed while it is mounted.

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

/// The errors of writing to a removed card. EROFS: the kernel has made the file system read-only.
const auto ioErrorOrReadOnly = AnyOf(EIO, EROFS);

/// Has the card mounted, with a file on it.
class LocationPulledOut : public LocationCard {
protected:
    void SetUp() override {
        LocationCard::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        ASSERT_EQ(location().mount(nullptr), 0);
        ASSERT_TRUE(makeFile(files(), "/clip", "film"));
    }

    /// Delivers the removal to the location.
    void processRemoval() {
        ASSERT_TRUE(update().events);
        expectNoneSelected("-");
        EXPECT_EQ(field("mounted"), "yes") << "the application must unmount it";
        EXPECT_EQ(devicesAt(directory()), QStringList(card->node(1)));
        udevd->clearIdPath(card->name());
    }
    /// Inserts another card and expects that it can be mounted and written.
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

TEST_F(LocationPulledOut, WhileReading_ReadFailsAndNextCardWorks) {
    // Empties the page cache of the file system.
    ASSERT_EQ(location().umount(nullptr), 0);
    ASSERT_EQ(location().mount(nullptr), 0);
    const QSharedPointer<File> clip = files().open("/clip", O_RDONLY, 0);
    ASSERT_TRUE(clip);
    ASSERT_TRUE(card->pullOut());
    EXPECT_EQ(location().access(), StorageLocation::Write) << "the removal has not been delivered";
    char byte;
    EXPECT_EQ(clip->read(&byte, 1), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(clip->close(), 0);
    processRemoval();
    EXPECT_EQ(location().umount(nullptr), 0) << std::strerror(errno);
    expectNotMounted(StorageLocation::None);
    EXPECT_TRUE(eventually([&] { return !card->isAttached(); }));
    expectNextCardWorks();
}

TEST_F(LocationPulledOut, WhileRecording_WriteFailsAndNextCardWorks) {
    const QSharedPointer<File> clip =
        FSSwitch::rootfs()->open(directory() + "/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(clip);
    std::atomic<int> blocks = 0;
    std::atomic<int> reason = 0;
    std::thread recorder([&] {
        const QByteArray block(64 * 1024, 'x');
        const auto isRecorded = [&] {
            const int offset = blocks % 16 * block.size(); // limits the file size
            return clip->pwrite(block.constData(), block.size(), offset) == block.size() &&
                   clip->fdatasync() == 0;
        };
        while (isRecorded())
            ++blocks;
        reason = errno;
    });
    EXPECT_TRUE(eventually([&] { return blocks > 4; }, 60));
    EXPECT_TRUE(card->pullOut());
    recorder.join();
    EXPECT_THAT(reason.load(), ioErrorOrReadOnly);

    processRemoval();
    EXPECT_EQ(location().umount(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(field("mounted"), "yes");
    EXPECT_EQ(clip->close(), 0);
    EXPECT_EQ(location().umount(nullptr), 0) << std::strerror(errno);
    expectNotMounted(StorageLocation::None);
    expectNextCardWorks();
}

TEST_F(LocationPulledOut, UnmountedLazilyWithFileOpen_NextCardWorks) {
    const QSharedPointer<File> clip = files().open("/clip", O_RDWR, 0);
    ASSERT_TRUE(clip);
    ASSERT_TRUE(card->pullOut());
    processRemoval();
    EXPECT_EQ(location().umount(&lazyFalse), 0) << std::strerror(errno);
    expectNotMounted(StorageLocation::None);
    EXPECT_TRUE(card->isAttached()) << "the open file keeps it attached";
    expectNextCardWorks();
    EXPECT_FALSE(clip->pwrite("late", 4, 0) == 4 && clip->fdatasync() == 0);
    EXPECT_THAT(errno, ioErrorOrReadOnly);
    EXPECT_EQ(clip->close(), 0);
    EXPECT_TRUE(eventually([&] { return !card->isAttached(); }));
}

TEST_F(LocationPulledOut, NextCardMountedBeforeUnmount_BothUnmounted) {
    ASSERT_TRUE(card->pullOut());
    processRemoval();
    const std::unique_ptr<LoopDisk> next = makeCard();
    insert(*next);
    expectSelected(next->node(), next->node(1));
    EXPECT_EQ(location().mount(nullptr), 0);
    EXPECT_EQ(devicesAt(directory()), QStringList({card->node(1), next->node(1)}));
    EXPECT_TRUE(makeFile(files(), "/next", "more"));
    EXPECT_EQ(location().umount(nullptr), 0);
    expectNotMounted(StorageLocation::Presence);
    EXPECT_EQ(field("part"), next->node(1));
}

} // namespace
} // namespace oru::io::test
