// Storage locations: the places where a recorder keeps its media, as objects of its application.
//
//     SystemLocation card("card", FS::SPtr(PosixFS::SPtr::create("/mnt/card")), &props);
//     FSSwitch::rootfs()->add("/mnt/card", card.fs());
//     QObject::connect(BDMon::instance(), &BDMon::notify, &card,
//                      [&](BDMon::EventListSPtr events, BDMon::EventListByDeviceSPtr) {
//                          card.processBDEvents(events);
//                          const BlockDevice::SPtr medium = card.selectedPart();
//                          if (card.access() == StorageLocation::Presence && medium &&
//                              medium->isMountable())
//                              card.mount(nullptr);
//                      });
//
// Operations return 0 or a positive value on success; -1 on failure, with the reason in liberrno
// where they say so: NotFound (there is no medium, no mount point, or the mount failed) or
// NotImplemented (the location has no such operation, or its medium is write-protected).
//
// Threads: a location belongs to one thread, whose calls block while something is mounted,
// unmounted, checked or formatted, or while a server is asked.
#pragma once

#include <oruio/bdmon.h>
#include <oruio/export.h>
#include <oruio/fs.h>
#include <oruio/properties.h>

#include <QMetaType>
#include <QObject>
#include <QString>

namespace oru::io {

/// What all locations have: a name, a file system, an access state.
class ORUIO_EXPORT StorageLocation : public QObject {
    Q_OBJECT

public:
    /// How far a location can be used. "Mounted" is from Read on.
    enum AccessType : int {
        None = 1, ///< no medium, or nothing is known of one
        Presence, ///< a medium, which is not mounted
        Read,     ///< mounted read-only
        Write,    ///< mounted
    };
    Q_ENUM(AccessType)

    /// `name` and `props` are copied; null is an empty one. `fs` is how the location's files are
    /// reached.
    StorageLocation(const char* name, FS::SPtr fs, Properties* props);
    ~StorageLocation() override;

    /// Valid as long as the location.
    const char* name();
    /// The file system; null when it has none.
    FS::SPtr fs();
    /// The access state.
    AccessType access();
    /// Sets the access state. Tells nobody: accessChanged() is for the owner to emit.
    void accessChange(AccessType t);
    /// "None", "Presence", "Read", "Write"; "Invalid" for anything else.
    static const char* straccess(AccessType t);

    /// Notes that the owner wants to use the location. \returns 0.
    virtual int enable();
    /// Notes that the owner does not want to use it. \returns 0; -1 while it is mounted.
    virtual int disable();
    /// Checks the medium. Not implemented here.
    virtual int check();
    /// Makes a mounted medium read-only. Not implemented here.
    virtual int mkReadOnly();
    /// Makes a mounted medium writeable. Not implemented here.
    virtual int mkWriteable();
    /// Mounts the medium. Not implemented here.
    virtual int mount(Properties* props);
    /// Unmounts the medium. Not implemented here.
    virtual int umount(Properties* props);
    /// Whether the medium has a switch that forbids to write, and it is on.
    virtual bool isWriteProtected();

Q_SIGNALS:
    /// For the owner; the library does not emit it.
    void accessChanged(StorageLocation* self, oru::io::StorageLocation::AccessType access);

protected:
    char* m_name;                  ///< of malloc(3)
    FS::SPtr m_fs;                 ///< may be null
    bool m_enabled = false;        ///< whether the owner wants to use it
    bool m_present = false;        ///< whether there is a medium
    bool m_writeProtected = false; ///< whether a medium was; stays until the location goes
    AccessType m_access = None;    ///< what access() answers
    Properties m_props;            ///< those of the constructor, or of setProperties()

private:
    Q_DISABLE_COPY(StorageLocation)
};

/// A slot or port for local media.
///
/// It follows the events of the disk that is plugged in there, and of its partitions selects the
/// largest with a file system, the first of equal ones. A disk without a partition table is its own
/// partition. The removal of any partition ends the selection.
///
/// A disk is told of before its partitions, maybe in a batch of its own: what has arrived is worth
/// mounting once selectedPart() is mountable. A medium that is pulled out while it is mounted stays
/// mounted, in name, until its owner unmounts it, lazily where files are open; for ext4, the next
/// one cannot be mounted before.
class ORUIO_EXPORT SystemLocation : public StorageLocation {
    Q_OBJECT

public:
    /// Reads of `props`: "blkDevId", the "ID_PATH" of the disks that get plugged in there.
    SystemLocation(const char* name, FS::SPtr fs, Properties* props);
    ~SystemLocation() override;

