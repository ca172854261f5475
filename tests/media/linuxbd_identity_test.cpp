// SPDX-License-Identifier: Apache-2.0
// LinuxBD: a device node that has passed to another medium since the event.

#include "ext4test.h"

#include <oruio/maintenancejob.h>

#include "support/doubles/maintenanceprogram.h"
#include "support/suite/logcapture.h"
#include "support/system/files.h"
#include "support/system/mounts.h"

#include <gmock/gmock.h>

#include <QFile>

#include <cerrno>
#include <memory>

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace oru::io::test {
namespace {

using testing::Each;
using testing::IsEmpty;

/// The device on the disk of Ext4Test, as an event with these properties describes it.
class LinuxBDIdentity : public Ext4Test {
protected:
    void SetUp() override {
        Ext4Test::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        program = std::make_unique<MaintenanceProgram>("printenv ORUIO_DISKSEQ > " +
                                                       environment().toUtf8() + "; exit 0");
        ASSERT_EQ(program->problem(), "");
    }

    QString environment() const {
        return directory("diskseq");
    }
    QByteArray sequence() const {
        return contents(disk->sysfsPath() + "/diskseq").trimmed();
    }
    LinuxBD described(Properties properties) const {
        properties["DEVNAME"] = node();
        properties["DEVTYPE"] = "partition";
        properties["ID_FS_TYPE"] = "ext4";
        return LinuxBD(properties);
    }
    /// The results of the operations that must not touch another medium.
    void expectRefused(LinuxBD former) const {
        const auto refused = [](int result) { return result == -1 && errno == ENODEV; };
        errno = 0;
        EXPECT_TRUE(refused(former.fsck(nullptr)));
        errno = 0;
        EXPECT_TRUE(refused(former.mkfs(nullptr)));
        errno = 0;
        EXPECT_TRUE(refused(former.format(nullptr)));
        errno = 0;
        EXPECT_TRUE(refused(former.mount(directory("new"), nullptr)));
        for (const MaintenanceJob::SPtr& job :
             {MaintenanceJob::fsck(former), MaintenanceJob::mkfs(former),
              MaintenanceJob::format(former)}) {
            errno = 0;
            EXPECT_TRUE(refused(job->start()));
            EXPECT_FALSE(job->isRunning());
        }
        EXPECT_EQ(liberrno, Ok);
        EXPECT_THAT(program->calls(), IsEmpty());
        EXPECT_FALSE(QFile::exists(directory("new")));
        EXPECT_EQ(directoriesOf(node()), QStringList());
    }

    std::unique_ptr<MaintenanceProgram> program;
};

TEST_F(LinuxBDIdentity, SameMedium_ProgramGetsItsNumber) {
    const QByteArray number = sequence();
    ASSERT_NE(number, "");
    LinuxBD same = described({{"DISKSEQ", QString(number)}});
    EXPECT_EQ(same.fsck(nullptr), 0);
    EXPECT_EQ(contents(environment()), number + '\n');
    EXPECT_EQ(same.mkfs(nullptr), 0);
    EXPECT_EQ(same.format(nullptr), 0);
    EXPECT_EQ(program->calls().size(), 3);
    EXPECT_EQ(same.mount(directory(), nullptr), 0);
}

TEST_F(LinuxBDIdentity, JobOnSameMedium_ProgramGetsItsNumber) {
    const QByteArray number = sequence();
    const auto job = MaintenanceJob::fsck(described({{"DISKSEQ", QString(number)}}));
    ASSERT_EQ(job->start(), 0);
    job->waitForFinished();
    EXPECT_EQ(job->status(), 0);
    EXPECT_EQ(contents(environment()), number + '\n');
}

// The node is compared when the job starts, not when it is made.
TEST_F(LinuxBDIdentity, MediumExchangedBeforeJobStarts_ENODEV) {
    const auto job = MaintenanceJob::format(described({{"DISKSEQ", QString(sequence())}}));
    ASSERT_TRUE(disk->exchange());
    EXPECT_EQ(job->start(), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_THAT(program->calls(), IsEmpty());
}

TEST_F(LinuxBDIdentity, NumberUnknown_ProgramGetsNone) {
    EXPECT_EQ(described({}).fsck(nullptr), 0);
    EXPECT_EQ(contents(environment()), "");
    EXPECT_EQ(program->calls().size(), 1);
}

TEST_F(LinuxBDIdentity, MediumExchanged_ENODEVAndNothingStarted) {
    const LinuxBD former = described({{"DISKSEQ", QString(sequence())}});
    ASSERT_TRUE(disk->exchange());
    LogCapture log("libio=10");
    expectRefused(former);
    const QString refusal = QString("libio 10 %1 is another device now\n").arg(node());
    EXPECT_THAT(log.messages(), Each(refusal));
    EXPECT_EQ(described({{"DISKSEQ", QString(sequence())}}).fsck(nullptr), 0);
}

TEST_F(LinuxBDIdentity, Remount_NotCompared) {
    LinuxBD other = described({{"DISKSEQ", "1"}});
    ASSERT_EQ(device->mount(directory(), nullptr), 0);
    const Properties remount = with("remount", true, "readonly", true);
    EXPECT_EQ(other.mount(directory(), &remount), 0);
}

TEST_F(LinuxBDIdentity, NoNumberOfTheMedium_DeviceNumberCompared) {
    struct stat st;
    ASSERT_EQ(::stat(qPrintable(node()), &st), 0);
    const QString majorNumber = QString::number(major(st.st_rdev));
    const QString minorNumber = QString::number(minor(st.st_rdev));
    EXPECT_EQ(described({{"MAJOR", majorNumber}, {"MINOR", minorNumber}}).fsck(nullptr), 0);
    EXPECT_EQ(described({{"MAJOR", majorNumber}}).fsck(nullptr), 0);
    program->forget();
    expectRefused(described({{"MAJOR", majorNumber}, {"MINOR", "99999"}}));
    expectRefused(described({{"MAJOR", "1"}, {"MINOR", minorNumber}}));
}

TEST_F(LinuxBDIdentity, CannotBeCompared_NothingRefused) {
    const LinuxBD former = described({{"DISKSEQ", QString(sequence())}, {"MAJOR", "x"}});
    ASSERT_TRUE(disk->unplug()); // no node any more
    EXPECT_EQ(LinuxBD(former).fsck(nullptr), 0);
    EXPECT_EQ(described({{"DISKSEQ", "no number"}}).fsck(nullptr), 0);
    EXPECT_EQ(program->calls().size(), 2);
}

} // namespace
} // namespace oru::io::test
