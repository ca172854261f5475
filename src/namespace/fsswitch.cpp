// SPDX-License-Identifier: Apache-2.0
#include <oruio/fsswitch.h>

#include "core/errnosaver_p.h"
#include "core/forksafemutex_p.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

#include "core/log_p.h"
#include "core/notimplemented_p.h"

namespace oru::io {

ORUIO_LOG_CHANNEL("libio");

namespace {

/// Appends a slash unless there is one. \returns false, without a change, when `mountPoint` is not
/// absolute.
bool normalise(QString& mountPoint) {
    if (!mountPoint.startsWith(QLatin1Char('/')))
        return false;
    if (!mountPoint.endsWith(QLatin1Char('/')))
        mountPoint.append(QLatin1Char('/'));
    return true;
}

/// Whether `path` is below `mountPoint`, or names it without its slash. This runs for every entry
/// on every call, so the cheap test of the slash comes before the comparison of the strings.
bool serves(const QString& mountPoint, const QString& path) {
    const int stem = mountPoint.size() - 1;
    if (path.size() < stem || (path.size() > stem && path.at(stem) != QLatin1Char('/')))
        return false;
    return std::memcmp(path.constData(), mountPoint.constData(), stem * sizeof(QChar)) == 0;
}

} // namespace

class FSSwitch::Data {
public:
    /// The result of a lookup: the file system, or null, and the length of its mount point without
    /// the slash at the end.
    struct Target {
        QSharedPointer<FS> fs;
        int stem = 0;

        /// The rest of the path, within the file system.
        QString rest(const QString& path) const {
            return path.size() > stem ? path.mid(stem) : QStringLiteral("/");
        }
    };

    /// Finds the entry that serves `path`. Sets liberrno to Ok or NotFound and keeps errno.
    Target lookup(const QString& path);

    /// Calls `operation` with the file system that serves `path` and the rest of the path. \returns
    /// its result, or -1 when nothing is mounted there.
    template <class Operation>
    int forward(const QString& path, Operation operation) {
        Target target = lookup(path);
        if (!target.fs)
            return -1;
        int result = -1;
        int reason = 0;
        {
            const QString rest = target.rest(path);
            result = operation(*target.fs, rest);
            reason = errno;
        }
        errno = reason; // freeing the string may change it
        release(target.fs);
        return result;
    }

    /// The same for two paths. \returns -1 unless the same entry serves both.
    template <class Operation>
    int forward(const QString& first, const QString& second, Operation operation) {
        Target target = lookup(first);
        Target other = lookup(second);
        // Mount points are unique, and each path begins with its own.
        const bool sameEntry = target.fs && target.fs == other.fs && target.stem == other.stem &&
                               first.leftRef(target.stem) == second.leftRef(other.stem);
        int result = -1;
        int reason = errno;
        if (sameEntry) {
            const QString firstRest = target.rest(first);
            const QString secondRest = target.rest(second);
            result = operation(*target.fs, firstRest, secondRest);
            reason = errno;
        }
        errno = reason;
        release(other.fs);
        release(target.fs);
        return result;
    }

    /// The same for an operation that opens a file or directory.
    template <class Opened, class Operation>
    QSharedPointer<Opened> opened(const QString& path, Operation operation) {
        Target target = lookup(path);
        if (!target.fs)
            return {};
        QSharedPointer<Opened> result;
        int reason = 0;
        {
            const QString rest = target.rest(path);
            result = operation(*target.fs, rest);
            reason = errno;
        }
        errno = reason;
        release(target.fs);
        return result;
    }

    static QSharedPointer<FSSwitch>& theRootfs();
    static ForkSafeMutex& rootfsMutex();
    static void unloadRootfs();
    /// Destroyed when the library is unloaded.
    static struct Unloader {
        ~Unloader() {
            unloadRootfs();
        }
    } unloader;

