// SPDX-License-Identifier: Apache-2.0
// Directories of a real SMB server's share.
#include "network/fssmb_fixtures.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace oru::io {
namespace {

using test::FaultProxy;
using test::login;
using test::names;
using test::SmbShare;
using test::SmbWire;

} // namespace

TEST_F(SmbShare, NamesInManyScripts_AreStoredAndListed) {
    const QStringList wanted = {
        "with blanks in it",
        "ünïcödé",
        "кино",
        "録画",
        "صوت",
        "\xf0\x9f\x8e\xac \xf0\x9f\x8e\x9e",
        "dots.and.more.dots",
        "100% & more; 'quoted' $HOME",
        QString(255, 'n'),
        QString(85, QChar(0x5f55)), // 255 bytes
    };
    ASSERT_EQ(fs.mkdir("/names", 0755), 0);
    for (const QString& name : wanted) {
        const auto file = create("/names/" + name);
        ASSERT_TRUE(file) << name.toStdString() << strerror();
        const QByteArray content = name.toUtf8();
        EXPECT_EQ(file->write(content.constData(), content.size()), content.size());
        file->close();
        EXPECT_EQ(getLocal("/names/" + name), content);
    }
    QStringList expected = wanted;
    expected << "."
             << "..";
    expected.sort();
    const auto directory = fs.opendir("/names");
    ASSERT_TRUE(directory);
    EXPECT_EQ(names(*directory), expected);
    for (const QString& name : wanted) {
        EXPECT_EQ(fs.open("/names/" + name, O_RDONLY, 0)->readAll(1000), name.toUtf8());
        EXPECT_EQ(fs.unlink("/names/" + name), 0) << name.toStdString();
    }
    EXPECT_EQ(fs.rmdir("/names"), 0);
}

// A server may send a name that does not fit into d_name.
TEST_F(SmbWire, NameLongerThanDirent_IsTruncatedAndTerminated) {
    const QString longName(200, 'n');
    putLocal("/" + longName);
    proxy->on({FaultProxy::Response, FaultProxy::QueryDirectory},
              FaultProxy::Fault::edit([&](QByteArray& message) {
                  // Characters of one byte in UTF-8 become characters of three bytes.
                  QByteArray name;
                  for (const QChar c : longName)
                      name.append(char(c.unicode() & 0xff)).append(char(c.unicode() >> 8));
                  const int at = message.indexOf(name);
                  ASSERT_GT(at, 0);
                  for (int i = 0; i < name.size(); i += 2)
                      message.replace(at + i, 2, "\x55\x5f", 2);
              }));
    const auto directory = fs.opendir("/");
    ASSERT_TRUE(directory);
    size_t longest = 0;
    while (const struct dirent* entry = directory->readdir())
        longest = std::max(longest, strnlen(entry->d_name, sizeof entry->d_name));
    EXPECT_EQ(longest, 255U);
}

TEST_F(SmbShare, FiveThousandEntries_AreAllListed) {
    constexpr int count = 5000;
    ASSERT_EQ(fs.mkdir("/many", 0777), 0);
    for (int i = 0; i < count; ++i)
        putLocal("/many/entry-" + QString::number(i).rightJustified(6, '0'));
    Smb2FS share(90); // the time-out for slow machines
    ASSERT_EQ(share.connect(login(server.address())), 0) << strerror();
    const auto directory = share.opendir("/many");
    ASSERT_TRUE(directory) << strerror();
    QStringList found = names(*directory);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(found.removeDuplicates(), 0);
    EXPECT_EQ(found.size(), count + 2);
    EXPECT_EQ(found.last(), "entry-004999");
}

TEST_F(SmbShare, Readdir_SetsNameTypeInodeAndErrno) {
    putLocal("/f");
    ASSERT_EQ(fs.mkdir("/d", 0755), 0);
    struct stat local;
    ASSERT_EQ(::stat(QFile::encodeName(this->local("/f")).constData(), &local), 0);
    const auto directory = fs.opendir("/");
    int seen = 0;
    errno = 0;
    while (const struct dirent* entry = directory->readdir()) {
        ++seen;
        EXPECT_EQ(errno, ENOENT); // even after a success
        EXPECT_EQ(entry->d_off, 0);
        EXPECT_EQ(entry->d_reclen, 0);
        const bool isFile = std::strcmp(entry->d_name, "f") == 0;
        EXPECT_EQ(entry->d_type, isFile ? DT_REG : DT_DIR);
        if (isFile) {
            EXPECT_EQ(entry->d_ino, local.st_ino);
        }
    }
    EXPECT_EQ(seen, 4); // with "." and ".."
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(SmbShare, Rewinddir_ReadsTheDirectoryAgain) {
    ASSERT_EQ(fs.mkdir("/d", 0755), 0);
    putLocal("/d/a");
    const auto directory = fs.opendir("/d");
    EXPECT_EQ(names(*directory), QStringList({".", "..", "a"}));
    putLocal("/d/b");
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_EQ(names(*directory), QStringList({".", "..", "a", "b"}));
    // rewinddir() opens a closed directory again.
    EXPECT_EQ(directory->closedir(), 0);
    EXPECT_EQ(directory->closedir(), 0);
    EXPECT_EQ(directory->readdir(), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_EQ(names(*directory), QStringList({".", "..", "a", "b"}));
    // When the directory is gone, rewinddir() closes it and returns 0. Only errno reports the
    // failure.
    ASSERT_TRUE(QDir(local("/d")).removeRecursively());
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(directory.staticCast<Smb2Dir>()->isOpen());
    EXPECT_EQ(directory->readdir(), nullptr);
}

TEST_F(SmbShare, MissingDirectory_IsClosed) {
    QString path = "/missing";
    Smb2Dir directory(&fs, path);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(directory.isOpen());
    EXPECT_EQ(directory.readdir(), nullptr);
    EXPECT_EQ(directory.closedir(), 0);
}

TEST_F(SmbShare, OpendirFile_FailsWithENOTDIR) {
    putLocal("/f");
    EXPECT_FALSE(fs.opendir("/f"));
    EXPECT_EQ(errno, ENOTDIR);
}

} // namespace oru::io
