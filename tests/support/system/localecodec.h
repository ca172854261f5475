// SPDX-License-Identifier: Apache-2.0
// Replaces the codec in which Qt passes strings to the system.
#pragma once

#include <QTextCodec>

namespace oru::io::test {

/// Sets the codec of the locale for the process while it lives.
class LocaleCodec {
public:
    explicit LocaleCodec(const char* name) {
        QTextCodec::setCodecForLocale(QTextCodec::codecForName(name));
    }
    ~LocaleCodec() {
        QTextCodec::setCodecForLocale(m_before);
    }

private:
    Q_DISABLE_COPY(LocaleCodec)

    QTextCodec* const m_before = QTextCodec::codecForLocale();
};

} // namespace oru::io::test
