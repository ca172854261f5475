// SPDX-License-Identifier: Apache-2.0
#include "hardware.h"

#include "support/suite/qtprint.h"
#include "support/system/childprocess.h"
#include "support/system/files.h"
#include "support/system/loopdisk.h"
#include "support/system/mounts.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <functional>
#include <memory>

#include <libudev.h>
#include <sys/mount.h>

namespace oru::io::test {

using testing::AssertionFailure;
using testing::AssertionResult;
using testing::AssertionSuccess;

namespace {

/// The emulation is slow, more so when other programs run.
constexpr int timeoutSeconds = 120;

constexpr char imageDirectory[] = "/run/job";

// udev's link to a stick is named by the emulator's vendor, product and serial number.
constexpr char linkDirectory[] = "/dev/disk/by-id";
constexpr char linkBegin[] = "usb-QEMU_QEMU_HARDDISK_STICK-";
constexpr char linkEnd[] = "-0:0";

QString linkOf(const QString& stick) {
    return QString(linkDirectory) + '/' + linkBegin + stick + linkEnd;
}

/// The device of a node in udevd's database; false if there is none.
class UdevDevice {
public:
    explicit UdevDevice(const QString& node)
        : m_context(udev_new(), &udev_unref),
          m_device(udev_device_new_from_subsystem_sysname(m_context.get(), "block",
                                                          qPrintable(QFileInfo(node).fileName())),
                   &udev_device_unref) {}

