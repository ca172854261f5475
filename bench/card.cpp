#include "card.h"

#include <oruio/posixfs.h>

#include <QDir>
#include <QFile>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr char clipPath[] = "/media/sd1/DCIM/clip-0001.mov";
constexpr int clipSize = 2 << 20;

/// Not /tmp, which may well be in memory only, unless it is asked for.
QString rootTemplate() {
    const QString parent = qEnvironmentVariable("TMPDIR", QStringLiteral("/var/tmp"));
    return parent + "/oruio-bench-XXXXXX";
}

} // namespace

Card& Card::instance() {
    static Card card;
    return card;
}

Card::Card()
    : m_root(rootTemplate()), m_systemClip((m_root.path() + clipPath).toStdString()),
      m_switch(oru::io::FSSwitch::SPtr::create()), m_adapter(m_switch) {
    // Of mount points of the same length, the one added last stands first in the table and is the
    // last that a lookup comes to.
    for (int number = 8; number >= 1; --number) {
        const QString mountPoint = QStringLiteral("/media/sd%1").arg(number);
        m_switch->add(mountPoint, oru::io::PosixFS::SPtr::create(m_root.path() + mountPoint));
    }
    QFile clip(QString::fromStdString(m_systemClip));
    if (!QDir().mkpath(m_root.path() + "/media/sd1/DCIM") || !clip.open(QFile::WriteOnly) ||
        clip.write(QByteArray(clipSize, 'c')) != clipSize) {
        std::fprintf(stderr, "cannot prepare %s\n", m_systemClip.c_str());
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
