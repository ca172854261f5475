// Block devices: what udev says of them, what can be done to them, and their coming and going.
//
//     QObject::connect(BDMon::instance(), &BDMon::notify,
//                      [](BDMon::EventListSPtr events, BDMon::EventListByDeviceSPtr) {
//                          for (const BDMon::Event& event : *events)
//                              qInfo() << event.action << event.dev->m_devName;
//                      });
//     BDMon::instance()->start();  // everything that is there
//     BDMon::instance()->update(); // what came and went since; now and then
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

// The names of udev's properties, as `udevadm info` shows them: each constant is called after its
// text.
ORUIO_EXPORT extern const QString UDEV_ID_PATH;
ORUIO_EXPORT extern const QString UDEV_DEVTYPE;
ORUIO_EXPORT extern const QString UDEV_DEVNAME;
ORUIO_EXPORT extern const QString UDEV_ID_PART_TABLE_TYPE;
ORUIO_EXPORT extern const QString UDEV_PARTN;
ORUIO_EXPORT extern const QString UDEV_ID_PART_ENTRY_OFFSET;
ORUIO_EXPORT extern const QString UDEV_ID_PART_ENTRY_SIZE;
ORUIO_EXPORT extern const QString UDEV_ID_FS_TYPE;
ORUIO_EXPORT extern const QString UDEV_ID_FS_LABEL;
ORUIO_EXPORT extern const QString UDEV_ACTION;
ORUIO_EXPORT extern const QString UDEV_SEQNUM;
ORUIO_EXPORT extern const QString UDEV_DEVPATH;
ORUIO_EXPORT extern const QString UDEV_ID_PART_ENTRY_TYPE;

/// How often fsck() tries unless told otherwise.
inline constexpr int FSCK_RETRIES = 3;

/// A disk or a partition, as udev described it at the moment of an event, and what can be done to
/// it. The fields do not change, except for m_umountFailed.
///
/// Each of the first five operations blocks its caller until it is done, clears liberrno first and
/// \returns 0 on success. Let one thread at a time operate on a device.
class ORUIO_EXPORT BlockDevice {
public:
    using SPtr = QSharedPointer<BlockDevice>;

    /// Mounts the file system, by mount(2): on `mountPoint`, which is made if need be, without
    /// access times and without programs; an exFAT one by the kernel's driver "ufsd". Reads of
    /// `props`, which may be null: "readonly" and "remount", true to do that. \returns -1 with
    /// errno; ENOENT when there is no mount point and none can be made, EINVAL when it contains a
    /// NUL, EILSEQ when it is no text, or one that the locale's codec does not write as UTF-8.
    virtual int mount(QString mountPoint, const Properties* props) = 0;
    /// Unmounts the device wherever it is mounted, and what is mounted on its node, by umountPath()
    /// with `props`. \returns 0, also when it is not mounted; else what umountPath() does for the
    /// first mount that stays, as one with a blank in its path (ENOENT); -1 with errno when the
    /// kernel's table of mounts cannot be read.
    virtual int umount(const Properties* props) = 0;
    /// Makes a file system. Reads of `props`, which may be null: "fs_type", its type; "cmd_opts", a
    /// last argument for the maintenance program. \returns that program's exit status, or -1
    /// (SysCmd).
    virtual int mkfs(const Properties* props) = 0;
    /// Checks the file system and repairs it. Reads of `props`, which may be null: "retries", how
    /// often to try, as an int (FSCK_RETRIES); "cmd_opts". \returns as mkfs().
    virtual int fsck(const Properties* props) = 0;
    /// Makes one file system of the whole disk. Reads of `props`, which may be null: "kill", whose
    /// presence says to end who uses the disk. \returns as mkfs().
    virtual int format(const Properties* props) = 0;
    /// A copy of m_props.
    virtual Properties props() = 0;
    virtual ~BlockDevice();

    /// `m_totalBlocks * m_blkSize`: bytes, except for the partitions of a disk whose blocks do not
    /// have 512 bytes, where it is that many times too much (see LinuxBD).
    quint64 capacity() const;
    /// Whether udev found a file system.
    bool isMountable() const;

