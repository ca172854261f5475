#include "smburl.h"

#include "failure.h"
#include "password.h"

#include <QRegularExpression>

namespace {

QRegularExpression pattern(const QString& text) {
    return QRegularExpression(QRegularExpression::anchoredPattern(text),
                              QRegularExpression::CaseInsensitiveOption |
                                  QRegularExpression::DotMatchesEverythingOption);
}

[[noreturn]] void reject(const QString& problem) {
    throw UsageError{"the URL of a share " + problem};
}

/// A password may itself have an @ or a slash that should have been encoded: wherever a colon comes
/// before an @, nothing is taken for granted.
void rejectPassword(const QString& text) {
    static const QRegularExpression password = pattern("smb:.*:.*@.*");
    if (password.match(text).hasMatch())
        reject(QStringLiteral("must not have a password, which others can see there: %1 may have "
                              "it, or it is asked for (an @ in a name is written %40)")
                   .arg(passwordVariable));
}

QString decoded(const QString& part) {
    static const QRegularExpression loneSign("%(?![0-9A-Fa-f]{2})");
    if (part.contains(loneSign))
        reject("has a % that stands for no character; a % in a name is written %25");
    const QByteArray bytes = QByteArray::fromPercentEncoding(part.toUtf8());
    QString text = QString::fromUtf8(bytes);
    if (text.toUtf8() != bytes || text.contains(QChar::Null))
        reject("is not a text in UTF-8 when decoded");
    return text;
}

} // namespace

bool isSmbUrl(const QString& text) {
    return text.startsWith("smb:", Qt::CaseInsensitive);
}

SmbUrl parseSmbUrl(const QString& text) {
    static const QRegularExpression form = pattern(R"(smb://)"
                                                   R"((?:(?:([^/@;]*);)?([^/@;]+)@)?)"
                                                   R"((\[[^]/@]+\]|[^][:/@;]+)(?::(\d{1,5}))?)"
                                                   R"(/([^/]+)(/.*)?)");
    rejectPassword(text);
    const QRegularExpressionMatch match = form.match(text);
    const QString port = match.captured(4);
    if (!match.hasMatch() || (!port.isEmpty() && (port.toInt() < 1 || port.toInt() > 65535)))
        reject("must be smb://[[DOMAIN;]USER@]HOST[:PORT]/SHARE[/DIRECTORY...]");

    SmbUrl url;
    url.domain = decoded(match.captured(1));
    url.user = decoded(match.captured(2));
    url.server = decoded(match.captured(3));
    if (!port.isEmpty())
        url.server += ':' + port;
    url.share = decoded(match.captured(5));
    url.directories = decoded(match.captured(6)).split('/', Qt::SkipEmptyParts);
    return url;
}
