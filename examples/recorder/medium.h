// SPDX-License-Identifier: Apache-2.0
// The medium of a storage location.
#pragma once

#include "common/places.h"
#include "options.h"

#include <oruio/mediumkeeper.h>

#include <QString>

/// Mounted while this object exists.
class Medium {
public:
    /// Mounts the medium of the location `name`; waits up to 30 s until it is inserted. Throws
    /// Failure.
    Medium(const QString& name, const Options& options);
    ~Medium();

    /// The directory in the root switch.
    QString directory() const;
    /// Unmounts it, and checks it if --check is given. Throws Failure.
    void unmount();

private:
    Q_DISABLE_COPY(Medium)

    void await();
    void check();

    const bool m_isToBeChecked;
    const Places m_places;
    const Place& m_place;
    oru::io::MediumKeeper m_keeper;
};
