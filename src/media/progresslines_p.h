// SPDX-License-Identifier: Apache-2.0
// The lines in which the maintenance program reports its progress.
#pragma once

#include <QByteArray>
#include <QString>

namespace oru::io {

/// One line that is known.
struct ProgressLine {
    enum class Kind { Phase, Permille, Committed };

    Kind kind = Kind::Phase;
    QString phase;     ///< of a line "phase NAME"
    int permille = -1; ///< of a line "progress N"
};

/// Finds the known lines in a stream of bytes that may be cut anywhere and contain anything.
class ProgressLines {
public:
    /// Longer lines are ignored, in bytes without the newline.
    static constexpr int longestLine = 256;

    /// Adds the next bytes of the stream.
    void add(const char* bytes, int count);
    /// Takes the next known line. \returns false when there is none.
    bool next(ProgressLine& line);

private:
    QByteArray m_bytes;
    int m_next = 0; // where the bytes begin that are not taken yet
};

} // namespace oru::io
