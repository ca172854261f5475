// SPDX-License-Identifier: Apache-2.0
// LinuxBD: geometry, mount and umount on loop disks.

#include "ext4test.h"
#include "support/suite/logcapture.h"
#include "support/system/files.h"
#include "support/system/mounts.h"

#include <oruio/sysutils.h>

#include <gmock/gmock.h>

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace oru::io::test {
namespace {

using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

/// \returns the errno of reading the first byte of a file; 0 on success.
int errnoOfRead(const QString& path) {
    const OpenFile file(path, O_RDONLY);
    char byte;
    return file.fd() == -1 || ::read(file.fd(), &byte, 1) == -1 ? errno : 0;
}

// --- the device node ----------------------------------------------------------------------------

using LinuxBDNode = DiskTest;

TEST_F(LinuxBDNode, SectorsOf4096Bytes_LengthInTheseSectors) {
    const LoopDisk disk(8 * MiB, {}, 4096);
    ASSERT_EQ(disk.problem(), "");
    const LinuxBD device = deviceAt(disk.node(), "", "disk");
    EXPECT_EQ(device.m_blkSize, 4096u);
    EXPECT_EQ(device.m_totalBlocks, 2048u);
    EXPECT_EQ(device.capacity(), quint64(8 * MiB));
}

TEST_F(LinuxBDNode, NodeGone_512ByteBlocksAndNoLength) {
    QString node;
    {
        const LoopDisk disk(20 * MiB, onePartition, 4096);
        ASSERT_EQ(disk.problem(), "");
        node = disk.node(1);
        EXPECT_EQ(deviceAt(node, "").m_blkSize, 4096u);
    }
    const LinuxBD device = deviceAt(node, "", "disk");
    EXPECT_EQ(device.m_blkSize, 512u);
    EXPECT_EQ(device.m_totalBlocks, 0u);
}

// --- mount --------------------------------------------------------------------------------------

using LinuxBDMount = Ext4Test;

TEST_F(LinuxBDMount, Ext4_ReadWriteNoexecNoatime) {
    LogCapture log("libio=12");
    ASSERT_EQ(device->mount(directory(), nullptr), 0) << std::strerror(errno);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_THAT(
        log.messages(),
        ElementsAre(
            QString("libio 12 mount %1 %2 ext4 flags 0xc0ed0408 <>\n").arg(node(), directory())));
    const QList<Mount> mounts = mountsOf(node());
    ASSERT_EQ(mounts.size(), 1);
    EXPECT_EQ(mounts[0].directory, directory());
    EXPECT_EQ(mounts[0].type, "ext4");
    EXPECT_EQ(mounts[0].options, QStringList({"rw", "noexec", "noatime"}));
    EXPECT_THAT(mounts[0].filesystemOptions, Contains(QString("rw")));
    EXPECT_TRUE(makeFile(directory() + "/file", "bytes"));
}

TEST_F(LinuxBDMount, Program_NotExecutable) {
    ASSERT_EQ(device->mount(directory(), nullptr), 0);
    ASSERT_TRUE(QFile::copy("/bin/true", directory() + "/true"));
    EXPECT_EQ(::access(qPrintable(directory() + "/true"), X_OK), -1);
    EXPECT_EQ(errno, EACCES);
}

TEST_F(LinuxBDMount, MissingDirectories_Created) {
    ASSERT_EQ(device->mount(directory("a/b/c"), nullptr), 0) << std::strerror(errno);
    EXPECT_EQ(directoriesOf(node()), QStringList(directory("a/b/c")));
}

TEST_F(LinuxBDMount, BelowAFile_ENOENT) {
    ASSERT_TRUE(makeFile(directory("file"), "bytes"));
    LogCapture log("libio=12");
    errno = 0;
    EXPECT_EQ(device->mount(directory("file/mnt"), nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_THAT(mountsOf(node()), IsEmpty());
    EXPECT_EQ(contents(directory("file")), "bytes");
}

TEST_F(LinuxBDMount, OnAFile_ENOENT) {
    ASSERT_TRUE(makeFile(directory("file")));
    EXPECT_EQ(device->mount(directory("file"), nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(LinuxBDMount, EmptyMountPoint_ENOENT) {
    EXPECT_EQ(device->mount(QString(), nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_THAT(mountsOf(node()), IsEmpty());
}

TEST_F(LinuxBDMount, NoFileSystemOfThatType_EINVAL) {
    ASSERT_EQ(runTool({"wipefs", "--all", node()}).status, 0);
    LogCapture log("libio=12");
    EXPECT_EQ(device->mount(directory(), nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_THAT(
        log.messages(),
        ElementsAre(
            QString("libio 12 mount %1 %2 ext4 flags 0xc0ed0408 <>\n").arg(node(), directory()),
            QString("libio 10 mount of %1 to %2 as ext4 failed: Invalid argument\n")
                .arg(node(), directory())));
    EXPECT_THAT(mountsOf(node()), IsEmpty());
}

TEST_F(LinuxBDMount, UnknownType_ENODEV) {
    LinuxBD other = deviceAt(node(), "nosuchfs");
    LogCapture log("libio=10");
    EXPECT_EQ(other.mount(directory(), nullptr), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_THAT(
        log.messages(),
        ElementsAre(QString("libio 10 mount of %1 to %2 as nosuchfs failed: No such device\n")
                        .arg(node(), directory())));
}

TEST_F(LinuxBDMount, VanishedDevice_ENOENT) {
    ASSERT_TRUE(disk->unplug());
    EXPECT_EQ(device->mount(directory(), nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(isMountPoint(directory()));
}

TEST_F(LinuxBDMount, TwiceOnOneDirectory_EBUSY) {
    ASSERT_EQ(device->mount(directory(), nullptr), 0);
    LogCapture log("libio=10");
    EXPECT_EQ(device->mount(directory(), nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_THAT(
        log.messages(),
        ElementsAre(QString("libio 10 mount of %1 to %2 as ext4 failed: Device or resource busy\n")
                        .arg(node(), directory())));
    EXPECT_EQ(directoriesOf(node()), QStringList(directory()));
}

TEST_F(LinuxBDMount, Readonly_WriteFailsWithEROFS) {
    LogCapture log("libio=12");
    const Properties properties = with("readonly", true);
    ASSERT_EQ(device->mount(directory(), &properties), 0);
    EXPECT_THAT(
        log.messages(),
        ElementsAre(
            QString("libio 12 mount %1 %2 ext4 flags 0xc0ed0409 <>\n").arg(node(), directory())));
    EXPECT_EQ(mountsOf(node())[0].options, QStringList({"ro", "noexec", "noatime"}));
    EXPECT_EQ(OpenFile(directory() + "/file", O_WRONLY | O_CREAT).fd(), -1);
    EXPECT_EQ(errno, EROFS);
}

TEST_F(LinuxBDMount, ReadonlyAndRemountFalse_MountedReadWrite) {
    LogCapture log("libio=12");
    const Properties properties = with("readonly", false, "remount", false);
    ASSERT_EQ(device->mount(directory(), &properties), 0);
    EXPECT_THAT(
        log.messages(),
        ElementsAre(
            QString("libio 12 mount %1 %2 ext4 flags 0xc0ed0408 <>\n").arg(node(), directory())));
    EXPECT_EQ(mountsOf(node())[0].options, QStringList({"rw", "noexec", "noatime"}));
}

TEST_F(LinuxBDMount, WriteProtectedMedium_EACCESUnlessReadonly) {
    ASSERT_EQ(runTool({"blockdev", "--setro", node()}).status, 0);
    EXPECT_EQ(device->mount(directory(), nullptr), -1);
    EXPECT_EQ(errno, EACCES);
    const Properties properties = with("readonly", true);
    EXPECT_EQ(device->mount(directory(), &properties), 0) << std::strerror(errno);
    EXPECT_EQ(mountsOf(node()).size(), 1);
}

TEST_F(LinuxBDMount, RemountReadonlyAndBack_ChangesSameMount) {
    ASSERT_EQ(device->mount(directory(), nullptr), 0);
    LogCapture log("libio=12");
    const Properties readonly = with("remount", true, "readonly", true);
    ASSERT_EQ(device->mount(directory(), &readonly), 0) << std::strerror(errno);
    ASSERT_EQ(mountsOf(node()).size(), 1);
    EXPECT_EQ(mountsOf(node())[0].options, QStringList({"ro", "noexec", "noatime"}));
    EXPECT_THAT(mountsOf(node())[0].filesystemOptions, Contains(QString("ro")));
    EXPECT_FALSE(makeFile(directory() + "/file"));

    const Properties writable = with("remount", true, "readonly", false);
    ASSERT_EQ(device->mount(directory(), &writable), 0) << std::strerror(errno);
    ASSERT_EQ(mountsOf(node()).size(), 1);
    EXPECT_EQ(mountsOf(node())[0].options, QStringList({"rw", "noexec", "noatime"}));
    EXPECT_TRUE(makeFile(directory() + "/file"));
    EXPECT_THAT(
        log.messages(),
        ElementsAre(
            QString("libio 12 mount %1 %2 ext4 flags 0xc0ed0429 <>\n").arg(node(), directory()),
            QString("libio 12 mount %1 %2 ext4 flags 0xc0ed0428 <>\n").arg(node(), directory())));
}

TEST_F(LinuxBDMount, RemountReadonlyWithFileOpenForWriting_EBUSY) {
    const std::unique_ptr<OpenFile> file = mountBusy();
    ASSERT_TRUE(file);
    LogCapture log("libio=10");
    const Properties properties = with("remount", true, "readonly", true);
    EXPECT_EQ(device->mount(directory(), &properties), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_THAT(
        log.messages(),
        ElementsAre(QString("libio 10 mount of %1 to %2 as ext4 failed: Device or resource busy\n")
                        .arg(node(), directory())));
    EXPECT_EQ(mountsOf(node())[0].options, QStringList({"rw", "noexec", "noatime"}));
    EXPECT_EQ(::write(file->fd(), "x", 1), 1);
}

TEST_F(LinuxBDMount, RemountNotMounted_EINVAL) {
    const Properties properties = with("remount", true);
    EXPECT_EQ(device->mount(directory(), &properties), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_THAT(mountsOf(node()), IsEmpty());
}

// --- umount -------------------------------------------------------------------------------------

using LinuxBDUmount = Ext4Test;

TEST_F(LinuxBDUmount, NotMounted_SucceedsWithoutCall) {
    LogCapture log("libio=12");
    EXPECT_EQ(device->umount(nullptr), 0);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_FALSE(device->m_umountFailed);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(LinuxBDUmount, Mounted_Unmounted) {
    ASSERT_EQ(device->mount(directory(), nullptr), 0);
    LogCapture log("libio=12");
    liberrno = LibraryFailure;
    EXPECT_EQ(device->umount(nullptr), 0);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_THAT(mountsOf(node()), IsEmpty());
    EXPECT_THAT(
        log.messages(),
        ElementsAre(QString("libio 12 umount device '%1' from '%2'").arg(node(), directory()),
                    QString("libio 12 umount '%1' (%2): 0").arg(directory(), node())));
}

TEST_F(LinuxBDUmount, OtherDevice_StaysMounted) {
    // The node of the disk is a prefix of the node of its partition.
    const LinuxBD whole = deviceAt(disk->node(), "ext4");
    ASSERT_EQ(device->mount(directory(), nullptr), 0);
    EXPECT_EQ(LinuxBD(whole).umount(nullptr), 0);
    EXPECT_EQ(directoriesOf(node()), QStringList(directory()));
}

TEST_F(LinuxBDUmount, Busy_EBUSYUntilFileClosed) {
    std::unique_ptr<OpenFile> file = mountBusy();
    ASSERT_TRUE(file);
    LogCapture log("libio=12");
    EXPECT_EQ(device->umount(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_TRUE(device->m_umountFailed);
    EXPECT_EQ(directoriesOf(node()), QStringList(directory()));
    EXPECT_THAT(
        log.messages(),
        ElementsAre(QString("libio 12 umount device '%1' from '%2'").arg(node(), directory()),
                    QString("libio 12 umount '%1' (%2): -1").arg(directory(), node())));

    file.reset();
    EXPECT_EQ(device->umount(nullptr), 0);
    EXPECT_FALSE(device->m_umountFailed);
    EXPECT_THAT(mountsOf(node()), IsEmpty());
}

TEST_F(LinuxBDUmount, BusyAndLazy_DetachedAndOpenFileUsable) {
    for (const bool value : {true, false}) {
        std::unique_ptr<OpenFile> file = mountBusy();
        ASSERT_TRUE(file);
        const Properties properties = with("lazy", value);
        EXPECT_EQ(device->umount(&properties), 0) << std::strerror(errno);
        EXPECT_FALSE(device->m_umountFailed);
        EXPECT_THAT(mountsOf(node()), IsEmpty());
        EXPECT_EQ(::pwrite(file->fd(), "still", 5, 0), 5);
        char bytes[5] = {};
        EXPECT_EQ(::pread(file->fd(), bytes, sizeof bytes, 0), 5);
        EXPECT_EQ(std::string(bytes, sizeof bytes), "still");
        EXPECT_EQ(::fsync(file->fd()), 0);
        file.reset();

        ASSERT_EQ(device->mount(directory(), nullptr), 0);
        EXPECT_EQ(contents(directory() + "/file"), "still");
        ASSERT_EQ(device->umount(nullptr), 0);
    }
}

TEST_F(LinuxBDUmount, TwoDirectories_UnmountedInTableOrder) {
    ASSERT_EQ(device->mount(directory("z"), nullptr), 0);
    ASSERT_EQ(device->mount(directory("a"), nullptr), 0);
    LogCapture log("libio=12");
    EXPECT_EQ(device->umount(nullptr), 0);
    EXPECT_THAT(mountsOf(node()), IsEmpty());
    EXPECT_THAT(
        log.messages(),
        ElementsAre(QString("libio 12 umount device '%1' from '%2'").arg(node(), directory("z")),
                    QString("libio 12 umount '%1' (%2): 0").arg(directory("z"), node()),
                    QString("libio 12 umount device '%1' from '%2'").arg(node(), directory("a")),
                    QString("libio 12 umount '%1' (%2): 0").arg(directory("a"), node())));
}

TEST_F(LinuxBDUmount, FirstOfTwoDirectoriesBusy_SecondStaysMounted) {
    const std::unique_ptr<OpenFile> file = mountBusy();
    ASSERT_TRUE(file);
    ASSERT_EQ(device->mount(directory("second"), nullptr), 0);
    EXPECT_EQ(device->umount(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_TRUE(device->m_umountFailed);
    EXPECT_EQ(directoriesOf(node()), QStringList({directory(), directory("second")}));
}

TEST_F(LinuxBDUmount, OtherDiskMountedOnTop_BothUnmounted) {
    const LoopDisk upper(8 * MiB);
    ASSERT_EQ(upper.problem(), "");
    ASSERT_TRUE(makeExt4(upper.node()));
    ASSERT_EQ(device->mount(directory(), nullptr), 0);
    ASSERT_EQ(deviceAt(upper.node(), "ext4").mount(directory(), nullptr), 0);
    LogCapture log("libio=12");
    EXPECT_EQ(device->umount(nullptr), 0);
    EXPECT_FALSE(isMountPoint(directory()));
    EXPECT_THAT(
        log.messages(),
        ElementsAre(QString("libio 12 umount device '%1' from '%2'").arg(node(), directory()),
                    QString("libio 12 umount '%1' (%2): 0").arg(directory(), node()),
                    QString("libio 12 umount '%1' (%2): 0").arg(directory(), upper.node())));
}

// The kernel's table contains "\040" for a blank, and umount() passes it on as it is.
TEST_F(LinuxBDUmount, MountPointWithBlank_ENOENTAndStaysMounted) {
    ASSERT_EQ(device->mount(directory("my card"), nullptr), 0);
    EXPECT_EQ(directoriesOf(node()), QStringList(directory("my card")));
    EXPECT_EQ(umountPath(qPrintable(directory("my card")), nullptr), 0);
    EXPECT_EQ(mountsOf(node()).size(), 1);

    LogCapture log("libio=12");
    EXPECT_EQ(device->umount(nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(device->m_umountFailed);
    EXPECT_EQ(mountsOf(node()).size(), 1);
    EXPECT_THAT(
        log.messages(),
        ElementsAre(
            QString("libio 12 umount device '%1' from '%2'").arg(node(), directory("my\\040card")),
            QString("libio 12 umount '%1' (%2): -1").arg(directory("my\\040card"), node())));
}

TEST_F(LinuxBDUmount, MountedOnDeviceNode_Unmounted) {
    ASSERT_TRUE(makeFile(directory("file")));
    ASSERT_EQ(::mount(qPrintable(directory("file")), qPrintable(node()), nullptr, MS_BIND, nullptr),
              0);
    ASSERT_TRUE(isMountPoint(node()));
    LogCapture log("libio=12");
    EXPECT_EQ(device->umount(nullptr), 0);
    EXPECT_FALSE(isMountPoint(node()));
    EXPECT_EQ(log.messages().value(0),
              QString("libio 12 umount device '%1' from '%1'").arg(node()));
}

TEST_F(LinuxBDUmount, UnreadableMedium_Unmounted) {
    const QString source = directory("source");
    ASSERT_TRUE(QDir().mkpath(source));
    ASSERT_TRUE(makeFile(source + "/file", QByteArray(100000, 'x')));
    ASSERT_TRUE(makeExt4(node(), {"-F", "-d", source}));
    ASSERT_EQ(device->mount(directory(), nullptr), 0);
    ASSERT_EQ(::truncate(qPrintable(disk->image()), 0), 0);
    // The error depends on the block that the driver reads first.
    ASSERT_THAT(errnoOfRead(directory() + "/file"), AnyOf(EIO, EBADMSG));
    EXPECT_EQ(device->umount(nullptr), 0) << std::strerror(errno);
    EXPECT_FALSE(device->m_umountFailed);
    EXPECT_FALSE(isMountPoint(directory()));
    EXPECT_EQ(device->mount(directory(), nullptr), -1);
}

} // namespace
} // namespace oru::io::test
