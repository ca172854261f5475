// The block-device model and its monitor on real disks, with the kernel's file systems, a real
// udevd and the real maintenance program.
#include <oruio/bdmon.h>
#include <oruio/error.h>
#include <oruio/sysutils.h>

#include "support/doubles/maintenanceprogram.h"
#include "support/suite/logcapture.h"
#include "support/system/childprocess.h"
#include "support/system/disktest.h"
#include "support/system/files.h"
#include "support/system/mounts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonValue>

#include <cerrno>
#include <csignal>
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
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char twoGptPartitions[] =
    "label: gpt\nstart=1MiB, size=16MiB, type=linux\n"
    "start=17MiB, size=20MiB, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n";

/// A property for each name, as in a call of an operation.
Properties with(const char* name, const QVariant& value) {
    return {{name, value}};
}

Properties with(const char* name, const QVariant& value, const char* name2,
                const QVariant& value2) {
    return {{name, value}, {name2, value2}};
}

/// A device as udev would describe it.
LinuxBD deviceAt(const QString& node, const char* fsType, const char* kind = "partition") {
    Properties properties = {{"DEVNAME", node}, {"DEVTYPE", kind}, {"ID_FS_TYPE", fsType}};
    return LinuxBD(properties);
}

/// An open file of the system.
class OpenFile {
public:
    OpenFile(const QString& path, int flags)
        : m_fd(::open(qPrintable(path), flags | O_CLOEXEC, 0644)) {}
    ~OpenFile() {
        close();
    }
    void close() {
        if (m_fd != -1)
            ::close(m_fd);
        m_fd = -1;
    }
    int fd() const {
        return m_fd;
    }

private:
    Q_DISABLE_COPY(OpenFile)

    int m_fd;
};

/// \returns the errno of an attempt to read from the file's beginning; 0 if that works.
int readingFails(const QString& path) {
    const OpenFile file(path, O_RDONLY);
    char byte;
    return file.fd() == -1 || ::read(file.fd(), &byte, 1) == -1 ? errno : 0;
}

/// A disk with one partition that has an ext4 file system.
class Ext4Test : public DiskTest {
protected:
    void SetUp() override {
        DiskTest::SetUp();
        if (IsSkipped())
            return;
        disk = std::make_unique<LoopDisk>(20 * MiB, onePartition);
        ASSERT_EQ(disk->problem(), "");
        ASSERT_TRUE(makeExt4(node()));
        device = std::make_unique<LinuxBD>(deviceAt(node(), "ext4"));
        liberrno = LibraryFailure; // for the operations to clear
    }

    QString node() const {
        return disk->node(1);
    }

    /// Mounts the device with a file open on it, which keeps it busy.
    std::unique_ptr<OpenFile> mountBusy() const {
        if (device->mount(directory(), nullptr) != 0)
            return nullptr;
        return std::make_unique<OpenFile>(directory() + "/file", O_RDWR | O_CREAT);
    }

    std::unique_ptr<LoopDisk> disk;
    std::unique_ptr<LinuxBD> device;
};

// --- the device node ----------------------------------------------------------------------------

using LinuxBDNode = DiskTest;

TEST_F(LinuxBDNode, DiskOf4096ByteSectors_CountsThese) {
    const LoopDisk disk(8 * MiB, {}, 4096);
    ASSERT_EQ(disk.problem(), "");
    const LinuxBD device = deviceAt(disk.node(), "", "disk");
    EXPECT_EQ(device.m_blkSize, 4096u);
    EXPECT_EQ(device.m_totalBlocks, 2048u);
    EXPECT_EQ(device.capacity(), quint64(8 * MiB));
}

