// A share of an SMB server, and the ways to it that are compared.
#pragma once

#include "support/system/smbserver.h"

#include <oruio/fssmb.h>

#include <QStringList>
#include <QTemporaryDir>

#include <memory>
#include <string>

/// A directory on the disk that a server on this machine shares, with one clip in it.
///
/// Every benchmark makes a connection of its own, and drops it at its end. How much a connection
/// carries at a time grows with its use, and not always alike: one that were kept could be slow, or
/// fast, from the first round to the last. Before there is a new one, the server gets the time that
/// it takes to end the one before.
class Share {
public:
    struct ContextDeleter {
        void operator()(smb2_context* context) const;
    };
    using Context = std::unique_ptr<smb2_context, ContextDeleter>;

    /// The one share, served from its first use to the end of the program.
    static Share& instance();

    /// Why there is none, empty if there is.
    const std::string& lastError() const;

    /// Connects with the library. \returns null when that fails.
    std::unique_ptr<oru::io::Smb2FS> connect() const;
    /// Connects with libsmb2 alone, in the same dialect. \returns null when that fails.
    Context connectLibsmb2() const;
    /// What smbclient has to be called with to connect.
    QStringList smbclientArguments() const;

    /// A clip of clipSize bytes, as all of them know it.
    static constexpr char clip[] = "clip.mov";

private:
    Share();
    Q_DISABLE_COPY(Share)

    void awaitIdleServer() const;

    QTemporaryDir m_directory;
    oru::io::test::SmbServer m_server;
    const int m_idleProcesses; // those that do not serve a connection
    const std::string m_lastError;
};
