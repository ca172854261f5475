// SPDX-License-Identifier: Apache-2.0
// The storage locations of an application, described by a file.
#pragma once

#include <oruio/storagelocation.h>

#include <QString>

#include <memory>
#include <vector>

/// A location and the directory of its files.
struct Place {
    std::unique_ptr<oru::io::StorageLocation> location;
    QString directory; ///< in the root switch; also the mount point of a local medium
};

/// All places of a file, mounted in the root switch while this object exists. The file has a
/// section for each location, with its name:
///
///     [card]
///     device = platform-3f000000.mmc
///     directory = /media/card
///
///     [archive]
///     share = smb://recorder@nas/footage
///     directory = /media/archive
///
/// A section has one of these keys:
/// - "device": the ID_PATH of a slot or port, as media_monitor prints it
/// - "share": the URL of an SMB share
/// - "export": an NFS export such as nas:/footage
class Places {
public:
    /// With `only`, reads only the place of this name, if it exists. Obtains the password of each
    /// share that has a user. Throws Failure.
    explicit Places(const QString& file, const QString& only = {});
    ~Places();

    const std::vector<Place>& all() const;

private:
    Q_DISABLE_COPY(Places)

    std::vector<Place> m_places;
};
