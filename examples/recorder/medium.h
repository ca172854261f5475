// The medium of a storage location.
#pragma once

#include "common/places.h"
#include "options.h"

#include <QString>

/// Mounted for as long as this object lives.
class Medium {
public:
    /// Mounts the medium of the location `name`. One that is not there is awaited, for half a
    /// minute. Throws Failure.
    Medium(const QString& name, const Options& options);
    ~Medium();

    /// Its directory in the root switch.
    QString directory() const;
    /// Checks it, too, where that is an option. Throws Failure.
    void unmount();

private:
    Q_DISABLE_COPY(Medium)

    void await(oru::io::SystemLocation& location);
    void check();

    const bool m_isToBeChecked;
    Places m_places;
    Place& m_place;
    bool m_isMounted = false;
};
