// SPDX-License-Identifier: Apache-2.0
#include "core/systemtext_p.h"

#include <QByteArray>
#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace oru::io {

namespace {

/// Most strings are ASCII. For them, one pass both checks and converts. \returns false for others.
bool toAscii(const QString& text, SystemText& ascii) {
    const int length = text.size();
    ascii.resize(length + 1);
    char* const to = ascii.data();
    const QChar* const from = text.constData();
    bool plain = true;
    for (int i = 0; i < length; ++i) {
        plain &= from[i].unicode() - 1U < 0x7fU;
        to[i] = from[i].toLatin1();
    }
    to[length] = '\0';
    return plain;
}

} // namespace

bool toSystem(const QString& text, SystemText& utf8) {
    if (toAscii(text, utf8))
        return true;
    if (text.contains(QChar::Null)) {
        errno = EINVAL;
        return false;
    }
    if (!text.isValidUtf16()) {
        errno = EILSEQ;
        return false;
    }
    const QByteArray bytes = text.toUtf8();
    utf8.resize(bytes.size() + 1);
    std::copy_n(bytes.constData(), bytes.size() + 1, utf8.data());
    return true;
}

bool checkQtEncoding(const QString& text) {
    SystemText utf8;
    if (!toSystem(text, utf8))
        return false;
    if (QFile::encodeName(text) == utf8.constData())
        return true;
    errno = EILSEQ;
    return false;
}

bool fromSystem(const char* utf8, QString& text) {
    if (!utf8) {
        errno = EFAULT;
        return false;
    }
    constexpr size_t longest = 1 << 20;
    const auto length = static_cast<int>(strnlen(utf8, longest + 1));
    if (length > static_cast<int>(longest)) {
        errno = ENAMETOOLONG;
        return false;
    }
    const bool ascii =
        std::all_of(utf8, utf8 + length, [](char c) { return static_cast<signed char>(c) >= 0; });
    if (ascii) {
        text = QString::fromLatin1(utf8, length);
        return true;
    }
    // A string with invalid parts does not convert back to the same bytes.
    bool isValid = false;
    {
        const QString result = decoded(utf8, length);
        isValid = result.toUtf8() == QByteArray::fromRawData(utf8, length);
        if (isValid)
            text = result;
    }
    if (!isValid)
        errno = EILSEQ;
    return isValid;
}

QString decoded(const char* utf8, int length) {
    // Qt removes a byte order mark at the beginning, so put a character before it.
    return QString::fromUtf8('/' + QByteArray::fromRawData(utf8, length)).mid(1);
}

} // namespace oru::io
