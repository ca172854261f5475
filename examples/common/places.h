// The storage locations of an application, as a file describes them.
#pragma once

#include <oruio/bdmon.h>
#include <oruio/storagelocation.h>

#include <QString>

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

/// A location, and where its files are.
struct Place {
    std::unique_ptr<oru::io::StorageLocation> location;
    QString directory; ///< in the root switch; a local medium is mounted on it as well
};

/// All places of a file, mounted in the root switch for as long as this object lives. The file has
/// a section for each, whose name is the location's:
///
///     [card]
///     device = platform-3f000000.mmc
///     directory = /media/card
///
///     [archive]
///     share = smb://recorder@nas/footage
///     directory = /media/archive
///
/// "device" is the ID_PATH of what is plugged in there, as the media_monitor shows it; "share" the
/// URL of an SMB share; "export" an NFS export such as nas:/footage. A section has one of them.
class Places {
public:
    /// With a name only the place that is called so, if there is one. Obtains the password of each
    /// share that has a user. Throws Failure.
    explicit Places(const QString& file, const QString& only = {});
    ~Places();

    std::vector<Place>& all();
    /// From now on the local ones know what is plugged in, from the events of `monitor`.
    void follow(oru::io::BDMon& monitor);

private:
    Q_DISABLE_COPY(Places)

    std::vector<Place> m_places;
    QObject m_follower; // ends the connection with the monitor
};

/// Watches a medium come to a local location. A disk is told of before its partitions.
class Arrival {
public:
    /// Whether the location has got a file system, or, three seconds after the disk, none that
    /// would still be expected.
    bool isComplete(oru::io::SystemLocation& location);

private:
    using Clock = std::chrono::steady_clock;

    std::optional<Clock::time_point> m_begin;
};
