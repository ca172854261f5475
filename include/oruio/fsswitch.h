// SPDX-License-Identifier: Apache-2.0
/// \file
/// The mount switch: joins file systems under absolute mount points into one namespace.
///
/// The application decides which file system is mounted where. The library adds no mount points by
/// itself. To mount in a switch means to add an entry to a table: mount(2) is not called.
///
/// \code
/// FSSwitch::rootfs()->add("/media/card", PosixFS::SPtr::create("/mnt/sd1"));
/// File::SPtr clip = FSSwitch::rootfs()->open("/media/card/clip.mov", O_RDONLY, 0);
/// \endcode
#pragma once

#include <oruio/fs.h>

#include <QStringList>

#include <memory>

namespace oru::io {

/// One entry of a mount table.
struct FSEntry {
    QString mountPoint;    ///< absolute, ends with a slash
    QSharedPointer<FS> fs; ///< what is mounted there
};

/// An FS that forwards each operation to the file system mounted for its path.
///
/// Forwarding:
///
/// - The lookup of the path sets liberrno to Ok or NotFound.
/// - When nothing is mounted for the path, the result is -1 or null with liberrno NotFound. errno
///   stays unchanged.
/// - Otherwise the result is that of the mounted file system. The call holds a reference to it
///   until it returns: remove() on another thread does not destroy it during the call.
///
/// Which mount point serves a path:
///
/// - A mount point fits its own path, with or without the slash at the end, and all paths below it.
/// - When several mount points fit, the last one in the table serves the path.
/// - add() inserts a mount point directly after the first one that is shorter, or at the start of
///   the table if none is shorter. So the last one that fits is usually the longest, but not
///   always: after adding `/`, `/a/` and `/a/b/` in this order, `/a/` serves `/a/b/x`.
/// - To let the longest mount point always serve, add longer mount points before shorter ones.
///
/// Threads: any thread may call any operation. The switch holds no lock during a forwarded call,
/// with one exception: sync() holds the lock of the table. So sync() of a mounted file system must
/// not call the same switch.
///
/// In a child of fork(2) the switch works, with the mounts that it had at the time of the fork.
class ORUIO_EXPORT FSSwitch : public FS {
public:
    using SPtr = QSharedPointer<FSSwitch>;

    /// Makes an empty switch: nothing is mounted, not even at the root.
    FSSwitch();
    ~FSSwitch() override;

    /// Not implemented.
    int addWatch(QString path) override;
    /// Not implemented.
    int remWatch(QString path) override;
    QSharedPointer<File> open(QString path, int flags, int mode) override;
    QSharedPointer<Directory> opendir(QString path) override;
    int lstat(QString path, struct stat& st) override;
    int stat(QString path, struct stat& st) override;
    int statfs(QString path, struct statfs& st) override;
    /// Makes a hard link within one mount. When the paths belong to different mounts, it fails as
    /// rename() does.
    int link(QString oldPath, QString newPath) override;
    int unlink(QString path) override;
    int mkdir(QString path, int mode) override;
    int rmdir(QString path) override;
    /// Renames within one mount. Never copies.
    ///
    /// When the paths belong to different mounts, or nothing is mounted for one of them, the result
    /// is -1 and errno stays unchanged. liberrno depends on `newPath` only: Ok, or NotFound when
    /// nothing is mounted for `newPath`.
    ///
    /// So compare the file systems of both paths before the call. If they differ, copy the file and
    /// remove the old one:
    ///
    /// \code
    /// const bool isSameMount = io->getFS(from, nullptr) == io->getFS(to, nullptr);
    /// const int result = isSameMount ? io->rename(from, to) : copyAndRemove(from, to);
    /// \endcode
    ///
    /// The comparison has one gap: if the same FS object is mounted at two mount points, getFS()
    /// returns the same object for both, but rename() from one to the other fails.
    int rename(QString oldPath, QString newPath) override;
    /// Calls sync() of each mounted file system, in table order.
    void sync() override;
    int getxattr(QString path, QString name, void* value, unsigned int size) override;
    int setxattr(QString path, QString name, void* value, unsigned int size, int flags) override;
    int removexattr(QString path, QString name) override;
    int listxattr(QString path, QVector<QString>& names) override;
    int listxattr(QString path, char* list, unsigned int size) override;
    /// Makes a symbolic link in the mount of `linkPath`. `target` is stored unchanged.
    int symlink(QString target, QString linkPath) override;
    int readlink(QString path, QString& target) override;
    int readlink(QString path, char* buf, unsigned int size) override;
    int truncate(QString path, long long length) override;
    int chmod(QString path, int mode) override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

    /// Mounts `fs` at `mountPoint`, an absolute path.
    ///
    /// A missing slash at the end is added; nothing else is normalised. Failures are not returned.
    /// The call has no effect when:
    /// - `mountPoint` does not begin with a slash (logged at level 12);
    /// - `fs` is null (logged at level 12);
    /// - a file system is already mounted at `mountPoint`; mountedAt() returns it.
    virtual void add(QString mountPoint, QSharedPointer<FS> fs);
    /// Unmounts the file system that add() mounted at `mountPoint`. Has no effect when there is
    /// none. Calls in progress on the file system continue.
    virtual void remove(QString mountPoint);
    /// Returns the file system that serves `path`, or null with liberrno NotFound.
    ///
    /// If `rest` is not null, stores the path within that file system in `*rest`; it begins with a
    /// slash. When nothing is mounted, `*rest` stays unchanged.
    virtual QSharedPointer<FS> getFS(QString path, QString* rest);
    /// Returns all mount points at which the object `fs` is mounted, in table order, each with a
    /// slash at the end. The list is empty when `fs` is not mounted.
    virtual QStringList getMountPoints(QSharedPointer<FS> fs);
    /// Returns the file system that add() mounted at `mountPoint`, or null. It may differ from
    /// getFS() of that path, which may be served by another mount point.
    ///
    /// After add(), it is the mounted file system if the call had an effect:
    ///
    /// \code
    /// io->add("/card", card);
    /// if (io->mountedAt("/card") != card)
    ///     qWarning("another file system is mounted at /card");
    /// \endcode
    QSharedPointer<FS> mountedAt(QString mountPoint) const;

    /// Returns the process-wide switch. The first call creates it, empty.
    ///
    /// At the exit of the process, when the static objects of the library are destroyed, the
    /// library removes all mounts of this switch and releases it. A later call returns a new, empty
    /// switch. Any thread may call this function.
    static QSharedPointer<FSSwitch> rootfs();
    /// Replaces the process-wide switch. If `fs` is null, the next rootfs() creates a new one.
    ///
    /// An object that holds the old switch keeps using it. After the first call of
    /// FDAdapter::rootfs(), its adapter is such a holder. Any thread may call this function.
    static void setRootfs(QSharedPointer<FSSwitch>& fs);

private:
    class ORUIO_LOCAL Data;
    const std::unique_ptr<Data> m_data;
};

} // namespace oru::io
