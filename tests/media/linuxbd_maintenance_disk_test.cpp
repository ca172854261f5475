// SPDX-License-Identifier: Apache-2.0
// LinuxBD: fsck, mkfs and format on loop disks with the real maintenance program.

#include "ext4test.h"
#include "support/doubles/maintenanceprogram.h"
#include "support/suite/logcapture.h"
#include "support/system/childprocess.h"
#include "support/system/files.h"
#include "support/system/mounts.h"

#include <gmock/gmock.h>

#include <QFile>

#include <csignal>
#include <memory>
#include <ostream>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace oru::io::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

/// Installs the real maintenance program.
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

TEST_F(LinuxBDFsck, Clean_SucceedsInOneRun) {
    LogCapture log("libio=12");
    EXPECT_EQ(device->fsck(nullptr), 0);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"fsck", "-t", "ext4", node()}));
    EXPECT_THAT(log.messages(), ElementsAre(QString("libio 12 SysCmd: fsck -t ext4 %1").arg(node()),
                                            "libio 12 Run 1 of 3 completed status 0\n"));
}

TEST_F(LinuxBDFsck, Damaged_Repaired) {
    ASSERT_TRUE(makeDamagedExt4(node(), directory("source")));
    ASSERT_TRUE(markErrors(node()));
    EXPECT_EQ(device->fsck(nullptr), 0);
    EXPECT_EQ(program->calls().size(), 1);
    EXPECT_TRUE(isSoundExt4(node()));
    ASSERT_EQ(device->mount(directory(), nullptr), 0);
    EXPECT_EQ(contents(directory() + "/file"), "precious");
    EXPECT_FALSE(QFile::exists(directory() + "/lost"));
}

// The superblock does not have the error state, so only a forced check finds the damage.
TEST_F(LinuxBDFsck, Options_PassedToChecker) {
    ASSERT_TRUE(makeDamagedExt4(node(), directory("source")));
    EXPECT_EQ(device->fsck(nullptr), 0);
    EXPECT_FALSE(isSoundExt4(node()));
    const Properties properties = with("cmd_opts", "-f -y");
    EXPECT_EQ(device->fsck(&properties), 0);
    EXPECT_TRUE(isSoundExt4(node()));
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"fsck", "-t", "ext4", node()},
                                              QStringList{"fsck", "-t", "ext4", node(), "-f -y"}));
}

TEST_F(LinuxBDFsck, Mounted_RefusedOnEveryRetry) {
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

TEST_F(LinuxBDFsck, Retries_LimitRuns) {
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

TEST_P(LinuxBDMkfsType, NewFileSystem_SoundAndLabelled) {
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

TEST_F(LinuxBDMkfs, NoType_FailsAfterOneRun) {
    const QString id = tagOf(node(), "UUID");
    EXPECT_EQ(device->mkfs(nullptr), tooFewArguments);
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"mkfs", "-t", node()}));
    EXPECT_EQ(tagOf(node(), "UUID"), id);
}

TEST_F(LinuxBDMkfs, Mounted_Refused) {
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

TEST_F(LinuxBDFormat, PartitionedDisk_OneFatPartition) {
    EXPECT_EQ(device->format(nullptr), 0);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"format", card->node()}));
    expectFormatted(*card);
}

TEST_F(LinuxBDFormat, MountedPartition_Refused) {
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

TEST_F(LinuxBDFormat, Kill_EndsUsersAndFormats) {
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
    const Properties properties = with("kill", false); // the value is ignored
    EXPECT_EQ(device->format(&properties), 0);
    EXPECT_THAT(program->calls(), ElementsAre(QStringList{"format", "-k", card->node()}));
    EXPECT_EQ(user.wait(), -SIGTERM);
    EXPECT_FALSE(isMountPoint(directory()));
    expectFormatted(*card);
}

} // namespace
} // namespace oru::io::test
