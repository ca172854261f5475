// SPDX-License-Identifier: Apache-2.0
#include "support/system/loopdisk.h"

#include "support/system/childprocess.h"
#include "support/system/files.h"
#include "support/system/mounts.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace oru::io::test {

namespace {

const QStringList toolDirectories = {"/usr/sbin", "/usr/bin", "/sbin", "/bin"};

// Reads one word. End of file without a word means that the test's process has died: then it
// detaches $image from its loop device and removes its directory. A disk that is still mounted is
// detached when the last process of the mount namespace ends, which may be this one.
constexpr char guardScript[] = R"(
exec 3<&0
{
    read -r _ || {
        losetup --list --noheadings --output NAME --associated "$image" | while read -r disk; do
            partx --delete "$disk"
            blockdev --setrw "$disk"
            losetup --detach "$disk"
        done
        rm -rf "${image%/*}"
    }
} <&3 3<&- >/dev/null 2>&1 &
)";

/// Held by a program while it looks for a free loop device.
const QString attachLock = "/dev/loop-control";

// Attaches the image $1 again to its loop device $0, as soon as no process has that open.
constexpr char exchangeScript[] = R"(
losetup --detach "$0"
for _ in $(seq 500); do
    losetup --partscan "$0" "$1" 2>/dev/null && exit
    sleep 0.02
done
exit 1
)";

/// Starts the guard of an image, which is not a child of this process. \returns a pipe to it.
FILE* startGuard(const QString& image) {
    const QString script = QStringLiteral("PATH=%1 image='%2'\n%3")
                               .arg(toolDirectories.join(':'), image, QLatin1String(guardScript));
    return ::popen(qPrintable(script), "we");
}

bool isBlockDevice(const QString& path) {
    struct stat status;
    return ::stat(qPrintable(path), &status) == 0 && S_ISBLK(status.st_mode);
}

} // namespace

ToolRun runTool(const QStringList& command, const QByteArray& input) {
    QProcess process;
    const QStringList environment = {"PATH=" + toolDirectories.join(':'), "LC_ALL=C"};
    process.start("/usr/bin/env", environment + command);
    process.write(input);
    process.closeWriteChannel();
    const bool hasExited = process.waitForStarted() && process.waitForFinished() &&
                           process.exitStatus() == QProcess::NormalExit;
    return {hasExited ? process.exitCode() : -1, process.readAllStandardOutput(),
            process.readAllStandardError()};
}

QString outputOf(const QStringList& command) {
    const ToolRun run = runTool(command);
    return QString::fromUtf8(run.status == 0 ? run.output : run.errors).trimmed();
}

QString missingTool(const QStringList& names) {
    for (const QString& name : names) {
        if (QStandardPaths::findExecutable(name, toolDirectories).isEmpty())
            return name;
    }
    return {};
}

QString LoopDisk::missing() {
    const QString tool =
        missingTool({"blockdev", "flock", "losetup", "partx", "resizepart", "sfdisk"});
    if (!tool.isEmpty())
        return tool + " is not installed";
    const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    if (control == -1)
        return QStringLiteral("cannot open /dev/loop-control: %1").arg(std::strerror(errno));
    ::close(control);
    if (::access("/sys/block", W_OK) != 0)
        return QStringLiteral("cannot write to /sys: %1").arg(std::strerror(errno));
    return {};
}

LoopDisk::LoopDisk(qint64 bytes, const QByteArray& table, int sectorSize) {
    QFile file(image());
    if (!file.open(QFile::WriteOnly) || !file.resize(bytes)) {
        m_problem = file.errorString();
        return;
    }
    m_guard.reset(startGuard(image()));
    attach(sectorSize);
    if (m_problem.isEmpty() && !table.isEmpty())
        addPartitions(table);
}

/// Attaches the image to a free loop device.
void LoopDisk::attach(int sectorSize) {
    // --partscan: the kernel removes the partitions when the device is detached. Its scan finds
    // none here, because the image is still empty.
    const ToolRun run = runTool({"flock", attachLock, "losetup", "--find", "--show", "--partscan",
                                 "--sector-size", QString::number(sectorSize), image()});
    m_name = QFileInfo(QString::fromUtf8(run.output).trimmed()).fileName();
    if (run.status != 0 || !isAttached())
        m_problem = "cannot attach a disk: " + QString::fromUtf8(run.errors);
}

