// SPDX-License-Identifier: Apache-2.0
// RemoteLocation with a real SMB server, and with NFS exports that a tmpfs stands in for.
#include <oruio/error.h>
#include <oruio/fsnfs.h>
#include <oruio/fssmb.h>
#include <oruio/storagelocation.h>

#include "support/doubles/openlocation.h"
#include "support/suite/logcapture.h"
#include "support/system/exporttest.h"
#include "support/system/files.h"
#include "support/system/loopback.h"
#include "support/system/mounts.h"
#include "support/system/smbtest.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/mount.h>

namespace oru::io {
namespace {

using test::LogCapture;
using test::login;
using test::makeFile;

/// Counts its accessChanged signals.
class WatchedLocation : public RemoteLocation {
public:
    WatchedLocation(const FS::SPtr& fs, Properties props) : RemoteLocation("share", fs, &props) {
        QObject::connect(this, &StorageLocation::accessChanged, [this] { ++accessChanges; });
    }

    int accessChanges = 0;
};

QStringList filesIn(const QString& directory) {
    return QDir(directory).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                                     QDir::Name);
}

constexpr char unknownMarker[] = "ORU-write-check-unknown";
constexpr char numberedMarker[] = "ORU-write-check-123";
constexpr char emptyMarker[] = "ORU-write-check-";

/// Creates all three marker files, as a device leaves one that is switched off during a probe.
void createMarkers(const QString& directory) {
    for (const char* marker : {emptyMarker, numberedMarker, unknownMarker})
        ASSERT_TRUE(makeFile(directory + '/' + marker));
}

/// Removes the serial number from the environment while it lives.
class NoSerialNumber {
public:
    NoSerialNumber() {
        unsetenv("SERIAL_NUMBER");
    }
    ~NoSerialNumber() {
        unsetenv("SERIAL_NUMBER");
    }

private:
    Q_DISABLE_COPY(NoSerialNumber)
};

// --- SMB ----------------------------------------------------------------------------------------

class LocationShare : public test::Smb {
protected:
    void TearDown() override {
        EXPECT_EQ(location.accessChanges, 0) << "only the application emits accessChanged";
    }

    QString root() const {
        return server.directory("rw");
    }
    /// Properties of a port without a listener.
    Properties unreachable() const {
        return login(QStringLiteral("127.0.0.1:%1").arg(unused.port()));
    }
    int probeIn(QString directory) {
        return location.probe(&writable, &directory, false);
    }
    /// Expects that the share is connected and writable.
    void expectWorks() {
        EXPECT_EQ(location.access(), StorageLocation::Write);
        EXPECT_TRUE(location.ping());
        EXPECT_TRUE(makeFile(*location.fs(), "/clip", "film"));
        EXPECT_EQ(getLocal("/clip"), "film");
    }

    const NoSerialNumber noSerialNumber;
    const test::Socket unused = test::boundSocket();
    WatchedLocation location{FS::SPtr(new Smb2FS(30)), login(server.address())};
    bool writable = false;
};

} // namespace

TEST_F(LocationShare, MountAndUmount_ConnectAndDisconnect) {
    EXPECT_EQ(location.access(), StorageLocation::None);
    EXPECT_FALSE(location.ping());
    EXPECT_EQ(location.mount(nullptr), 0) << std::strerror(errno);
    expectWorks();

    EXPECT_EQ(location.umount(nullptr), 0);
    EXPECT_EQ(location.access(), StorageLocation::None);
    EXPECT_FALSE(location.ping());
    EXPECT_FALSE(location.fs()->open("/clip", O_RDONLY, 0));
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(location.umount(nullptr), 0); // not mounted: nothing to do
    EXPECT_EQ(location.mount(nullptr), 0);
    expectWorks();
}

