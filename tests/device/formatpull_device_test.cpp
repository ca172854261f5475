// SPDX-License-Identifier: Apache-2.0
// A stick that is pulled while it is formatted.
#include "device/hardware.h"
#include "support/suite/qtprint.h"
#include "support/system/files.h"
#include "support/system/loopdisk.h"

#include <oruio/bdmon.h>
#include <oruio/posixfs.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <random>
#include <thread>

namespace oru::io::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr qint64 MiB = 1024 * 1024;
constexpr int pulls = 20;
const QByteArray onePartition = "label: dos\nstart=1MiB, type=c\n";

class FormatPull : public HardwareTest {
protected:
    void SetUp() override {
        HardwareTest::SetUp();
        if (!IsSkipped() && !HasFatalFailure()) {
            ASSERT_TRUE(start().events);
        }
    }

    /// Plugs in the stick. \returns the disk of its event, or null.
    BlockDevice::SPtr plugIn() {
        EXPECT_TRUE(Hardware::plug("spare"));
        const Batch batch = update();
        for (const BDMon::Event& event : batch.events ? *batch.events : QList<BDMon::Event>()) {
            if (event.dev->m_devName == Hardware::stick("spare") && event.action == "add")
                return event.dev;
        }
        return {};
    }

    /// Checks that the stick has a sound, empty file system that can be written to.
    void expectUsable() {
        ASSERT_TRUE(Hardware::settle());
        const QString part = Hardware::stick("spare", 1);
        EXPECT_EQ(runTool({"fsck.vfat", "-n", part}).status, 0);
        Properties properties = {
            {"DEVNAME", part}, {"DEVTYPE", "partition"}, {"ID_FS_TYPE", "vfat"}};
        LinuxBD device(properties);
        ASSERT_EQ(device.mount(directory(), nullptr), 0) << std::strerror(errno);
        PosixFS files(directory());
        EXPECT_TRUE(makeFile(files, "/clip", "footage"));
        EXPECT_EQ(device.umount(nullptr), 0) << std::strerror(errno);
    }
};

TEST_F(FormatPull, AtTwentyRandomMoments_FailsOrIsComplete) {
    ASSERT_TRUE(Hardware::makeStick("spare", 64 * MiB, onePartition));
    const BlockDevice::SPtr undisturbed = plugIn();
    ASSERT_TRUE(undisturbed);
    const auto begin = Clock::now();
    ASSERT_EQ(undisturbed->format(nullptr), 0);
    const std::chrono::duration<double> whole = Clock::now() - begin;
    expectUsable();

    const unsigned int seed = std::random_device()();
    std::printf("seed %u, a format takes %.1f s\n", seed, whole.count());
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> share(0, 1.1);
    int failures = 0;
    for (int pull = 0; pull < pulls && !HasFailure(); ++pull) {
        SCOPED_TRACE(pull);
        ASSERT_TRUE(Hardware::unplug("spare"));
        update();
        const BlockDevice::SPtr disk = plugIn();
        ASSERT_TRUE(disk);
        auto format = std::async(std::launch::async, [&] { return disk->format(nullptr); });
        std::this_thread::sleep_for(whole * share(random));
        ASSERT_TRUE(Hardware::unplug("spare"));
        const int status = format.get();
        failures += status != 0;
        update();

        const BlockDevice::SPtr next = plugIn();
        ASSERT_TRUE(next);
        if (status == 0)
            expectUsable();
        ASSERT_EQ(next->format(nullptr), 0);
        expectUsable();
    }
    EXPECT_GT(failures, 0) << "no pull was early enough";
}

} // namespace
} // namespace oru::io::test
