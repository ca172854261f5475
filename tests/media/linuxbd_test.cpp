// SPDX-License-Identifier: Apache-2.0
// LinuxBD: the arguments of mount(2) and of the maintenance program.
#include <oruio/bdmon.h>
#include <oruio/error.h>
#include <oruio/maintenancejob.h>

#include "support/doubles/maintenanceprogram.h"
#include "support/suite/logcapture.h"
#include "support/suite/qtprint.h"
#include "support/system/isolated.h"
#include "support/system/localecodec.h"
#include "support/system/tempdir.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <sys/mount.h>

namespace {

struct MountCall {
    std::string device;
    std::string directory;
    std::string type;
    unsigned long flags;
    std::string data; ///< "null" for a null pointer

    bool operator==(const MountCall& other) const {
        return device == other.device && directory == other.directory && type == other.type &&
               flags == other.flags && data == other.data;
    }
};

std::ostream& operator<<(std::ostream& out, const MountCall& call) {
    return out << call.device << ' ' << call.directory << ' ' << call.type << " 0x" << std::hex
               << call.flags << ' ' << call.data;
}

/// The intercepted calls of mount() for devices "/dev/test...".
std::vector<MountCall> mountCalls;
int mountError = 0;

} // namespace

// The definition in the program takes precedence over the one in the C library.
extern "C" Q_DECL_EXPORT int mount(const char* device, const char* directory, const char* type,
                                   unsigned long flags, const void* data) noexcept {
    using Function = int(const char*, const char*, const char*, unsigned long, const void*);
    static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "mount"));
    if (!device || std::strncmp(device, "/dev/test", 9) != 0)
        return real(device, directory, type, flags, data);
    mountCalls.push_back(
        {device, directory, type, flags, data ? static_cast<const char*>(data) : "null"});
    errno = mountError;
    return mountError == 0 ? 0 : -1;
}

namespace oru::io {
namespace {

using test::LogCapture;
using test::MaintenanceProgram;
using test::TempDir;

LinuxBD device(const QString& type) {
    Properties props = {{"DEVNAME", "/dev/test1"}, {"DEVTYPE", "partition"}, {"ID_FS_TYPE", type}};
    return LinuxBD(props);
}

class LinuxBDMount : public ::testing::Test {
protected:
    void SetUp() override {
        mountCalls.clear();
        mountError = 0;
    }

