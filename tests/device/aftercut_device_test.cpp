// SPDX-License-Identifier: Apache-2.0
// The state of the card after a power cut. tools/device/record-until-cut has recorded and cut the
// power.
#include "device/hardware.h"
#include "device/recordings.h"

#include <QFile>

#include <gtest/gtest.h>

namespace oru::io::test {
namespace {

class AfterPowerCut : public HardwareTest {};

} // namespace

TEST_F(AfterPowerCut, FinishedAndSyncedData_Recovered) {
    for (Recording& recording : recordingsOfTheCard()) {
        recording.directory = directory(recording.type);
        recording.log = QString("/run/job/recorded-%1.log").arg(recording.type);
        if (!QFile::exists(recording.log))
            GTEST_SKIP() << "needs a power cut by tools/device/record-until-cut";
        const Reported reported = reportedSoFar(recording);
        EXPECT_FALSE(reported.finished.isEmpty());
        expectRecovered(recording, reported);
    }
}

} // namespace oru::io::test