    explicit operator bool() const {
        return m_device != nullptr;
    }
    udev_device* get() const {
        return m_device.get();
    }

private:
    const std::unique_ptr<udev, udev* (*)(udev*)> m_context;
    const std::unique_ptr<udev_device, udev_device* (*)(udev_device*)> m_device;
};

AssertionResult run(const QStringList& command) {
    const ToolRun done = runTool(command);
    if (done.status == 0)
        return AssertionSuccess();
    return AssertionFailure() << command.join(' ').toStdString() << ": " << done.status << ", "
                              << done.errors.toStdString();
}

AssertionResult await(const std::function<bool()>& condition, const QString& what) {
    if (eventually(condition, timeoutSeconds))
        return AssertionSuccess();
    return AssertionFailure() << what.toStdString() << ": not within " << timeoutSeconds << " s";
}

/// Whether udevd has processed the last event of all of these.
bool areKnown(const QStringList& nodes) {
    return std::all_of(nodes.begin(), nodes.end(), [](const QString& node) {
        const UdevDevice device(node);
        return device && udev_device_get_is_initialized(device.get());
    });
}

/// Waits until udevd has processed the events of an added disk and of its partitions. `path` is the
/// node or a link to it. When udevd has processed the disk, the kernel knows all of its partitions.
AssertionResult awaitDisk(const QString& path) {
    const auto isKnown = [&] {
        const QString disk = QFileInfo(path).canonicalFilePath();
        return areKnown({disk}) && areKnown(Hardware::nodes(disk));
    };
    const AssertionResult result = await(isKnown, path + " is known");
    return result ? Hardware::settle() : result;
}

/// Waits until udevd has processed the removal of the device with this directory in /sys. The
/// kernel sends the uevents before it removes the directory.
AssertionResult awaitGone(const QString& sysfsPath) {
    const AssertionResult result =
        await([&] { return !QFile::exists(sysfsPath); }, sysfsPath + " is removed");
    return result ? Hardware::settle() : result;
}

bool isCardInserted() {
    return !Hardware::sysfsPath(Hardware::card()).isEmpty();
}

bool isCardProtected() {
    return contents(Hardware::sysfsPath(Hardware::card()) + "/ro").trimmed() == "1";
}

QStringList stickNames() {
    QStringList names;
    for (QString link : QDir(linkDirectory).entryList({QString(linkBegin) + '*' + linkEnd}))
        names.append(link.remove(linkBegin).remove(linkEnd));
    return names;
}

} // namespace

QString Hardware::missing() {
    const QString tool = missingTool({"hw", "udevadm"});
    return tool.isEmpty() ? QString() : "needs the emulated device: " + tool + " is not installed";
}

AssertionResult Hardware::insertCard(bool isProtected) {
    QStringList command = {"hw", "sd-insert"};
    if (isProtected)
        command.append("ro");
    const AssertionResult result = run(command);
    return result ? awaitDisk(card()) : result;
}

AssertionResult Hardware::ejectCard() {
    const QString before = sysfsPath(card());
    if (before.isEmpty())
        return AssertionFailure() << "no card is inserted";
    const AssertionResult result = run({"hw", "sd-eject"});
    return result ? awaitGone(before) : result;
}

AssertionResult Hardware::copyCard(const QString& copy) {
    return run({"hw", "sd-copy", copy});
}

AssertionResult Hardware::insertCopy(const QString& copy) {
    const AssertionResult result = run({"hw", "sd-insert-copy", copy});
    return result ? awaitDisk(card()) : result;
}

QString Hardware::copyOfCard(const QString& copy) {
    return QString("%1/%2.img").arg(imageDirectory, copy);
}

AssertionResult Hardware::plug(const QString& stick, bool isProtected) {
    QStringList command = {"hw", "usb-plug", stick};
    if (isProtected)
        command.append("ro");
    const AssertionResult result = run(command);
    return result ? awaitDisk(linkOf(stick)) : result;
}

AssertionResult Hardware::unplug(const QString& stick) {
    const QString before = sysfsPath(Hardware::stick(stick));
    if (before.isEmpty())
        return AssertionFailure() << "not plugged in: " << stick.toStdString();
    const AssertionResult result = run({"hw", "usb-unplug", stick});
    return result ? awaitGone(before) : result;
}

AssertionResult Hardware::makeStick(const QString& stick, qint64 bytes, const QByteArray& table) {
    const QString image = QString("%1/usb-%2.img").arg(imageDirectory, stick);
    QFile::remove(image);
    QFile file(image);
    if (!file.open(QFile::WriteOnly) || !file.resize(bytes))
        return AssertionFailure() << image.toStdString() << ": "
                                  << file.errorString().toStdString();
    const ToolRun done = runTool({"sfdisk", "--quiet", image}, table);
    if (done.status == 0)
        return AssertionSuccess();
    return AssertionFailure() << "sfdisk: " << done.errors.toStdString();
}

AssertionResult Hardware::restore() {
    AssertionResult result = settle();
    if (result && isCardInserted() && isCardProtected())
        result = ejectCard();
    if (result && !isCardInserted())
        result = insertCard();
    for (const QString& name : stickNames()) {
        if (result && name != "vfat")
            result = unplug(name);
    }
    if (result && stick("vfat").isEmpty())
        result = plug("vfat");
    return result;
}

AssertionResult Hardware::settle() {
    return await(
        [] {
            return run({"udevadm", "settle", "--timeout=20"});
        },
        "udevd has processed all events");
}

QString Hardware::card(int partition) {
    return partition == 0 ? QString("/dev/mmcblk0") : QString("/dev/mmcblk0p%1").arg(partition);
}

QString Hardware::stick(const QString& name, int partition) {
    const QString disk = QFileInfo(linkOf(name)).canonicalFilePath();
    return partition == 0 || disk.isEmpty() ? disk : disk + QString::number(partition);
}

QStringList Hardware::nodes(const QString& disk) {
    QStringList found = {disk};
    const QString name = QFileInfo(disk).fileName();
    for (const QString& entry : QDir(sysfsPath(disk)).entryList({name + '*'}, QDir::Dirs))
        found.append("/dev/" + entry);
    return found;
}

QString Hardware::idPath(const QString& node) {
    const UdevDevice device(node);
    return device ? udev_device_get_property_value(device.get(), "ID_PATH") : QString();
}

QString Hardware::sysfsPath(const QString& node) {
    const QString name = QFileInfo(node).fileName();
    return name.isEmpty() ? name : QFileInfo("/sys/class/block/" + name).canonicalFilePath();
}

// --- HardwareTest -------------------------------------------------------------------------------

void HardwareTest::SetUp() {
    const QString missing = Hardware::missing();
    if (!missing.isEmpty())
        GTEST_SKIP() << missing.toStdString();
    ASSERT_TRUE(Hardware::restore());
}

void HardwareTest::TearDown() {
    unmountAll();
    if (!IsSkipped()) {
        EXPECT_TRUE(Hardware::restore());
    }
}

QString HardwareTest::directory(const char* name) const {
    return m_directory / name;
}

void HardwareTest::unmountAll() const {
    const QList<Mount> mounts = mountTable();
    for (auto mount = mounts.rbegin(); mount != mounts.rend(); ++mount) {
        if (mount->directory.startsWith(m_directory.path() + '/'))
            ::umount2(QFile::encodeName(mount->directory).constData(), MNT_DETACH);
    }
}

Batch HardwareTest::start() {
    return m_batches.start();
}

Batch HardwareTest::update() {
    return m_batches.update();
}

} // namespace oru::io::test
