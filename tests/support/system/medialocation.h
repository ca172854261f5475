// SPDX-License-Identifier: Apache-2.0
// A location of local media as an application sets it up.
#pragma once

#include "support/doubles/openlocation.h"

#include <oruio/error.h>
#include <oruio/fs.h>

#include <QString>

#include <functional>

namespace oru::io::test {

/// A location for the media with one "ID_PATH". Its file system is mounted at a directory of the
/// root switch.
class MediaLocation {
public:
    MediaLocation(const char* name, const QString& idPath, const QString& directory);
    ~MediaLocation();

    /// Connects the location to the monitor's batches.
    void followMonitor();

    FS& files() const {
        return *fs;
    }
    /// One field of OpenLocation::state().
    QString field(const char* name);
    /// Expects a present medium with this disk and selected partition, not mounted.
    void expectSelected(const QString& disk, const QString& part);

    const FS::SPtr fs;
    Properties props;
    OpenLocation location;
    int accessChanges = 0; ///< number of accessChanged signals

private:
    Q_DISABLE_COPY(MediaLocation)
};

/// Expects that the call returns -1 and sets liberrno to `reason`.
void expectRefused(const std::function<int()>& call, ErrorCode reason);

} // namespace oru::io::test
