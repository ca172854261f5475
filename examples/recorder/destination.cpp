// SPDX-License-Identifier: Apache-2.0
#include "destination.h"

#include "common/failure.h"
#include "common/localdirectory.h"
#include "common/smburl.h"
#include "networkshare.h"

#include <oruio/fsipc.h>
#include <oruio/fsswitch.h>

#include <QDir>

namespace {

const QString mountPoint = QStringLiteral("/media/clip-dest");
const QString fileServer = QStringLiteral("ipc");
const QString locationPrefix = QStringLiteral("location:");

/// The first attempt may fail if another recorder was killed just before.
constexpr unsigned int connectTries = 2;

std::unique_ptr<QTemporaryDir> makeTemporaryDirectory(bool keep) {
    auto directory = std::make_unique<QTemporaryDir>(QDir::tempPath() + "/recorder-XXXXXX");
    if (!directory->isValid())
        throw Failure{"cannot create a temporary directory: " + directory->errorString()};
    directory->setAutoRemove(!keep);
    return directory;
}

const char* describe(oru::io::IPCFS::Unavailable reason) {
    using Unavailable = oru::io::IPCFS::Unavailable;
    switch (reason) {
    case Unavailable::NoServer:
        return "none is running";
    case Unavailable::Busy:
        return "another program is connected";
    case Unavailable::OtherAbi:
        return "it is a program of another ABI, 32- or 64-bit";
    case Unavailable::NoAnswer:
    case Unavailable::None:
        break;
    }
    return "it does not answer";
}

/// Begins a session with the file server. The session ends with the last reference to the file
/// system.
QSharedPointer<oru::io::FS> connectToFileServer() {
    auto fs = oru::io::IPCFS::SPtr::create();
    if (fs->connect(connectTries, nullptr) != 0)
        throw cannot(
            QStringLiteral("connect to the file server (%1)").arg(describe(fs->unavailable())));
    return fs;
}

} // namespace

Destination::Destination(const Options& options)
    : m_temporary(options.destination.isEmpty() ? makeTemporaryDirectory(options.keep) : nullptr),
      m_shown(m_temporary ? m_temporary->path() : options.destination), m_directory(mountPoint) {
    const QString& destination = options.destination;
    if (destination.startsWith(locationPrefix)) {
        m_medium = std::make_unique<Medium>(destination.mid(locationPrefix.size()), options);
        m_directory = m_medium->directory();
        return;
    }
    QSharedPointer<oru::io::FS> fs;
    if (isSmbUrl(destination)) {
        const SmbUrl url = parseSmbUrl(destination);
        fs = connectToShare(url, destination);
        for (const QString& name : url.directories)
            m_directory += '/' + name;
    } else if (destination == fileServer) {
        fs = connectToFileServer();
    } else {
        fs = openLocalDirectory(m_shown);
    }
    oru::io::FSSwitch::rootfs()->add(mountPoint, fs);
}

Destination::~Destination() {
    oru::io::FSSwitch::rootfs()->remove(mountPoint);
}

void Destination::leave() {
    if (m_medium)
        m_medium->unmount();
}

QString Destination::directory() const {
    return m_directory;
}

QString Destination::path(const QString& name) const {
    return m_directory + '/' + name;
}

QString Destination::shown(const QString& name) const {
    return m_shown.endsWith('/') ? m_shown + name : m_shown + '/' + name;
}

bool Destination::isKept() const {
    return !m_temporary || !m_temporary->autoRemove();
}
