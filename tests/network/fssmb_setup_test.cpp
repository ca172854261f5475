// SPDX-License-Identifier: Apache-2.0
// The server that docs/shares.md describes.
#include "network/fssmb_fixtures.h"

#include <QMap>
#include <QStringList>

#include <cerrno>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

namespace oru::io {
namespace {

using test::login;
using test::SmbServer;
using test::with;

/// The sections of the first smb.conf(5) in the document: their lines, without blanks at both ends.
QMap<QString, QStringList> documentedSections() {
    const QString document = QString::fromUtf8(test::contents(ORUIO_SHARES_DOCUMENT));
    QMap<QString, QStringList> sections;
    QString section;
    for (const QString& line : document.section("```ini\n", 1).section("```", 0, 0).split('\n')) {
        const QString words = line.trimmed();
        if (words.startsWith('['))
            section = words.mid(1, words.size() - 2);
        else if (!words.isEmpty())
            sections[section] += words;
    }
    return sections;
}

/// The options of a server with these sections. SmbServer has a directory for each share, and maps
/// its user to the account of this process.
SmbServer::Options optionsFrom(QMap<QString, QStringList> sections) {
    const struct passwd* const account = getpwuid(geteuid());
    SmbServer::Options options;
    options.global = sections.take("global");
    for (auto share = sections.begin(); share != sections.end(); ++share) {
        EXPECT_EQ(share->removeAll("path = /srv/clips"), 1);
        EXPECT_EQ(share->removeAll("valid users = recorder"), 1);
        *share += QStringLiteral("valid users = %1").arg(account->pw_name);
        options.shares[share.key()] = *share;
    }
    return options;
}

} // namespace

TEST(SmbSetup, DocumentedSamba_RecorderConnectsAndRecords) {
    if (!SmbServer::missing().isEmpty())
        GTEST_SKIP() << SmbServer::missing().toStdString();
    const QMap<QString, QStringList> sections = documentedSections();
    ASSERT_EQ(sections.keys(), QStringList({"clips", "global"}));
    const SmbServer server(optionsFrom(sections));
    ASSERT_EQ(server.problem(), "");
    // smbd ignores what it does not know, and logs it.
    EXPECT_FALSE(server.log().contains("nknown parameter")) << server.log().toStdString();
    for (const char* version : {"", "2.0.2", "2.1.0", "3.0.2", "3.1.1"}) {
        Smb2FS fs(10);
        ASSERT_EQ(fs.connect(with(login(server.address(), "clips"), "version", version)), 0)
            << version << strerror();
        const auto file = fs.open("/clip", O_RDWR | O_CREAT | O_TRUNC, 0644);
        ASSERT_TRUE(file) << std::strerror(errno);
        const QByteArray content(1 << 20, 'c');
        EXPECT_EQ(file->write(content.constData(), content.size()), content.size());
        EXPECT_EQ(file->fsync(), 0);
        EXPECT_EQ(file->close(), 0);
        EXPECT_EQ(test::contents(server.directory("clips") + "/clip"), content);
    }
}

} // namespace oru::io
