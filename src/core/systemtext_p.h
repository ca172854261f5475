// How text crosses between QString and the C interface: as UTF-8, unchanged or not at all.
//
// A text that would arrive as a different one (cut at a NUL, or with its invalid parts replaced)
// could name the wrong file, so it is refused.
#pragma once

#include <QString>
#include <QVarLengthArray>

#include <cerrno>

namespace oru::io {

/// A NUL-terminated text as the C interface takes it. Most fit without an allocation.
using SystemText = QVarLengthArray<char, 256>;

/// The UTF-8 form of `text`. \returns false with errno EINVAL when it contains a NUL, EILSEQ when
/// it is not valid UTF-16; what is in `utf8` then is unspecified.
bool toSystem(const QString& text, SystemText& utf8);

/// Whether `text`, which Qt is to hand to the system, gets there as toSystem() would have it: Qt
/// does it in the codec of the locale. \returns false with errno as toSystem(); EILSEQ when that
/// codec makes other bytes of it.
bool qtEncodesAsUtf8(const QString& text);

/// The text that `utf8` spells. \returns false with errno EFAULT when it is null, ENAMETOOLONG when
/// it has more than 1 MiB, which no system takes, EILSEQ when it is not valid UTF-8; `text` is then
/// unchanged.
bool fromSystem(const char* utf8, QString& text);

/// The text of `length` bytes that the system tells, with a replacement character for each part
/// that is not valid UTF-8.
QString decoded(const char* utf8, int length);

/// The result of `call` on the system form of `path`; -1 when there is none. Releasing the path
/// leaves errno as the call set it.
template <class Call>
int withPath(const QString& path, Call call) {
    int result = -1;
    int reason = 0;
    {
        SystemText systemPath;
        if (toSystem(path, systemPath))
            result = call(systemPath.constData());
        reason = errno;
    }
    errno = reason;
    return result;
}

/// The result of `call` on the system forms of two texts; -1 when there is none.
template <class Call>
int withPaths(const QString& first, const QString& second, Call call) {
    return withPath(first, [&](const char* firstPath) {
        return withPath(second,
                        [&](const char* secondPath) { return call(firstPath, secondPath); });
    });
}

} // namespace oru::io
