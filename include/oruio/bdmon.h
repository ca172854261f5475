// SPDX-License-Identifier: Apache-2.0
/// \file
/// Block devices: their udev properties, their operations, and a monitor that reports devices that
/// are added, removed or changed.
///
/// \code
/// QObject::connect(BDMon::instance(), &BDMon::notify,
///                  [](BDMon::EventListSPtr events, BDMon::EventListByDeviceSPtr) {
///                      for (const BDMon::Event& event : *events)
///                          qInfo() << event.action << event.dev->m_devName;
///                  });
/// BDMon::instance()->start();  // all devices that are present
/// BDMon::instance()->update(); // the changes since the last call; repeat it from time to time
/// \endcode
#pragma once

#include <oruio/export.h>
#include <oruio/properties.h>

#include <QList>
#include <QMap>
#include <QMetaType>
#include <QObject>
#include <QSharedPointer>
#include <QString>

#include <memory>

namespace oru::io {

// The names of udev properties, as `udevadm info` prints them.
ORUIO_EXPORT extern const QString UDEV_ID_PATH;              ///< "ID_PATH"
ORUIO_EXPORT extern const QString UDEV_DEVTYPE;              ///< "DEVTYPE"
ORUIO_EXPORT extern const QString UDEV_DEVNAME;              ///< "DEVNAME"
ORUIO_EXPORT extern const QString UDEV_ID_PART_TABLE_TYPE;   ///< "ID_PART_TABLE_TYPE"
ORUIO_EXPORT extern const QString UDEV_PARTN;                ///< "PARTN"
ORUIO_EXPORT extern const QString UDEV_ID_PART_ENTRY_OFFSET; ///< "ID_PART_ENTRY_OFFSET"
ORUIO_EXPORT extern const QString UDEV_ID_PART_ENTRY_SIZE;   ///< "ID_PART_ENTRY_SIZE"
ORUIO_EXPORT extern const QString UDEV_ID_FS_TYPE;           ///< "ID_FS_TYPE"
ORUIO_EXPORT extern const QString UDEV_ID_FS_LABEL;          ///< "ID_FS_LABEL"
ORUIO_EXPORT extern const QString UDEV_ACTION;               ///< "ACTION"
ORUIO_EXPORT extern const QString UDEV_SEQNUM;               ///< "SEQNUM"
ORUIO_EXPORT extern const QString UDEV_DEVPATH;              ///< "DEVPATH"
ORUIO_EXPORT extern const QString UDEV_ID_PART_ENTRY_TYPE;   ///< "ID_PART_ENTRY_TYPE"

/// How many times BlockDevice::fsck() runs the check at most, by default.
inline constexpr int FSCK_RETRIES = 3;

/// A disk or a partition, as udev described it at the time of an event, and its operations.
///
/// The fields do not change, except m_umountFailed.
///
/// mount(), umount(), mkfs(), fsck() and format() block until they are done, set liberrno to Ok
/// first, and return 0 on success. Every other result is a failure: -1, or a positive exit status
/// of the maintenance program (oruio/sysutils.h). SysCmd::failure() returns what the program said
/// about the reason.
///
/// mkfs(), fsck() and format() may take minutes. MaintenanceJob (oruio/maintenancejob.h) runs the
/// same commands while its caller goes on, reports their progress and can cancel them before they
/// change the device.
///
/// The name of a device node can pass to another disk before the events of the exchange are read.
/// So mount() (not a remount), mkfs(), fsck() and format() first compare the node with the event:
/// the number of the medium ("DISKSEQ" and BLKGETDISKSEQ, since Linux 5.15), or else the device
/// number ("MAJOR" and "MINOR"). If they differ, the operation does nothing and returns -1 with
/// errno ENODEV. Where they cannot be compared, nothing is refused. The maintenance program gets
/// the number of the medium in the environment variable ORUIO_DISKSEQ.
///
/// Threads: only one thread at a time may call the operations of a device.
class ORUIO_EXPORT BlockDevice {
public:
    using SPtr = QSharedPointer<BlockDevice>;