void LoopDisk::addPartitions(const QByteArray& table) {
    // A program that opened the node of a removed partition for writing has created a regular file
    // there.
    for (const QString& path : QDir("/dev").entryList({m_name + "p*"}, QDir::Files)) {
        if (!isBlockDevice("/dev/" + path))
            QFile::remove("/dev/" + path);
    }
    ToolRun run = runTool({"sfdisk", "--quiet", "--no-reread", "--no-tell-kernel", node()}, table);
    if (run.status == 0)
        run = runTool({"partx", "--update", node()});
    const QList<int> added = partitions();
    const bool haveNodes = std::all_of(added.begin(), added.end(), [this](int partition) {
        return eventually([&] { return isBlockDevice(node(partition)); });
    });
    if (run.status != 0 || added.isEmpty() || !haveNodes)
        m_problem = "cannot partition the disk: " + QString::fromUtf8(run.errors);
}

LoopDisk::~LoopDisk() {
    if (isAttached())
        unmount();
    // A disk that was pulled out detaches itself, and its loop device may already belong to the
    // next disk. Otherwise another process may have it open for a moment: it is detached after
    // that.
    if (isAttached() && !m_isPulledOut) {
        removePartitions();
        setWriteProtected(false); // the flag would stay on the loop device for the next disk
        runTool({"losetup", "--detach", node()});
    }
    if (!eventually([this] { return !isAttached(); }))
        std::fprintf(stderr, "%s is still attached\n", qPrintable(node()));
    else if (m_guard)
        std::fputs("done\n", m_guard.get());
}

void LoopDisk::GuardCloser::operator()(FILE* guard) const {
    ::pclose(guard);
}

/// Unmounts the disk in this mount namespace.
void LoopDisk::unmount() const {
    const QList<Mount> mounts = mountTable();
    for (auto mount = mounts.rbegin(); mount != mounts.rend(); ++mount) {
        if (mount->device == node() || mount->device.startsWith(node() + 'p'))
            ::umount2(QFile::encodeName(mount->directory).constData(), MNT_DETACH);
    }
}

bool LoopDisk::removePartitions() const {
    return eventually([this] {
        return partitions().isEmpty() || runTool({"partx", "--delete", node()}).status == 0;
    });
}

QString LoopDisk::problem() const {
    return m_problem;
}

QString LoopDisk::name() const {
    return m_name;
}

QString LoopDisk::node(int partition) const {
    const QString disk = "/dev/" + m_name;
    return partition == 0 ? disk : disk + 'p' + QString::number(partition);
}

QString LoopDisk::sysfsPath(int partition) const {
    const QString disk = "/sys/block/" + m_name;
    return partition == 0 ? disk : disk + '/' + m_name + 'p' + QString::number(partition);
}

QList<int> LoopDisk::partitions() const {
    QList<int> numbers;
    for (const QString& entry : QDir(sysfsPath()).entryList({m_name + "p*"}, QDir::Dirs))
        numbers.append(entry.mid(m_name.size() + 1).toInt());
    return numbers;
}

QString LoopDisk::image() const {
    return m_directory / "disk.img";
}

bool LoopDisk::isAttached() const {
    return !m_name.isEmpty() &&
           QString::fromUtf8(contents(sysfsPath() + "/loop/backing_file")).trimmed() == image();
}

bool LoopDisk::sendUevent(const char* action, int partition) const {
    QFile file(sysfsPath(partition) + "/uevent");
    return file.open(QFile::WriteOnly | QFile::Unbuffered) && file.write(action) > 0;
}

bool LoopDisk::plugIn() const {
    const QList<int> all = partitions();
    return sendUevent("add") && std::all_of(all.begin(), all.end(), [this](int number) {
               return sendUevent("add", number);
           });
}

bool LoopDisk::unplug() const {
    return removePartitions() && sendUevent("remove");
}

bool LoopDisk::exchange() const {
    return unplug() &&
           runTool({"flock", attachLock, "sh", "-c", exchangeScript, node(), image()}).status ==
               0 &&
           runTool({"partx", "--update", node()}).status == 0;
}

bool LoopDisk::removePartition(int partition) const {
    return eventually([&] {
        return runTool({"partx", "--delete", "--nr", QString::number(partition), node()}).status ==
               0;
    });
}

bool LoopDisk::pullOut() {
    m_isPulledOut = true;
    const QList<int> all = partitions();
    // The kernel does not remove a mounted partition. Shrinking it to one sector makes reads and
    // writes fail instead.
    return std::all_of(all.begin(), all.end(),
                       [this](int number) {
                           const QString partition = QString::number(number);
                           return runTool({"resizepart", node(), partition, "1"}).status == 0;
                       }) &&
           runTool({"losetup", "--detach", node()}).status == 0 &&
           std::all_of(all.begin(), all.end(),
                       [this](int number) { return sendUevent("remove", number); }) &&
           sendUevent("remove");
}

bool LoopDisk::setWriteProtected(bool isProtected) const {
    return runTool({"blockdev", isProtected ? "--setro" : "--setrw", node()}).status == 0;
}

} // namespace oru::io::test