TEST_F(LinuxBDNode, Vanished_HasNoBlocks) {
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

TEST_F(LinuxBDMount, Ext4_WritableWithoutAccessTimesAndPrograms) {
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
    EXPECT_TRUE(makeFile(directory() + "/file", "text"));
}

TEST_F(LinuxBDMount, ProgramOnIt_DoesNotRun) {
    ASSERT_EQ(device->mount(directory(), nullptr), 0);
    ASSERT_TRUE(QFile::copy("/bin/true", directory() + "/true"));
    EXPECT_EQ(::access(qPrintable(directory() + "/true"), X_OK), -1);
    EXPECT_EQ(errno, EACCES);
}

TEST_F(LinuxBDMount, MissingDirectories_AreMade) {
    ASSERT_EQ(device->mount(directory("a/b/c"), nullptr), 0) << std::strerror(errno);
    EXPECT_EQ(directoriesOf(node()), QStringList(directory("a/b/c")));
}

TEST_F(LinuxBDMount, BelowAFile_ENOENT) {
    ASSERT_TRUE(makeFile(directory("file"), "text"));
    LogCapture log("libio=12");
    errno = 0;
    EXPECT_EQ(device->mount(directory("file/mnt"), nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_THAT(mountsOf(node()), IsEmpty());
    EXPECT_EQ(contents(directory("file")), "text");
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

TEST_F(LinuxBDMount, TypeThatTheKernelDoesNotKnow_ENODEV) {
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

TEST_F(LinuxBDMount, Readonly_CannotBeWritten) {
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

TEST_F(LinuxBDMount, ReadonlyAndRemountFalse_AsWithout) {
    LogCapture log("libio=12");
    const Properties properties = with("readonly", false, "remount", false);
    ASSERT_EQ(device->mount(directory(), &properties), 0);
    EXPECT_THAT(
        log.messages(),
        ElementsAre(
            QString("libio 12 mount %1 %2 ext4 flags 0xc0ed0408 <>\n").arg(node(), directory())));
    EXPECT_EQ(mountsOf(node())[0].options, QStringList({"rw", "noexec", "noatime"}));
}

TEST_F(LinuxBDMount, WriteProtectedMedium_OnlyReadonly) {
    ASSERT_EQ(runTool({"blockdev", "--setro", node()}).status, 0);
    EXPECT_EQ(device->mount(directory(), nullptr), -1);
    EXPECT_EQ(errno, EACCES);
    const Properties properties = with("readonly", true);
    EXPECT_EQ(device->mount(directory(), &properties), 0) << std::strerror(errno);
    EXPECT_EQ(mountsOf(node()).size(), 1);
}

TEST_F(LinuxBDMount, RemountReadonlyAndBack_ChangesTheOneMount) {
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

TEST_F(LinuxBDMount, RemountReadonlyWithAFileOpenForWriting_EBUSY) {
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

TEST_F(LinuxBDMount, RemountOfWhatIsNotMounted_EINVAL) {
    const Properties properties = with("remount", true);
    EXPECT_EQ(device->mount(directory(), &properties), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_THAT(mountsOf(node()), IsEmpty());
}

// --- umount -------------------------------------------------------------------------------------

using LinuxBDUmount = Ext4Test;

TEST_F(LinuxBDUmount, NotMounted_SuccessWithoutACall) {
    LogCapture log("libio=12");
    EXPECT_EQ(device->umount(nullptr), 0);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_FALSE(device->m_umountFailed);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(LinuxBDUmount, Mounted_IsGone) {
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

TEST_F(LinuxBDUmount, OtherDevicesMounts_Stay) {
    // Its node's name begins like that of the device.
    const LinuxBD whole = deviceAt(disk->node(), "ext4");
    ASSERT_EQ(device->mount(directory(), nullptr), 0);
    EXPECT_EQ(LinuxBD(whole).umount(nullptr), 0);
    EXPECT_EQ(directoriesOf(node()), QStringList(directory()));
}

TEST_F(LinuxBDUmount, Busy_FailsWithEBUSYUntilItIsNot) {
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

TEST_F(LinuxBDUmount, BusyAndLazy_GoneWhileTheFileStillWorks) {
    for (const bool value : {true, false}) {
        std::unique_ptr<OpenFile> file = mountBusy();
        ASSERT_TRUE(file);
        const Properties properties = with("lazy", value);
        EXPECT_EQ(device->umount(&properties), 0) << std::strerror(errno);
        EXPECT_FALSE(device->m_umountFailed);
        EXPECT_THAT(mountsOf(node()), IsEmpty());
        EXPECT_EQ(::pwrite(file->fd(), "still", 5, 0), 5);
        char text[5] = {};
        EXPECT_EQ(::pread(file->fd(), text, sizeof text, 0), 5);
        EXPECT_EQ(std::string(text, sizeof text), "still");
        EXPECT_EQ(::fsync(file->fd()), 0);
        file.reset();

        ASSERT_EQ(device->mount(directory(), nullptr), 0);
        EXPECT_EQ(contents(directory() + "/file"), "still");
        ASSERT_EQ(device->umount(nullptr), 0);
    }
}

TEST_F(LinuxBDUmount, OnTwoDirectories_LeavesBothInTheTablesOrder) {
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

TEST_F(LinuxBDUmount, FirstOfTwoDirectoriesIsBusy_SecondStays) {
    const std::unique_ptr<OpenFile> file = mountBusy();
    ASSERT_TRUE(file);
    ASSERT_EQ(device->mount(directory("second"), nullptr), 0);
    EXPECT_EQ(device->umount(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_TRUE(device->m_umountFailed);
    EXPECT_EQ(directoriesOf(node()), QStringList({directory(), directory("second")}));
}

TEST_F(LinuxBDUmount, AnotherDiskMountedOverIt_BothGo) {
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

// The kernel's table has the blank as "\040", and that is where the device is told to be.
TEST_F(LinuxBDUmount, MountPointWithABlank_ENOENTAndStays) {
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

TEST_F(LinuxBDUmount, MountedOnTheDevicesNode_IsGone) {
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

TEST_F(LinuxBDUmount, UnreadableMedium_IsGone) {
    const QString source = directory("source");
    ASSERT_TRUE(QDir().mkpath(source));
    ASSERT_TRUE(makeFile(source + "/file", QByteArray(100000, 'x')));
    ASSERT_TRUE(makeExt4(node(), {"-F", "-d", source}));
    ASSERT_EQ(device->mount(directory(), nullptr), 0);
    ASSERT_EQ(::truncate(qPrintable(disk->image()), 0), 0);
    // By what the driver first misses.
    ASSERT_THAT(readingFails(directory() + "/file"), AnyOf(EIO, EBADMSG));
    EXPECT_EQ(device->umount(nullptr), 0) << std::strerror(errno);
    EXPECT_FALSE(device->m_umountFailed);
    EXPECT_FALSE(isMountPoint(directory()));
    EXPECT_EQ(device->mount(directory(), nullptr), -1);
}

// --- the maintenance program --------------------------------------------------------------------

/// With the real maintenance program in its place.
class MaintenanceTest : public Ext4Test {
protected:
    void SetUp() override {
        Ext4Test::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        program = std::make_unique<MaintenanceProgram>(realMaintenance);
        ASSERT_EQ(program->problem(), "");
    }

    std::unique_ptr<MaintenanceProgram> program;
};

using LinuxBDFsck = MaintenanceTest;

TEST_F(LinuxBDFsck, Clean_SucceedsAtOnce) {
    LogCapture log("libio=12");
    EXPECT_EQ(device->fsck(nullptr), 0);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"fsck", "-t", "ext4", node()}));
    EXPECT_THAT(log.messages(), ElementsAre(QString("libio 12 SysCmd: fsck -t ext4 %1").arg(node()),
                                            "libio 12 Run 1 of 3 completed status 0\n"));
}

TEST_F(LinuxBDFsck, Damaged_IsRepaired) {
    ASSERT_TRUE(makeDamagedExt4(node(), directory("source")));
    ASSERT_TRUE(noteErrors(node()));
    EXPECT_EQ(device->fsck(nullptr), 0);
    EXPECT_EQ(program->calls().size(), 1);
    EXPECT_TRUE(isSoundExt4(node()));
    ASSERT_EQ(device->mount(directory(), nullptr), 0);
    EXPECT_EQ(contents(directory() + "/file"), "precious");
    EXPECT_FALSE(QFile::exists(directory() + "/lost"));
}

// The damage has gone unnoticed so far: only a forced check looks for it.
TEST_F(LinuxBDFsck, Options_GetThere) {
    ASSERT_TRUE(makeDamagedExt4(node(), directory("source")));
    EXPECT_EQ(device->fsck(nullptr), 0);
    EXPECT_FALSE(isSoundExt4(node()));
    const Properties properties = with("cmd_opts", "-f -y");
    EXPECT_EQ(device->fsck(&properties), 0);
    EXPECT_TRUE(isSoundExt4(node()));
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"fsck", "-t", "ext4", node()},
                                              QStringList{"fsck", "-t", "ext4", node(), "-f -y"}));
}

TEST_F(LinuxBDFsck, Mounted_IsRefusedEachTime) {
    ASSERT_EQ(device->mount(directory(), nullptr), 0);
    LogCapture log("libio=10");
    EXPECT_EQ(device->fsck(nullptr), inUse);
    EXPECT_EQ(program->calls().size(), FSCK_RETRIES);
    const QStringList messages = log.messages();
    ASSERT_EQ(messages.size(), 3 * FSCK_RETRIES);
    EXPECT_EQ(messages[0], QString("libio 10 syscmd 'fsck -t ext4 %1' failed\n").arg(node()));
    EXPECT_EQ(messages[1], QString("libio 10 stderr: oruio_sysutils: %1 is mounted on %2\n\n")
                               .arg(node(), directory()));
    EXPECT_EQ(messages[2], "libio 10 stdout: \n");
    EXPECT_EQ(directoriesOf(node()), QStringList(directory()));
}

TEST_F(LinuxBDFsck, Retries_AreAllTheRuns) {
    ASSERT_EQ(device->mount(directory(), nullptr), 0);
    const Properties once = with("retries", 1);
    EXPECT_EQ(device->fsck(&once), inUse);
    EXPECT_EQ(program->calls().size(), 1);

    program->forget();
    const Properties twice = with("retries", "2");
    EXPECT_EQ(device->fsck(&twice), inUse);
    EXPECT_EQ(program->calls().size(), 2);

    program->forget();
    const Properties never = with("retries", 0);
    EXPECT_EQ(device->fsck(&never), -1);
    EXPECT_THAT(program->calls(), IsEmpty());
}

TEST_F(LinuxBDFsck, UnreadableMedium_Fails) {
    ASSERT_EQ(::truncate(qPrintable(disk->image()), 0), 0);
    LogCapture log("libio=12");
    const Properties properties = with("retries", 1);
    EXPECT_EQ(device->fsck(&properties), notChecked);
    EXPECT_THAT(log.messages(),
                Contains(QString("libio 12 'fsck -t ext4 %1': Exited with status %2\n")
                             .arg(node())
                             .arg(notChecked)));
}

using LinuxBDMkfs = MaintenanceTest;

struct Maker {
    const char* type;
    const char* labelOption;
};

void PrintTo(const Maker& maker, std::ostream* out) {
    *out << maker.type;
}

class LinuxBDMkfsType : public MaintenanceTest, public testing::WithParamInterface<Maker> {};

TEST_P(LinuxBDMkfsType, NewFileSystem_IsSoundAndLabelled) {
    const QString type = GetParam().type;
    const QString tool = missingTool({"mkfs." + type, "fsck." + type});
    if (!tool.isEmpty())
        GTEST_SKIP() << tool.toStdString() << " is not installed";
    const QString options = QString(GetParam().labelOption) + " MEDIA";
    const Properties properties = with("fs_type", type, "cmd_opts", options);
    EXPECT_EQ(device->mkfs(&properties), 0);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"mkfs", "-t", type, node(), options}));
    EXPECT_EQ(tagOf(node(), "TYPE"), type);
    EXPECT_EQ(tagOf(node(), "LABEL"), "MEDIA");
    EXPECT_EQ(runTool({"fsck." + type, "-n", node()}).status, 0);
}

INSTANTIATE_TEST_SUITE_P(Types, LinuxBDMkfsType,
                         testing::Values(Maker{"ext4", "-L"}, Maker{"vfat", "-n"},
                                         Maker{"exfat", "-L"}),
                         [](const testing::TestParamInfo<Maker>& param) {
                             return std::string(param.param.type);
                         });

TEST_F(LinuxBDMkfs, WithoutAType_FailsAfterOneRun) {
    const QString id = tagOf(node(), "UUID");
    EXPECT_EQ(device->mkfs(nullptr), tooFewArguments);
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"mkfs", "-t", node()}));
    EXPECT_EQ(tagOf(node(), "UUID"), id);
}

TEST_F(LinuxBDMkfs, Mounted_IsRefused) {
    const QString id = tagOf(node(), "UUID");
    ASSERT_EQ(device->mount(directory(), nullptr), 0);
    const Properties properties = with("fs_type", "ext4");
    EXPECT_EQ(device->mkfs(&properties), inUse);
    EXPECT_EQ(program->calls().size(), 1);
    EXPECT_EQ(tagOf(node(), "UUID"), id);
}

class LinuxBDFormat : public MaintenanceTest {
protected:
    void SetUp() override {
        MaintenanceTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        const QString tool = missingToFormat();
        if (!tool.isEmpty())
            GTEST_SKIP() << tool.toStdString() << " is not installed";
        card = std::make_unique<LoopDisk>(64 * MiB, twoPartitions);
        ASSERT_EQ(card->problem(), "");
        ASSERT_TRUE(makeExt4(card->node(1)));
        device = std::make_unique<LinuxBD>(deviceAt(card->node(), "", "disk"));
    }

    QString table() const {
        return outputOf({"sfdisk", "--dump", card->node()});
    }
    bool mountFirst() const {
        return deviceAt(card->node(1), "ext4").mount(directory(), nullptr) == 0;
    }

    std::unique_ptr<LoopDisk> card;
};

TEST_F(LinuxBDFormat, PartitionedDisk_HasOneFatPartitionThen) {
    EXPECT_EQ(device->format(nullptr), 0);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"format", card->node()}));
    expectFormatted(*card);
}

TEST_F(LinuxBDFormat, MountedPartition_IsRefused) {
    const QString before = table();
    ASSERT_TRUE(mountFirst());
    LogCapture log("libio=10");
    EXPECT_EQ(device->format(nullptr), inUse);
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"format", card->node()}));
    EXPECT_EQ(log.messages().value(0),
              QString("libio 10 syscmd 'format %1' failed\n").arg(card->node()));
    EXPECT_EQ(table(), before);
    EXPECT_EQ(directoriesOf(card->node(1)), QStringList(directory()));
}

