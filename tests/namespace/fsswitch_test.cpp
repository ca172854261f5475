// SPDX-License-Identifier: Apache-2.0
// The mount switch.
#include "support/doubles/faultfs.h"
#include "support/doubles/memfs.h"
#include "support/doubles/recordingfs.h"
#include "support/suite/fs_conformance.h"
#include "support/suite/logcapture.h"
#include "support/suite/posixcapabilities.h"
#include "support/system/tempdir.h"

#include <oruio/error.h>
#include <oruio/fsswitch.h>
#include <oruio/posixfs.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>

namespace oru::io {

using test::LogCapture;
using test::MemFS;
using test::RecordingFS;
using test::TempDir;

namespace test {

ORUIO_CONFORMS(FSSwitchOverPosixFS, [] {
    Backend backend;
    const auto dir = std::make_shared<TempDir>();
    const auto fs = QSharedPointer<FSSwitch>::create();
    fs->add("/", QSharedPointer<MemFS>::create());
    fs->add("/media/sd1", QSharedPointer<PosixFS>::create(dir->path()));
    backend.fs = fs;
    backend.root = "/media/sd1";
    backend.can = posixCapabilities();
    backend.can.type = "FSSwitchFS";
    backend.keep = dir;
    return backend;
});

} // namespace test

class FSSwitchTest : public ::testing::Test {
protected:
    void SetUp() override {
        errno = EXDEV;
        liberrno = Ok;
    }

    /// The file system that serves `path`, and the rest of the path.
    QString served(const QString& path) {
        QString rest;
        const auto fs = root.getFS(path, &rest);
        if (!fs)
            return "none";
        return (fs == a ? "a " : fs == b ? "b " : "c ") + rest;
    }

