// SPDX-License-Identifier: Apache-2.0
#include "card.h"

#include "files.h"

#include <oruio/posixfs.h>

namespace {

constexpr char clipPath[] = "/media/sd1/DCIM/clip-0001.mov";
constexpr int clipSize = 2 << 20;

} // namespace

Card& Card::instance() {
    static Card card;
    return card;
}

Card::Card()
    : m_root(directoryTemplate()), m_systemClip((m_root.path() + clipPath).toStdString()),
      m_switch(oru::io::FSSwitch::SPtr::create()), m_adapter(m_switch) {
    // Of mount points of equal length, the one added last is the first in the table, which a lookup
    // compares last.
    for (int number = 8; number >= 1; --number) {
        const QString mountPoint = QStringLiteral("/media/sd%1").arg(number);
        m_switch->add(mountPoint, oru::io::PosixFS::SPtr::create(m_root.path() + mountPoint));
    }
    makeFile(m_root, clipPath, clipSize);
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
