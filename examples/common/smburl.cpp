// SPDX-License-Identifier: Apache-2.0
#include "smburl.h"

#include "failure.h"
#include "password.h"

#include <QRegularExpression>

namespace {

QRegularExpression pattern(const QString& expression) {
    return QRegularExpression(QRegularExpression::anchoredPattern(expression),
                              QRegularExpression::CaseInsensitiveOption |
                                  QRegularExpression::DotMatchesEverythingOption);
}

[[noreturn]] void reject(const QString& problem) {
    throw UsageError{"the URL of a share " + problem};
}

/// Rejects every URL with a colon before an @: a password may itself contain an @ or a slash that
/// should have been encoded.
void rejectPassword(const QString& url) {
    static const QRegularExpression password = pattern("smb:.*:.*@.*");
    if (password.match(url).hasMatch())
        reject(QStringLiteral("must not have a password, which others can see there: %1 may have "
                              "it, or it is asked for (an @ in a name is written %40)")
                   .arg(passwordVariable));
}

QString decoded(const QString& part) {
    static const QRegularExpression loneSign("%(?![0-9A-Fa-f]{2})");
    if (part.contains(loneSign))
        reject("has a % that stands for no character; a % in a name is written %25");
    const QByteArray bytes = QByteArray::fromPercentEncoding(part.toUtf8());
    QString result = QString::fromUtf8(bytes);
    if (result.toUtf8() != bytes || result.contains(QChar::Null))
        reject("is not a text in UTF-8 when decoded");
    return result;
}

} // namespace

bool isSmbUrl(const QString& destination) {
    return destination.startsWith("smb:", Qt::CaseInsensitive);
}

SmbUrl parseSmbUrl(const QString& url) {
    static const QRegularExpression form = pattern(R"(smb://)"
                                                   R"((?:(?:([^/@;]*);)?([^/@;]+)@)?)"
                                                   R"((\[[^]/@]+\]|[^][:/@;]+)(?::(\d{1,5}))?)"
                                                   R"(/([^/]+)(/.*)?)");
    rejectPassword(url);
    const QRegularExpressionMatch match = form.match(url);
    const QString port = match.captured(4);
    if (!match.hasMatch() || (!port.isEmpty() && (port.toInt() < 1 || port.toInt() > 65535)))
        reject("must be smb://[[DOMAIN;]USER@]HOST[:PORT]/SHARE[/DIRECTORY...]");

    SmbUrl parts;
    parts.domain = decoded(match.captured(1));
    parts.user = decoded(match.captured(2));
    parts.server = decoded(match.captured(3));
    if (!port.isEmpty())
        parts.server += ':' + port;
    parts.share = decoded(match.captured(5));
    parts.directories = decoded(match.captured(6)).split('/', Qt::SkipEmptyParts);
    return parts;
}