    /// Mounts the file system on `mountPoint`, as mount(2) with MS_NOATIME and MS_NOEXEC.
    ///
    /// The directory is made if it does not exist. Some file systems get options:
    /// - exFAT is mounted with the type "ufsd", the name of the driver, and the option "nls=utf8".
    /// - FAT ("vfat", "fat") is mounted with the option "usefree".
    ///
    /// Keys in `props`, which may be null:
    /// - "readonly": true to mount it read-only.
    /// - "remount": true to change the options of an existing mount.
    ///
    /// \returns 0, or -1 with errno:
    /// - EILSEQ: `mountPoint` is not valid UTF-16, or the codec of the locale does not encode it as
    ///   UTF-8;
    /// - EINVAL: `mountPoint` contains a NUL;
    /// - ENOENT: `mountPoint` is empty, or the directory cannot be made;
    /// - any errno of mount(2).
    virtual int mount(QString mountPoint, const Properties* props) = 0;
    /// Unmounts the device from all mount points, and unmounts what is mounted on its device node.
    ///
    /// Calls umountPath() with `props` for each mount. Stops at the first one that stays mounted.
    ///
    /// \returns 0, also when the device is not mounted; -1 with errno:
    /// - ENOENT: the mount point has a blank, tab, newline or backslash, which the mount table
    ///   escapes;
    /// - any other errno of umountPath();
    /// - any errno of open(2) or read(2) on the mount table.
    virtual int umount(const Properties* props) = 0;
    /// Makes a file system on the device, with the maintenance program.
    ///
    /// Keys in `props`, which may be null:
    /// - "fs_type": the type of the file system.
    /// - "cmd_opts": the last argument for the maintenance program: its options, in one string.
    ///
    /// \returns the result of SysCmd::exec(): the exit status of the program, or -1. Only 0 is
    /// success.
    virtual int mkfs(const Properties* props) = 0;
    /// Checks and repairs the file system, with the maintenance program.
    ///
    /// Keys in `props`, which may be null:
    /// - "retries": an int, the largest number of runs. The check ends with the first run that
    ///   succeeds. The default is FSCK_RETRIES.
    /// - "cmd_opts": as for mkfs().
    ///
    /// \returns the result of SysCmd::exec(), as mkfs().
    virtual int fsck(const Properties* props) = 0;
    /// Formats the whole disk with one file system, with the maintenance program.
    ///
    /// Key in `props`, which may be null:
    /// - "kill": if present, with any value, processes that use the disk are killed first.
    ///
    /// \returns the result of SysCmd::exec(), as mkfs().
    virtual int format(const Properties* props) = 0;
    /// Returns a copy of m_props.
    virtual Properties props() = 0;
    virtual ~BlockDevice();

    /// Returns `m_totalBlocks * m_blkSize`.
    ///
    /// - For a disk this is the size in bytes.
    /// - For a partition this is the size in bytes only if m_blkSize is 512. With larger blocks the
    ///   value is `m_blkSize / 512` times too large: udev reports partitions in units of 512 bytes
    ///   (see LinuxBD).
    quint64 capacity() const;
    /// Returns whether udev has found a file system on the device.
    bool isMountable() const;

    QString m_idPath;          ///< "ID_PATH": the slot or port; a disk and its partitions share it
    quint32 m_partNum = 0;     ///< "PARTN"; 0 for a whole disk
    quint64 m_startBlock = 0;  ///< first block of a partition; 0 for a disk
    quint64 m_totalBlocks = 0; ///< size in blocks; for a partition see LinuxBD
    quint64 m_blkSize = 0;     ///< block size in bytes
    QString m_fsType;          ///< "ID_FS_TYPE"; empty without a file system
    QString m_fsLabel;         ///< "ID_FS_LABEL"
    QString m_devName;         ///< "DEVNAME": the device node
    QString m_partTableType;   ///< "ID_PART_TABLE_TYPE"
    qint32 m_seqNum = 0;       ///< "SEQNUM"
    QString m_action;          ///< "ACTION"; empty for a device found by start()
    /// "DEVPATH". For SD cards the path of the file in /sys that contains the write protection.
    QString m_devPath;
    QString m_partEntryType;       ///< "ID_PART_ENTRY_TYPE": code or GUID
    bool m_writeProtected = false; ///< whether the switch of the SD card is on; false for others
    /// All udev properties, as strings. For SD cards also "WRITE_PROTECTED", a bool.
    Properties m_props;
    bool m_umountFailed = false; ///< whether the last umount() failed
};

/// A block device of this system.
class ORUIO_EXPORT LinuxBD : public BlockDevice {
public:
    /// Makes a device from the udev properties of an event. A field is empty or 0 when its property
    /// is missing.
    ///
    /// - m_blkSize is the physical block size of the device node (BLKPBSZGET), or 512 when it
    ///   cannot be read.
    /// - m_totalBlocks of a disk is in blocks of m_blkSize.
    /// - m_startBlock and m_totalBlocks of a partition are in units of 512 bytes for every value of
    ///   m_blkSize, because udev reports them so.
    explicit LinuxBD(Properties& udevProps);
    ~LinuxBD() override;

