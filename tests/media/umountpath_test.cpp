// SPDX-License-Identifier: Apache-2.0
// umountPath() and the mount table.
#include <oruio/error.h>
#include <oruio/sysutils.h>

#include "core/mounttable_p.h"
#include "support/suite/logcapture.h"
#include "support/suite/qtprint.h"
#include "support/system/isolated.h"
#include "support/system/mounts.h"
#include "support/system/tempdir.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

/// Faults of umount(2) and umount2(2), and the calls of umount2(2).
struct UmountFault {
    int error = 0;           ///< errno of umount(2); 0: call the system
    int calls = 0;           ///< number of calls of umount2(2)
    int flags = -1;          ///< of the last call of umount2(2)
    int finalError = 0;      ///< errno of umount2(2); 0: call the system
    bool isGone = false;     ///< another process unmounts the path before umount2(2)
    bool hidesTable = false; ///< /proc/mounts is unreadable after umount2(2)
} umountFault;

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

// The definitions in the program take precedence over those in the C library.

extern "C" Q_DECL_EXPORT int umount(const char* path) noexcept {
    if (umountFault.error == 0)
        return next<int(const char*)>("umount")(path);
    errno = umountFault.error;
    return -1;
}

extern "C" Q_DECL_EXPORT int umount2(const char* path, int flags) noexcept {
    ++umountFault.calls;
    umountFault.flags = flags;
    if (umountFault.isGone) {
        next<int(const char*, int)>("umount2")(path, MNT_DETACH);
        errno = EINVAL;
        return -1;
    }
    if (umountFault.hidesTable)
        mount("tmpfs", "/proc", "tmpfs", 0, nullptr);
    if (umountFault.finalError != 0) {
        errno = umountFault.finalError;
        return -1;
    }
    return next<int(const char*, int)>("umount2")(path, flags);
}

namespace oru::io {

using test::LogCapture;
using test::TempDir;

namespace {

/// Has a mount point.
class UmountPath : public test::Isolated {
protected:
    void SetUp() override {
        Isolated::SetUp();
        if (IsSkipped())
            return;
        ASSERT_TRUE(QDir().mkpath(path));
    }
    void TearDown() override {
        while (umount2(QFile::encodeName(path).constData(), MNT_DETACH) == 0)
            continue;
        umountFault = {};
    }

    void mountHere(const char* device) const {
        ASSERT_EQ(mount(device, QFile::encodeName(path).constData(), "tmpfs", 0, nullptr), 0)
            << std::strerror(errno);
    }
    int unmount(const Properties* props = nullptr) const {
        return umountPath(QFile::encodeName(path).constData(), props);
    }
    /// The number of mounts on the mount point.
    int mounts() const {
        return test::devicesAt(path).size();
    }

