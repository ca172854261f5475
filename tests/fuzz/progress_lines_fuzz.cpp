// SPDX-License-Identifier: Apache-2.0
// The reader of the maintenance program's progress. An input is the size of the pieces in which it
// is read (one byte), and a stream.

#include "fuzz/support.h"
#include "media/progresslines_p.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

using oru::io::ProgressLine;
using oru::io::ProgressLines;
using oru::io::test::require;

bool isControl(QChar character) {
    return character < QLatin1Char(' ') || character == QChar(0x7f);
}

void checkLine(const ProgressLine& line) {
    const bool isPermille = line.kind == ProgressLine::Kind::Permille;
    require(isPermille ? line.permille >= 0 && line.permille <= 1000 : line.permille == -1,
            "a progress is in permille");
    const bool isPhase = line.kind == ProgressLine::Kind::Phase;
    require(line.phase.isEmpty() != isPhase, "a phase has a name");
    require(line.phase.size() <= ProgressLines::longestLine, "a phase is short");
    require(std::none_of(line.phase.begin(), line.phase.end(), isControl),
            "a phase has no control characters");
}

std::vector<ProgressLine> linesOf(const char* stream, std::size_t size, std::size_t piece) {
    ProgressLines lines;
    std::vector<ProgressLine> found;
    for (std::size_t at = 0; at < size; at += piece) {
        lines.add(stream + at, static_cast<int>(std::min(piece, size - at)));
        ProgressLine line;
        while (lines.next(line)) {
            checkLine(line);
            found.push_back(line);
        }
    }
    return found;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const auto* const stream = reinterpret_cast<const char*>(data + 1);
    const auto whole = linesOf(stream, size - 1, size);
    const auto pieces = linesOf(stream, size - 1, data[0] + 1U);
    const auto isSame = [](const ProgressLine& a, const ProgressLine& b) {
        return a.kind == b.kind && a.phase == b.phase && a.permille == b.permille;
    };
    require(std::equal(whole.begin(), whole.end(), pieces.begin(), pieces.end(), isSame),
            "the lines do not depend on how the stream is read");
    return 0;
}