    QString m_idPath;          ///< "ID_PATH": where the disk is plugged in; its partitions share it
    quint32 m_partNum = 0;     ///< "PARTN"; 0 for a whole disk
    quint64 m_startBlock = 0;  ///< where a partition begins; 0 for a disk
    quint64 m_totalBlocks = 0; ///< in blocks; of a partition, as udev has it (see LinuxBD)
    quint64 m_blkSize = 0;     ///< in bytes
    QString m_fsType;          ///< "ID_FS_TYPE"; empty without a file system
    QString m_fsLabel;         ///< "ID_FS_LABEL"
    QString m_devName;         ///< "DEVNAME": the device node
    QString m_partTableType;   ///< "ID_PART_TABLE_TYPE"
    qint32 m_seqNum = 0;       ///< "SEQNUM"
    QString m_action;          ///< "ACTION"; empty for what was there before the monitor
    QString m_devPath;       ///< "DEVPATH"; of SD cards the path of their write protection in /sys
    QString m_partEntryType; ///< "ID_PART_ENTRY_TYPE": code or GUID
    bool m_writeProtected = false; ///< whether an SD card's switch is on
    /// All properties, as texts; of SD cards also "WRITE_PROTECTED", a bool.
    Properties m_props;
    bool m_umountFailed = false; ///< whether the last umount() did
};

/// A block device of this system.
class ORUIO_EXPORT LinuxBD : public BlockDevice {
public:
    /// `udevProps` are the properties of an event. A key that is missing leaves its field empty or
    /// 0.
    ///
    /// The block size is the physical one of the device node, 512 when that tells none. A disk's
    /// length is in these blocks; a partition's begin and length are what udev gives them in, units
    /// of 512 bytes, whatever the block size.
    explicit LinuxBD(Properties& udevProps);
    ~LinuxBD() override;

    int mount(QString mountPoint, const Properties* props) override;
    int umount(const Properties* props) override;
    int mkfs(const Properties* props) override;
    int fsck(const Properties* props) override;
    int format(const Properties* props) override;
    Properties props() override;
};

/// The monitor: tells of block devices that come, go and change. There is one, instance().
///
/// It has no thread of its own, and nothing is open until start(). Let one thread call start(),
/// update() and stop(), and none be in them when the process exits. As a QObject it belongs to the
/// thread that loaded the library: queued calls take that one's event loop, or moveToThread(). When
/// udev gives no context, loading the library ends the process with exit status 1. Devices without
/// "ID_PATH", such as RAM disks and loop devices, are not told of. With the environment variable
/// ORUIO_UDEVDBG set, the properties of every device are printed on standard output.
class ORUIO_EXPORT BDMon : public QObject {
    Q_OBJECT

public:
    /// One device that came, went or changed.
    struct ORUIO_EXPORT Event {
        /// Takes `dev` over.
        Event(int seq, QString action, BlockDevice* dev);

        int seq;        ///< its place in the batch, from 1
        QString action; ///< "add", "remove", "change", as udev has it; of what is there, "add"
        BlockDevice::SPtr dev; ///< as it was at that moment
    };

    /// A batch: events in the order of their arrival.
    using EventListSPtr = QSharedPointer<QList<Event>>;
    /// The same ones by the ID_PATH of their device: a disk and its partitions have one key.
    using EventListByDeviceSPtr = QSharedPointer<QMap<QString, QList<Event>>>;

    /// The only one.
    static BDMon* instance();
    ~BDMon() override;

public Q_SLOTS:
    /// Tells by notify() what came and went since the last call, in one batch: as soon as nothing
    /// has happened for `quiescent_ms` milliseconds, or at once when nothing has happened at all.
    /// As long as something happens, it goes on. What comes after the kernel's queue is full is
    /// lost: stop() and start() tell what is there. \returns 0.
    virtual int update(unsigned int quiescent_ms = 500);

public:
    /// Opens the monitor and tells by notify() what is there; what comes meanwhile is told of here,
    /// by the next update(), or by both. Does nothing when it is open. When udev gives no monitor,
    /// that ends the process with exit status 1: a recorder that does not see its media is of no
    /// use. One that cannot receive is closed again, which is logged, and nothing is told.
    virtual void start();
    /// Closes the monitor. What update() has not told of is dropped.
    virtual void stop();
    /// Whether it is open.
    virtual bool isRunning();

Q_SIGNALS:
    /// A batch, which is never empty. Emitted by start() and update(), on their thread.
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
