// SPDX-License-Identifier: Apache-2.0
/// \file
/// Storage locations: the places where a recorder keeps its media.
///
/// \code
/// SystemLocation card("card", FS::SPtr(PosixFS::SPtr::create("/mnt/card")), &props);
/// FSSwitch::rootfs()->add("/mnt/card", card.fs());
/// MediumKeeper keeper(&card); // mounts each medium that arrives: oruio/mediumkeeper.h
/// QObject::connect(&keeper, &MediumKeeper::accessChanged, &card, &StorageLocation::accessChanged);
/// MonitorFollower monitor;
/// monitor.start(); // then run an event loop
/// \endcode
///
/// An application that operates a local medium without a keeper must follow these rules. A
/// location does not look at the mount table, and several of its states cannot be left by its own
/// operations.
///
/// - udev reports a disk before its partitions, possibly in an earlier batch, and the partitions in
///   any order. A smaller or larger partition than the selected one may arrive in a later batch,
///   also after mount().
/// - An "add" of a medium that is mounted is not a new medium: udev reports a device again when it
///   is asked to. access() becomes Presence nevertheless, and a mount() then fails with EBUSY and
///   makes it None. So pass only "remove" events to a location whose access() is Read or Write.
/// - When access() falls from Read or Write, call umount() with "lazy" before any mount(). A
///   mount() before it forgets the former mount, or stacks the next medium on it.
/// - The way out of a state that does not fit the mount table is umountPath() of the mount point.
///   `selectedPart()->umount()` finds mounts by the name of the device, which a neighbour may have
///   got in the meantime.
///
/// Results of the operations:
///
/// - 0 is success.
/// - -1 is a failure. If the operation documents a reason, it is in liberrno:
///   - NotFound: there is no medium or no mount point, or the mount failed;
///   - NotImplemented: the location does not provide the operation, or the medium is
///     write-protected.
/// - A positive value is a failure too: the exit status of the maintenance program
///   (oruio/sysutils.h). These operations can return it: check() and format() of a local medium,
///   mount() and probe() of an NFS export.
/// - One exception: check() of a RemoteLocation always returns 1, because there is nothing to
///   check. This is not a failure.
///
/// StorageLocation::isSuccess() says it of a result of check() or format().
///
/// Threads: only one thread may use a location. Operations return when the medium is mounted,
/// unmounted, checked or formatted, or when the server has answered.
#pragma once

#include <oruio/bdmon.h>
#include <oruio/export.h>
#include <oruio/fs.h>
#include <oruio/properties.h>

#include <QMetaType>
#include <QObject>
#include <QString>

namespace oru::io {

/// The base of all locations: a name, a file system and an access state.
class ORUIO_EXPORT StorageLocation : public QObject {
    Q_OBJECT

public:
    /// What can be done with a location. In the states Read and Write it is mounted.
    enum AccessType : int {
        None = 1, ///< no medium is known
        Presence, ///< there is a medium, which is not mounted
        Read,     ///< mounted read-only
        Write,    ///< mounted for writing
    };
    Q_ENUM(AccessType)

    /// Makes a location whose files are accessed through `fs`.
    ///
    /// `name` and `props` are copied. A null `name` is an empty name; a null `props` is an empty
    /// map.
    StorageLocation(const char* name, FS::SPtr fs, Properties* props);
    ~StorageLocation() override;

    /// Returns the name. The pointer is valid as long as the location exists.
    const char* name();
    /// Returns the file system, or null.
    FS::SPtr fs();
    /// Returns the access state.
    AccessType access();
    /// Sets the access state. Does not emit accessChanged(): emitting it is left to the owner.
    void accessChange(AccessType t);
    /// Returns "None", "Presence", "Read" or "Write"; "Invalid" for any other value.
    static const char* straccess(AccessType t);

    /// Records that the owner wants to use the location. This has no other effect. \returns always
    /// 0.
    virtual int enable();
    /// Records that the owner does not want to use the location.
    ///
    /// \returns 0. In the derived classes -1 while the location is mounted.
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
    /// Returns whether the write-protection switch of the medium is on. False here.
    virtual bool isWriteProtected();

