// SPDX-License-Identifier: Apache-2.0
// The served directory, accessed through a FUSE file system.
#pragma once

#include "helper.h"

#include <string>

/// A mount of the service's directory by bindfs, which passes all calls on. The kernel caches
/// nothing of it, as the client of the service caches nothing.
class Mirror {
public:
    /// The only mirror, mounted on first use and unmounted at the end of the program.
    static Mirror& instance();

    ~Mirror();

    /// Why it could not be mounted; empty on success.
    const std::string& lastError() const;
    /// The path of the service's clip in this mount.
    std::string clip() const;

private:
    Mirror();
    Q_DISABLE_COPY(Mirror)

    std::string mount();

    Helper m_bindfs;
    std::string m_lastError;
};
