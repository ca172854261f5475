// A location of local media as an application has it.
#pragma once

#include "support/doubles/openlocation.h"

#include <oruio/error.h>
#include <oruio/fs.h>

#include <QString>

#include <functional>

namespace oru::io::test {

/// For the media that come to one place, by its "ID_PATH". Its files are at a directory of the root
/// switch.
class MediaLocation {
public:
    MediaLocation(const char* name, const QString& idPath, const QString& directory);
    ~MediaLocation();

    /// From now on it gets the monitor's batches.
    void followMonitor();

    FS& files() const {
        return *fs;
    }
    /// One of OpenLocation::facts().
    QString fact(const char* name);
    /// There is a medium, of which nothing is mounted.
    void expectSelected(const QString& disk, const QString& part);

    const FS::SPtr fs;
    Properties props;
    OpenLocation location;
    int changesTold = 0; ///< how often accessChanged was emitted

private:
    Q_DISABLE_COPY(MediaLocation)
};

/// The call returns -1 with this reason.
void expectRefused(const std::function<int()>& call, ErrorCode reason);

} // namespace oru::io::test
