// SPDX-License-Identifier: Apache-2.0
// The destination of the clip: mounts the argument of --to in the root switch.
#pragma once

#include "medium.h"
#include "options.h"

#include <QString>
#include <QTemporaryDir>

#include <memory>

/// A file system, mounted in the root switch while this object exists.
class Destination {
public:
    /// Mounts the argument of --to:
    /// - "ipc": the directory that the file server of this system exports
    /// - smb://...: a share of an SMB server and a directory in it, which is created if missing
    /// - "location:NAME": a medium (medium.h)
    /// - any other: a local directory
    /// - empty: a temporary directory, removed at the end unless --keep is given
    ///
    /// May ask the user for a password. Throws Failure if the destination is not available,
    /// UsageError if the argument is invalid.
    ///
    /// The session with a file server belongs to the calling thread, which should also destroy this
    /// object. Only one call on the file system at a time is allowed.
    explicit Destination(const Options& options);
    ~Destination();

    /// Unmounts a medium, which can then be removed. Throws Failure.
    void leave();

    /// The directory in the root switch.
    QString directory() const;
    /// The path of `name` in the root switch.
    QString path(const QString& name) const;
    /// The path of `name` as the user knows it, for messages.
    QString shown(const QString& name) const;

    /// Whether clips remain after this object is destroyed.
    bool isKept() const;

private:
    Q_DISABLE_COPY(Destination)

    std::unique_ptr<QTemporaryDir> m_temporary;
    std::unique_ptr<Medium> m_medium;
    QString m_shown;
    QString m_directory;
};
