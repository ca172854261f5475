// SPDX-License-Identifier: Apache-2.0
/// \file
/// Storage locations: the places where a recorder keeps its media.
///
/// \code
/// SystemLocation card("card", FS::SPtr(PosixFS::SPtr::create("/mnt/card")), &props);
/// FSSwitch::rootfs()->add("/mnt/card", card.fs());
/// QObject::connect(BDMon::instance(), &BDMon::notify, &card,
///                  [&](BDMon::EventListSPtr events, BDMon::EventListByDeviceSPtr) {
///                      card.processBDEvents(events);
///                      const BlockDevice::SPtr medium = card.selectedPart();
///                      if (card.access() == StorageLocation::Presence && medium &&
///                          medium->isMountable())
///                          card.mount(nullptr);
///                  });
/// \endcode
///
/// Results of the operations:
///
/// - 0 is success.
/// - -1 is a failure. The reason is in liberrno where the operation documents it:
///   - NotFound: there is no medium or no mount point, or the mount failed;
///   - NotImplemented: the location does not provide the operation, or the medium is
///     write-protected.
/// - A positive value is a failure too: the exit status of the maintenance program
///   (oruio/sysutils.h). check() and format() of a local medium return it, and mount() and probe()
///   of an NFS export.
/// - One exception: check() of a RemoteLocation always returns 1, as there is nothing to check.
///
/// Threads: a location belongs to one thread. Its calls block while a medium is mounted, unmounted,
/// checked or formatted, and while a server is asked.
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
    /// How a location can be used. It is mounted in the states Read and Write.
    enum AccessType : int {
        None = 1, ///< no medium is known
        Presence, ///< a medium that is not mounted
        Read,     ///< mounted read-only
        Write,    ///< mounted for writing
    };
    Q_ENUM(AccessType)

    /// Makes a location whose files are accessed through `fs`.
    ///
    /// `name` and `props` are copied. Null stands for an empty name and for no properties.
    StorageLocation(const char* name, FS::SPtr fs, Properties* props);
    ~StorageLocation() override;

    /// Returns the name. It is valid as long as the location.
    const char* name();
    /// Returns the file system, or null.
    FS::SPtr fs();
    /// Returns the access state.
    AccessType access();
    /// Sets the access state. Does not emit accessChanged(): the owner does.
    void accessChange(AccessType t);
    /// Returns "None", "Presence", "Read" or "Write"; "Invalid" for any other value.
    static const char* straccess(AccessType t);

    /// Records that the owner wants to use the location. \returns always 0.
    virtual int enable();
    /// Records that the owner does not want to use the location.
    ///
    /// \returns 0; -1 while it is mounted, in the derived classes.
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

Q_SIGNALS:
    /// Reports a new access state. The owner emits it; the library does not.
    void accessChanged(StorageLocation* self, oru::io::StorageLocation::AccessType access);

protected:
    char* m_name;                  ///< allocated by malloc(3)
    FS::SPtr m_fs;                 ///< may be null
    bool m_enabled = false;        ///< whether the owner wants to use it
    bool m_present = false;        ///< whether there is a medium
    bool m_writeProtected = false; ///< whether any medium so far was write-protected
    AccessType m_access = None;    ///< what access() returns
    Properties m_props;            ///< from the constructor or setProperties()

private:
    Q_DISABLE_COPY(StorageLocation)
};

/// A slot or port for local media.
///
/// It follows the events of the disk that is plugged in there and selects one partition:
///
/// - The selected partition is the largest one with a file system, the first of several equal ones.
/// - A disk with a file system and without a partition table is selected itself.
/// - The removal of any partition clears the selection.
///
/// For the owner:
///
/// - udev reports a disk before its partitions, possibly in an earlier batch. So mount the medium
///   when selectedPart() is mountable, not when access() becomes Presence.
/// - A medium that is removed while it is mounted stays in the mount table until the owner unmounts
///   it. Use "lazy" if files are open.
/// - With ext4, the next medium cannot be mounted before that.
class ORUIO_EXPORT SystemLocation : public StorageLocation {
    Q_OBJECT

public:
    /// Makes a location.
    ///
    /// Key in `props`:
    /// - "blkDevId": the "ID_PATH" of the disks that are plugged in there.
    SystemLocation(const char* name, FS::SPtr fs, Properties* props);
    ~SystemLocation() override;