TEST_F(LinuxBDFormat, Kill_EndsTheUsersAndFormats) {
    ASSERT_TRUE(mountFirst());
    const QString ready = directory("ready");
    ChildProcess user([&] {
        const OpenFile file(directory() + "/file", O_RDWR | O_CREAT);
        if (file.fd() == -1 || !makeFile(ready))
            return 1;
        for (;;)
            ::pause();
    });
    ASSERT_TRUE(eventually([&] { return QFile::exists(ready); }));
    const Properties properties = with("kill", false); // asked for by its mere presence
    EXPECT_EQ(device->format(&properties), 0);
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"format", "-k", card->node()}));
    EXPECT_EQ(user.wait(), -SIGTERM);
    EXPECT_FALSE(isMountPoint(directory()));
    expectFormatted(*card);
}

// --- the monitor --------------------------------------------------------------------------------

/// Properties that differ from event to event.
Properties lasting(Properties properties) {
    for (const char* name : {"ACTION", "SEQNUM", "USEC_INITIALIZED", "SYNTH_UUID"})
        properties.remove(name);
    return properties;
}

using BDMonDisk = MonitorTest;

/// "add /dev/loop0" for each event.
QStringList summary(const QList<BDMon::Event>& events) {
    QStringList lines;
    for (const BDMon::Event& event : events)
        lines.append(event.action + ' ' + event.dev->m_devName);
    return lines;
}