    const TempDir temp;
    const QString path = temp.path() + "/new/mount-point";
    const std::string directory = path.toStdString();
};

constexpr unsigned long base = 0xc0ed0408;

} // namespace

TEST_F(LinuxBDMount, FileSystemType_SelectsDriverAndData) {
    const struct {
        const char* type;
        const char* driver;
        const char* data;
    } cases[] = {
        {"exfat", "ufsd", "nls=utf8"}, {"vfat", "vfat", "usefree"}, {"fat", "fat", "usefree"},
        {"ext4", "ext4", "null"},      {"ntfs", "ntfs", "null"},    {"", "", "null"},
    };
    for (const auto& tested : cases) {
        mountCalls.clear();
        LogCapture log("libio=12");
        EXPECT_EQ(device(tested.type).mount(path, nullptr), 0);
        EXPECT_EQ(mountCalls, (std::vector<MountCall>{
                                  {"/dev/test1", directory, tested.driver, base, tested.data}}));
        const bool hasData = std::strcmp(tested.data, "null") != 0;
        EXPECT_EQ(log.messages().last(),
                  QStringLiteral("libio 12 mount /dev/test1 %1 %2 flags 0xc0ed0408 %3\n")
                      .arg(path, tested.driver, hasData ? tested.data : "<>"));
        EXPECT_TRUE(QFileInfo(path).isDir());
    }
}

TEST_F(LinuxBDMount, TrueProperties_SetFlags) {
    const struct {
        Properties props;
        unsigned long flags;
    } cases[] = {
        {{}, base},
        {{{"readonly", true}}, base | MS_RDONLY},
        {{{"readonly", "true"}}, base | MS_RDONLY},
        {{{"readonly", false}}, base},
        {{{"remount", true}}, base | MS_REMOUNT},
        {{{"remount", false}}, base},
        {{{"readonly", true}, {"remount", true}}, base | MS_RDONLY | MS_REMOUNT},
        {{{"lazy", true}}, base},
    };
    for (const auto& tested : cases) {
        mountCalls.clear();
        LogCapture log("libio=12");
        EXPECT_EQ(device("ext4").mount(path, &tested.props), 0);
        ASSERT_EQ(mountCalls.size(), 1U);
        EXPECT_EQ(mountCalls[0].flags, tested.flags);
        EXPECT_TRUE(log.messages().last().contains(
            QStringLiteral(" flags 0x%1 ").arg(tested.flags, 0, 16)));
    }
    EXPECT_EQ(base | MS_REMOUNT, 0xc0ed0428UL);
}

TEST_F(LinuxBDMount, MountFails_ErrnoLogged) {
    mountError = ENODEV;
    LogCapture log("libio=10");
    liberrno = NotFound;
    EXPECT_EQ(device("exfat").mount(path, nullptr), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(log.messages(),
              QStringList{"libio 10 mount of /dev/test1 to " + path +
                          " as ufsd failed: " + QString(std::strerror(ENODEV)) + '\n'});
}

TEST_F(LinuxBDMount, NoMountPoint_ENOENT) {
    QFile file(temp.path() + "/file");
    ASSERT_TRUE(file.open(QFile::WriteOnly));
    for (const QString& nowhere : {QString(), QString(""), temp.path() + "/file/below"}) {
        errno = 0;
        liberrno = NotFound;
        EXPECT_EQ(device("ext4").mount(nowhere, nullptr), -1);
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(liberrno, Ok);
    }
    EXPECT_TRUE(mountCalls.empty());
}

TEST_F(LinuxBDMount, NodeOrTypeWithNul_EINVAL) {
    Properties props = {{"DEVNAME", QString::fromLatin1("/dev/test\0x", 11)},
                        {"ID_FS_TYPE", "ext4"}};
    EXPECT_EQ(LinuxBD(props).mount(path, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(device(QString("ext4") + QChar(0)).mount(path, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(mountCalls.empty());
}

// Qt creates the directory and encodes its name with the codec of the locale.
TEST_F(LinuxBDMount, UnencodableMountPoint_NoDirectoryCreated) {
    const test::LocaleCodec latin("ISO-8859-1");
    const struct {
        QString name;
        int error;
    } cases[] = {
        {QString::fromUtf8("bä"), EILSEQ},
        {QString(QChar(0xd800)), EILSEQ},
        {QString("a") + QChar(0) + "b", EINVAL},
    };
    for (const auto& tested : cases) {
        errno = 0;
        liberrno = NotFound;
        EXPECT_EQ(device("ext4").mount(temp.path() + '/' + tested.name, nullptr), -1);
        EXPECT_EQ(errno, tested.error);
        EXPECT_EQ(liberrno, Ok);
    }
    EXPECT_TRUE(QDir(temp.path()).isEmpty());
    EXPECT_TRUE(mountCalls.empty());
    EXPECT_EQ(device("ext4").mount(path, nullptr), 0);
}

TEST_F(LinuxBDMount, NonAsciiMountPoint_EncodedInLocalesCodec) {
    const test::LocaleCodec utf8("UTF-8");
    const QString umlauts = temp.path() + QString::fromUtf8("/bä/録画");
    EXPECT_EQ(device("ext4").mount(umlauts, nullptr), 0);
    ASSERT_EQ(mountCalls.size(), 1U);
    EXPECT_EQ(mountCalls[0].directory, umlauts.toStdString());
    EXPECT_TRUE(QFileInfo(umlauts).isDir());
}

namespace {

class LinuxBDCommands : public test::WithMaintenanceProgram {
protected:
    /// An operation that waits, and the job that does the same.
    struct Operation {
        int (BlockDevice::*wait)(const Properties*);
        MaintenanceJob::SPtr (*makeJob)(const BlockDevice&, const Properties*);
    };

    static int runJob(Operation operation, const Properties* props, const QString& type) {
        const MaintenanceJob::SPtr job = operation.makeJob(device(type), props);
        EXPECT_EQ(job->start(), 0);
        job->waitForFinished();
        return job->status();
    }
    /// The arguments of the program for one operation.
    QStringList argumentsOf(Operation operation, const Properties* props,
                            const QString& type = "vfat") {
        const MaintenanceProgram program;
        LinuxBD tested = device(type);
        liberrno = NotFound;
        EXPECT_EQ((tested.*operation.wait)(props), 0);
        EXPECT_EQ(liberrno, Ok);
        EXPECT_EQ(runJob(operation, props, type), 0);
        const QList<QStringList> calls = program.calls();
        EXPECT_EQ(calls.size(), 2);
        EXPECT_EQ(calls.value(1), calls.value(0));
        return calls.value(0);
    }
    /// The number of runs for an operation when the program always exits with 9.
    int runsOf(Operation operation, const Properties* props) {
        MaintenanceProgram program("exit 9");
        LinuxBD tested = device("vfat");
        EXPECT_EQ((tested.*operation.wait)(props), 9);
        const int runs = program.calls().size();
        program.forget();
        EXPECT_EQ(runJob(operation, props, "vfat"), 9);
        EXPECT_EQ(program.calls().size(), runs);
        return runs;
    }

    const Operation fsck = {&BlockDevice::fsck, &MaintenanceJob::fsck};
    const Operation mkfs = {&BlockDevice::mkfs, &MaintenanceJob::mkfs};
    const Operation format = {&BlockDevice::format, &MaintenanceJob::format};
    const Properties none;
};

} // namespace

TEST_F(LinuxBDCommands, Fsck_Properties_BecomeArguments) {
    const QStringList plain = {"fsck", "-t", "vfat", "/dev/test1"};
    EXPECT_EQ(argumentsOf(fsck, nullptr), plain);
    EXPECT_EQ(argumentsOf(fsck, &none), plain);
    const Properties props = {{"cmd_opts", "-a -w"}, {"retries", 1}, {"fs_type", "ext4"}};
    EXPECT_EQ(argumentsOf(fsck, &props), plain + QStringList{"-a -w"});
    // Without a file system type, "-t" has no value.
    EXPECT_EQ(argumentsOf(fsck, nullptr, ""), (QStringList{"fsck", "-t", "/dev/test1"}));
}

TEST_F(LinuxBDCommands, Fsck_RetriesProperty_LimitsRuns) {
    EXPECT_EQ(FSCK_RETRIES, 3);
    EXPECT_EQ(runsOf(fsck, nullptr), 3);
    EXPECT_EQ(runsOf(fsck, &none), 3);
    const struct {
        QVariant retries;
        int runs;
    } cases[] = {{5, 5}, {"5", 5}, {true, 1}, {2.5, 3}};
    for (const auto& tested : cases) {
        const Properties props = {{"retries", tested.retries}};
        EXPECT_EQ(runsOf(fsck, &props), tested.runs);
    }
    const MaintenanceProgram program("exit 9");
    for (const QVariant& never :
         {QVariant(0), QVariant(-1), QVariant("many"), QVariant("true"), QVariant()}) {
        const Properties props = {{"retries", never}};
        EXPECT_EQ(device("vfat").fsck(&props), -1);
        EXPECT_EQ(MaintenanceJob::fsck(device("vfat"), &props)->start(), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_TRUE(program.calls().isEmpty());
}

TEST_F(LinuxBDCommands, Mkfs_Properties_BecomeArguments) {
    const QStringList plain = {"mkfs", "-t", "/dev/test1"};
    EXPECT_EQ(argumentsOf(mkfs, nullptr), plain);
    EXPECT_EQ(argumentsOf(mkfs, &none), plain);
    const Properties props = {{"fs_type", "ext4"}, {"cmd_opts", "-L film"}};
    EXPECT_EQ(argumentsOf(mkfs, &props),
              (QStringList{"mkfs", "-t", "ext4", "/dev/test1", "-L film"}));
    EXPECT_EQ(runsOf(mkfs, nullptr), 1);
}

TEST_F(LinuxBDCommands, Format_Properties_BecomeArguments) {
    const QStringList plain = {"format", "/dev/test1"};
    EXPECT_EQ(argumentsOf(format, nullptr), plain);
    EXPECT_EQ(argumentsOf(format, &none), plain);
    const Properties kill = {{"kill", false}}; // the value is ignored
    EXPECT_EQ(argumentsOf(format, &kill), (QStringList{"format", "-k", "/dev/test1"}));
    EXPECT_EQ(runsOf(format, &kill), 1);
}

TEST_F(LinuxBDCommands, Umount_NotMountedThenNoTable_ZeroThenENOENT) {
    LinuxBD tested = device("vfat");
    EXPECT_FALSE(tested.m_umountFailed);
    liberrno = NotFound;
    EXPECT_EQ(tested.umount(nullptr), 0);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_FALSE(tested.m_umountFailed);

    ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);
    errno = 0;
    const int result = tested.umount(nullptr);
    const int error = errno;
    ASSERT_EQ(umount2("/proc", MNT_DETACH), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, ENOENT);
    EXPECT_TRUE(tested.m_umountFailed);
    EXPECT_EQ(tested.umount(nullptr), 0);
    EXPECT_FALSE(tested.m_umountFailed);
}

} // namespace oru::io
