// The hardware of the emulated device, as its user handles it: a slot for a card, and a USB port
// for sticks. There is one of each, for all test programs.
#pragma once

#include "support/system/monitorbatches.h"
#include "support/system/tempdir.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace oru::io::test {

/// What handles it has succeeded when the kernel has taken notice and udevd has told everybody.
class Hardware {
public:
    /// Why there is none here; empty when there is.
    static QString missing();

    /// The card, with its switch for write protection on or off.
    static testing::AssertionResult insertCard(bool isProtected = false);
    /// It may be mounted.
    static testing::AssertionResult ejectCard();
    /// Copies the card as a power cut at this moment would leave it, to the file copyOfCard().
    static testing::AssertionResult copyCard(const QString& copy);
    static testing::AssertionResult insertCopy(const QString& copy);
    static QString copyOfCard(const QString& copy);
    /// A stick: "vfat", "exfat", "efi", or one of makeStick(). Each of the three has a port of its
    /// own; there is one more, for one of the others. A protected one takes no writing.
    static testing::AssertionResult plug(const QString& stick, bool isProtected = false);
    /// It may be mounted.
    static testing::AssertionResult unplug(const QString& stick);
    /// Makes a stick of so many bytes, with the partitions that the script `table` has sfdisk(8)
    /// make.
    static testing::AssertionResult makeStick(const QString& stick, qint64 bytes,
                                              const QByteArray& table);
    /// As it is when the device starts: the card is in the slot, the stick "vfat" in a port. Who
    /// has put in a copy takes it out before.
    static testing::AssertionResult restore();
    /// Waits until udevd has told of all that happened so far.
    static testing::AssertionResult settle();

    /// The node of the card, or of one of its partitions.
    static QString card(int partition = 0);
    /// The node of a stick that is plugged in, or of one of its partitions; empty without it.
    static QString stick(const QString& name, int partition = 0);
    /// The node of a disk and those of the partitions that the kernel knows, in their order.
    static QStringList nodes(const QString& disk);
    /// The "ID_PATH" that udevd has for a node.
    static QString idPath(const QString& node);
    /// Where sysfs has the device of a node; empty when it has none.
    static QString place(const QString& node);
};

/// With the hardware as at the start of the device, which it also leaves so, and with the monitor's
/// batches. Skipped where there is no such hardware.
class HardwareTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /// A place to mount on. What is still mounted there when the test ends is unmounted.
    QString directory(const char* name = "mnt") const;
    /// Has the monitor tell of what there is.
    Batch start();
    /// Has the monitor tell of all that happened to the hardware, and of what else udevd has told
    /// (Hardware::settle()).
    Batch update();

private:
    void unmountAll() const;

    const TempDir m_directory;
    MonitorBatches m_batches;
};

} // namespace oru::io::test