TEST_F(LocationShare, MountFails_AccessIsNone) {
    Properties wrongPassword = login(server.address());
    wrongPassword["password"] = "wrong";
    Properties noShare = login(server.address(), "missing");
    Properties noListener = unreachable();
    const struct {
        Properties* props;
        int reason;
    } failures[] = {
        {&wrongPassword, ECONNREFUSED}, {&noShare, ENOENT}, {&noListener, ECONNREFUSED}};
    for (const auto& failure : failures) {
        ASSERT_EQ(location.mount(nullptr), 0);
        ASSERT_EQ(location.access(), StorageLocation::Write);
        liberrno = LibraryFailure;
        EXPECT_EQ(location.mount(failure.props), -1);
        EXPECT_EQ(errno, failure.reason) << std::strerror(errno);
        EXPECT_EQ(liberrno, LibraryFailure) << "errno holds the reason";
        EXPECT_EQ(location.access(), StorageLocation::None);
    }
    EXPECT_EQ(location.mount(nullptr), 0); // the location's own properties are unchanged
    expectWorks();
}

TEST_F(LocationShare, Mount_CallersOrElseLatestProperties_Used) {
    Properties other = login(server.address(), "rw2");
    EXPECT_EQ(location.mount(&other), 0);
    EXPECT_TRUE(makeFile(*location.fs(), "/clip", "film"));
    EXPECT_EQ(filesIn(server.directory("rw2")), QStringList("clip"));
    EXPECT_EQ(filesIn(root()), QStringList());

    // setProperties() takes effect with the next connection.
    Properties readonly = login(server.address(), "ro");
    location.setProperties(readonly);
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_TRUE(writable);
    EXPECT_EQ(location.umount(nullptr), 0);
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_FALSE(writable);
    EXPECT_EQ(location.mount(nullptr), 0);
    EXPECT_EQ(location.access(), StorageLocation::Write); // as for every share
    struct stat st;
    EXPECT_EQ(location.fs()->stat("/file.txt", st), 0);
}

TEST_F(LocationShare, UnsupportedOperations_NotImplementedOrNoEffect) {
    ASSERT_EQ(location.mount(nullptr), 0);
    EXPECT_EQ(location.check(), 1);
    liberrno = Ok;
    EXPECT_EQ(location.mkReadOnly(), -1);
    EXPECT_EQ(liberrno, NotImplemented);
    liberrno = Ok;
    EXPECT_EQ(location.mkWriteable(), -1);
    EXPECT_EQ(liberrno, NotImplemented);
    EXPECT_FALSE(location.isWriteProtected());
    expectWorks();
}

TEST_F(LocationShare, Disable_RefusedWhileMounted) {
    EXPECT_EQ(location.enable(), 0);
    EXPECT_EQ(location.disable(), 0);
    ASSERT_EQ(location.mount(nullptr), 0);
    LogCapture log("stg=9");
    liberrno = Ok;
    EXPECT_EQ(location.disable(), -1);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(log.messages(), QStringList("stg 9 share: disable of mounted media fails\n"));
    expectWorks();
    ASSERT_EQ(location.umount(nullptr), 0);
    EXPECT_EQ(location.disable(), 0);
}

TEST_F(LocationShare, ProbeWritableShare_ConnectsAndLeavesNoFile) {
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0) << std::strerror(errno);
    EXPECT_TRUE(writable);
    EXPECT_TRUE(location.ping());
    EXPECT_EQ(filesIn(root()), QStringList());
    EXPECT_EQ(location.access(), StorageLocation::None) << "a probe does not mount";
}

TEST_F(LocationShare, ProbeReadOnlyShare_NotWritable) {
    Properties readonly = login(server.address(), "ro");
    location.setProperties(readonly);
    writable = true;
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_FALSE(writable);
    EXPECT_TRUE(location.ping());
    EXPECT_EQ(filesIn(server.directory("ro")), QStringList("file.txt"));
}

