// The served directory once more, through a FUSE file system.
#pragma once

#include "helper.h"

#include <string>

/// A mount of the service's directory by bindfs, which passes everything on. The kernel keeps
/// nothing in its caches, as the service keeps nothing in the client.
class Mirror {
public:
    /// The one mirror, mounted on first use and gone with the program.
    static Mirror& instance();

    ~Mirror();

    /// Why there is none, empty if there is.
    const std::string& lastError() const;
    /// The service's clip.
    std::string clip() const;

private:
    Mirror();
    Q_DISABLE_COPY(Mirror)

    std::string mount();

    Helper m_bindfs;
    std::string m_lastError;
};
