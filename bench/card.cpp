#include "card.h"

#include <oruio/posixfs.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr char clipPath[] = "/media/sd1/DCIM/clip-0001.mov";
constexpr int clipSize = 2 << 20;

/// Not /tmp, which may well be in memory only, unless it is asked for.
QString parentDirectory() {
    return qEnvironmentVariable("TMPDIR", QStringLiteral("/var/tmp"));
}

bool makeClip(const QString& path) {
    QFile clip(path);
    return QDir().mkpath(QFileInfo(path).path()) && clip.open(QFile::WriteOnly) &&
           clip.write(QByteArray(clipSize, 'c')) == clipSize && clip.flush();
}

} // namespace

Card& Card::instance() {
    static Card card;
    return card;
}

Card::Card()
    : m_root(parentDirectory() + "/oruio-bench-XXXXXX"),
      m_systemClip((m_root.path() + clipPath).toStdString()),
      m_switch(oru::io::FSSwitch::SPtr::create()), m_adapter(m_switch) {
    // Of mount points of the same length, the one added last stands first in the table and is the
    // last that a lookup comes to.
    for (int number = 8; number >= 1; --number) {
        const QString mountPoint = QStringLiteral("/media/sd%1").arg(number);
        m_switch->add(mountPoint, oru::io::PosixFS::SPtr::create(m_root.path() + mountPoint));
    }
    if (!m_root.isValid() || !makeClip(m_root.path() + clipPath)) {
        std::fprintf(stderr, "cannot make a clip below %s\n", qUtf8Printable(parentDirectory()));
        m_root.remove();
        std::exit(1);
    }
}

oru::io::FDAdapter& Card::adapter() {
    return m_adapter;
}

const char* Card::clip() const {
    return clipPath;
}

const char* Card::systemClip() const {
    return m_systemClip.c_str();
}