    int mount(QString mountPoint, const Properties* props) override;
    int umount(const Properties* props) override;
    int mkfs(const Properties* props) override;
    int fsck(const Properties* props) override;
    int format(const Properties* props) override;
    Properties props() override;
};

/// The monitor that reports block devices that are added, removed or changed.
///
/// The process has only one monitor: instance().
///
/// - It has no thread of its own, and opens nothing before start().
/// - Devices without "ID_PATH", such as RAM disks and loop devices, are not reported.
/// - When udev_new(3) fails while the library is loaded, the process ends with exit status 1.
/// - When the environment variable ORUIO_UDEVDBG is set, the monitor prints the properties of every
///   device on standard output.
///
/// Threads: only one thread may call start(), update() and stop(). None of these calls may be in
/// progress when the process exits. As a QObject the monitor belongs to the thread that loaded the
/// library: a queued call of update() needs the event loop of that thread, or moveToThread().
class ORUIO_EXPORT BDMon : public QObject {
    Q_OBJECT

public:
    /// One device that was added, removed or changed.
    struct ORUIO_EXPORT Event {
        /// Takes ownership of `dev`.
        Event(int seq, QString action, BlockDevice* dev);

        int seq;               ///< position in the batch, starting at 1
        QString action;        ///< udev's "add", "remove" or "change"; "add" from start()
        BlockDevice::SPtr dev; ///< the device at the time of the event
    };

    /// A batch: events in the order of their arrival.
    using EventListSPtr = QSharedPointer<QList<Event>>;
    /// The same events, grouped by the ID_PATH of the device. A disk and its partitions have the
    /// same key.
    using EventListByDeviceSPtr = QSharedPointer<QMap<QString, QList<Event>>>;

    /// Returns the only monitor.
    static BDMon* instance();
    ~BDMon() override;

public Q_SLOTS:
    /// Emits notify() with one batch of all events since the last call.
    ///
    /// Returns at once when no event is queued or the monitor is not open. Otherwise it collects
    /// events until none has arrived for `quiescent_ms` milliseconds. As long as events keep
    /// arriving, it does not return.
    ///
    /// Events that arrive while the kernel's queue is full are lost. The batch then ends with the
    /// differences between the devices that were reported and those that are present: "remove",
    /// "add" and "change" events, where a "remove" has the properties that were reported last. A
    /// device that has not changed is not reported.
    ///
    /// \returns always 0.
    virtual int update(unsigned int quiescent_ms = 500);

public:
    /// Opens the monitor and emits notify() with all devices that are present.
    ///
    /// Does nothing when the monitor is already open. A device that is added during the call is
    /// reported by this call, by the next update(), or by both.
    ///
    /// - When udev_monitor_new_from_netlink(3) fails, the process ends with exit status 1: without
    ///   the monitor a recorder cannot find its media.
    /// - When the monitor cannot receive events, the failure is logged, the monitor is closed
    ///   again, and notify() is not emitted. isRunning() then returns false.
    virtual void start();
    /// Closes the monitor. Queued events that update() has not yet reported are dropped.
    virtual void stop();
    /// Returns whether the monitor is open.
    virtual bool isRunning();
    /// Returns a descriptor that becomes readable when an event is queued: for poll(2) or a
    /// QSocketNotifier, before update(). It belongs to the monitor and is valid until stop().
    /// \returns -1 while the monitor is not open.
    int descriptor() const;

Q_SIGNALS:
    /// Delivers a batch, which is never empty. start() and update() emit this signal on the thread
    /// that calls them.
    void notify(oru::io::BDMon::EventListSPtr events,
                oru::io::BDMon::EventListByDeviceSPtr eventsByDevice);

private:
    Q_DISABLE_COPY(BDMon)
    class ORUIO_LOCAL Data;

    BDMon();

    const std::unique_ptr<Data> m_data;
};

} // namespace oru::io

Q_DECLARE_METATYPE(oru::io::BlockDevice::SPtr)
Q_DECLARE_METATYPE(oru::io::BDMon::EventListSPtr)
Q_DECLARE_METATYPE(oru::io::BDMon::EventListByDeviceSPtr)
