// A share of an SMB server, as users write it.
#pragma once

#include <QString>
#include <QStringList>

/// The parts of smb://[[DOMAIN;]USER@]HOST[:PORT]/SHARE[/DIRECTORY...], without percent-encoding.
struct SmbUrl {
    QString domain;
    QString user;   ///< empty: an anonymous session
    QString server; ///< the host and, if there is one, a colon and the port
    QString share;
    QStringList directories; ///< the names on the way to the directory
};

/// Whether `text` is meant to be such a URL.
bool isSmbUrl(const QString& text);

/// Throws UsageError. There is nothing of `text` in its message: it may have a password.
SmbUrl parseSmbUrl(const QString& text);
