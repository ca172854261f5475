// Another locale's codec, in which Qt hands texts to the system.
#pragma once

#include <QTextCodec>

namespace oru::io::test {

/// The process has it for as long as this lives.
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
