// SPDX-License-Identifier: Apache-2.0
// Strings between QString and the C interface: converted to UTF-8 without a change, or refused.
//
// A string that changes on the way (cut at a NUL, or with its invalid parts replaced) could name
// another file.
#pragma once

#include <QString>
#include <QVarLengthArray>

#include <cerrno>
#include <utility>

namespace oru::io {

/// A NUL-terminated string for the C interface. Most fit without an allocation.
using SystemText = QVarLengthArray<char, 256>;

/// Converts `text` to UTF-8. \returns false with errno EINVAL when it contains a NUL, EILSEQ when
/// it is not valid UTF-16; `utf8` is unspecified then.
bool toSystem(const QString& text, SystemText& utf8);

/// Checks that Qt, which encodes paths in the codec of the locale, encodes `text` as toSystem()
/// does. \returns false with errno as toSystem(), or EILSEQ when the codec encodes other bytes.
bool checkQtEncoding(const QString& text);

/// Converts `utf8` to a QString. \returns false with errno EFAULT when it is null, ENAMETOOLONG
/// when it is longer than 1 MiB, more than any system call takes, EILSEQ when it is not valid
/// UTF-8; `text` is unchanged then.
bool fromSystem(const char* utf8, QString& text);

/// The string of `length` bytes that the system returned. Each part that is not valid UTF-8 becomes
/// a replacement character.
QString decoded(const char* utf8, int length);

/// Calls `call` with `path` in UTF-8. \returns its result, or -1 with errno when `path` cannot be
/// converted. errno stays as `call` leaves it, also when the memory of the path is freed.
template <class Call>
int withPath(QString path, Call call) {
    int result = -1;
    int reason = 0;
    {
        const QString owned = std::move(path); // freed here, also if it was a temporary
        SystemText systemPath;
        if (toSystem(owned, systemPath))
            result = call(systemPath.constData());
        reason = errno;
    }
    errno = reason;
    return result;
}

/// The same with two paths.
template <class Call>
int withPaths(QString first, QString second, Call call) {
    return withPath(std::move(first), [&](const char* firstPath) {
        return withPath(std::move(second),
                        [&](const char* secondPath) { return call(firstPath, secondPath); });
    });
}

} // namespace oru::io
