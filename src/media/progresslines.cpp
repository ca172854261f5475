// SPDX-License-Identifier: Apache-2.0
#include "media/progresslines_p.h"

#include "core/systemtext_p.h"

#include <algorithm>

namespace oru::io {

namespace {

bool isControl(char c) {
    return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// Reads a number of up to four digits. \returns -1 for anything else, and above 1000.
int permilleOf(const QByteArray& digits) {
    if (digits.isEmpty() || digits.size() > 4 ||
        !std::all_of(digits.begin(), digits.end(), isDigit))
        return -1;
    const int number = digits.toInt();
    return number <= 1000 ? number : -1;
}

/// \returns whether `bytes` is a known line.
bool parse(const QByteArray& bytes, ProgressLine& line) {
    if (bytes.size() > ProgressLines::longestLine ||
        std::any_of(bytes.begin(), bytes.end(), isControl))
        return false;
    line = {};
    if (bytes == "committed") {
        line.kind = ProgressLine::Kind::Committed;
        return true;
    }
    if (bytes.startsWith("phase ")) {
        line.kind = ProgressLine::Kind::Phase;
        line.phase = decoded(bytes.constData() + 6, bytes.size() - 6);
        return !line.phase.isEmpty();
    }
    if (bytes.startsWith("progress ")) {
        line.kind = ProgressLine::Kind::Permille;
        line.permille = permilleOf(bytes.mid(9));
        return line.permille != -1;
    }
    return false;
}

} // namespace

void ProgressLines::add(const char* bytes, int count) {
    m_bytes.append(bytes, count);
}

bool ProgressLines::next(ProgressLine& line) {
    for (int end = 0; (end = m_bytes.indexOf('\n', m_next)) != -1;) {
        const QByteArray bytes = m_bytes.mid(m_next, end - m_next);
        m_next = end + 1;
        if (parse(bytes, line))
            return true;
    }
    // The rest of a line that is too long needs no memory: enough is kept to know that it is.
    m_bytes = m_bytes.mid(m_next, longestLine + 1);
    m_next = 0;
    return false;
}

} // namespace oru::io