    /// Returns whether `result`, which check() or format() of this location has returned, is a
    /// success: 0, and for a RemoteLocation also 1, as there is nothing to check.
    bool isSuccess(int result) const;

Q_SIGNALS:
    /// Reports a new access state. The owner emits this signal; the library never does.
    void accessChanged(StorageLocation* self, oru::io::StorageLocation::AccessType access);

protected:
    char* m_name;                  ///< allocated by malloc(3)
    FS::SPtr m_fs;                 ///< may be null
    bool m_enabled = false;        ///< whether the owner wants to use the location
    bool m_present = false;        ///< whether there is a medium
    bool m_writeProtected = false; ///< whether any medium so far was write-protected
    AccessType m_access = None;    ///< what access() returns
    Properties m_props;            ///< from the constructor or setProperties()

private:
    Q_DISABLE_COPY(StorageLocation)
};

/// A slot or port for local media.
///
/// It processes the events of the disks that are plugged in there and selects one partition:
///
/// - The selected partition is the largest one that has a file system. If several have this size,
///   it is the first of them.
/// - If the disk itself has a file system and no partition table, the disk is selected.
/// - When any partition is removed, no partition is selected any more.
///
/// For the owner:
///
/// - udev reports a disk before its partitions, possibly in an earlier batch. So mount the medium
///   when selectedPart() is mountable, not when access() becomes Presence.
/// - A medium that is removed while it is mounted stays in the mount table until the owner unmounts
///   it. If files are open on it, unmount it with "lazy".
/// - As long as a removed ext4 medium stays mounted, the next medium cannot be mounted.
class ORUIO_EXPORT SystemLocation : public StorageLocation {
    Q_OBJECT

public:
    /// Makes a location.
    ///
    /// Key in `props`:
    /// - "blkDevId": the "ID_PATH" of the disks that are plugged in to this slot or port.
    SystemLocation(const char* name, FS::SPtr fs, Properties* props);
    ~SystemLocation() override;

    int enable() override;
    /// Records that the owner does not want to use the location.
    ///
    /// \returns 0; -1 while mounted: errno and liberrno hold no reason.
    int disable() override;
    /// Checks and repairs the selected partition.
    ///
    /// If no partition is selected, the disk is checked.
    ///
    /// \returns the result of BlockDevice::fsck(): the exit status of the maintenance program,
    /// where only 0 is success, or -1. If there is no disk either, -1 with liberrno NotFound.
    int check() override;
    /// Mounts the medium read-only, or remounts it read-only.
    ///
    /// When access() is Read it does nothing, even if mkWriteable() has made the medium writeable
    /// in the meantime.
    ///
    /// \returns the result of mount(); 0 when access() is Read; -1 with liberrno NotFound when
    /// there is no medium or no mount point.
    int mkReadOnly() override;
    /// Remounts the medium writeable. access() does not change.
    ///
    /// If the medium is not mounted, this function mounts it, but the location does not record it:
    /// umount() then does nothing.
    ///
    /// \returns the result of BlockDevice::mount(); 0 when access() is already Write; -1 with
    /// liberrno:
    /// - NotFound: there is no medium or no mount point;
    /// - NotImplemented: the medium is write-protected.
    int mkWriteable() override;
    /// Mounts the selected partition. If it is already mounted, remounts it with the new options.
    ///
    /// Keys in `props`, which may be null:
    /// - "readonly": if present, with any value, mounts it read-only.
    /// - "mountPoint": where to mount it. The default is the first mount point of fs() in
    ///   FSSwitch::rootfs().
    ///
    /// On success access() becomes Read or Write.
    ///
    /// \returns 0, or -1 with liberrno NotFound in two cases:
    /// - There is no medium or no mount point. access() does not change.
    /// - BlockDevice::mount() failed. access() becomes None, even if the medium is still mounted by
    ///   an earlier call.
    int mount(Properties* props) override;
    /// Unmounts the medium that mount() has mounted. On success access() becomes Presence.
    ///
    /// Keys in `props`, which may be null:
    /// - "mountPoint": as for mount(). If mount() got this key, pass the same value here.
    /// - "lazy": as for umountPath().
    ///
    /// In three cases the medium stays mounted although the result is 0:
    /// - mount() did not mount it: mkWriteable() did, or a mount() that followed the removal of
    ///   another medium has forgotten it.
    /// - mount() got a "mountPoint", and this call does not get the same one.
    /// - The mount table of the kernel spells the mount point differently, for example because it
    ///   contains a blank or a double slash. Only umount2(2) unmounts it then; a MediumKeeper calls
    ///   it.
    ///
    /// \returns 0, also when nothing is mounted; -1 with liberrno NotFound when there is no fs() or
    /// no mount point; else the result of umountPath(): -1 with errno, and liberrno is unchanged.
    int umount(Properties* props) override;
    /// Returns whether the disk is write-protected. False when the disk or the partition is not
    /// known.
    bool isWriteProtected() override;

    /// Formats the whole disk. `props` are those of BlockDevice::format().
    ///
    /// \returns the result of BlockDevice::format(): the exit status of the maintenance program,
    /// where only 0 is success, or -1. When the disk is not formatted at all, -1 with liberrno:
    /// - NotFound: the medium is mounted, or there is no disk;
    /// - NotImplemented: the medium is write-protected.
    virtual int format(Properties* props);
    /// Returns whether `id` is the ID_PATH of this location's disks.
    virtual bool matchesId(QString id);
    /// Logs an event in five lines, at level 12. \returns always 0.
    virtual int logBDEvent(BDMon::Event& ev);
    /// Handles the "add" and "remove" events of this location's disks, except the "add" of EFI
    /// system partitions. Ignores all other events. \returns always 0.
    virtual int processBDEvents(BDMon::EventListSPtr events);

