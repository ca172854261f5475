#include "destination.h"

#include "failure.h"

#include <oruio/fsswitch.h>
#include <oruio/posixfs.h>

#include <QDir>

#include <cerrno>

namespace {

const QString mountPoint = QStringLiteral("/media/clip-dest");

std::unique_ptr<QTemporaryDir> makeTemporaryDirectory(bool keep) {
    auto directory = std::make_unique<QTemporaryDir>(QDir::tempPath() + "/recorder-XXXXXX");
    if (!directory->isValid())
        throw Failure{"cannot create a temporary directory: " + directory->errorString()};
    directory->setAutoRemove(!keep);
    return directory;
}

/// The local directory `path` as a file system; its own paths begin with the slash behind it.
QSharedPointer<oru::io::FS> openLocal(const QString& path) {
    QString root = path;
    while (root.endsWith('/'))
        root.chop(1);
    auto fs = oru::io::PosixFS::SPtr::create(root);
    struct stat st;
    if (fs->stat(QStringLiteral("/"), st) != 0)
        throw cannot("use " + path);
    return fs;
}

} // namespace

Destination::Destination(const QString& text, bool keep)
    : m_temporary(text.isEmpty() ? makeTemporaryDirectory(keep) : nullptr),
      m_shown(m_temporary ? m_temporary->path() : text) {
    oru::io::FSSwitch::rootfs()->add(mountPoint, openLocal(m_shown));
}

Destination::~Destination() {
    oru::io::FSSwitch::rootfs()->remove(mountPoint);
}

QString Destination::directory() const {
    return mountPoint;
}

QString Destination::path(const QString& name) const {
    return mountPoint + '/' + name;
}

QString Destination::shown(const QString& name) const {
    return m_shown.endsWith('/') ? m_shown + name : m_shown + '/' + name;
}

bool Destination::isKept() const {
    return !m_temporary || !m_temporary->autoRemove();
}
