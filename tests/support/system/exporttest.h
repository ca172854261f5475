// Tests of NFS exports; a memory file system takes the export's place.
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

/// What is mounted has the name of the target: the second argument, or the third behind "-r".
constexpr char mountsMemory[] = R"(
access=
[ "$2" != -r ] || { access=-r; shift; }
exec mount $access -t tmpfs "$2" "$3"
)";

/// With a directory to mount an export on, and a maintenance program that does.
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
