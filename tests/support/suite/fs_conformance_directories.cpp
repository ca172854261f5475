// SPDX-License-Identifier: Apache-2.0
// The conformance suite: directories.
#include "support/suite/fs_conformance.h"

#include <QSet>

namespace oru::io::test {

// Referenced by fs_conformance.cpp, for the linker.
extern const char conformanceOfDirectories = 0;

TEST_P(FSConformance, Readdir_ListsEveryEntryOnce) {
    ASSERT_EQ(fs().mkdir(at("d"), 0755), 0);
    put("d/a");
    put("d/b");
    ASSERT_EQ(fs().mkdir(at("d/c"), 0755), 0);
    EXPECT_EQ(list(at("d")), QStringList({".", "..", "a", "b", "c"}));
}

TEST_P(FSConformance, ReaddirAtEnd_ReturnsNullAgain) {
    const auto dir = fs().opendir(at(""));
    ASSERT_TRUE(dir);
    while (dir->readdir()) {
    }
    EXPECT_EQ(dir->readdir(), nullptr);
}

TEST_P(FSConformance, Rewinddir_StartsAgainWithNewEntries) {
    put("a");
    const auto dir = fs().opendir(at(""));
    ASSERT_TRUE(dir);
    QSet<QString> first;
    while (struct dirent* entry = dir->readdir())
        first.insert(QString::fromUtf8(entry->d_name));
    put("b");
    EXPECT_EQ(dir->rewinddir(), 0);
    QSet<QString> second;
    while (struct dirent* entry = dir->readdir())
        second.insert(QString::fromUtf8(entry->d_name));
    EXPECT_EQ(second, first + QSet<QString>{"b"});
}

TEST_P(FSConformance, ClosedirTwice_HasDeclaredResult) {
    const auto dir = fs().opendir(at(""));
    ASSERT_TRUE(dir);
    EXPECT_EQ(dir->closedir(), 0);
    EXPECT_EQ(dir->readdir(), nullptr);
    EXPECT_EQ(dir->closedir(), can().closedirAgain);
}

TEST_P(FSConformance, OpendirMissing_HasDeclaredResult) {
    const auto dir = fs().opendir(at("missing"));
    expectRefusal(ENOENT);
    ASSERT_EQ(!dir.isNull(), can().opendirIsNeverNull);
    if (!dir)
        return;
    EXPECT_EQ(dir->readdir(), nullptr);
    EXPECT_EQ(dir->rewinddir(), 0);
    EXPECT_EQ(dir->closedir(), can().closedirAgain);
}

TEST_P(FSConformance, OpendirFile_FailsWithENOTDIR) {
    put("f");
    const auto dir = fs().opendir(at("f"));
    expectRefusal(ENOTDIR);
    EXPECT_EQ(!dir.isNull(), can().opendirIsNeverNull);
}

TEST_P(FSConformance, DirectoryIoctl_HasDeclaredResult) {
    const auto dir = fs().opendir(at(""));
    ASSERT_TRUE(dir);
    QString response;
    works(Op::DirectoryIoctl, dir->ioctl("anything", response));
}

TEST_P(FSConformance, ThousandEntries_AllAreListed) {
    for (int i = 0; i < 1000; ++i)
        put(qPrintable(QStringLiteral("clip-%1").arg(i, 4, 10, QLatin1Char('0'))));
    const QStringList names = list(at(""));
    ASSERT_EQ(names.size(), 1002);
    EXPECT_EQ(names.at(2), "clip-0000");
    EXPECT_EQ(names.last(), "clip-0999");
}

} // namespace oru::io::test
