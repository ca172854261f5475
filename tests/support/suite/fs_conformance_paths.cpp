// SPDX-License-Identifier: Apache-2.0
// The conformance suite: operations on paths, and names.
#include "support/suite/fs_conformance.h"

#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace oru::io::test {

// Referenced by fs_conformance.cpp, for the linker.
extern const char conformanceOfPaths = 0;

// --- Operations on paths

TEST_P(FSConformance, Stat_DistinguishesFileFromDirectory) {
    put("f", "abc");
    ASSERT_EQ(fs().mkdir(at("d"), 0755), 0);
    struct stat st;
    EXPECT_EQ(fs().stat(at("f"), st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_size, 3);
    EXPECT_EQ(fs().lstat(at("f"), st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(fs().stat(at("d"), st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
}

TEST_P(FSConformance, MissingPath_EveryOperationFailsWithENOENT) {
    struct stat st;
    struct statfs sfs;
    char buf[16] = {};
    QString target;
    const QString missing = at("missing");
    EXPECT_EQ(fs().stat(missing, st), -1);
    expectRefusal(ENOENT);
    EXPECT_EQ(fs().lstat(missing, st), -1);
    expectRefusal(ENOENT);
    EXPECT_EQ(fs().statfs(missing, sfs), -1);
    expectRefusal(ENOENT);
    EXPECT_EQ(fs().unlink(missing), -1);
    expectRefusal(ENOENT);
    EXPECT_EQ(fs().rmdir(missing), -1);
    expectRefusal(ENOENT);
    EXPECT_EQ(fs().rename(missing, at("other")), -1);
    expectRefusal(ENOENT);
    EXPECT_EQ(fs().mkdir(at("missing/d"), 0755), -1);
    expectRefusal(ENOENT);
    if (provides(Op::Truncate)) {
        EXPECT_EQ(fs().truncate(missing, 0), -1);
        expectRefusal(ENOENT);
    }
    if (provides(Op::Chmod)) {
        EXPECT_EQ(fs().chmod(missing, 0600), -1);
        expectRefusal(ENOENT);
    }
    if (provides(Op::Link)) {
        EXPECT_EQ(fs().link(missing, at("other")), -1);
        expectRefusal(ENOENT);
    }
    if (provides(Op::Symlink)) {
        EXPECT_EQ(fs().readlink(missing, target), -1);
        expectRefusal(ENOENT);
        EXPECT_EQ(fs().readlink(missing, buf, sizeof buf), -1);
        expectRefusal(ENOENT);
    }
    if (provides(Op::Xattr)) {
        EXPECT_EQ(fs().getxattr(missing, "user.a", buf, sizeof buf), -1);
        expectRefusal(ENOENT);
        EXPECT_EQ(fs().setxattr(missing, "user.a", buf, 1, 0), -1);
        expectRefusal(ENOENT);
        EXPECT_EQ(fs().removexattr(missing, "user.a"), -1);
        expectRefusal(ENOENT);
        EXPECT_EQ(fs().listxattr(missing, buf, sizeof buf), -1);
        expectRefusal(ENOENT);
    }
    EXPECT_FALSE(exists("other"));
}

TEST_P(FSConformance, Statfs_ReturnsBlockCounts) {
    struct statfs st = {};
    ASSERT_EQ(fs().statfs(at(""), st), 0) << strerror();
    EXPECT_GT(st.f_bsize, 0);
    EXPECT_GT(st.f_blocks, 0U);
    EXPECT_LE(st.f_bfree, st.f_blocks);
}

TEST_P(FSConformance, MkdirTwice_SecondFailsWithEEXIST) {
    EXPECT_EQ(fs().mkdir(at("d"), 0755), 0) << strerror();
    EXPECT_EQ(fs().mkdir(at("d"), 0755), -1);
    expectRefusal(EEXIST);
    put("d/f", "inside");
    EXPECT_EQ(get("d/f"), "inside");
}

TEST_P(FSConformance, Rmdir_RemovesAnEmptyDirectory) {
    ASSERT_EQ(fs().mkdir(at("d"), 0755), 0);
    EXPECT_EQ(fs().rmdir(at("d")), 0) << strerror();
    EXPECT_FALSE(exists("d"));
}

TEST_P(FSConformance, RmdirNonEmpty_FailsAndKeepsTheContent) {
    ASSERT_EQ(fs().mkdir(at("d"), 0755), 0);
    put("d/f", "kept");
    EXPECT_FALSE(works(Op::RmdirNonEmpty, fs().rmdir(at("d"))));
    EXPECT_EQ(get("d/f"), "kept");
}

TEST_P(FSConformance, RmdirFile_HasDeclaredResult) {
    put("f");
    works(Op::RmdirOfFile, fs().rmdir(at("f")));
}

TEST_P(FSConformance, Unlink_RemovesAFile) {
    put("f");
    EXPECT_EQ(fs().unlink(at("f")), 0) << strerror();
    EXPECT_FALSE(exists("f"));
}

TEST_P(FSConformance, UnlinkDirectory_HasDeclaredResult) {
    ASSERT_EQ(fs().mkdir(at("d"), 0755), 0);
    works(Op::UnlinkDirectory, fs().unlink(at("d")));
}

TEST_P(FSConformance, UnlinkOpenFile_ContentStaysReadable) {
    put("f", "abc");
    const auto file = fs().open(at("f"), O_RDONLY, 0);
    ASSERT_TRUE(file);
    if (!works(Op::UnlinkOpenFile, fs().unlink(at("f"))))
        return;
    EXPECT_FALSE(exists("f"));
    EXPECT_EQ(readFully(*file, 10), "abc");
}

TEST_P(FSConformance, Rename_MovesFilesAndDirectories) {
    put("f", "abc");
    ASSERT_EQ(fs().mkdir(at("d"), 0755), 0);
    ASSERT_EQ(fs().mkdir(at("e"), 0755), 0);
    EXPECT_EQ(fs().rename(at("f"), at("d/g")), 0) << strerror();
    EXPECT_FALSE(exists("f"));
    EXPECT_EQ(get("d/g"), "abc");
    EXPECT_EQ(fs().rename(at("d"), at("e/h")), 0) << strerror();
    EXPECT_FALSE(exists("d"));
    EXPECT_EQ(get("e/h/g"), "abc");
}

TEST_P(FSConformance, RenameOntoExistingFile_HasDeclaredResult) {
    put("f", "new");
    put("g", "old");
    if (works(Op::RenameOntoExisting, fs().rename(at("f"), at("g")))) {
        EXPECT_EQ(get("g"), "new");
        EXPECT_FALSE(exists("f"));
    } else {
        EXPECT_EQ(get("g"), "old");
        EXPECT_EQ(get("f"), "new");
    }
}

TEST_P(FSConformance, Link_AddsASecondName) {
    put("f", "abc");
    if (!works(Op::Link, fs().link(at("f"), at("g"))))
        return;
    EXPECT_EQ(get("g"), "abc");
    struct stat st;
    EXPECT_EQ(fs().stat(at("f"), st), 0);
    EXPECT_EQ(st.st_nlink, 2U);
    EXPECT_EQ(fs().link(at("f"), at("g")), -1);
    expectRefusal(EEXIST);
    EXPECT_EQ(fs().unlink(at("f")), 0);
    EXPECT_EQ(get("g"), "abc");
}

TEST_P(FSConformance, Symlink_StoresTheTargetUnchanged) {
    put("f", "abc");
    if (!works(Op::Symlink, fs().symlink("f", at("l"))))
        return;
    QString target;
    EXPECT_EQ(fs().readlink(at("l"), target), linkResult(1));
    EXPECT_EQ(target, "f");
    struct stat st;
    EXPECT_EQ(fs().lstat(at("l"), st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(fs().stat(at("l"), st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(get("l"), "abc");
    EXPECT_EQ(fs().symlink("/nowhere/at all", at("m")), 0);
    EXPECT_EQ(fs().readlink(at("m"), target), linkResult(15));
    EXPECT_EQ(target, "/nowhere/at all");
    EXPECT_EQ(fs().stat(at("m"), st), -1);
    expectRefusal(ENOENT);
}

TEST_P(FSConformance, ReadlinkIntoBuffer_PadsAsDeclared) {
    if (!works(Op::Symlink, fs().symlink("target", at("l"))))
        return;
    char buf[16];
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(fs().readlink(at("l"), buf, sizeof buf), linkResult(6));
    EXPECT_EQ(std::string(buf, 6), "target");
    EXPECT_EQ(buf[6], can().readlinkPads ? '\0' : '#');
    EXPECT_EQ(buf[15], can().readlinkPads ? '\0' : '#');
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(fs().readlink(at("l"), buf, 3), linkResult(3));
    EXPECT_EQ(std::string(buf, 4), "tar#");
}

TEST_P(FSConformance, ReadlinkFile_HasDeclaredResult) {
    put("f");
    QString target;
    EXPECT_FALSE(works(Op::ReadlinkOfFile, fs().readlink(at("f"), target)));
    char buf[16];
    EXPECT_FALSE(works(Op::ReadlinkOfFile, fs().readlink(at("f"), buf, sizeof buf)));
}

TEST_P(FSConformance, Truncate_CutsAndExtends) {
    put("f", "0123456789");
    if (!works(Op::Truncate, fs().truncate(at("f"), 4)))
        return;
    EXPECT_EQ(get("f"), "0123");
    EXPECT_EQ(fs().truncate(at("f"), 6), 0);
    EXPECT_EQ(get("f"), QByteArray("0123\0\0", 6));
    EXPECT_EQ(fs().truncate(at("f"), -1), -1);
    expectRefusal(EINVAL);
}

TEST_P(FSConformance, Chmod_ChangesTheMode) {
    put("f");
    struct stat before;
    EXPECT_EQ(fs().stat(at("f"), before), 0);
    if (!works(Op::Chmod, fs().chmod(at("f"), 0604)))
        return;
    struct stat st;
    EXPECT_EQ(fs().stat(at("f"), st), 0);
    EXPECT_EQ(st.st_mode & 07777, can().keepsModes ? 0604U : before.st_mode & 07777);
}

TEST_P(FSConformance, ModeAtCreation_IsKeptAsDeclared) {
    // No umask changes these modes.
    EXPECT_EQ(fs().mkdir(at("d"), 0700), 0);
    EXPECT_TRUE(fs().open(at("f"), O_WRONLY | O_CREAT, 0600));
    struct stat directory;
    EXPECT_EQ(fs().stat(at("d"), directory), 0);
    EXPECT_EQ((directory.st_mode & 07777) == 0700, can().keepsModes);
    struct stat file;
    EXPECT_EQ(fs().stat(at("f"), file), 0);
    EXPECT_EQ((file.st_mode & 07777) == 0600, can().keepsModes);
}

TEST_P(FSConformance, Sync_KeepsTheContent) {
    put("f", "abc");
    fs().sync();
    EXPECT_EQ(get("f"), "abc");
}

TEST_P(FSConformance, WatchesAndIoctl_HaveDeclaredResults) {
    QString response;
    works(Op::AddWatch, fs().addWatch(at("")));
    works(Op::RemWatch, fs().remWatch(at("")));
    works(Op::Ioctl, fs().ioctl("anything", response));
}

// --- Extended attributes

TEST_P(FSConformance, Xattr_IsSetReadListedAndRemoved) {
    put("f");
    char value[] = {'v', '\0', 'w'};
    if (!works(Op::Xattr, fs().setxattr(at("f"), "user.clip", value, sizeof value, 0)))
        return;
    char buf[16] = {};
    EXPECT_EQ(fs().getxattr(at("f"), "user.clip", buf, 0), 3);
    EXPECT_EQ(fs().getxattr(at("f"), "user.clip", buf, sizeof buf), 3);
    EXPECT_EQ(std::memcmp(buf, value, 3), 0);
    EXPECT_EQ(fs().getxattr(at("f"), "user.clip", buf, 1), -1);
    expectRefusal(ERANGE);
    EXPECT_EQ(fs().setxattr(at("f"), "user.clip", value, 1, XATTR_CREATE), -1);
    expectRefusal(EEXIST);

    char names[64] = {};
    EXPECT_EQ(fs().listxattr(at("f"), names, 0), 10);
    EXPECT_EQ(fs().listxattr(at("f"), names, sizeof names), 10);
    EXPECT_STREQ(names, "user.clip");
    QVector<QString> vector{"before"};
    EXPECT_EQ(fs().listxattr(at("f"), vector), 10);
    ASSERT_GE(vector.size(), 2);
    EXPECT_EQ(vector.at(0), "before");
    EXPECT_EQ(vector.at(1), "user.clip");

    EXPECT_EQ(fs().removexattr(at("f"), "user.clip"), 0);
    EXPECT_EQ(fs().removexattr(at("f"), "user.clip"), -1);
    expectRefusal(ENODATA);
    EXPECT_EQ(fs().getxattr(at("f"), "user.clip", buf, sizeof buf), -1);
    expectRefusal(ENODATA);
}

TEST_P(FSConformance, XattrUnset_CallsHaveDeclaredResults) {
    put("f");
    char buf[16];
    QVector<QString> names;
    if (provides(Op::Listxattr)) {
        EXPECT_EQ(fs().listxattr(at("f"), names), 0);
        EXPECT_TRUE(names.isEmpty());
        EXPECT_EQ(fs().listxattr(at("f"), buf, sizeof buf), 0);
    } else {
        works(Op::Listxattr, fs().listxattr(at("f"), buf, sizeof buf));
        works(Op::Listxattr, fs().listxattr(at("f"), names));
    }
    if (!provides(Op::Xattr)) {
        works(Op::Xattr, fs().getxattr(at("f"), "user.a", buf, sizeof buf));
        works(Op::Xattr, fs().removexattr(at("f"), "user.a"));
    }
}

// --- Names

TEST_P(FSConformance, NamesInAnyScript_AreStoredAndListed) {
    const QStringList names{
        QString::fromUtf8("with blank"),
        QString::fromUtf8("Ärger über Öl"),
        QString::fromUtf8("Запись"),
        QString::fromUtf8("録画"),
        QString::fromUtf8("مقطع"),
        QString::fromUtf8("🎬🎥"),
        QString::fromUtf8("50% 'quoted' %s"),
    };
    for (const QString& name : names)
        put(name.toUtf8().constData(), name.toUtf8());
    QStringList expected = names + QStringList{".", ".."};
    expected.sort();
    EXPECT_EQ(list(at("")), expected);
    for (const QString& name : names)
        EXPECT_EQ(get(name.toUtf8().constData()), name.toUtf8());
}

TEST_P(FSConformance, LongestName_WorksAndLongerHasDeclaredResult) {
    const QByteArray longest(can().longestName, 'n');
    put(longest.constData(), "abc");
    EXPECT_EQ(get(longest.constData()), "abc");
    EXPECT_TRUE(list(at("")).contains(QString::fromLatin1(longest)));
    struct stat st;
    works(Op::StatNameTooLong, fs().stat(at((longest + "n").constData()), st));
}

TEST_P(FSConformance, HugeComponent_HasDeclaredResult) {
    const QString huge = at(QString(4096, 'n'));
    struct stat st;
    works(Op::NameTooLong, fs().stat(huge, st));
    works(Op::NameTooLong, fs().open(huge, O_RDWR | O_CREAT, 0644) ? 0 : -1);
    works(Op::NameTooLong, fs().mkdir(huge, 0755));
}

TEST_P(FSConformance, NulInPath_FailsWithEINVAL) {
    put("f", "kept");
    const QString path = at(QStringLiteral("f") + QChar(QChar::Null) + QStringLiteral("g"));
    struct stat st;
    EXPECT_EQ(fs().stat(path, st), -1);
    expectRefusal(EINVAL);
    EXPECT_EQ(fs().unlink(path), -1);
    expectRefusal(EINVAL);
    EXPECT_FALSE(fs().open(path, O_WRONLY | O_TRUNC, 0));
    expectRefusal(EINVAL);
    EXPECT_EQ(fs().rename(path, at("h")), -1);
    expectRefusal(EINVAL);
    EXPECT_EQ(get("f"), "kept");
}

TEST_P(FSConformance, LoneSurrogate_FailsWithEILSEQ) {
    // The name that the path would have if the surrogate were replaced.
    const char* const replaced = can().anyCharacter ? "a?b"
                                                    : "a\xef\xbf\xbd"
                                                      "b";
    put(replaced, "kept");
    const QString path = at(QStringLiteral("a") + QChar(0xd800) + QStringLiteral("b"));
    struct stat st;
    EXPECT_EQ(fs().stat(path, st), -1);
    expectRefusal(EILSEQ);
    EXPECT_EQ(fs().unlink(path), -1);
    expectRefusal(EILSEQ);
    EXPECT_FALSE(fs().open(path, O_WRONLY | O_TRUNC, 0));
    expectRefusal(EILSEQ);
    EXPECT_EQ(get(replaced), "kept");
}

TEST_P(FSConformance, QuestionMarkInName_HasDeclaredResult) {
    const bool isMade = !fs().open(at("a?b"), O_RDWR | O_CREAT, 0644).isNull();
    if (can().anyCharacter)
        EXPECT_TRUE(isMade) << strerror();
    else
        works(Op::OddCharacter, isMade ? 0 : -1);
}

TEST_P(FSConformance, NameInOtherCase_ExistsAsDeclared) {
    put("Clip", "abc");
    EXPECT_EQ(exists("CLIP"), !can().caseSensitive);
}

} // namespace oru::io::test
