// SPDX-License-Identifier: Apache-2.0
// The hardware of the emulated device: a slot for a card, and USB ports for sticks. All test
// programs share it.
#pragma once

#include "support/system/monitorbatches.h"
#include "support/system/tempdir.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace oru::io::test {

/// Inserts and removes media. The functions return after the kernel has noticed the change and
/// udevd has processed it.
class Hardware {
public:
    /// Why there is no such hardware; empty if there is.
    static QString missing();

    /// Inserts the card with its write-protection switch on or off.
    static testing::AssertionResult insertCard(bool isProtected = false);
    /// Removes the card, which may be mounted.
    static testing::AssertionResult ejectCard();
    /// Copies the card to the file copyOfCard(), in the state that a power cut at this moment would
    /// leave.
    static testing::AssertionResult copyCard(const QString& copy);
    static testing::AssertionResult insertCopy(const QString& copy);
    static QString copyOfCard(const QString& copy);
    /// Plugs in a stick: "vfat", "exfat", "efi", or one of makeStick(). Each of the three has its
    /// own port; one more port is for a stick of makeStick(). A protected stick is read-only.
    static testing::AssertionResult plug(const QString& stick, bool isProtected = false);
    /// Removes a stick, which may be mounted.
    static testing::AssertionResult unplug(const QString& stick);
    /// Makes a stick of `bytes` bytes and partitions it with the sfdisk(8) script `table`.
    static testing::AssertionResult makeStick(const QString& stick, qint64 bytes,
                                              const QByteArray& table);
    /// Restores the state after boot: the card is in the slot, the stick "vfat" in its port. A test
    /// that inserted a copy of the card must eject it before.
    static testing::AssertionResult restore();
    /// Waits until udevd has processed all events so far.
    static testing::AssertionResult settle();

    /// The node of the card, or of one of its partitions.
    static QString card(int partition = 0);
    /// The node of a stick that is plugged in, or of one of its partitions; empty if the stick is
    /// not plugged in.
    static QString stick(const QString& name, int partition = 0);
    /// The node of a disk, and the nodes of the partitions known to the kernel in their order.
    static QStringList nodes(const QString& disk);
    /// The "ID_PATH" of a node in udevd's database.
    static QString idPath(const QString& node);
    /// The directory in /sys of a node's device; empty if there is none.
    static QString sysfsPath(const QString& node);
};

/// Restores the hardware before and after each test, and collects the monitor's batches. Skipped if
/// there is no such hardware.
class HardwareTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /// A directory to mount on. TearDown() unmounts it.
    QString directory(const char* name = "mnt") const;
    /// Starts the monitor. \returns the batch of the devices that are present.
    Batch start();
    /// Calls BDMon::update(). \returns the batch of all changes of the hardware. Events of other
    /// causes are included after Hardware::settle().
    Batch update();

private:
    void unmountAll() const;

    const TempDir m_directory;
    MonitorBatches m_batches;
};

} // namespace oru::io::test
