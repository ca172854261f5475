// Tests that mount.
#pragma once

#include "support/system/isolation.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

namespace oru::io::test {

/// With mounts of the program's own; skipped where it can have none.
class Isolated : public ::testing::Test {
protected:
    void SetUp() override {
        static const int problem = isolate(Namespaces::Mount) ? 0 : errno;
        if (problem != 0)
            GTEST_SKIP() << "no private mounts: " << std::strerror(problem);
    }
};

/// Starts the maintenance program, too; skipped where that cannot be.
class WithMaintenanceProgram : public Isolated {
protected:
    void SetUp() override {
        Isolated::SetUp();
        if (!IsSkipped() && isEmulated())
            GTEST_SKIP() << "the emulator cannot start the maintenance program";
    }
};

} // namespace oru::io::test
