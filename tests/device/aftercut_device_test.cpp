// What the device finds on its card when its power comes back. tools/device/record-until-cut has
// recorded, and cut it.
#include "device/hardware.h"
#include "device/recordings.h"

#include <QFile>

#include <gtest/gtest.h>

namespace oru::io::test {
namespace {

class AfterPowerCut : public HardwareTest {};

} // namespace

TEST_F(AfterPowerCut, WhatWasFinishedOrSynced_IsThere) {
    for (Recording& recording : recordingsOfTheCard()) {
        recording.directory = directory(recording.type);
        recording.log = QString("/run/job/recorded-%1.log").arg(recording.type);
        if (!QFile::exists(recording.log))
            GTEST_SKIP() << "the power was not cut before";
        const Told told = toldSoFar(recording);
        EXPECT_FALSE(told.finished.isEmpty());
        expectRecovered(recording, told);
    }
}

} // namespace oru::io::test
