// SPDX-License-Identifier: Apache-2.0
// LinuxBD: block size and length read from the node.

#include "bdmontest.h"

#include <optional>

namespace oru::io::test {
namespace {

class LinuxBDGeometry : public ::testing::Test {
protected:
    LinuxBD disk() {
        Properties props{{"DEVNAME", "/dev/sda"}, {"DEVTYPE", "disk"}};
        return LinuxBD(props);
    }
    LinuxBD partition() {
        Properties props{{"DEVNAME", "/dev/sda"},
                         {"DEVTYPE", "partition"},
                         {"ID_PART_ENTRY_OFFSET", "2048"},
                         {"ID_PART_ENTRY_SIZE", "8192"}};
        return LinuxBD(props);
    }

    UdevTestbed testbed;
};

TEST_F(LinuxBDGeometry, Disk_512ByteBlocks_LengthFromNode) {
    testbed.setNode("/dev/sda", {512, 7948206080});
    const LinuxBD device = disk();
    EXPECT_EQ(device.m_blkSize, 512U);
    EXPECT_EQ(device.m_totalBlocks, 15523840U);
    EXPECT_EQ(device.capacity(), 7948206080U);
    EXPECT_EQ(device.m_startBlock, 0U);
}

TEST_F(LinuxBDGeometry, Disk_4096ByteBlocks_LengthInThoseBlocks) {
    testbed.setNode("/dev/sda", {4096, 8000000000000});
    const LinuxBD device = disk();
    EXPECT_EQ(device.m_blkSize, 4096U);
    EXPECT_EQ(device.m_totalBlocks, 1953125000U);
    EXPECT_EQ(device.capacity(), 8000000000000U);
}

TEST_F(LinuxBDGeometry, Disk_PartialLastBlock_RoundedDown) {
    testbed.setNode("/dev/sda", {4096, 3 * 4096 + 4095});
    EXPECT_EQ(disk().m_totalBlocks, 3U);
    EXPECT_EQ(disk().capacity(), 3U * 4096);
}

TEST_F(LinuxBDGeometry, Partition_4096ByteBlocks_NumbersTakenFromUdev) {
    testbed.setNode("/dev/sda", {4096, 8000000000000});
    const LinuxBD device = partition();
    EXPECT_EQ(device.m_blkSize, 4096U);
    EXPECT_EQ(device.m_startBlock, 2048U);
    EXPECT_EQ(device.m_totalBlocks, 8192U);
    EXPECT_EQ(device.capacity(), 8192U * 4096);
}

TEST_F(LinuxBDGeometry, BothIoctlsFail_512ByteBlocksAndNoLength) {
    testbed.setNode("/dev/sda", {});
    const LinuxBD device = disk();
    EXPECT_EQ(device.m_blkSize, 512U);
    EXPECT_EQ(device.m_totalBlocks, 0U);
    EXPECT_EQ(device.capacity(), 0U);
    EXPECT_EQ(partition().m_blkSize, 512U);
    EXPECT_EQ(partition().capacity(), 8192U * 512);
}

TEST_F(LinuxBDGeometry, BlockSizeIoctlFails_512ByteBlocks) {
    testbed.setNode("/dev/sda", {std::nullopt, 10240});
    EXPECT_EQ(disk().m_blkSize, 512U);
    EXPECT_EQ(disk().m_totalBlocks, 20U);
    EXPECT_EQ(partition().m_blkSize, 512U);
}

TEST_F(LinuxBDGeometry, BlockSizeZero_512ByteBlocks) {
    testbed.setNode("/dev/sda", {0, 10240});
    EXPECT_EQ(disk().m_blkSize, 512U);
    EXPECT_EQ(disk().m_totalBlocks, 20U);
}

TEST_F(LinuxBDGeometry, LengthIoctlFails_NoBlocks) {
    testbed.setNode("/dev/sda", {4096, std::nullopt});
    EXPECT_EQ(disk().m_blkSize, 4096U);
    EXPECT_EQ(disk().m_totalBlocks, 0U);
    EXPECT_EQ(disk().capacity(), 0U);
}

TEST_F(LinuxBDGeometry, Construction_Repeated_NodeClosed) {
    testbed.setNode("/dev/sda", {512, 10240});
    disk();
    const int descriptors = openDescriptors();
    for (int round = 0; round < 20; ++round) {
        disk();
        partition();
    }
    EXPECT_TRUE(noMoreDescriptorsThan(descriptors));
}

} // namespace
} // namespace oru::io::test