    /// Returns the selected partition, else the disk, else null.
    BlockDevice::SPtr& selectedPart();
    /// Sets the file-system type of the selected partition to "exfat" if it is empty.
    ///
    /// Events alone never make this necessary: a partition of which udev knows no file system is
    /// not selected. To use such a partition, set its m_fsType before addBlockDevice(), as a
    /// MediumKeeper does (MediumPolicy::unknownType).
    ///
    /// \returns true; false when the disk or the partition is not known.
    bool fixFSType();
    /// Sets `opts` to the options for BlockDevice::mount().
    ///
    /// `opts` becomes a copy of `props`, unless `props` is null. Then these keys are set:
    /// - "mountPoint", if it is missing: the first mount point of fs() in FSSwitch::rootfs();
    /// - "readonly": the argument `readonly`;
    /// - "remount": true, if the medium is mounted.
    ///
    /// \returns true; false when there is no mount point.
    bool mountOptions(Properties& opts, Properties* props, bool readonly);

public Q_SLOTS:
    /// Adds a disk or partition. access() becomes Presence. Ignores null and devices with another
    /// ID_PATH than this location's.
    void addBlockDevice(BlockDevice::SPtr spbd);
    /// Removes a disk or partition. access() becomes None. Unmounts nothing: the owner calls
    /// umount(). Ignores null and devices with another ID_PATH than this location's.
    void removeBlockDevice(BlockDevice::SPtr spbd);

protected:
    QString m_blkDevId;              ///< the ID_PATH of its disks
    BlockDevice::SPtr m_blkDevWhole; ///< the disk, or null
    BlockDevice::SPtr m_blkDevPart;  ///< the selected partition, or null
    bool m_mountOk = false;          ///< whether the last mount() succeeded
    bool m_mounted = false; ///< whether mount() has mounted it; the next mount is a remount
};

/// A share on the network. Its file system is a Smb2FS or an NFS.
class ORUIO_EXPORT RemoteLocation : public StorageLocation {
    Q_OBJECT

public:
    /// Makes a location. mount() and probe() pass `props` to connect() of the file system.
    RemoteLocation(const char* name, FS::SPtr fs, Properties* props);
    ~RemoteLocation() override;

    int enable() override;
    /// Records that the owner does not want to use the location.
    ///
    /// \returns 0; -1 while mounted: errno and liberrno hold no reason.
    int disable() override;
    /// Does nothing: there is nothing to check.
    ///
    /// \returns always 1, which is not a failure here.
    int check() override;
    /// Connects with `props`, or with the properties of the location if `props` is null.
    ///
    /// On success access() becomes Write, else None.
    ///
    /// \returns the result of connect(), where only 0 is success; -1 when fs() is neither a Smb2FS
    /// nor an NFS.
    int mount(Properties* props) override;
    /// Disconnects. On success access() becomes None. `props` is not used.
    ///
    /// \returns the result of disconnect(); 0 when fs() is neither a Smb2FS nor an NFS.
    int umount(Properties* props) override;

    /// Checks whether the share can be used.
    ///
    /// 1. If the share is not connected and `noConnect` is false, connects with the properties of
    ///    the location. If this fails, disconnects, leaves `*writable` unchanged and returns.
    /// 2. If `writable` is not null, creates a file on the share and removes it again. Sets
    ///    `*writable` to whether the file could be created. The file is in the directory `subdir`,
    ///    or in the top directory if `subdir` is null. Its name is "ORU-write-check-" followed by
    ///    the value of the environment variable SERIAL_NUMBER, or by "unknown" if the variable is
    ///    not set.
    ///
    /// With `noConnect`, ask only for a share that is connected: while an NFS is not, its directory
    /// is a local one, and `*writable` says whether that can be written to.
    ///
    /// After a fatal failure a Smb2FS counts as connected (Smb2FS::isConnected()). Until the next
    /// mount() this function therefore does not connect, returns 0, and sets `*writable` to false.
    ///
    /// \returns 0, or the result of connect() if that failed.
    virtual int probe(bool* writable, QString* subdir, bool noConnect);
    /// Sets the properties for the next mount() or probe().
    virtual void setProperties(Properties& props);
    /// Returns whether the share is connected and the server answers.
    ///
    /// Also returns true when fs() is neither a Smb2FS nor an NFS, and for a Smb2FS between a fatal
    /// failure and the next mount().
    virtual bool ping();
};

} // namespace oru::io

Q_DECLARE_METATYPE(oru::io::StorageLocation*)