TEST_F(LocationShare, ProbeMountedShare_KeepsConnection) {
    ASSERT_EQ(location.mount(nullptr), 0);
    const QSharedPointer<File> clip = location.fs()->open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(clip);
    EXPECT_EQ(clip->write("fi", 2), 2);
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_TRUE(writable);
    EXPECT_EQ(location.access(), StorageLocation::Write);
    EXPECT_EQ(clip->write("lm", 2), 2) << std::strerror(errno);
    EXPECT_EQ(clip->close(), 0);
    EXPECT_EQ(getLocal("/clip"), "film");
}

// The marker's name contains the serial number: a device removes only its own marker.
TEST_F(LocationShare, Marker_NamedBySerialNumber) {
    ASSERT_EQ(location.mount(nullptr), 0);
    createMarkers(root());
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_TRUE(writable);
    EXPECT_EQ(filesIn(root()), QStringList({emptyMarker, numberedMarker}));

    createMarkers(root());
    setenv("SERIAL_NUMBER", "123", 1);
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_TRUE(writable);
    EXPECT_EQ(filesIn(root()), QStringList({emptyMarker, unknownMarker}));

    createMarkers(root());
    setenv("SERIAL_NUMBER", "", 1);
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_TRUE(writable);
    EXPECT_EQ(filesIn(root()), QStringList({numberedMarker, unknownMarker}));
}

TEST_F(LocationShare, MarkerCannotBeCreated_NotWritable) {
    ASSERT_TRUE(QDir().mkpath(local("/") + unknownMarker + "/full"));
    writable = true;
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_FALSE(writable);
    setenv("SERIAL_NUMBER", "123", 1);
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_TRUE(writable);
    EXPECT_EQ(filesIn(root()), QStringList(unknownMarker));
}

TEST_F(LocationShare, ProbeDirectory_MarkerWrittenThere) {
    ASSERT_TRUE(QDir().mkpath(local("/media/films")));
    for (const char* directory : {"media", "/media", "media/films"}) {
        SCOPED_TRACE(directory);
        const QString place = local('/' + QString(directory));
        createMarkers(root());
        createMarkers(place);
        writable = false;
        EXPECT_EQ(probeIn(directory), 0);
        EXPECT_TRUE(writable);
        EXPECT_TRUE(QFile::exists(local("/") + unknownMarker));
        EXPECT_FALSE(QFile::exists(place + '/' + unknownMarker));
        EXPECT_TRUE(QFile::exists(place + '/' + numberedMarker));
    }
    EXPECT_EQ(probeIn("missing"), 0);
    EXPECT_FALSE(writable);
    EXPECT_TRUE(location.ping());
    EXPECT_EQ(probeIn(""), 0);
    EXPECT_TRUE(writable);
    EXPECT_FALSE(QFile::exists(local("/") + unknownMarker));
}

TEST_F(LocationShare, ProbeWithNullResult_OnlyConnects) {
    createMarkers(root());
    EXPECT_EQ(location.probe(nullptr, nullptr, true), 0);
    EXPECT_FALSE(location.ping());
    EXPECT_EQ(location.probe(nullptr, nullptr, false), 0);
    EXPECT_TRUE(location.ping());
    EXPECT_EQ(filesIn(root()).size(), 3);
}

TEST_F(LocationShare, ProbeWithoutConnecting_WritableOnlyIfConnected) {
    writable = true;
    EXPECT_EQ(location.probe(&writable, nullptr, true), 0);
    EXPECT_FALSE(writable);
    EXPECT_FALSE(location.ping());
    ASSERT_EQ(location.mount(nullptr), 0);
    EXPECT_EQ(location.probe(&writable, nullptr, true), 0);
    EXPECT_TRUE(writable);
}

TEST_F(LocationShare, NoListener_ProbeFailsAndResultUnchanged) {
    for (const bool unchanged : {true, false}) {
        WatchedLocation unreachableShare(FS::SPtr(new Smb2FS(30)), unreachable());
        writable = unchanged;
        liberrno = LibraryFailure;
        EXPECT_EQ(unreachableShare.probe(&writable, nullptr, false), -1);
        EXPECT_EQ(errno, ECONNREFUSED);
        EXPECT_EQ(liberrno, LibraryFailure) << "errno holds the reason";
        EXPECT_EQ(writable, unchanged);
        EXPECT_EQ(unreachableShare.access(), StorageLocation::None);
        EXPECT_EQ(unreachableShare.accessChanges, 0);
    }
}

