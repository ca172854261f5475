// SPDX-License-Identifier: Apache-2.0
// The conformance suite on the file systems of the device's card, mounted through the library, and
// on an NFS export.
#include <oruio/bdmon.h>
#include <oruio/fsnfs.h>
#include <oruio/posixfs.h>
#include <oruio/sysutils.h>

#include "device/nfsserver.h"
#include "support/suite/fs_conformance.h"
#include "support/suite/posixcapabilities.h"
#include "support/system/tempdir.h"

#include <QDir>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

namespace oru::io::test {
namespace {

constexpr long long GiB = 1LL << 30;

/// The capabilities that vfat and exFAT share.
Capabilities fatCapabilities() {
    Capabilities can = posixCapabilities();
    can.answers[Op::Link] = Answer::fails(EPERM);
    can.answers[Op::Symlink] = Answer::fails(EPERM);
    can.answers[Op::Xattr] = Answer::fails(EOPNOTSUPP);
    can.answers[Op::StatNameTooLong] = Answer::fails(ENOENT);
    can.answers[Op::OddCharacter] = Answer::fails(EINVAL);
    can.answers[Op::WriteBeyondLargestFile] = Answer::fails(EFBIG);
    can.keepsModes = false;
    can.caseSensitive = false;
    can.anyCharacter = false;
    return can;
}

Capabilities vfatCapabilities() {
    Capabilities can = fatCapabilities();
    can.largestFile = 4 * GiB - 1;
    can.timeStep = 2'000'000'000;
    return can;
}

Capabilities exfatCapabilities() {
    Capabilities can = fatCapabilities();
    can.answers[Op::StatNameTooLong] = Answer::fails(ENAMETOOLONG);
    can.largestFile = 64 << 20; // the size of the partition: exFAT has no sparse files
    can.timeStep = 10'000'000;
    return can;
}

/// Mounts a partition of the card while it lives.
class Mounted {
public:
    Mounted(const QString& node, const char* type) {
        Properties props = {{"DEVNAME", node}, {"DEVTYPE", "partition"}, {"ID_FS_TYPE", type}};
        if (LinuxBD(props).mount(m_directory / "mnt", nullptr) != 0)
            problem = "cannot mount " + node.toStdString() + ": " + strerror();
    }
    ~Mounted() {
        umountPath(qPrintable(path()), nullptr);
    }
    QString path() const {
        return m_directory / "mnt";
    }

    std::string problem;

private:
    const TempDir m_directory; // outlives the mount
};

Backend onTheCard(int partition, const char* type, const Capabilities& can) {
    Backend backend;
    backend.can = can;
    const QString node = QStringLiteral("/dev/mmcblk0p%1").arg(partition);
    if (!QFileInfo::exists(node)) {
        backend.skipReason = "needs a card in the slot";
        return backend;
    }
    const auto mounted = std::make_shared<Mounted>(node, type);
    EXPECT_EQ(mounted->problem, "");
    const QString tests = mounted->path() + "/tests";
    QDir(tests).removeRecursively();
    EXPECT_TRUE(QDir().mkpath(tests));
    backend.fs = QSharedPointer<PosixFS>::create(tests);
    backend.keep = mounted;
    return backend;
}

/// Connects an NFS file system while it lives.
struct Connected {
    Connected() {
        EXPECT_EQ(fs->connect({{"target", NfsServer::target()}}), 0) << strerror();
    }
    ~Connected() {
        fs->disconnect();
    }
    const TempDir directory;
    const NFS::SPtr fs = NFS::SPtr::create(directory.path());
};

Backend onAnExport() {
    Backend backend;
    backend.can = posixCapabilities();
    backend.can.type = "NFS";
    // The server's file system has no extended attributes.
    backend.can.answers[Op::Xattr] = Answer::fails(EOPNOTSUPP);
    backend.can.answers[Op::Listxattr] = Answer::isSomethingElse();
    const QString missing = NfsServer::missing();
    if (!missing.isEmpty()) {
        backend.skipReason = missing.toStdString();
        return backend;
    }
    EXPECT_TRUE(NfsServer::start());
    // Shared by all tests: mounting takes longer than most of them.
    static const auto connected = std::make_shared<Connected>();
    backend.fs = connected->fs;
    backend.root = "/tests";
    QDir(connected->directory.path() + backend.root).removeRecursively();
    EXPECT_EQ(backend.fs->mkdir(backend.root, 0755), 0);
    backend.keep = connected;
    return backend;
}

ORUIO_CONFORMS(Vfat, [] { return onTheCard(1, "vfat", vfatCapabilities()); });
ORUIO_CONFORMS(Exfat, [] { return onTheCard(2, "exfat", exfatCapabilities()); });
ORUIO_CONFORMS(Ext4, [] { return onTheCard(3, "ext4", posixCapabilities()); });
ORUIO_CONFORMS(Nfs, [] { return onAnExport(); });

} // namespace
} // namespace oru::io::test
