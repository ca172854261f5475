// How text crosses between QString and the C interface: as UTF-8, unchanged or not at all.
//
// A text that would arrive as a different one (cut at a NUL, or with its invalid parts replaced)
// could name the wrong file, so it is refused.
#pragma once

#include <QString>
#include <QVarLengthArray>

namespace oru::io {

/// A NUL-terminated text as the C interface takes it. Most fit without an allocation.
using SystemText = QVarLengthArray<char, 256>;

/// The UTF-8 form of `text`. \returns false with errno EINVAL when it contains a NUL, EILSEQ when
/// it is not valid UTF-16; what is in `utf8` then is unspecified.
bool toSystem(const QString& text, SystemText& utf8);

/// The text that `utf8` spells. \returns false with errno EFAULT when it is null, ENAMETOOLONG when
/// it has more than 1 MiB, which no system takes, EILSEQ when it is not valid UTF-8; `text` is then
/// unchanged.
bool fromSystem(const char* utf8, QString& text);

} // namespace oru::io