    QVector<FSEntry> entries;
    ForkSafeMutex mutex; // guards entries
};

/// The root switch and its mutex are never destroyed, as detached threads and the destructors of
/// other static objects may use them to the end of the process.
QSharedPointer<FSSwitch>& FSSwitch::Data::theRootfs() {
    static auto& rootfs = *new QSharedPointer<FSSwitch>;
    return rootfs;
}

ForkSafeMutex& FSSwitch::Data::rootfsMutex() {
    static auto& mutex = *new ForkSafeMutex;
    return mutex;
}

/// Releases the root switch and what is mounted in it, so that connections end in order. A holder
/// of the switch, such as the root adapter, finds nothing mounted afterwards.
void FSSwitch::Data::unloadRootfs() {
    SPtr rootfs;
    QVector<FSEntry> unmounted;
    {
        const std::lock_guard lock(rootfsMutex());
        theRootfs().swap(rootfs);
    }
    if (!rootfs)
        return;
    const std::lock_guard lock(rootfs->m_data->mutex);
    rootfs->m_data->entries.swap(unmounted);
}

FSSwitch::Data::Target FSSwitch::Data::lookup(const QString& path) {
    Target target;
    const int reason = errno; // waiting for the lock may change it
    {
        const std::lock_guard lock(mutex);
        for (int i = entries.size() - 1; i >= 0; --i) {
            const FSEntry& entry = entries.at(i);
            if (serves(entry.mountPoint, path)) {
                target = {entry.fs, entry.mountPoint.size() - 1};
                break;
            }
        }
    }
    errno = reason;
    liberrno = target.fs ? Ok : NotFound;
    return target;
}

FSSwitch::Data::Unloader FSSwitch::Data::unloader;

FSSwitch::FSSwitch() : FS(QStringLiteral("FSSwitchFS")), m_data(new Data) {}

FSSwitch::~FSSwitch() = default;

void FSSwitch::add(QString mountPoint, QSharedPointer<FS> fs) {
    if (!normalise(mountPoint)) {
        ORUIO_LOG(LogDebug, "Invalid mount point '%s'. Must be an absolute path.",
                  qUtf8Printable(mountPoint));
        return;
    }
    if (!fs) {
        ORUIO_LOG(LogDebug, "No file system for mount point '%s'.", qUtf8Printable(mountPoint));
        return;
    }
    const std::lock_guard lock(m_data->mutex);
    auto& entries = m_data->entries;
    int index = 0;
    for (int i = 0; i < entries.size(); ++i) {
        const QString& existing = entries.at(i).mountPoint;
        if (existing == mountPoint)
            return;
        if (index == 0 && existing.size() < mountPoint.size())
            index = i + 1;
    }
    entries.insert(index, FSEntry{std::move(mountPoint), std::move(fs)});
}

void FSSwitch::remove(QString mountPoint) {
    if (!normalise(mountPoint))
        return;
    const ErrnoSaver saver;
    QSharedPointer<FS> removed;
    {
        const std::lock_guard lock(m_data->mutex);
        auto& entries = m_data->entries;
        for (int i = 0; i < entries.size() && !removed; ++i) {
            if (entries.at(i).mountPoint == mountPoint)
                removed = entries.takeAt(i).fs;
        }
    }
    removed.clear(); // without the lock, as it may be destroyed, which may take long
}

QSharedPointer<FS> FSSwitch::getFS(QString path, QString* rest) {
    const Data::Target target = m_data->lookup(path);
    if (target.fs && rest)
        *rest = target.rest(path);
    return target.fs;
}

QStringList FSSwitch::getMountPoints(QSharedPointer<FS> fs) {
    QStringList mountPoints;
    const std::lock_guard lock(m_data->mutex);
    for (const FSEntry& entry : qAsConst(m_data->entries)) {
        if (entry.fs == fs)
            mountPoints.append(entry.mountPoint);
    }
    return mountPoints;
}

QSharedPointer<FS> FSSwitch::mountedAt(QString mountPoint) const {
    if (!normalise(mountPoint))
        return {};
    const std::lock_guard lock(m_data->mutex);
    for (const FSEntry& entry : qAsConst(m_data->entries)) {
        if (entry.mountPoint == mountPoint)
            return entry.fs;
    }
    return {};
}

QSharedPointer<FSSwitch> FSSwitch::rootfs() {
    {
        const std::lock_guard lock(Data::rootfsMutex());
        if (Data::theRootfs())
            return Data::theRootfs();
    }
    // Without the lock, as a switch has a mutex of the same type. Another thread may be faster.
    const SPtr created = SPtr::create();
    const std::lock_guard lock(Data::rootfsMutex());
    if (!Data::theRootfs())
        Data::theRootfs() = created;
    return Data::theRootfs();
}

void FSSwitch::setRootfs(QSharedPointer<FSSwitch>& fs) {
    // Declared before the lock, so that the old switch is destroyed after it.
    SPtr replaced = fs;
    const std::lock_guard lock(Data::rootfsMutex());
    Data::theRootfs().swap(replaced);
}

int FSSwitch::addWatch(QString) {
    return notImplemented();
}

int FSSwitch::remWatch(QString) {
    return notImplemented();
}

QSharedPointer<File> FSSwitch::open(QString path, int flags, int mode) {
    return m_data->opened<File>(
        path, [=](FS& fs, const QString& rest) { return fs.open(rest, flags, mode); });
}

QSharedPointer<Directory> FSSwitch::opendir(QString path) {
    return m_data->opened<Directory>(path,
                                     [](FS& fs, const QString& rest) { return fs.opendir(rest); });
}

int FSSwitch::lstat(QString path, struct stat& st) {
    return m_data->forward(path, [&](FS& fs, const QString& rest) { return fs.lstat(rest, st); });
}

int FSSwitch::stat(QString path, struct stat& st) {
    return m_data->forward(path, [&](FS& fs, const QString& rest) { return fs.stat(rest, st); });
}

int FSSwitch::statfs(QString path, struct statfs& st) {
    return m_data->forward(path, [&](FS& fs, const QString& rest) { return fs.statfs(rest, st); });
}

int FSSwitch::link(QString oldPath, QString newPath) {
    return m_data->forward(oldPath, newPath,
                           [](FS& fs, const QString& oldRest, const QString& newRest) {
                               return fs.link(oldRest, newRest);
                           });
}

int FSSwitch::unlink(QString path) {
    return m_data->forward(path, [](FS& fs, const QString& rest) { return fs.unlink(rest); });
}

int FSSwitch::mkdir(QString path, int mode) {
    return m_data->forward(path, [&](FS& fs, const QString& rest) { return fs.mkdir(rest, mode); });
}

int FSSwitch::rmdir(QString path) {
    return m_data->forward(path, [](FS& fs, const QString& rest) { return fs.rmdir(rest); });
}

int FSSwitch::rename(QString oldPath, QString newPath) {
    return m_data->forward(oldPath, newPath,
                           [](FS& fs, const QString& oldRest, const QString& newRest) {
                               return fs.rename(oldRest, newRest);
                           });
}

void FSSwitch::sync() {
    const std::lock_guard lock(m_data->mutex);
    m_data->mutex.setReading();
    for (const FSEntry& entry : qAsConst(m_data->entries))
        entry.fs->sync();
}

int FSSwitch::getxattr(QString path, QString name, void* value, unsigned int size) {
    return m_data->forward(
        path, [&](FS& fs, const QString& rest) { return fs.getxattr(rest, name, value, size); });
}

int FSSwitch::setxattr(QString path, QString name, void* value, unsigned int size, int flags) {
    return m_data->forward(path, [&](FS& fs, const QString& rest) {
        return fs.setxattr(rest, name, value, size, flags);
    });
}

int FSSwitch::removexattr(QString path, QString name) {
    return m_data->forward(path,
                           [&](FS& fs, const QString& rest) { return fs.removexattr(rest, name); });
}

int FSSwitch::listxattr(QString path, QVector<QString>& names) {
    return m_data->forward(path,
                           [&](FS& fs, const QString& rest) { return fs.listxattr(rest, names); });
}

int FSSwitch::listxattr(QString path, char* list, unsigned int size) {
    return m_data->forward(
        path, [&](FS& fs, const QString& rest) { return fs.listxattr(rest, list, size); });
}

int FSSwitch::symlink(QString target, QString linkPath) {
    return m_data->forward(linkPath,
                           [&](FS& fs, const QString& rest) { return fs.symlink(target, rest); });
}

int FSSwitch::readlink(QString path, QString& target) {
    return m_data->forward(path,
                           [&](FS& fs, const QString& rest) { return fs.readlink(rest, target); });
}

int FSSwitch::readlink(QString path, char* buf, unsigned int size) {
    return m_data->forward(
        path, [&](FS& fs, const QString& rest) { return fs.readlink(rest, buf, size); });
}

int FSSwitch::truncate(QString path, long long length) {
    return m_data->forward(path,
                           [&](FS& fs, const QString& rest) { return fs.truncate(rest, length); });
}

int FSSwitch::chmod(QString path, int mode) {
    return m_data->forward(path, [&](FS& fs, const QString& rest) { return fs.chmod(rest, mode); });
}

int FSSwitch::ioctl(QString, QString&) {
    return notImplemented();
}

} // namespace oru::io
