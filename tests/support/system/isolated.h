// SPDX-License-Identifier: Apache-2.0
// Fixtures for tests that mount.
#pragma once

#include "support/system/isolation.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

namespace oru::io::test {

/// Runs the test in a private mount namespace; skips it if none can be created.
class Isolated : public ::testing::Test {
protected:
    void SetUp() override {
        static const int problem = isolate(Namespaces::Mount) ? 0 : errno;
        if (problem != 0)
            GTEST_SKIP() << "needs a private mount namespace: " << std::strerror(problem);
    }
};

/// For tests that start the maintenance program; skipped in the emulator of single programs.
class WithMaintenanceProgram : public Isolated {
protected:
    void SetUp() override {
        Isolated::SetUp();
        if (!IsSkipped() && isEmulated())
            GTEST_SKIP() << "the emulator cannot start the maintenance program";
    }
};

} // namespace oru::io::test