    int enable() override;
    /// Records that the owner does not want to use the location.
    ///
    /// \returns 0; -1 while mounted, without a reason in liberrno.
    int disable() override;
    /// Checks and repairs the selected partition.
    ///
    /// \returns the result of BlockDevice::fsck(): the exit status of the maintenance program, of
    /// which only 0 is success, or -1. Without a selected partition or disk, -1 with NotFound.
    int check() override;
    /// Mounts the medium read-only, or remounts it read-only.
    ///
    /// When access() is Read it does nothing, even if mkWriteable() has made the medium writeable
    /// since.
    ///
    /// \returns the result of mount(); 0 when access() is Read; -1 with NotFound when there is no
    /// medium or mount point.
    int mkReadOnly() override;
    /// Remounts the medium writeable. access() does not change.
    ///
    /// A medium that is not mounted is mounted, but the location does not record this: umount()
    /// then does nothing.
    ///
    /// \returns the result of BlockDevice::mount(); 0 when access() is Write already; -1 with
    /// liberrno:
    /// - NotFound: there is no medium or no mount point;
    /// - NotImplemented: the medium is write-protected.
    int mkWriteable() override;
    /// Mounts the selected partition. Remounts it with the new options if it is mounted.
    ///
    /// Keys in `props`, which may be null:
    /// - "readonly": if present, with any value, mounts it read-only.
    /// - "mountPoint": where to mount it. The default is the first mount point of fs() in
    ///   FSSwitch::rootfs().
    ///
    /// On success access() becomes Read or Write.
    ///
    /// \returns 0, or -1 with NotFound:
    /// - there is no medium or no mount point; access() does not change;
    /// - BlockDevice::mount() failed; access() becomes None, even if an earlier mount stays.
    int mount(Properties* props) override;
    /// Unmounts what mount() has mounted. On success access() becomes Presence.
    ///
    /// Keys in `props`, which may be null:
    /// - "mountPoint": as for mount(). If it was given there, give it here too.
    /// - "lazy": as for umountPath().
    ///
    /// In two cases the medium stays mounted although the result is 0:
    /// - mount() had a "mountPoint" that is not given here.
    /// - The kernel's mount table spells the mount point differently, such as one with a blank or a
    ///   double slash.
    ///
    /// \returns 0, also when nothing is mounted; -1 with NotFound when there is no fs() or no mount
    /// point; else the result of umountPath(), with the reason in errno and liberrno unchanged.
    int umount(Properties* props) override;
    /// Returns whether the disk is write-protected. False unless disk and partition are known.
    bool isWriteProtected() override;

    /// Formats the whole disk. `props` as for BlockDevice::format().
    ///
    /// \returns the result of BlockDevice::format(): the exit status of the maintenance program, of
    /// which only 0 is success, or -1. Before that, -1 with liberrno:
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
    /// Sets the type of the selected partition to "exfat" if udev found none.
    ///
    /// \returns false when the disk or the partition is not known.
    bool fixFSType();
    /// Sets `opts` to the options for BlockDevice::mount().
    ///
    /// They are a copy of `props`, which may be null, with "mountPoint" and "readonly", and with
    /// "remount" if the medium is mounted.
    ///
    /// \returns false when there is no mount point.
    bool mountOptions(Properties& opts, Properties* props, bool readonly);

public Q_SLOTS:
    /// Adds a disk or partition of this location. access() becomes Presence.
    void addBlockDevice(BlockDevice::SPtr spbd);
    /// Removes a disk or partition of this location. access() becomes None. The owner has to
    /// unmount what is mounted.
    void removeBlockDevice(BlockDevice::SPtr spbd);

protected:
    QString m_blkDevId;              ///< the ID_PATH of its disks
    BlockDevice::SPtr m_blkDevWhole; ///< the disk, or null
    BlockDevice::SPtr m_blkDevPart;  ///< the selected partition, or null
    bool m_mountOk = false;          ///< whether the last mount() succeeded
    bool m_mounted = false;          ///< whether the next mount is a remount
};

/// A share on the network. Its file system is a Smb2FS or an NFS.
class ORUIO_EXPORT RemoteLocation : public StorageLocation {
    Q_OBJECT

public:
    /// Makes a location. `props` are the settings for connect() of the file system.
    RemoteLocation(const char* name, FS::SPtr fs, Properties* props);
    ~RemoteLocation() override;

    int enable() override;
    /// Records that the owner does not want to use the location.
    ///
    /// \returns 0; -1 while mounted, without a reason in liberrno.
    int disable() override;
    /// Does nothing: there is nothing to check.
    ///
    /// \returns always 1.
    int check() override;
    /// Connects with `props`, or with the properties of the location if `props` is null.
    ///
    /// On success access() becomes Write, else None.
    ///
    /// \returns the result of connect(), where only 0 is success; -1 for other file systems.
    int mount(Properties* props) override;
    /// Disconnects. On success access() becomes None. `props` is not used.
    ///
    /// \returns the result of disconnect(); 0 for other file systems.
    int umount(Properties* props) override;

    /// Checks whether the share can be used.
    ///
    /// - Connects with the properties of the location, unless connected or `noConnect` is true. If
    ///   that fails, disconnects and leaves `*writable` unchanged.
    /// - Unless `writable` is null, sets `*writable` to whether a file can be made on the share: in
    ///   the directory `subdir`, or at the top if `subdir` is null. The file is removed again. Its
    ///   name is "ORU-write-check-" followed by the environment variable SERIAL_NUMBER, or
    ///   "unknown".
    ///
    /// After a fatal failure a Smb2FS counts as connected (Smb2FS::isConnected()). Until the next
    /// mount() this function then does not connect, returns 0, and sets `*writable` to false.
    ///
    /// \returns 0, or the result of connect() that failed.
    virtual int probe(bool* writable, QString* subdir, bool noConnect);
    /// Sets the properties for the next mount() or probe().
    virtual void setProperties(Properties& props);
    /// Returns whether the share is connected and the server answers.
    ///
    /// True for other file systems, and for a Smb2FS between a fatal failure and the next mount().
    virtual bool ping();
};

} // namespace oru::io

Q_DECLARE_METATYPE(oru::io::StorageLocation*)
