// Tests on disks of their own, with the kernel's file systems, a real udevd and the real
// maintenance program.
#pragma once

#include "support/system/loopdisk.h"
#include "support/system/monitorbatches.h"
#include "support/system/tempdir.h"
#include "support/system/udevd.h"

#include <gtest/gtest.h>

#include <QString>
#include <QStringList>

#include <memory>

namespace oru::io::test {

constexpr qint64 MiB = LoopDisk::MiB;
constexpr char onePartition[] = "label: dos\nstart=1MiB, type=83\n";
constexpr char twoPartitions[] =
    "label: dos\nstart=1MiB, size=16MiB, type=83\nstart=17MiB, size=20MiB, type=c\n";

// Exit statuses of the maintenance program.
constexpr int tooFewArguments = 3;
constexpr int inUse = 23;
constexpr int isProtected = 26;
constexpr int notChecked = 41;

/// What has a MaintenanceProgram record its calls and be the real one.
extern const char realMaintenance[];

bool makeExt4(const QString& node, const QStringList& options = {});
/// Makes one with the file "file" of the text "precious", and a directory of which only the name is
/// left. `source`: for what it is made from.
bool makeDamagedExt4(const QString& node, const QString& source);
/// Notes errors in it, as the kernel does when it comes upon one: a check then looks for them.
bool noteErrors(const QString& node);
/// Whether a forced check finds nothing.
bool isSoundExt4(const QString& node);

/// The first program that formatting takes and that is not installed; empty when all are.
QString missingToFormat();
/// The value of a tag of blkid's, read from the device.
QString tagOf(const QString& node, const char* tag);
/// One FAT file system on one partition, as befits a card of 64 MiB.
void expectFormatted(const LoopDisk& card);

bool isMountPoint(const QString& directory);

/// With mounts and a network of the program's own; skipped where it can have no disks.
class DiskTest : public testing::Test {
protected:
    void SetUp() override;

    QString directory(const char* name = "mnt") const;

private:
    const TempDir m_directory; // outlives the mounts on its directories
};

/// With a udevd, and with the monitor's batches.
class MonitorTest : public DiskTest {
protected:
    void SetUp() override;

    /// An ID_PATH that no other process uses.
    static QString idPath(int number = 1);
    bool plugIn(const LoopDisk& disk, const QString& path = idPath()) const;
    bool unplug(const LoopDisk& disk) const;
    /// Has the monitor tell of what there is.
    Batch start();
    /// Has the monitor tell of all that happened.
    Batch update();

    std::unique_ptr<Udevd> udevd;

private:
    MonitorBatches m_batches;
};

} // namespace oru::io::test