QStringList sorted(QStringList lines) {
    lines.sort();
    return lines;
}

/// The latest event of this device, or null.
BlockDevice::SPtr deviceIn(const QList<BDMon::Event>& events, const QString& node) {
    BlockDevice::SPtr found;
    for (const BDMon::Event& event : events) {
        if (event.dev->m_devName == node)
            found = event.dev;
    }
    return found;
}

/// The events are numbered, and are the same ones by their devices.
void expectGrouped(const QList<BDMon::Event>& events,
                   const QMap<QString, QList<BDMon::Event>>& eventsByDevice) {
    QMap<QString, QList<BDMon::Event>> expected;
    for (int i = 0; i < events.size(); ++i) {
        EXPECT_EQ(events[i].seq, i + 1);
        expected[events[i].dev->m_idPath].append(events[i]);
    }
    ASSERT_EQ(eventsByDevice.keys(), expected.keys());
    for (const QString& key : expected.keys()) {
        const QList<BDMon::Event>& group = eventsByDevice[key];
        ASSERT_EQ(group.size(), expected[key].size()) << key.toStdString();
        for (int i = 0; i < group.size(); ++i) {
            EXPECT_EQ(group[i].seq, expected[key][i].seq);
            EXPECT_EQ(group[i].action, expected[key][i].action);
            EXPECT_EQ(group[i].dev, expected[key][i].dev);
        }
    }
}

