// SPDX-License-Identifier: Apache-2.0
#include "support/system/disktest.h"

#include "support/system/files.h"
#include "support/system/isolation.h"
#include "support/system/mounts.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cerrno>
#include <cstring>

#include <unistd.h>

namespace oru::io::test {

namespace {

/// Whether this is root outside of a user namespace. Root of a user namespace cannot mount disks.
bool isInitialRoot() {
    const QByteArray allUsers = "0 0 4294967295";
    return geteuid() == 0 && contents("/proc/self/uid_map").simplified() == allUsers;
}

/// Creates the private namespaces. \returns why tests with loop disks cannot run; empty if they
/// can.
QString problemWithDisks() {
    static const QString problem = [] {
        if (!isInitialRoot())
            return QStringLiteral("needs root outside of a user namespace");
        const QString tool = missingTool({"blkid", "debugfs", "e2fsck", "mkfs.ext4"});
        if (!tool.isEmpty())
            return tool + " is not installed";
        if (!isolate(Namespaces::MountAndNetwork))
            return QStringLiteral("cannot create private namespaces: %1").arg(std::strerror(errno));
        return LoopDisk::missing();
    }();
    return problem;
}

} // namespace

const char realMaintenance[] = "exec '" ORUIO_SYSUTILS "' \"$@\"";

bool makeExt4(const QString& node, const QStringList& options) {
    return runTool(QStringList{"mkfs.ext4", "-q"} + options + QStringList{node}).status == 0;
}

bool makeDamagedExt4(const QString& node, const QString& source) {
    return QDir().mkpath(source + "/lost") && makeFile(source + "/file", "precious") &&
           makeExt4(node, {"-F", "-d", source}) &&
           runTool({"debugfs", "-w", "-R", "clri /lost", node}).status == 0 && !isSoundExt4(node);
}

bool markErrors(const QString& node) {
    return runTool({"debugfs", "-w", "-R", "set_super_value state 2", node}).status == 0;
}

bool isSoundExt4(const QString& node) {
    return runTool({"e2fsck", "-f", "-n", node}).status == 0;
}

QString missingToFormat() {
    return missingTool({"fsck.vfat", "mkfs.exfat", "mkfs.vfat"});
}

QString tagOf(const QString& node, const char* tag) {
    return outputOf({"blkid", "-p", "-o", "value", "-s", tag, node});
}

void expectFormatted(const LoopDisk& card) {
    const QString table = outputOf({"sfdisk", "--json", card.node()});
    const QJsonArray partitions =
        QJsonDocument::fromJson(table.toUtf8())["partitiontable"]["partitions"].toArray();
    ASSERT_EQ(partitions.size(), 1) << table.toStdString();
    EXPECT_EQ(partitions[0]["node"].toString(), card.node(1));
    EXPECT_EQ(partitions[0]["start"].toInt(), 64 * 1024 / 512);
    EXPECT_EQ(partitions[0]["size"].toInt(), 64 * MiB / 512 - 64 * 1024 / 512);
    EXPECT_EQ(partitions[0]["type"].toString(), "6");
    EXPECT_EQ(card.partitions(), QList<int>{1});
    EXPECT_EQ(tagOf(card.node(), "PTTYPE"), "dos");
    EXPECT_EQ(tagOf(card.node(1), "TYPE"), "vfat");
    EXPECT_EQ(runTool({"fsck.vfat", "-n", card.node(1)}).status, 0);
}

bool isMountPoint(const QString& directory) {
    return !devicesAt(directory).isEmpty();
}

// --- DiskTest -----------------------------------------------------------------------------------

void DiskTest::SetUp() {
    const QString problem = problemWithDisks();
    if (!problem.isEmpty())
        GTEST_SKIP() << problem.toStdString();
}

QString DiskTest::directory(const char* name) const {
    return m_directory / name;
}

// --- MonitorTest --------------------------------------------------------------------------------

void MonitorTest::SetUp() {
    DiskTest::SetUp();
    if (IsSkipped())
        return;
    const QString missing = Udevd::missing();
    if (!missing.isEmpty())
        GTEST_SKIP() << missing.toStdString();
    udevd = std::make_unique<Udevd>();
    ASSERT_EQ(udevd->problem(), "");
}

QString MonitorTest::idPath(int number) {
    return QString("platform-test.%1-usb-0:%2:1.0-scsi-0:0:0:0").arg(getpid()).arg(number);
}

bool MonitorTest::plugIn(const LoopDisk& disk, const QString& path) const {
    return udevd->setIdPath(disk.name(), path) && disk.plugIn() && udevd->settle();
}

bool MonitorTest::unplug(const LoopDisk& disk) const {
    const bool isUnplugged = disk.unplug() && udevd->settle();
    udevd->clearIdPath(disk.name());
    return isUnplugged;
}

Batch MonitorTest::start() {
    return m_batches.start();
}

Batch MonitorTest::update() {
    EXPECT_TRUE(udevd->settle());
    return m_batches.update();
}

} // namespace oru::io::test
