// SPDX-License-Identifier: Apache-2.0
/// \file
/// Keeping storage locations mounted: media that are inserted and removed, shares whose server is
/// restarted.
///
/// \code
/// MediumKeeper keeper(&card); // before BDMon::start(), which reports the media that are present
/// QObject::connect(&keeper, &MediumKeeper::accessChanged,
///                  [](StorageLocation* place, StorageLocation::AccessType access) {
///                      qInfo() << place->name() << StorageLocation::straccess(access);
///                  });
/// MonitorFollower monitor;
/// monitor.start(); // then run an event loop
/// \endcode
///
/// A program without an event loop follows the monitor and the keepers itself:
///
/// \code
/// BDMon::instance()->start();
/// for (;; usleep(200'000)) {
///     BDMon::instance()->update(100);
///     keeper.step();
/// }
/// \endcode
#pragma once

#include <oruio/bdmon.h>
#include <oruio/export.h>
#include <oruio/properties.h>
#include <oruio/storagelocation.h>

#include <QObject>
#include <QString>

#include <functional>
#include <memory>

namespace oru::io {

class MaintenanceJob;

/// What a MediumKeeper does with a medium or share without being asked.
struct ORUIO_EXPORT MediumPolicy {
    /// How a medium is mounted. ByHand: only by MediumKeeper::mount().
    enum class Mount { ReadWrite, ReadOnly, ByHand };
    /// When a medium is checked.
    enum class Check { Never, WhenDirty, Always };

    /// Whether a medium is mounted when it arrives. One that is write-protected is mounted
    /// read-only. A share is connected; with ReadOnly, it is not probed for writing.
    Mount mount = Mount::ReadWrite;
    /// Whether a medium is checked and repaired before it is mounted for the first time.
    /// WhenDirty: if the file system says that it was not unmounted, or does not say it. After
    /// a check that fails the medium is not mounted, except by mount().
    Check check = Check::Never;
    /// The partitions that may be selected; if empty, all with a file system.
    std::function<bool(const BlockDevice&)> accepts = {};
    /// The type of the file system, such as "exfat", of the largest partition of a medium of
    /// which udev knows no file system. If empty, such a medium is not mounted.
    QString unknownType = {};
    /// How long a medium may take to arrive, counted from its last event, in ms.
    int arrivalMs = 3000;
    /// The time between two looks at a server, or at the mount table, in ms.
    int probeMs = 5000;
    /// The time before a failed mount or connect is tried again, in ms. It doubles after each
    /// failure, up to longestRetryMs.
    int firstRetryMs = 1000;
    /// The longest time before a failed mount or connect is tried again, in ms.
    int longestRetryMs = 30'000;
};

/// Mounts the medium of a location when it arrives, unmounts it when it has been removed, and
/// reports what is so. Connects a share, and connects it again after its server was lost.
///
/// A slot or port (SystemLocation):
///
/// - The medium is mounted when it has arrived whole: when udev has reported every partition that
///   the kernel knows, or after MediumPolicy::arrivalMs.
/// - A medium that is reported again stays mounted. So does one of which another partition is
///   added or removed.
/// - A medium that is removed while mounted is unmounted lazily, in the same batch of events.
/// - A medium that cannot be mounted is tried again, at growing intervals.
/// - The mount point is the keeper's: what else is mounted on it is unmounted. It may contain a
///   blank, which umount() of the location cannot unmount.
/// - The keeper alone passes the events to the location, and only those that are news for it. The
///   application does not call processBDEvents().
///
/// A share (RemoteLocation):
///
/// - It is connected at once, and tried again at growing intervals.
/// - After a fatal failure (Smb2FS::brokenBy()), or when the server does not answer a ping, it is
///   disconnected and connected again. Release all files of the lost connection: they fail.
/// - After connecting, the keeper finds out with RemoteLocation::probe() whether the share is
///   writeable; if not, access() is Read. Only a connected share is probed.
///
/// Operate the location through its keeper. What is done to the location directly, or to the mount
/// point by other programs, is noticed at the next step() and put right.
///
/// Threads: a keeper has no thread. Its functions are called by the thread that it belongs to
/// (QObject::thread()), which also uses the location and the objects that the keeper returns. In a
/// thread with an event loop it acts by itself. moveToThread() moves it, but not while job() is not
/// null. Mounting a medium and connecting a share block the thread, checking and
/// formatting do not (MaintenanceJob).
class ORUIO_EXPORT MediumKeeper : public QObject {
    Q_OBJECT

public:
    /// What the keeper does without being asked.
    using Policy = MediumPolicy;

