// The mount switch: joins file systems under absolute mount points into one namespace.
//
// Which file systems stand where is the application's decision; the library mounts nothing.
#pragma once

#include <oruio/fs.h>

#include <QStringList>

#include <memory>

namespace oru::io {

/// One row of a mount table.
struct FSEntry {
    QString mountPoint;    ///< absolute, always with a slash at the end
    QSharedPointer<FS> fs; ///< what is mounted there
};

/// An FS that forwards each operation to the file system mounted for its path.
///
/// A forwarded operation returns what the mounted file system returns, and holds a reference to it
/// until then: removing a mount never pulls it away from under a call. Where nothing is mounted for
/// the path, the result is -1 or null with liberrno NotFound and errno untouched. liberrno is set
/// to 0 or NotFound by the lookup of every call.
///
/// Of several mount points that fit a path, the one that stands latest in the table serves it. A
/// new mount point is inserted behind the first one that is shorter than itself, so this is
/// usually, but not always, the longest: after mounting /, /a/ and /a/b/ in this order, /a/ serves
/// /a/b/x. Mount longer mount points first where it matters.
///
/// Threads: all operations may be called from any thread. No lock is held during a forwarded call,
/// except that sync() holds the table's mutex: a mounted file system's sync() must not call back
/// into the same switch.
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
    /// Both paths must be served by the same mount; else -1 with errno untouched, and liberrno as
    /// the lookup of `newPath` left it.
    int link(QString oldPath, QString newPath) override;
    int unlink(QString path) override;
    int mkdir(QString path, int mode) override;
    int rmdir(QString path) override;
    /// As link(). A rename across mounts is never turned into a copy.
    int rename(QString oldPath, QString newPath) override;
    /// Calls sync() of every mounted file system, in table order.
    void sync() override;
    int getxattr(QString path, QString name, void* value, unsigned int size) override;
    int setxattr(QString path, QString name, void* value, unsigned int size, int flags) override;
    int removexattr(QString path, QString name) override;
    int listxattr(QString path, QVector<QString>& names) override;
    int listxattr(QString path, char* list, unsigned int size) override;
    /// `linkPath` decides the mount; `target` is passed on as it is.
    int symlink(QString target, QString linkPath) override;
    int readlink(QString path, QString& target) override;
    int readlink(QString path, char* buf, unsigned int size) override;
    int truncate(QString path, long long length) override;
    int chmod(QString path, int mode) override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

    /// Mounts `fs` at `mountPoint`. A missing slash at the end is added; nothing else is
    /// normalised. Where something is mounted already, it stays and `fs` is ignored. A mount point
    /// that does not begin with a slash, or a null `fs`, is logged and ignored.
    virtual void add(QString mountPoint, QSharedPointer<FS> fs);
    /// Unmounts what add() mounted at `mountPoint`, if anything. Calls under way go on.
    virtual void remove(QString mountPoint);
    /// The file system that serves `path`, or null (liberrno NotFound). When found and `rest` is
    /// given, `*rest` receives the path within that file system, which begins with a slash.
    virtual QSharedPointer<FS> getFS(QString path, QString* rest);
    /// Every mount point of this very object, with the slash at its end, in table order.
    virtual QStringList getMountPoints(QSharedPointer<FS> fs);

    /// The process-wide switch, created empty on first use. Any thread may call it.
    static QSharedPointer<FSSwitch> rootfs();
    /// Replaces the process-wide switch; null makes the next rootfs() create a new one. Who has
    /// got the old one keeps it, FDAdapter::rootfs() among them. Any thread may call it.
    static void setRootfs(QSharedPointer<FSSwitch>& fs);

private:
    class ORUIO_LOCAL Data;
    const std::unique_ptr<Data> m_data;
};

} // namespace oru::io
