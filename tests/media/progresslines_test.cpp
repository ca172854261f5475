// SPDX-License-Identifier: Apache-2.0
// The lines in which the maintenance program reports its progress.
#include "media/progresslines_p.h"

#include "support/suite/qtprint.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace oru::io {
namespace {

using Found = std::vector<std::string>;

std::string describe(const ProgressLine& line) {
    switch (line.kind) {
    case ProgressLine::Kind::Phase:
        return "phase " + line.phase.toStdString();
    case ProgressLine::Kind::Permille:
        return std::to_string(line.permille);
    case ProgressLine::Kind::Committed:
        break;
    }
    return "committed";
}

/// The known lines of a stream that is read in pieces of this size.
Found linesOf(const QByteArray& stream, int piece = 4096) {
    ProgressLines lines;
    Found found;
    for (int at = 0; at < stream.size(); at += piece) {
        const QByteArray bytes = stream.mid(at, piece);
        lines.add(bytes.constData(), bytes.size());
        ProgressLine line;
        while (lines.next(line))
            found.push_back(describe(line));
    }
    return found;
}

const std::string longestName(ProgressLines::longestLine - 6, 'n');

} // namespace

TEST(ProgressLines, Known_Taken) {
    EXPECT_EQ(linesOf("phase wiping\nprogress 0\nprogress 1000\nprogress 0007\ncommitted\n"),
              (Found{"phase wiping", "0", "1000", "7", "committed"}));
    EXPECT_EQ(linesOf("phase checking, pass 2\n"), Found{"phase checking, pass 2"});
    EXPECT_EQ(linesOf("phase \303\274ber \377\n"), Found{"phase über \ufffd"});
    EXPECT_EQ(linesOf("phase " + QByteArray::fromStdString(longestName) + '\n'),
              Found{"phase " + longestName});
}

TEST(ProgressLines, Unknown_Ignored) {
    const QByteArray unknown[] = {
        "",
        "\n",
        "phase wiping", // without its end
        "phase\n",
        "phase \n",
        "Phase wiping\n",
        "phase a\tb\n",
        "phase a\x1b[2Jb\n",
        "phase wiping\r\n",
        QByteArray("phase a\0b\n", 10),
        "progress\n",
        "progress \n",
        "progress 1001\n",
        "progress -1\n",
        "progress +1\n",
        "progress 1.5\n",
        "progress  1\n",
        "progress 1 \n",
        "progress 00001\n",
        "progress 99999999999999999999\n",
        "committed \n",
        "committed now\n",
        "phase " + QByteArray::fromStdString(longestName) + "n\n",
    };
    for (const QByteArray& stream : unknown) {
        SCOPED_TRACE(stream.constData());
        EXPECT_EQ(linesOf(stream), Found{});
        if (stream.endsWith('\n')) {
            EXPECT_EQ(linesOf(stream + "progress 5\n"), Found{"5"});
        }
    }
}

TEST(ProgressLines, CutAnywhere_SameLines) {
    const QByteArray stream = "phase wiping\nnonsense\n" + QByteArray(1000, 'x') +
                              "progress 3\nprogress 4\ncommitted\n\nphase last\n";
    const Found whole = linesOf(stream);
    EXPECT_EQ(whole, (Found{"phase wiping", "4", "committed", "phase last"}));
    for (int piece = 1; piece < 300; ++piece)
        EXPECT_EQ(linesOf(stream, piece), whole) << piece;
}

TEST(ProgressLines, EndlessLine_TakesNoMemoryAndIsIgnored) {
    ProgressLines lines;
    const QByteArray bytes(4096, 'p');
    ProgressLine line;
    for (int i = 0; i < 10'000; ++i) {
        lines.add(bytes.constData(), bytes.size());
        ASSERT_FALSE(lines.next(line));
    }
    lines.add("\nprogress 1\n", 12);
    ASSERT_TRUE(lines.next(line));
    EXPECT_EQ(line.permille, 1);
}

} // namespace oru::io