struct Layout {
    const char* name;
    const char* tableType;
    const char* table;
    unsigned sectorSize;
};

void PrintTo(const Layout& layout, std::ostream* out) {
    *out << layout.name;
}

class BDMonLayout : public BDMonDisk, public testing::WithParamInterface<Layout> {
protected:
    void SetUp() override {
        BDMonDisk::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        disk = std::make_unique<LoopDisk>(40 * MiB, GetParam().table,
                                          static_cast<int>(GetParam().sectorSize));
        ASSERT_EQ(disk->problem(), "");
        ASSERT_TRUE(makeExt4(disk->node(1), {"-L", "CLIPS"}));
        ASSERT_TRUE(makeExt4(disk->node(2), {"-L", "BACKUP 2"}));
    }

    void expectDisk(BlockDevice& device) const;
    void expectPartition(BlockDevice& device, int number) const;

    std::unique_ptr<LoopDisk> disk;
};

void BDMonLayout::expectDisk(BlockDevice& device) const {
    const QString node = disk->node();
    EXPECT_EQ(device.m_idPath, idPath());
    EXPECT_EQ(device.m_partNum, 0u);
    EXPECT_EQ(device.m_startBlock, 0u);
    EXPECT_EQ(device.m_blkSize, GetParam().sectorSize);
    EXPECT_EQ(QString::number(device.m_blkSize), outputOf({"blockdev", "--getpbsz", node}));
    EXPECT_EQ(QString::number(device.capacity()), outputOf({"blockdev", "--getsize64", node}));
    EXPECT_EQ(device.m_totalBlocks, 40u * MiB / GetParam().sectorSize);
    EXPECT_EQ(device.m_fsType, "");
    EXPECT_EQ(device.m_fsLabel, "");
    EXPECT_FALSE(device.isMountable());
    EXPECT_EQ(device.m_devName, node);
    EXPECT_EQ(device.m_partTableType, GetParam().tableType);
    EXPECT_EQ(device.m_partTableType, tagOf(node, "PTTYPE"));
    EXPECT_EQ("/sys" + device.m_devPath, QFileInfo(disk->place()).canonicalFilePath());
    EXPECT_EQ(device.m_partEntryType, "");
    EXPECT_FALSE(device.m_writeProtected);
    EXPECT_FALSE(device.m_umountFailed);
    EXPECT_EQ(device.props(), device.m_props);
    EXPECT_EQ(device.m_props.value("DEVTYPE"), "disk");
    EXPECT_FALSE(device.m_props.contains("WRITE_PROTECTED"));
}

