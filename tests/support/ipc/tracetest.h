// SPDX-License-Identifier: Apache-2.0
// Records the steps of a test.
#pragma once

#include "support/ipc/tracechecker.h"
#include "support/ipc/tracerecorder.h"
#include "support/system/tempdir.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace oru::io::test {

/// Records from the constructor on. Processes that are created before do not take part.
class TraceOfTest {
public:
    explicit TraceOfTest(std::uint64_t capacity = 1U << 20)
        : m_path(qPrintable(m_directory / "trace")) {
        EXPECT_TRUE(startTrace(m_path, capacity));
    }
    ~TraceOfTest() {
        stopTrace();
    }

    /// Reads the record. Its processes must have ended, or be idle.
    Trace read() const {
        return readTrace(m_path);
    }
    /// Fails the test if the record is refused.
    void expectAccepted() const {
        const Trace trace = read();
        const Verdict verdict = checkTrace(trace);
        EXPECT_TRUE(verdict.isAccepted()) << verdict.message << "\nafter:\n"
                                          << stepsBefore(trace, verdict.index);
    }
    /// The last steps before one of them, a line each.
    static std::string stepsBefore(const Trace& trace, std::size_t index, std::size_t count = 25) {
        std::string lines;
        for (std::size_t i = index > count ? index - count : 0; i < index; ++i)
            lines += describe(trace.events[i]) + '\n';
        return lines;
    }

private:
    TempDir m_directory;
    std::string m_path;
};

} // namespace oru::io::test
