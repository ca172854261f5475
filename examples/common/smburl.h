// SPDX-License-Identifier: Apache-2.0
// The URL of a share of an SMB server.
#pragma once

#include <QString>
#include <QStringList>

/// The parts of smb://[[DOMAIN;]USER@]HOST[:PORT]/SHARE[/DIRECTORY...], percent-decoded.
struct SmbUrl {
    QString domain;
    QString user;   ///< empty: an anonymous session
    QString server; ///< HOST or HOST:PORT
    QString share;
    QStringList directories; ///< the components of the path
};

/// Whether `destination` begins with "smb:".
bool isSmbUrl(const QString& destination);

/// Throws UsageError, whose message repeats no part of `url`, because it may contain a password.
SmbUrl parseSmbUrl(const QString& url);