    FSSwitch root;
    QSharedPointer<RecordingFS> a = QSharedPointer<RecordingFS>::create();
    QSharedPointer<RecordingFS> b = QSharedPointer<RecordingFS>::create();
    QSharedPointer<RecordingFS> c = QSharedPointer<RecordingFS>::create();
};

TEST_F(FSSwitchTest, NewSwitch_HasNoMounts) {
    EXPECT_EQ(served("/"), "none");
    EXPECT_EQ(served(""), "none");
    EXPECT_EQ(served("/a"), "none");
    EXPECT_EQ(root.type(), "FSSwitchFS");
}

TEST_F(FSSwitchTest, RelativeMountPoint_IsLoggedAndIgnored) {
    LogCapture log("libio=12");
    root.add("media", a);
    EXPECT_EQ(log.messages(),
              QStringList{"libio 12 Invalid mount point 'media'. Must be an absolute path."});
    EXPECT_EQ(root.getMountPoints(a), QStringList());
    EXPECT_EQ(errno, EXDEV);
    root.add("", a);
    EXPECT_EQ(log.messages(),
              QStringList{"libio 12 Invalid mount point ''. Must be an absolute path."});
}

TEST_F(FSSwitchTest, NullFileSystem_IsLoggedAndIgnored) {
    LogCapture log("libio=12");
    root.add("/media", QSharedPointer<FS>());
    EXPECT_EQ(log.messages(), QStringList{"libio 12 No file system for mount point '/media/'."});
    EXPECT_EQ(served("/media/x"), "none");
}

TEST_F(FSSwitchTest, AddTwice_FirstIsKept) {
    LogCapture log("libio=12");
    root.add("/media", a);
    root.add("/media/", b);
    root.add("/media", b);
    EXPECT_EQ(served("/media/x"), "a /x");
    EXPECT_EQ(root.getMountPoints(b), QStringList());
    EXPECT_EQ(log.messages(), QStringList());
}

TEST_F(FSSwitchTest, UnnormalisedMountPoints_AreKeptUnchanged) {
    root.add("//a", a);
    root.add("/a/./b", b);
    EXPECT_EQ(root.getMountPoints(a), QStringList{"//a/"});
    EXPECT_EQ(root.getMountPoints(b), QStringList{"/a/./b/"});
    EXPECT_EQ(served("/a/b/x"), "none");
    EXPECT_EQ(served("//a/x"), "a /x");
    EXPECT_EQ(served("/a/./b/x"), "b /x");
}

TEST_F(FSSwitchTest, Lookup_MatchesWholeComponentsOnly) {
    root.add("/media/sd1/", a);
    EXPECT_EQ(served("/media/sd1/clip/a"), "a /clip/a");
    EXPECT_EQ(served("/media/sd1/"), "a /");
    EXPECT_EQ(served("/media/sd1"), "a /");
    EXPECT_EQ(served("/media/sd1x"), "none");
    EXPECT_EQ(served("/media/sd1x/y"), "none");
    EXPECT_EQ(served("/media/sd"), "none");
    EXPECT_EQ(served("/media"), "none");
    EXPECT_EQ(served("/MEDIA/SD1/x"), "none");
    EXPECT_EQ(served("media/sd1/x"), "none");
    EXPECT_EQ(served("/media/sd1//x"), "a //x");
}

TEST_F(FSSwitchTest, RootMount_ServesAbsoluteAndEmptyPaths) {
    root.add("/", a);
    EXPECT_EQ(served("/x/y"), "a /x/y");
    EXPECT_EQ(served("/"), "a /");
    EXPECT_EQ(served(""), "a /");
    EXPECT_EQ(served(QString()), "a /");
    EXPECT_EQ(served("x"), "none");
}

TEST_F(FSSwitchTest, Lookup_SetsLiberrnoAndKeepsErrno) {
    root.add("/media", a);
    liberrno = LibraryFailure;
    EXPECT_EQ(served("/media/x"), "a /x");
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(served("/other"), "none");
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(FSSwitchTest, LookupFails_RestIsUnchanged) {
    QString rest = "before";
    EXPECT_FALSE(root.getFS("/x", &rest));
    EXPECT_EQ(rest, "before");
}

TEST_F(FSSwitchTest, GetFSWithoutRest_ReturnsTheFileSystem) {
    root.add("/media", a);
    EXPECT_EQ(root.getFS("/media/x", nullptr), a);
    EXPECT_EQ(root.getFS("/other", nullptr), nullptr);
}

TEST_F(FSSwitchTest, LongestAddedFirst_LongestServes) {
    root.add("/a/b", b);
    root.add("/a", a);
    root.add("/", c);
    EXPECT_EQ(served("/a/b/x"), "b /x");
    EXPECT_EQ(served("/a/x"), "a /x");
    EXPECT_EQ(served("/x"), "c /x");
}

TEST_F(FSSwitchTest, ShorterAddedFirst_LastInTableServes) {
    // The table is /, /a/b/, /a/: the last entry that fits serves the path.
    root.add("/", a);
    root.add("/a", b);
    root.add("/a/b", c);
    EXPECT_EQ(served("/a/b/x"), "b /b/x");
    EXPECT_EQ(served("/a/x"), "b /x");
    EXPECT_EQ(served("/x"), "a /x");
}

TEST_F(FSSwitchTest, TwoLevels_LongestServes) {
    root.add("/", a);
    root.add("/a", b);
    EXPECT_EQ(served("/a/x"), "b /x");
    EXPECT_EQ(served("/b"), "a /b");
}

TEST_F(FSSwitchTest, Add_InsertsAfterTheFirstShorterEntry) {
    root.add("/ccc", a); // empty table: index 0
    root.add("/b", a);   // no shorter entry: in front
    root.add("/dddd", a);
    EXPECT_EQ(root.getMountPoints(a), QStringList({"/b/", "/dddd/", "/ccc/"}));
    root.add("/", a);
    EXPECT_EQ(root.getMountPoints(a), QStringList({"/", "/b/", "/dddd/", "/ccc/"}));
    root.add("/ee", a);
    EXPECT_EQ(root.getMountPoints(a), QStringList({"/", "/ee/", "/b/", "/dddd/", "/ccc/"}));
    root.add("/fff", a);
    EXPECT_EQ(root.getMountPoints(a),
              QStringList({"/", "/fff/", "/ee/", "/b/", "/dddd/", "/ccc/"}));
}

TEST_F(FSSwitchTest, AddWithSeveralShorterEntries_InsertsAfterTheFirst) {
    root.add("/bbb", a);
    root.add("/cc", a);
    root.add("/ddd", a);
    // /cc/ is the first entry shorter than /ddd/, so /ddd/ is inserted after it.
    EXPECT_EQ(root.getMountPoints(a), QStringList({"/cc/", "/ddd/", "/bbb/"}));
}

TEST_F(FSSwitchTest, MountedAt_ReturnsWhatIsMountedThere) {
    EXPECT_EQ(root.mountedAt("/x"), nullptr);
    root.add("/x", a);
    root.add("/x", b); // the place is taken
    EXPECT_EQ(root.mountedAt("/x"), a);
    EXPECT_EQ(root.mountedAt("/x/"), a);
    EXPECT_EQ(root.mountedAt("/x/y"), nullptr); // a serves it, but is not mounted there
    EXPECT_EQ(root.mountedAt("x"), nullptr);
    EXPECT_EQ(root.mountedAt(QString()), nullptr);
    root.remove("/x");
    EXPECT_EQ(root.mountedAt("/x"), nullptr);
}

TEST_F(FSSwitchTest, GetMountPoints_ReturnsTableOrder) {
    root.add("/x", a);
    root.add("/z", b);
    root.add("/y", a);
    EXPECT_EQ(root.getMountPoints(a), QStringList({"/y/", "/x/"}));
    EXPECT_EQ(root.getMountPoints(b), QStringList({"/z/"}));
    EXPECT_EQ(root.getMountPoints(c), QStringList());
    EXPECT_EQ(root.getMountPoints({}), QStringList());
}

TEST_F(FSSwitchTest, RemoveWithOrWithoutSlash_Unmounts) {
    root.add("/x", a);
    root.add("/y/", b);
    root.remove("/x/");
    root.remove("/y");
    EXPECT_EQ(served("/x/f"), "none");
    EXPECT_EQ(served("/y/f"), "none");
}

TEST_F(FSSwitchTest, RemoveUnknownOrRelative_IsIgnored) {
    LogCapture log("libio=12");
    root.add("/x", a);
    root.remove("/z");
    root.remove("x");
    root.remove("");
    EXPECT_EQ(served("/x/f"), "a /f");
    EXPECT_EQ(log.messages(), QStringList());
}

TEST_F(FSSwitchTest, Remove_ReleasesTheFileSystem) {
    const QWeakPointer<RecordingFS> weak = a;
    root.add("/x", a);
    a.reset();
    EXPECT_FALSE(weak.isNull());
    root.remove("/x");
    EXPECT_TRUE(weak.isNull());
}

TEST_F(FSSwitchTest, ForwardedCalls_PassTheRestAndEveryArgument) {
    root.add("/m", a);
    const auto hex = [](const void* p) {
        return QString::number(reinterpret_cast<quintptr>(p), 16);
    };
    struct stat st;
    struct statfs sfs;
    char buf[8];
    QVector<QString> names;
    QString target;
    a->answerWith(7);
    EXPECT_TRUE(root.open("/m/f", O_RDWR, 0640));
    EXPECT_TRUE(root.opendir("/m/d"));
    EXPECT_EQ(root.lstat("/m/f", st), 7);
    EXPECT_EQ(root.stat("/m/f", st), 7);
    EXPECT_EQ(root.statfs("/m", sfs), 7);
    EXPECT_EQ(root.link("/m/f", "/m/g"), 7);
    EXPECT_EQ(root.unlink("/m/f"), 7);
    EXPECT_EQ(root.mkdir("/m/d", 0750), 7);
    EXPECT_EQ(root.rmdir("/m/d"), 7);
    EXPECT_EQ(root.rename("/m/f", "/m/g"), 7);
    EXPECT_EQ(root.getxattr("/m/f", "user.n", buf, 8), 7);
    EXPECT_EQ(root.setxattr("/m/f", "user.n", buf, 8, 2), 7);
    EXPECT_EQ(root.removexattr("/m/f", "user.n"), 7);
    EXPECT_EQ(root.listxattr("/m/f", names), 7);
    EXPECT_EQ(root.listxattr("/m/f", buf, 8), 7);
    EXPECT_EQ(root.symlink("/m/target", "/m/l"), 7);
    EXPECT_EQ(root.readlink("/m/l", target), 7);
    EXPECT_EQ(root.readlink("/m/l", buf, 8), 7);
    EXPECT_EQ(root.truncate("/m/f", 1LL << 40), 7);
    EXPECT_EQ(root.chmod("/m/f", 0604), 7);
    EXPECT_EQ(a->take(), QStringList({"open /f 2 416",
                                      "~file",
                                      "opendir /d",
                                      "~directory",
                                      "lstat /f " + hex(&st),
                                      "stat /f " + hex(&st),
                                      "statfs / " + hex(&sfs),
                                      "link /f /g",
                                      "unlink /f",
                                      "mkdir /d 488",
                                      "rmdir /d",
                                      "rename /f /g",
                                      "getxattr /f user.n " + hex(buf) + " 8",
                                      "setxattr /f user.n " + hex(buf) + " 8 2",
                                      "removexattr /f user.n",
                                      "listxattr-names /f",
                                      "listxattr /f " + hex(buf) + " 8",
                                      "symlink /m/target /l",
                                      "readlink-text /l",
                                      "readlink /l " + hex(buf) + " 8",
                                      "truncate /f 1099511627776",
                                      "chmod /f 388"}));
    EXPECT_EQ(names, QVector<QString>{"listed"});
    EXPECT_EQ(target, "linked");
}

TEST_F(FSSwitchTest, NothingMounted_OperationsFailWithNotFoundAndKeepErrno) {
    root.add("/m", a);
    struct stat st;
    struct statfs sfs;
    char buf[8];
    QVector<QString> names;
    QString target;
    const auto notFound = [](bool failed) {
        const bool isExpected = failed && liberrno == NotFound && errno == EXDEV;
        liberrno = Ok;
        return isExpected;
    };
    EXPECT_TRUE(notFound(root.open("/f", O_RDWR, 0640).isNull()));
    EXPECT_TRUE(notFound(root.opendir("/d").isNull()));
    EXPECT_TRUE(notFound(root.lstat("/f", st) == -1));
    EXPECT_TRUE(notFound(root.stat("/f", st) == -1));
    EXPECT_TRUE(notFound(root.statfs("/", sfs) == -1));
    EXPECT_TRUE(notFound(root.link("/f", "/g") == -1));
    EXPECT_TRUE(notFound(root.unlink("/f") == -1));
    EXPECT_TRUE(notFound(root.mkdir("/d", 0750) == -1));
    EXPECT_TRUE(notFound(root.rmdir("/d") == -1));
    EXPECT_TRUE(notFound(root.rename("/f", "/g") == -1));
    EXPECT_TRUE(notFound(root.getxattr("/f", "user.n", buf, 8) == -1));
    EXPECT_TRUE(notFound(root.setxattr("/f", "user.n", buf, 8, 2) == -1));
    EXPECT_TRUE(notFound(root.removexattr("/f", "user.n") == -1));
    EXPECT_TRUE(notFound(root.listxattr("/f", names) == -1));
    EXPECT_TRUE(notFound(root.listxattr("/f", buf, 8) == -1));
    EXPECT_TRUE(notFound(root.symlink("/m/x", "/l") == -1));
    EXPECT_TRUE(notFound(root.readlink("/l", target) == -1));
    EXPECT_TRUE(notFound(root.readlink("/l", buf, 8) == -1));
    EXPECT_TRUE(notFound(root.truncate("/f", 1) == -1));
    EXPECT_TRUE(notFound(root.chmod("/f", 0604) == -1));
    EXPECT_EQ(a->take(), QStringList());
}

TEST_F(FSSwitchTest, TwoMounts_RenameAndLinkFail) {
    root.add("/a", a);
    root.add("/b", b);
    EXPECT_EQ(root.rename("/a/x", "/b/y"), -1);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(root.link("/a/x", "/b/y"), -1);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(root.rename("/a/x", "/nowhere"), -1);
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_EQ(root.rename("/nowhere", "/a/x"), -1);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(a->take() + b->take(), QStringList());
}

TEST_F(FSSwitchTest, OneFileSystemMountedTwice_RenameBetweenMountsFails) {
    root.add("/x", a);
    root.add("/y", a);
    EXPECT_EQ(root.rename("/x/f", "/y/f"), -1);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(a->take(), QStringList());
}

// With more than one processor, threads find the lock taken thousands of times in so many calls.
TEST_F(FSSwitchTest, RenameFailsWhileOthersLookUp_KeepsErrno) {
    root.add("/a", a);
    root.add("/b", b);
    std::atomic<int> wrong{0};
    std::vector<std::thread> users;
    for (int i = 0; i < 3; ++i) {
        users.emplace_back([&] {
            for (int k = 0; k < 100'000; ++k) {
                errno = 0;
                wrong += root.rename("/a/x", "/b/y") != -1 || liberrno != Ok || errno != 0;
            }
        });
    }
    for (std::thread& user : users)
        user.join();
    EXPECT_EQ(wrong, 0);
}

namespace {

/// A file system that calls a function of the test in sync().
class SyncingFS : public MemFS {
public:
    explicit SyncingFS(std::function<void()> onSync) : m_onSync(std::move(onSync)) {}
    void sync() override {
        m_onSync();
    }

private:
    const std::function<void()> m_onSync;
};

} // namespace

TEST_F(FSSwitchTest, Sync_SyncsEveryMountInTableOrder) {
    root.sync();
    QStringList synced;
    const auto recording = [&synced](const char* name) {
        return QSharedPointer<SyncingFS>::create([&synced, name] { synced.append(name); });
    };
    const auto twice = recording("twice");
    root.add("/x", twice);
    root.add("/zzz", recording("longest"));
    root.add("/yy", recording("longer"));
    root.add("/y", twice);
    root.sync();
    EXPECT_EQ(synced, QStringList({"twice", "twice", "longer", "longest"}));
}

TEST_F(FSSwitchTest, LookupDuringSync_WaitsForSync) {
    std::promise<void> syncing;
    std::promise<void> resume;
    root.add("/m", QSharedPointer<SyncingFS>::create([&] {
                 syncing.set_value();
                 resume.get_future().wait();
             }));
    std::thread syncer([&] { root.sync(); });
    syncing.get_future().wait();
    std::promise<void> looking;
    std::promise<QString> found;
    std::future<QString> result = found.get_future();
    std::thread user([&] {
        looking.set_value();
        found.set_value(served("/m/x"));
    });
    looking.get_future().wait();
    // Without the lock, the lookup would return at once.
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    resume.set_value();
    syncer.join();
    EXPECT_EQ(result.get(), "c /x");
    user.join();
}

TEST_F(FSSwitchTest, WatchesAndIoctl_FailWithNotImplemented) {
    root.add("/m", a);
    QString response;
    EXPECT_EQ(root.addWatch("/m/f"), -1);
    EXPECT_EQ(liberrno, NotImplemented);
    liberrno = Ok;
    EXPECT_EQ(root.remWatch("/m/f"), -1);
    EXPECT_EQ(liberrno, NotImplemented);
    liberrno = Ok;
    EXPECT_EQ(root.ioctl("x", response), -1);
    EXPECT_EQ(liberrno, NotImplemented);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(a->take(), QStringList());
}

TEST_F(FSSwitchTest, MountedFileSystemFails_ErrnoIsReturned) {
    const auto faulty = QSharedPointer<test::FaultFS>::create(QSharedPointer<MemFS>::create());
    root.add("/m", faulty);
    faulty->plan().failCall(2, EIO);
    EXPECT_EQ(root.mkdir("/m/d", 0755), 0);
    EXPECT_EQ(root.mkdir("/m/e", 0755), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(root.mkdir("/m/e", 0755), 0);
}

namespace {

/// A file system that unmounts itself during a call, as another thread may do.
class SelfRemovingFS : public MemFS {
public:
    SelfRemovingFS(FSSwitch& root, QString mountPoint)
        : m_root(root), m_mountPoint(std::move(mountPoint)) {}
    /// Overwrites errno and liberrno, as a destructor may.
    ~SelfRemovingFS() override {
        // This would deadlock if the switch held its lock.
        m_root.getMountPoints({});
        errno = ETXTBSY;
        liberrno = LibraryFailure;
    }
    int mkdir(QString path, int mode) override {
        m_root.remove(m_mountPoint);
        return MemFS::mkdir(path, mode);
    }
    QSharedPointer<File> open(QString path, int flags, int mode) override {
        m_root.remove(m_mountPoint);
        return MemFS::open(path, flags, mode);
    }
    int rename(QString oldPath, QString newPath) override {
        m_root.remove(m_mountPoint);
        return MemFS::rename(oldPath, newPath);
    }

private:
    FSSwitch& m_root;
    const QString m_mountPoint;
};

} // namespace

TEST_F(FSSwitchTest, RemoveDuringCall_FileSystemLivesUntilReturn) {
    auto removing = QSharedPointer<SelfRemovingFS>::create(root, QStringLiteral("/m"));
    const QWeakPointer<SelfRemovingFS> weak = removing;
    root.add("/m", removing);
    removing.reset();
    EXPECT_EQ(root.mkdir("/m/d", 0755), 0);
    EXPECT_TRUE(weak.isNull());
    EXPECT_EQ(served("/m"), "none");
}

TEST_F(FSSwitchTest, RemoveDuringFailingCall_ErrnoOfTheCallStands) {
    root.add("/m", QSharedPointer<SelfRemovingFS>::create(root, QStringLiteral("/m")));
    EXPECT_EQ(root.mkdir("/m/missing/d", 0755), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(liberrno, Ok);
    root.add("/m", QSharedPointer<SelfRemovingFS>::create(root, QStringLiteral("/m")));
    EXPECT_FALSE(root.open("/m/missing", O_RDONLY, 0));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(liberrno, Ok);
    root.add("/m", QSharedPointer<SelfRemovingFS>::create(root, QStringLiteral("/m")));
    EXPECT_EQ(root.rename("/m/missing", "/m/other"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(liberrno, Ok);
}

TEST_F(FSSwitchTest, Remove_DestroysTheFileSystemWithoutTheLock) {
    root.add("/m", QSharedPointer<SelfRemovingFS>::create(root, QStringLiteral("/m")));
    root.remove("/m");
    EXPECT_EQ(served("/m"), "none");
}

TEST_F(FSSwitchTest, MountsAddedAndRemoved_LookupsFindOneOrTheOther) {
    const auto stay = QSharedPointer<MemFS>::create();
    root.add("/", stay);
    ASSERT_EQ(stay->mkdir("/m", 0755), 0);
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> users;
    for (int i = 0; i < 3; ++i) {
        users.emplace_back([&] {
            struct stat st;
            while (!done) {
                // "/m" exists in the root file system and is the root of the mounted one.
                wrong += root.stat("/m", st) != 0 || !S_ISDIR(st.st_mode);
                root.sync();
            }
        });
    }
    for (int i = 0; i < 2000; ++i) {
        const auto fs = QSharedPointer<MemFS>::create();
        root.add("/m", fs);
        wrong += root.getMountPoints(fs) != QStringList{"/m/"};
        root.remove("/m");
    }
    done = true;
    for (std::thread& user : users)
        user.join();
    EXPECT_EQ(wrong, 0);
}

TEST(FSSwitchRootfs, ManyThreads_GetTheSameSwitch) {
    std::vector<QSharedPointer<FSSwitch>> seen(8);
    std::vector<std::thread> threads;
    for (auto& slot : seen)
        threads.emplace_back([&slot] { slot = FSSwitch::rootfs(); });
    for (std::thread& thread : threads)
        thread.join();
    for (const auto& fs : seen)
        EXPECT_EQ(fs, seen.front());
    EXPECT_TRUE(seen.front());
    EXPECT_FALSE(seen.front()->getFS("/", nullptr));
}

TEST(FSSwitchRootfs, SetRootfs_ReplacesTheSwitch) {
    const auto before = FSSwitch::rootfs();
    auto other = QSharedPointer<FSSwitch>::create();
    FSSwitch::setRootfs(other);
    EXPECT_EQ(FSSwitch::rootfs(), other);
    EXPECT_NE(FSSwitch::rootfs(), before);
    QSharedPointer<FSSwitch> none;
    FSSwitch::setRootfs(none);
    const auto fresh = FSSwitch::rootfs();
    EXPECT_TRUE(fresh);
    EXPECT_NE(fresh, other);
}

} // namespace oru::io