void BDMonLayout::expectPartition(BlockDevice& device, int number) const {
    const QString node = disk->node(number);
    EXPECT_EQ(device.m_idPath, idPath());
    EXPECT_EQ(device.m_partNum, static_cast<unsigned>(number));
    EXPECT_EQ(device.m_blkSize, GetParam().sectorSize);
    EXPECT_EQ(device.m_fsType, "ext4");
    EXPECT_EQ(device.m_fsType, tagOf(node, "TYPE"));
    EXPECT_EQ(device.m_fsLabel, tagOf(node, "LABEL").replace(' ', '_')); // as udev has it
    EXPECT_EQ(device.m_fsLabel, number == 1 ? "CLIPS" : "BACKUP_2");
    EXPECT_TRUE(device.isMountable());
    EXPECT_EQ(device.m_devName, node);
    EXPECT_EQ(device.m_partTableType, GetParam().tableType);
    EXPECT_EQ("/sys" + device.m_devPath, QFileInfo(disk->place(number)).canonicalFilePath());
    EXPECT_FALSE(device.m_writeProtected);
    EXPECT_EQ(device.m_props.value("DEVTYPE"), "partition");
    EXPECT_FALSE(device.m_props.contains("WRITE_PROTECTED"));

    // In units of 512 bytes, also where the block size is another one.
    EXPECT_EQ(device.m_startBlock, (number == 1 ? 1 : 17) * MiB / 512);
    EXPECT_EQ(device.m_totalBlocks, (number == 1 ? 16 : 20) * MiB / 512);
    EXPECT_EQ(device.m_totalBlocks, outputOf({"blockdev", "--getsz", node}).toULongLong());
    EXPECT_EQ(device.capacity(), device.m_totalBlocks * GetParam().sectorSize);

    const QJsonDocument tables =
        QJsonDocument::fromJson(outputOf({"sfdisk", "--json", disk->node()}).toUtf8());
    const QJsonValue entry = tables["partitiontable"]["partitions"][number - 1];
    EXPECT_EQ(device.m_startBlock, entry["start"].toInt() * GetParam().sectorSize / 512);
    EXPECT_EQ(device.m_totalBlocks, entry["size"].toInt() * GetParam().sectorSize / 512);
    const QString code = entry["type"].toString().toLower();
    EXPECT_FALSE(code.isEmpty());
    EXPECT_EQ(device.m_partEntryType,
              std::strcmp(GetParam().tableType, "dos") == 0 ? "0x" + code : code);
}

TEST_P(BDMonLayout, PluggedIn_IsOneBatchOfThree) {
    ASSERT_FALSE(start().events);
    ASSERT_TRUE(plugIn(*disk));
    const Batch batch = update();
    ASSERT_TRUE(batch.events);
    const QList<BDMon::Event>& events = *batch.events;
    ASSERT_EQ(events.size(), 3);
    EXPECT_EQ(summary(events)[0], "add " + disk->node()); // the partitions come in any order
    EXPECT_EQ(sorted(summary(events)),
              QStringList({"add " + disk->node(), "add " + disk->node(1), "add " + disk->node(2)}));
    EXPECT_EQ(batch.eventsByDevice->keys(), QStringList(idPath()));
    expectGrouped(events, *batch.eventsByDevice);

    expectDisk(*events[0].dev);
    for (const int number : {1, 2})
        expectPartition(*deviceIn(events, disk->node(number)), number);
    for (const BDMon::Event& event : events) {
        EXPECT_EQ(event.dev->m_action, "add");
        EXPECT_GT(event.dev->m_seqNum, 0);
        EXPECT_EQ(QString::number(event.dev->m_seqNum), event.dev->m_props["SEQNUM"].toString());
    }
    EXPECT_FALSE(update().events);
}

TEST_P(BDMonLayout, PresentAtTheStart_IsAddedInOneBatch) {
    ASSERT_TRUE(plugIn(*disk));
    const Batch batch = start();
    ASSERT_TRUE(batch.events);
    const QList<BDMon::Event>& events = *batch.events;
    ASSERT_EQ(summary(events),
              QStringList({"add " + disk->node(), "add " + disk->node(1), "add " + disk->node(2)}));
    expectGrouped(events, *batch.eventsByDevice);
    expectDisk(*events[0].dev);
    expectPartition(*events[1].dev, 1);
    expectPartition(*events[2].dev, 2);
    for (const BDMon::Event& event : events) {
        EXPECT_EQ(event.dev->m_action, "");
        EXPECT_EQ(event.dev->m_seqNum, 0);
    }

    EXPECT_FALSE(start().events) << "it is running";
}