// A refused connection is a fatal failure of the file system: isConnected() then returns true, so
// that no probe connects.
TEST_F(LocationShare, ConnectionRefused_NoProbeConnectsUntilNextMount) {
    Properties refused = unreachable();
    location.setProperties(refused);
    ASSERT_EQ(location.probe(nullptr, nullptr, false), -1);
    EXPECT_TRUE(location.ping());
    Properties works = login(server.address());
    location.setProperties(works);
    writable = true;
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_FALSE(writable);
    EXPECT_EQ(location.umount(nullptr), 0);
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_FALSE(writable);

    EXPECT_EQ(location.mount(nullptr), 0) << std::strerror(errno);
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_TRUE(writable);
    expectWorks();
}

TEST_F(LocationShare, ServerKilled_PingFalseAndProbeFails) {
    ASSERT_EQ(location.mount(nullptr), 0);
    server.kill();
    EXPECT_FALSE(location.ping());
    EXPECT_EQ(location.access(), StorageLocation::Write) << "ping() does not change the access";
    writable = true;
    EXPECT_EQ(location.probe(&writable, nullptr, false), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_TRUE(writable);
    EXPECT_EQ(location.access(), StorageLocation::Write);
    EXPECT_EQ(location.mount(nullptr), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(location.access(), StorageLocation::None);

    ASSERT_TRUE(server.restart());
    EXPECT_EQ(location.mount(nullptr), 0) << std::strerror(errno);
    expectWorks();
}

TEST_F(LocationShare, ServerRestarted_ProbeReconnects) {
    ASSERT_EQ(location.mount(nullptr), 0);
    server.kill();
    ASSERT_TRUE(server.restart());
    EXPECT_FALSE(location.ping());
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0) << std::strerror(errno);
    EXPECT_TRUE(writable);
    expectWorks();
}

TEST_F(LocationShare, ServerKilledWhileRecording_MountReconnects) {
    ASSERT_EQ(location.mount(nullptr), 0);
    QSharedPointer<File> clip = location.fs()->open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(clip);
    EXPECT_EQ(clip->write("film", 4), 4);
    server.kill();
    EXPECT_EQ(clip->write("more", 4), -1);
    EXPECT_EQ(errno, ECONNRESET);

    // After a fatal failure, isConnected() returns true.
    EXPECT_TRUE(location.ping());
    writable = true;
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_FALSE(writable);
    EXPECT_EQ(location.umount(nullptr), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(location.access(), StorageLocation::Write);

    ASSERT_TRUE(server.restart());
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_FALSE(writable);
    clip.reset();
    EXPECT_EQ(location.mount(nullptr), 0) << std::strerror(errno);
    EXPECT_EQ(getLocal("/clip"), "film");
    expectWorks();
    EXPECT_EQ(location.umount(nullptr), 0);
    EXPECT_EQ(location.access(), StorageLocation::None);
}

// --- NFS ----------------------------------------------------------------------------------------

namespace {

class LocationExport : public test::ExportTest {
protected:
    void TearDown() override {
        EXPECT_EQ(location.accessChanges, 0);
        ExportTest::TearDown();
    }

    Properties with(const char* key, const QVariant& value) const {
        Properties props = target;
        props[key] = value;
        return props;
    }
    QStringList mounted() const {
        return test::devicesAt(path);
    }
    /// Replaces the script of the maintenance program.
    void setProgram(const char* script) {
        program.reset();
        program.emplace(script);
        ASSERT_EQ(program->problem(), "");
    }

    const QStringList server{"server:/export"};
    const NoSerialNumber noSerialNumber;
    WatchedLocation location{FS::SPtr(new NFS(path)), target};
    bool writable = false;
};

} // namespace

TEST_F(LocationExport, MountAndUmount_ConnectAndDisconnect) {
    EXPECT_FALSE(location.ping());
    EXPECT_EQ(location.mount(nullptr), 0);
    EXPECT_EQ(program->calls(),
              QList<QStringList>({QStringList{"mount.nfs", "server:/export", path}}));
    EXPECT_EQ(location.access(), StorageLocation::Write);
    EXPECT_TRUE(location.ping());
    EXPECT_EQ(mounted(), server);
    EXPECT_TRUE(makeFile(*location.fs(), "/clip", "film"));
    EXPECT_EQ(test::contents(path + "/clip"), "film");
    EXPECT_EQ(location.disable(), -1);

    EXPECT_EQ(location.umount(nullptr), 0);
    EXPECT_EQ(location.access(), StorageLocation::None);
    EXPECT_FALSE(location.ping());
    EXPECT_EQ(mounted(), QStringList());
    EXPECT_EQ(location.disable(), 0);
    EXPECT_EQ(location.check(), 1);
}

TEST_F(LocationExport, MountWithCallersProperties_TheseUsed) {
    Properties other = {{"target", "other:/export"}, {"cmd_opts", "soft,timeo=20"}};
    EXPECT_EQ(location.mount(&other), 0);
    EXPECT_EQ(mounted(), QStringList("other:/export"));
    EXPECT_EQ(program->calls().value(0),
              (QStringList{"mount.nfs", "other:/export", path, "soft,timeo=20"}));
    EXPECT_EQ(location.mount(nullptr), 0);
    EXPECT_EQ(mounted(), server);
    location.setProperties(other);
    EXPECT_EQ(mounted(), server);
    EXPECT_EQ(location.mount(nullptr), 0);
    EXPECT_EQ(mounted(), QStringList("other:/export"));
}

TEST_F(LocationExport, MountFails_ReturnsProgramStatus) {
    ASSERT_EQ(location.mount(nullptr), 0);
    setProgram("exit 32");
    liberrno = LibraryFailure;
    EXPECT_EQ(location.mount(nullptr), 32);
    EXPECT_EQ(liberrno, LibraryFailure);
    EXPECT_EQ(location.access(), StorageLocation::None);
    EXPECT_FALSE(location.ping());
    EXPECT_EQ(mounted(), QStringList());
}

TEST_F(LocationExport, UmountWithFileOpen_EBUSYUnlessConnectedLazily) {
    ASSERT_EQ(location.mount(nullptr), 0);
    QSharedPointer<File> clip = location.fs()->open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(clip);
    EXPECT_EQ(location.umount(nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(location.access(), StorageLocation::Write);
    EXPECT_TRUE(location.ping());
    clip.reset();

    Properties lazy = with("lazy", false);
    ASSERT_EQ(location.mount(&lazy), 0);
    clip = location.fs()->open("/clip", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(clip);
    EXPECT_EQ(location.umount(nullptr), 0);
    EXPECT_EQ(location.access(), StorageLocation::None);
    EXPECT_EQ(mounted(), QStringList());
    EXPECT_EQ(clip->write("film", 4), 4);
}

TEST_F(LocationExport, ProbeWritableExport_ConnectsAndLeavesNoFile) {
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_TRUE(writable);
    EXPECT_EQ(mounted(), server);
    EXPECT_TRUE(location.ping());
    EXPECT_EQ(filesIn(path), QStringList());
    EXPECT_EQ(filesIn(temp.path()), QStringList("export"));
    EXPECT_EQ(location.access(), StorageLocation::None) << "a probe does not mount";

    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_EQ(program->calls().size(), 1) << "already connected";
}

TEST_F(LocationExport, ProbeReadOnlyExport_NotWritable) {
    Properties readonly = with("readonly", true);
    location.setProperties(readonly);
    writable = true;
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_FALSE(writable);
    EXPECT_EQ(mounted(), server);
    EXPECT_EQ(location.mount(nullptr), 0);
    EXPECT_EQ(location.access(), StorageLocation::Write); // as for every share
    EXPECT_FALSE(location.fs()->open("/clip", O_RDWR | O_CREAT, 0644));
    EXPECT_EQ(errno, EROFS);
}

TEST_F(LocationExport, Marker_InExportNamedBySerialNumber) {
    ASSERT_EQ(location.mount(nullptr), 0);
    createMarkers(path);
    setenv("SERIAL_NUMBER", "123", 1);
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_TRUE(writable);
    EXPECT_EQ(filesIn(path), QStringList({emptyMarker, unknownMarker}));

    for (QString directory : {"media", "/films"}) {
        const QString place = path + '/' + directory;
        ASSERT_TRUE(QDir().mkpath(place));
        createMarkers(place);
        writable = false;
        EXPECT_EQ(location.probe(&writable, &directory, false), 0);
        EXPECT_TRUE(writable);
        EXPECT_EQ(filesIn(place), QStringList({emptyMarker, unknownMarker}));
    }
    QString missing = "missing";
    EXPECT_EQ(location.probe(&writable, &missing, false), 0);
    EXPECT_FALSE(writable);
}

TEST_F(LocationExport, MarkerCannotBeOpened_Recreated) {
    ASSERT_EQ(location.mount(nullptr), 0);
    ASSERT_TRUE(QFile::link(unknownMarker, path + '/' + unknownMarker)); // a link to itself: ELOOP
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_TRUE(writable);
    EXPECT_EQ(filesIn(path), QStringList());
}

TEST_F(LocationExport, ProbeFails_LeavesNothingMounted) {
    setProgram("exit 32");
    EXPECT_EQ(location.probe(&writable, nullptr, false), 32);
    EXPECT_EQ(program->calls().size(), 1);
    EXPECT_EQ(mounted(), QStringList());
    EXPECT_EQ(filesIn(path), QStringList());
    EXPECT_EQ(filesIn(temp.path()), QStringList("export"));

    ASSERT_TRUE(QFile::remove(test::MaintenanceProgram::path()));
    for (const bool unchanged : {true, false}) {
        writable = unchanged;
        EXPECT_EQ(location.probe(&writable, nullptr, false), -1);
        EXPECT_EQ(writable, unchanged);
    }
    EXPECT_EQ(location.access(), StorageLocation::None);
}

// The program mounts and is then killed: the mount must not stay.
TEST_F(LocationExport, ProbeFailsAfterMount_Unmounted) {
    setProgram("mount -t tmpfs \"$2\" \"$3\"; kill -KILL $$");
    writable = true;
    EXPECT_EQ(location.probe(&writable, nullptr, false), -1);
    EXPECT_TRUE(writable);
    EXPECT_EQ(program->calls().size(), 1);
    EXPECT_EQ(mounted(), QStringList());
}

TEST_F(LocationExport, ExportGone_PingFalseAndProbeReconnects) {
    ASSERT_EQ(location.mount(nullptr), 0);
    ASSERT_EQ(umount(QFile::encodeName(path).constData()), 0);
    ASSERT_TRUE(QDir().rmdir(path));
    EXPECT_FALSE(location.ping());
    EXPECT_EQ(location.access(), StorageLocation::Write);
    ASSERT_TRUE(QDir().mkpath(path));
    ASSERT_TRUE(location.ping()) << "the directory below the mount point exists";
    ASSERT_TRUE(QDir().rmdir(path));
    setProgram("mkdir -p \"$3\" && exec mount -t tmpfs \"$2\" \"$3\"");
    EXPECT_EQ(location.probe(&writable, nullptr, false), 0);
    EXPECT_TRUE(writable);
    EXPECT_EQ(mounted(), server);
}

} // namespace oru::io
