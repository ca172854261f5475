// Where the clip goes: turns the text after --to into a file system in the root switch.
#pragma once

#include "medium.h"
#include "options.h"

#include <QString>
#include <QTemporaryDir>

#include <memory>

/// A file system, mounted in the root switch for as long as this object lives.
class Destination {
public:
    /// Mounts what the text behind --to names: "ipc", what the file server of this system exports;
    /// a share of an SMB server, with a directory in it, which is made if it is missing;
    /// "location:NAME", a medium (medium.h); a local directory; or, if it is empty, a temporary
    /// directory, which is removed at the end unless it is to be kept. May ask the user for a
    /// password. Throws Failure when there is no such thing, UsageError when the text makes no
    /// sense.
    ///
    /// The session with a file server belongs to the calling thread: it should also be the one that
    /// destroys this object. All use of the file system must be one call at a time.
    explicit Destination(const Options& options);
    ~Destination();

    /// When all is written: what is removable may then be removed. Throws Failure.
    void leave();

    /// Its directory in the root switch.
    QString directory() const;
    /// The path of `name` in the root switch.
    QString path(const QString& name) const;
    /// The path of `name` as the user knows it, for messages.
    QString shown(const QString& name) const;

    /// Whether clips are still there when this object is gone.
    bool isKept() const;

private:
    Q_DISABLE_COPY(Destination)

    std::unique_ptr<QTemporaryDir> m_temporary;
    std::unique_ptr<Medium> m_medium;
    QString m_shown;
    QString m_directory;
};
