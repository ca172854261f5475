// SPDX-License-Identifier: Apache-2.0
// Fixture for tests of NFS exports; a tmpfs stands in for the export.
#pragma once

#include "support/doubles/maintenanceprogram.h"
#include "support/system/isolated.h"
#include "support/system/tempdir.h"

#include <oruio/properties.h>

#include <QDir>
#include <QFile>

#include <optional>

#include <sys/mount.h>

namespace oru::io::test {

/// Mounts a tmpfs named like the target: the second argument, or the third after "-r".
constexpr char mountsMemory[] = R"(
access=
[ "$2" != -r ] || { access=-r; shift; }
exec mount $access -t tmpfs "$2" "$3"
)";

/// Has a mount point for an export, and a maintenance program that mounts a tmpfs there.
class ExportTest : public WithMaintenanceProgram {
protected:
    void SetUp() override {
        WithMaintenanceProgram::SetUp();
        if (IsSkipped())
            return;
        program.emplace(mountsMemory);
        ASSERT_EQ(program->problem(), "");
        ASSERT_TRUE(QDir().mkpath(path));
    }
    void TearDown() override {
        while (umount2(QFile::encodeName(path).constData(), MNT_DETACH) == 0)
            continue;
    }

    const TempDir temp;
    const QString path = temp.path() + "/export";
    const Properties target = {{"target", "server:/export"}};
    std::optional<MaintenanceProgram> program;
};

} // namespace oru::io::test