TEST_P(BDMonLayout, Unplugged_TellsAllThatWasKnown) {
    ASSERT_FALSE(start().events);
    ASSERT_TRUE(plugIn(*disk));
    const Batch added = update();
    ASSERT_TRUE(added.events);
    const QStringList nodes = {disk->node(), disk->node(1), disk->node(2)};
    ASSERT_TRUE(unplug(*disk));
    const Batch removed = update();
    ASSERT_TRUE(removed.events);
    const QList<BDMon::Event>& events = *removed.events;
    EXPECT_EQ(summary(events).last(), "remove " + nodes[0]);
    EXPECT_EQ(sorted(summary(events)),
              QStringList({"remove " + nodes[0], "remove " + nodes[1], "remove " + nodes[2]}));
    expectGrouped(events, *removed.eventsByDevice);
    EXPECT_EQ(removed.eventsByDevice->keys(), QStringList(idPath()));

    for (const QString& node : nodes) {
        SCOPED_TRACE(node.toStdString());
        const BlockDevice::SPtr before = deviceIn(*added.events, node);
        const BlockDevice::SPtr after = deviceIn(events, node);
        ASSERT_TRUE(before && after);
        EXPECT_EQ(after->m_action, "remove");
        EXPECT_GT(after->m_seqNum, before->m_seqNum);
        EXPECT_EQ(lasting(after->m_props), lasting(before->m_props));
        EXPECT_EQ(after->m_fsLabel, before->m_fsLabel);
        EXPECT_EQ(after->m_startBlock, before->m_startBlock);
        EXPECT_EQ(after->m_totalBlocks, before->m_totalBlocks);
    }
    // The node of a partition has gone with it.
    EXPECT_EQ(deviceIn(events, nodes[1])->m_blkSize, 512u);
    EXPECT_FALSE(update().events);
}

INSTANTIATE_TEST_SUITE_P(Tables, BDMonLayout,
                         testing::Values(Layout{"Mbr512", "dos", twoPartitions, 512},
                                         Layout{"Mbr4096", "dos", twoPartitions, 4096},
                                         Layout{"Gpt512", "gpt", twoGptPartitions, 512},
                                         Layout{"Gpt4096", "gpt", twoGptPartitions, 4096}),
                         [](const testing::TestParamInfo<Layout>& param) {
                             return std::string(param.param.name);
                         });

TEST_F(BDMonDisk, NewFileSystem_IsAChange) {
    const LoopDisk disk(20 * MiB, onePartition);
    ASSERT_EQ(disk.problem(), "");
    ASSERT_FALSE(start().events);
    ASSERT_TRUE(plugIn(disk));
    const Batch before = update();
    ASSERT_TRUE(before.events);
    EXPECT_FALSE(deviceIn(*before.events, disk.node(1))->isMountable());

    ASSERT_TRUE(makeExt4(disk.node(1), {"-L", "NEW"}));
    ASSERT_TRUE(disk.tell("change", 1));
    const Batch after = update();
    ASSERT_TRUE(after.events);
    // Once more where the system has a udevd of its own, which sees the node closed after writing.
    EXPECT_THAT(summary(*after.events), Each(QString("change " + disk.node(1))));
    expectGrouped(*after.events, *after.eventsByDevice);
    const BlockDevice::SPtr device = after.events->last().dev;
    EXPECT_EQ(device->m_action, "change");
    EXPECT_EQ(device->m_idPath, idPath());
    EXPECT_TRUE(device->isMountable());
    EXPECT_EQ(device->m_fsType, "ext4");
    EXPECT_EQ(device->m_fsLabel, "NEW");
}

TEST_F(BDMonDisk, WithoutIdPath_IsNotToldOf) {
    const LoopDisk unnamed(20 * MiB, onePartition);
    ASSERT_EQ(unnamed.problem(), "");
    ASSERT_TRUE(unnamed.plugIn());
    ASSERT_TRUE(udevd->settle());
    ASSERT_FALSE(start().events);
    ASSERT_TRUE(unnamed.tell("change") && unnamed.tell("add", 1));
    EXPECT_FALSE(update().events);

    const LoopDisk named(8 * MiB);
    ASSERT_EQ(named.problem(), "");
    ASSERT_TRUE(unnamed.tell("change"));
    ASSERT_TRUE(plugIn(named));
    ASSERT_TRUE(unnamed.tell("change"));
    const Batch batch = update();
    ASSERT_TRUE(batch.events);
    EXPECT_EQ(summary(*batch.events), QStringList("add " + named.node()));
    EXPECT_EQ(batch.events->first().seq, 1);
}