    int enable() override;
    /// \returns -1 while mounted, without a reason in liberrno.
    int disable() override;
    /// Checks and repairs the selected partition. \returns what BlockDevice::fsck() does; -1 with
    /// NotFound when none is selected.
    int check() override;
    /// Mounts the medium read-only, whether it was mounted or not. \returns 0 when access() is Read
    /// already, even if mkWriteable() has made the medium writeable since; -1 with NotFound when
    /// there is no medium; else what mount() does.
    int mkReadOnly() override;
    /// Remounts the medium writeable, on the device itself: access() stays what it was. One that is
    /// not mounted is mounted so, which the location does not notice: umount() then does nothing.
    /// \returns 0 when access() is Write already; what BlockDevice::mount() does; -1 with NotFound
    /// when there is no medium or mount point, with NotImplemented when it is write-protected.
    int mkWriteable() override;
    /// Mounts the selected partition, or mounts it anew with other options. Reads of `props`, which
    /// may be null: "readonly", whose presence, whatever its value, mounts it so; "mountPoint",
    /// where (default: the first place at which the root switch has fs()). \returns what
    /// BlockDevice::mount() does, unless that fails: -1 with NotFound, and access() is None, even
    /// if an earlier mount stays; without a medium or mount point -1 with NotFound, and access() is
    /// what it was.
    int mount(Properties* props) override;
    /// Unmounts what mount() has mounted. Reads of `props`, which may be null: "mountPoint" as
    /// there; "lazy" as umountPath() does. \returns 0, also when nothing is mounted; what
    /// umountPath() returns, with the reason in errno and liberrno as it was; -1 with NotFound when
    /// there is no fs() or no mount point.
    ///
    /// What is mounted elsewhere is not found, but the result is 0 and access() is Presence: after
    /// a mount() with a "mountPoint" that is not given here as well, and where the kernel's table
    /// spells the mount point in another way, as one with a blank or a double slash.
    int umount(Properties* props) override;
    /// Of the disk, when disk and partition are known.
    bool isWriteProtected() override;

    /// Formats the whole disk. `props` as BlockDevice::format(). \returns what that does; -1 with
    /// NotFound while mounted and without a disk, with NotImplemented when it is write-protected.
    virtual int format(Properties* props);
    /// Whether `id` is that of this location's disks.
    virtual bool matchesId(QString id);
    /// Logs an event in five lines, at level 12. \returns 0.
    virtual int logBDEvent(BDMon::Event& ev);
    /// Takes the events of this location's disks out of a batch: "add" and "remove". EFI system
    /// partitions are left alone. \returns 0.
    virtual int processBDEvents(BDMon::EventListSPtr events);

    /// The selected partition; the disk when there is none; null when there is no disk either.
    BlockDevice::SPtr& selectedPart();
    /// Takes a selected partition whose file system udev does not know for an exFAT one. \returns
    /// false when disk or partition is not known.
    bool fixFSType();
    /// Sets `opts` to what BlockDevice::mount() is to be told: a copy of `props`, which may be
    /// null, with "mountPoint", "readonly", and "remount" when it is mounted. \returns false when
    /// there is no mount point.
    bool mountOptions(Properties& opts, Properties* props, bool readonly);

public Q_SLOTS:
    /// Takes a disk or partition of this location in; access() is then Presence.
    void addBlockDevice(BlockDevice::SPtr spbd);
    /// Forgets it; access() is then None. What is mounted stays so, for the owner to unmount.
    void removeBlockDevice(BlockDevice::SPtr spbd);

protected:
    QString m_blkDevId;              ///< the ID_PATH of its disks
    BlockDevice::SPtr m_blkDevWhole; ///< the disk, or null
    BlockDevice::SPtr m_blkDevPart;  ///< the selected partition, or null
    bool m_mountOk = false;          ///< whether the last mount() succeeded
    bool m_mounted = false;          ///< whether the next mount is a remount
};

/// A share on the network: its file system is a Smb2FS or a NFS.
class ORUIO_EXPORT RemoteLocation : public StorageLocation {
    Q_OBJECT

public:
    /// `props` are those of connect() of the file system.
    RemoteLocation(const char* name, FS::SPtr fs, Properties* props);
    ~RemoteLocation() override;

    int enable() override;
    /// \returns -1 while mounted, without a reason in liberrno.
    int disable() override;
    /// \returns 1: there is nothing to check.
    int check() override;
    /// Connects, with `props` or else those of the location; access() is then Write. \returns what
    /// connect() does, and access() is None unless that is 0; -1 for other file systems.
    int mount(Properties* props) override;
    /// Disconnects; access() is then None. `props` is not used. \returns 0, or what disconnect()
    /// returned.
    int umount(Properties* props) override;

    /// Connects unless connected or `noConnect`; then, unless `writable` is null, tells whether a
    /// file can be made on the share, in the directory `subdir` if that is not null. The file,
    /// called "ORU-write-check-" and the environment's SERIAL_NUMBER or "unknown", is removed
    /// again. \returns 0; else what connect() did, after disconnect(), with `writable` as it was.
    ///
    /// After a fatal failure a Smb2FS counts as connected (Smb2FS::isConnected()): until the next
    /// mount() this neither connects nor fails, and nothing can be written.
    virtual int probe(bool* writable, QString* subdir, bool noConnect);
    /// For the next mount() or probe().
    virtual void setProperties(Properties& props);
    /// Whether the server answers; true for other file systems, and for a Smb2FS from a fatal
    /// failure to the next mount().
    virtual bool ping();
};

} // namespace oru::io

Q_DECLARE_METATYPE(oru::io::StorageLocation*)
