// SPDX-License-Identifier: Apache-2.0
// Fixtures for tests with loop disks: the kernel's file systems, a real udevd and the real
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

// Exit statuses of the maintenance program, see oruio_sysutils(8).
constexpr int tooFewArguments = 3;
constexpr int inUse = 23;
constexpr int isProtected = 26;
constexpr int notChecked = 41;

/// Script for MaintenanceProgram: records the call and runs the real program.
extern const char realMaintenance[];

bool makeExt4(const QString& node, const QStringList& options = {});
/// Makes an ext4 file system with the file "file" that contains "precious", and with a directory
/// whose inode is cleared. `source` is a directory for the files to copy.
bool makeDamagedExt4(const QString& node, const QString& source);
/// Sets the error state in the superblock, as the kernel does when it finds an error. A check
/// without -f then searches for errors.
bool markErrors(const QString& node);
/// Whether a forced check finds no error.
bool isSoundExt4(const QString& node);

/// The first program needed to format that is not installed; empty if all are.
QString missingToFormat();
/// The value of a tag of blkid(8), read from the device.
QString tagOf(const QString& node, const char* tag);
/// Expects the layout for a card of 64 MiB: one partition with one FAT file system.
void expectFormatted(const LoopDisk& card);

bool isMountPoint(const QString& directory);

/// Runs in private mount and network namespaces; skipped if loop disks cannot be created.
class DiskTest : public testing::Test {
protected:
    void SetUp() override;

    QString directory(const char* name = "mnt") const;

private:
    const TempDir m_directory; // declared first: outlives the mounts in it
};

/// Runs a udevd and collects the monitor's batches.
class MonitorTest : public DiskTest {
protected:
    void SetUp() override;

    /// An "ID_PATH" that no other process uses.
    static QString idPath(int number = 1);
    bool plugIn(const LoopDisk& disk, const QString& path = idPath()) const;
    bool unplug(const LoopDisk& disk) const;
    /// Starts the monitor. \returns the batch of the devices that are present.
    Batch start();
    /// Waits for udevd and calls BDMon::update(). \returns the batch.
    Batch update();

    std::unique_ptr<Udevd> udevd;

private:
    MonitorBatches m_batches;
};

} // namespace oru::io::test