    const TempDir temp;
    const QString path = temp.path() + "/mount-point";
    const Properties lazy = {{"lazy", false}};
};

} // namespace

TEST_F(UmountPath, NothingMounted_Zero) {
    LogCapture log("libio=12");
    EXPECT_EQ(unmount(), 0);
    EXPECT_EQ(umountPath("/no/such/path", nullptr), 0);
    EXPECT_EQ(umountPath("", nullptr), 0);
    EXPECT_TRUE(log.messages().isEmpty());
}

TEST_F(UmountPath, StackedMounts_AllUnmounted) {
    mountHere("first");
    mountHere("second");
    EXPECT_EQ(mounts(), 2);
    LogCapture log("libio=12");
    errno = 4711;
    EXPECT_EQ(unmount(), 0);
    EXPECT_EQ(errno, 4711);
    EXPECT_EQ(mounts(), 0);
    EXPECT_EQ(log.messages(), (QStringList{
                                  "libio 12 umount '" + path + "' (first): 0",
                                  "libio 12 umount '" + path + "' (second): 0",
                              }));
    EXPECT_EQ(umountFault.calls, 0);
}

// A long table takes several reads. After an unmount, the next read continues after the lines
// already read.
TEST_F(UmountPath, StackAcrossTableReads_AllUnmounted) {
    for (int others = 0; others < 60; ++others) {
        const QByteArray other =
            QFile::encodeName(temp.path()) + "/another-mount-" + QByteArray::number(others);
        ASSERT_EQ(mkdir(other.constData(), 0755), 0);
        ASSERT_EQ(mount("tmpfs", other.constData(), "tmpfs", 0, nullptr), 0);
        for (int i = 0; i < 3; ++i)
            mountHere("some");
        EXPECT_EQ(unmount(), 0);
        ASSERT_EQ(mounts(), 0) << "beside " << others << " others";
    }
    for (int others = 0; others < 60; ++others)
        umount2((temp / "another-mount-" + QString::number(others)).toUtf8().constData(),
                MNT_DETACH);
}

TEST_F(UmountPath, OtherPaths_StayMounted) {
    mountHere("ours");
    const QByteArray part = QFile::encodeName(path).chopped(1);
    EXPECT_EQ(umountPath(part.constData(), nullptr), 0);
    EXPECT_EQ(umountPath((QFile::encodeName(path) + "/").constData(), nullptr), 0);
    EXPECT_EQ(mounts(), 1);
}

TEST_F(UmountPath, Busy_EBUSYUnlessLazy) {
    mountHere("busy");
    QFile inUse(path + "/file");
    ASSERT_TRUE(inUse.open(QFile::ReadWrite));
    LogCapture log("libio=12");
    liberrno = NotFound;
    EXPECT_EQ(unmount(), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_EQ(mounts(), 1);
    EXPECT_EQ(log.messages(), QStringList{"libio 12 umount '" + path + "' (busy): -1"});
    const Properties others = {{"readonly", true}};
    EXPECT_EQ(unmount(&others), -1);
    EXPECT_EQ(unmount(&lazy), 0);
    EXPECT_EQ(mounts(), 0);
    EXPECT_EQ(inUse.write("still there"), 11);
}

TEST_F(UmountPath, FirstAttemptFails_SecondAttemptHasFlags) {
    const Properties none;
    const struct {
        int error;
        const Properties* props;
        int flags;
    } cases[] = {
        {EBUSY, nullptr, MNT_FORCE},
        {EBUSY, &none, MNT_FORCE},
        {EBUSY, &lazy, MNT_FORCE | MNT_DETACH},
        {EPERM, nullptr, 0},
        {EINVAL, &lazy, MNT_DETACH},
    };
    for (const auto& tested : cases) {
        mountHere("some");
        umountFault = {};
        umountFault.error = tested.error;
        EXPECT_EQ(unmount(tested.props), 0);
        EXPECT_EQ(umountFault.calls, 1);
        EXPECT_EQ(umountFault.flags, tested.flags);
        EXPECT_EQ(mounts(), 0);
    }
}

// Another process may unmount the path after the table was read.
TEST_F(UmountPath, UnmountedByAnotherProcess_Zero) {
    mountHere("some");
    umountFault.error = EINVAL;
    umountFault.isGone = true;
    EXPECT_EQ(unmount(), 0);
    EXPECT_EQ(mounts(), 0);
}

TEST_F(UmountPath, EinvalButStillInTable_EINVAL) {
    mountHere("some");
    umountFault.error = EINVAL;
    umountFault.finalError = EINVAL;
    EXPECT_EQ(unmount(), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(umountFault.calls, 1);
    EXPECT_EQ(mounts(), 1);
}

TEST_F(UmountPath, TableUnreadableAfterEinval_EINVAL) {
    mountHere("some");
    umountFault.error = EINVAL;
    umountFault.finalError = EINVAL;
    umountFault.hidesTable = true;
    const int result = unmount();
    const int error = errno;
    umountFault = {};
    ASSERT_EQ(umount2("/proc", MNT_DETACH), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EINVAL);
    EXPECT_EQ(mounts(), 1);
}

TEST_F(UmountPath, OneOfSeveralFails_OthersStayMounted) {
    mountHere("first");
    mountHere("second");
    umountFault.error = EBUSY;
    umountFault.finalError = EPERM;
    EXPECT_EQ(unmount(&lazy), -1);
    EXPECT_EQ(errno, EPERM); // of the second attempt
    EXPECT_EQ(umountFault.calls, 1);
    EXPECT_EQ(mounts(), 2);
}

// The kernel's table contains "\040" for a blank.
TEST_F(UmountPath, PathWithBlank_NotFound) {
    const QByteArray blank = QFile::encodeName(path) + "/with blank";
    ASSERT_EQ(mkdir(blank.constData(), 0755), 0);
    ASSERT_EQ(mount("tmpfs", blank.constData(), "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(umountPath(blank.constData(), nullptr), 0);
    const QByteArray escaped = QFile::encodeName(path) + "/with\\040blank";
    EXPECT_EQ(umountPath(escaped.constData(), nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(umount(blank.constData()), 0); // it was still mounted
}

TEST_F(UmountPath, NoTable_ENOENT) {
    mountHere("some");
    ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);
    errno = 0;
    const int result = unmount();
    const int error = errno;
    ASSERT_EQ(umount2("/proc", MNT_DETACH), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, ENOENT);
    EXPECT_EQ(mounts(), 1);
}

TEST_F(UmountPath, NullPath_EFAULT) {
    EXPECT_EQ(umountPath(nullptr, nullptr), -1);
    EXPECT_EQ(errno, EFAULT);
}

namespace {

/// "DEVICE MOUNTPOINT" for each line of a table with this content.
std::vector<std::string> mountsOf(const QByteArray& content) {
    const TempDir temp;
    const QString path = temp.path() + "/table";
    QFile file(path);
    EXPECT_TRUE(file.open(QFile::WriteOnly));
    EXPECT_EQ(file.write(content), content.size());
    file.close();
    std::vector<std::string> found;
    MountTable table(QFile::encodeName(path).constData());
    EXPECT_TRUE(table.isRead());
    while (const MountTable::Mount* mount = table.next())
        found.push_back(std::string(mount->device) + ' ' + mount->mountPoint);
    EXPECT_EQ(table.next(), nullptr);
    return found;
}

} // namespace

TEST(MountTable, Lines_DeviceAndMountPoint) {
    using Mounts = std::vector<std::string>;
    EXPECT_EQ(mountsOf("/dev/a /a ext4 rw 0 0\n/dev/b /b vfat ro 0 0\n"),
              (Mounts{"/dev/a /a", "/dev/b /b"}));
    EXPECT_EQ(mountsOf("/dev/a /a ext4"), Mounts{"/dev/a /a"}); // without a newline
    EXPECT_EQ(mountsOf("/dev/a /a"), Mounts{"/dev/a /a"});
    EXPECT_EQ(mountsOf("/dev/a /a\n"), Mounts{"/dev/a /a"});
    EXPECT_EQ(mountsOf("  /dev/a   /a\\040b  x\n"), Mounts{"/dev/a /a\\040b"});
    EXPECT_EQ(mountsOf("\n \nword\n/dev/a /a x\n"), Mounts{"/dev/a /a"});
    EXPECT_EQ(mountsOf(QByteArray("/dev/a\0 /a x\n/dev/b /b\0y\n", 24)), Mounts{"/dev/b /b"});
    EXPECT_EQ(mountsOf(""), Mounts{});
}

TEST(MountTable, LongLines_ReadWhole) {
    const QByteArray name(300'000, 'n');
    EXPECT_EQ(mountsOf(name + " /a x\n/dev/b " + name).size(), 2U);
    EXPECT_EQ(mountsOf("/dev/b /" + name)[0], "/dev/b /" + name.toStdString());
}

TEST(MountTable, NoFile_ENOENT) {
    MountTable table("/no/such/table");
    EXPECT_FALSE(table.isRead());
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(table.next(), nullptr);
}

} // namespace oru::io
