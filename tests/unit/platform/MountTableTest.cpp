#include "platform/MountTable.h"

#include <gtest/gtest.h>

namespace kestrin::platform {
namespace {

TEST(MountTable, ParsesMountInfoWithEscapesOptionalFieldsAndBrokenLines) {
  const auto mounts = MountTable::parse(
      "23 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
      "35 23 0:31 / /dev/shm rw,nosuid,nodev - tmpfs tmpfs rw\n"
      "40 23 8:17 / /Volumes/Media\\040Drive ro,nosuid shared:7 master:2 - vfat /dev/sdb1 ro\n"
      "41 23 0:45 /@home /home rw - btrfs /dev/sda2 rw\n"
      "garbage line\n"
      "42 23 x:y / /broken rw - ext4 /dev/sdc1 rw\n"
      "43 23 8:33 / relative rw - ext4 /dev/sdc2 rw\n"
      "44 23 8:49 / /no-separator rw ext4 /dev/sdc3 rw");
  ASSERT_EQ(mounts.size(), 4u);
  EXPECT_EQ(mounts[0].mountPoint, "/");
  EXPECT_EQ(mounts[0].fileSystemType, "ext4");
  EXPECT_TRUE(mounts[0].isLocalVolume());
  EXPECT_FALSE(mounts[1].isLocalVolume()) << "memory is not a drive";
  EXPECT_EQ(mounts[2].mountPoint, "/Volumes/Media Drive");
  EXPECT_EQ(mounts[2].source, "/dev/sdb1");
  EXPECT_EQ(mounts[2].options, "ro,nosuid");
  EXPECT_EQ(mounts[2].major, 8u);
  EXPECT_TRUE(mounts[3].isLocalVolume()) << "a btrfs subvolume lives on a disk";
  EXPECT_TRUE(MountTable::parse("").empty());
}

} // namespace
} // namespace kestrin::platform