TEST_F(BDMonDisk, TwoDisks_AreOneBatchOfTwoGroups) {
    const LoopDisk first(20 * MiB, onePartition);
    const LoopDisk second(20 * MiB, onePartition);
    ASSERT_EQ(first.problem() + second.problem(), "");
    ASSERT_FALSE(start().events);
    ASSERT_TRUE(plugIn(first, idPath(1)));
    ASSERT_TRUE(plugIn(second, idPath(2)));
    ASSERT_TRUE(first.tell("change"));
    const Batch batch = update();
    ASSERT_TRUE(batch.events);
    ASSERT_EQ(batch.events->size(), 5);
    expectGrouped(*batch.events, *batch.eventsByDevice);
    const QMap<QString, QList<BDMon::Event>>& groups = *batch.eventsByDevice;
    EXPECT_EQ(groups.keys(), QStringList({idPath(1), idPath(2)}));
    EXPECT_EQ(
        summary(groups[idPath(1)]),
        QStringList({"add " + first.node(), "add " + first.node(1), "change " + first.node()}));
    EXPECT_EQ(summary(groups[idPath(2)]),
              QStringList({"add " + second.node(), "add " + second.node(1)}));
}

TEST_F(BDMonDisk, Stopped_MissesWhatHappensUntilTheNextStart) {
    const LoopDisk disk(8 * MiB);
    ASSERT_EQ(disk.problem(), "");
    ASSERT_FALSE(start().events);
    BDMon::instance()->stop();
    EXPECT_FALSE(BDMon::instance()->isRunning());
    ASSERT_TRUE(plugIn(disk));
    EXPECT_FALSE(update().events);
    const Batch batch = start();
    ASSERT_TRUE(batch.events);
    EXPECT_EQ(summary(*batch.events), QStringList("add " + disk.node()));
    EXPECT_FALSE(update().events) << "the past is not told again";
}

TEST_F(BDMonDisk, Formatted_TellsOfTheNewPartition) {
    const QString tool = missingToFormat();
    if (!tool.isEmpty())
        GTEST_SKIP() << tool.toStdString() << " is not installed";
    const MaintenanceProgram program(realMaintenance);
    ASSERT_EQ(program.problem(), "");
    const LoopDisk disk(64 * MiB, twoPartitions);
    ASSERT_EQ(disk.problem(), "");
    ASSERT_FALSE(start().events);
    ASSERT_TRUE(plugIn(disk));
    const Batch before = update();
    ASSERT_TRUE(before.events);
    ASSERT_EQ(deviceIn(*before.events, disk.node())->format(nullptr), 0);

    const Batch after = update();
    ASSERT_TRUE(after.events);
    expectGrouped(*after.events, *after.eventsByDevice);
    const BlockDevice::SPtr first = deviceIn(*after.events, disk.node(1));
    const BlockDevice::SPtr second = deviceIn(*after.events, disk.node(2));
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->m_action, "add");
    EXPECT_EQ(first->m_fsType, "vfat");
    EXPECT_EQ(first->m_partEntryType, "0x6");
    EXPECT_EQ(first->m_startBlock, 128u);
    EXPECT_EQ(second->m_action, "remove");
}

// The remover of a card does not wait for its unmounting.
TEST_F(BDMonDisk, RemovedWhileMounted_IsUnmountedByTheEventsDevice) {
    LoopDisk disk(20 * MiB, onePartition);
    ASSERT_EQ(disk.problem(), "");
    ASSERT_TRUE(makeExt4(disk.node(1)));
    ASSERT_FALSE(start().events);
    ASSERT_TRUE(plugIn(disk));
    const Batch added = update();
    ASSERT_TRUE(added.events);
    ASSERT_EQ(deviceIn(*added.events, disk.node(1))->mount(directory(), nullptr), 0);

    ASSERT_TRUE(disk.pullOut());
    EXPECT_TRUE(disk.isAttached()) << "the mount holds it";
    const Batch removed = update();
    ASSERT_TRUE(removed.events);
    ASSERT_EQ(sorted(summary(*removed.events)),
              QStringList({"remove " + disk.node(), "remove " + disk.node(1)}));
    const BlockDevice::SPtr partition = deviceIn(*removed.events, disk.node(1));
    EXPECT_EQ(partition->m_fsType, "ext4");
    EXPECT_EQ(partition->umount(nullptr), 0);
    EXPECT_FALSE(partition->m_umountFailed);
    EXPECT_FALSE(isMountPoint(directory()));
    EXPECT_TRUE(eventually([&] { return !disk.isAttached(); }));
}

} // namespace
} // namespace oru::io::test