    /// What there is, and what is done with it.
    enum State : int {
        Absent = 1, ///< no medium; a share that is not to be connected
        Arriving,   ///< a part of the medium has been reported
        Present,    ///< a medium that is not to be mounted
        Busy,       ///< it is checked or formatted: job()
        Mounted,    ///< access() is Read or Write
        Failed,     ///< it cannot be mounted, connected or used: reason()
    };
    Q_ENUM(State)

    /// Keeps `location`, which must exist as long as the keeper. Its file system must have a mount
    /// point in FSSwitch::rootfs(), other than the root directory, unless it is a share.
    ///
    /// Make it before BDMon::start(): the monitor reports each medium only once.
    explicit MediumKeeper(StorageLocation* location, const Policy& policy = {},
                          QObject* parent = nullptr);
    /// Leaves the location as it is. Cancels a check or a format where that is safe; else it
    /// continues.
    ~MediumKeeper() override;

    /// Returns the location.
    StorageLocation* location() const;
    /// Returns the state at the end of the last step().
    State state() const;
    /// Returns what is so at the end of the last step(): None without a medium, Read or Write while
    /// it is mounted once at its place. The same as access() of the location.
    StorageLocation::AccessType access() const;
    /// Returns why the state is Failed, for the user; else an empty string.
    QString reason() const;
    /// Returns the check or format that runs, or null: its progress, and how to cancel it.
    MaintenanceJob* job() const;

    /// Mounts or remounts the medium, or connects the share, and keeps it so until unmount(). What
    /// is done with the next medium is up to the policy. `access` is Write or Read; Write of a
    /// write-protected medium is Read. The policy's check precedes it, unless it has failed.
    ///
    /// \returns 0 when it is mounted or a check has begun, else -1 with errno:
    /// - EBUSY: it is being checked or formatted;
    /// - EINVAL: `access` is neither;
    /// - ENODEV: there is no medium; or it has not arrived whole, then it is mounted when it has;
    /// - any errno of mount(2) or of connecting; 0 if none is known. It is tried again.
    int mount(StorageLocation::AccessType access = StorageLocation::Write);
    /// Unmounts the medium or disconnects the share. It stays so until mount(), or until another
    /// medium is inserted.
    ///
    /// \returns 0, also when it is not mounted; -1 with errno:
    /// - EBUSY: files are open, and `lazy` is false. It stays mounted. Or it is being checked or
    ///   formatted.
    /// - any errno of umount2(2), or of disconnecting.
    int unmount(bool lazy = false);
    /// Begins to check and repair the selected partition. Reported by finished().
    ///
    /// \returns 0 when it has begun, else -1 with errno:
    /// - EBUSY: the medium is mounted, or is already being checked or formatted;
    /// - ENODEV: there is no medium, or another one has its name;
    /// - ENOTSUP: the location is a share.
    int check();
    /// Begins to format the disk. Reported by finished(). `props` as for SystemLocation::format().
    /// \returns as check(); also -1 with errno EROFS: the medium is write-protected.
    int format(const Properties* props = nullptr);

public Q_SLOTS:
    /// Does what is due: mounts, unmounts, retries, pings. In a thread with an event loop it is
    /// called when needed.
    ///
    /// \returns the time in ms until the next call is due; -1 if only an event or a call changes
    /// anything.
    int step();

Q_SIGNALS:
    /// Reports access() after a change. It may be connected to StorageLocation::accessChanged().
    void accessChanged(oru::io::StorageLocation* location,
                       oru::io::StorageLocation::AccessType access);
    /// Reports state() after a change, and a new reason() of Failed.
    void stateChanged(oru::io::MediumKeeper::State state);
    /// Reports the end of check(), format(), or of the policy's check. `status` as of
    /// BlockDevice::fsck(): only 0 is success.
    void finished(int status);

private:
    Q_DISABLE_COPY(MediumKeeper)
    class ORUIO_LOCAL Data;
    const std::unique_ptr<Data> m_data;
};

/// Calls BDMon::update() when events are queued, in a thread with an event loop.
///
/// One follower serves all keepers of the process. It belongs to the thread that calls start(),
/// update() and stop() of the monitor; keepers may belong to other threads.
class ORUIO_EXPORT MonitorFollower : public QObject {
    Q_OBJECT

public:
    /// Events are collected for `quietMs` after the first one, then published as one batch. A
    /// keeper waits for the whole medium in any case.
    explicit MonitorFollower(int quietMs = 100, QObject* parent = nullptr);
    /// Calls stop().
    ~MonitorFollower() override;

    /// Starts the monitor, which reports the devices that are present, and follows it.
    /// \returns whether the monitor runs.
    bool start();
    /// Stops the monitor, if start() was called.
    void stop();

private:
    Q_DISABLE_COPY(MonitorFollower)
    class ORUIO_LOCAL Data;
    const std::unique_ptr<Data> m_data;
};

} // namespace oru::io

Q_DECLARE_METATYPE(oru::io::MediumKeeper::State)
