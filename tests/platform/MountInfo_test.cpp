#include <gtest/gtest.h>

#include "platform/linux/MountInfo.h"

namespace vantorix {
namespace {

constexpr const char* kMountInfo =
    "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
    "27 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw,discard\n"
    "28 27 7:3 / /mnt/my\\040disk rw,relatime shared:5 master:2 - ext4 /dev/loop3 rw\n"
    "29 28 7:4 / /mnt/my\\040disk/inner rw - xfs /dev/loop4 rw\n"
    "30 27 0:44 / /tmp rw - tmpfs tmpfs rw\n"
    "31 27 0:45 / /tmp rw - tmpfs tmpfs2 rw\n"
    "32 27 0:46 / /var/lib/docker/overlay2/x/merged rw - overlay overlay rw,lowerdir=a\n"
    "garbage line\n"
    "33 27 notanumber / /bad rw - ext4 /dev/sdz rw\n"
    "34 27 8:1 / /nofields rw\n";

TEST(MountInfo, FindsTheMountHoldingAPath) {
    const auto entries = parseMountInfo(kMountInfo);
    EXPECT_EQ(entries.size(), 7u) << "lines without all their fields are passed over";
    EXPECT_EQ(entries[2].fileSystemType, "ext4");  // after two optional fields
    struct Case {
        std::uint32_t major, minor;
        const char* path;
        const char* mountPoint;
        const char* source;
    };
    const std::vector<Case> cases{
        {254, 0, "/home/user/file", "/", "/dev/vda"},
        {7, 3, "/mnt/my disk/sub/dir", "/mnt/my disk", "/dev/loop3"},  // after two optional fields
        {7, 4, "/mnt/my disk/inner/x", "/mnt/my disk/inner", "/dev/loop4"},
        {254, 0, "/mnt/my diskette", "/", "/dev/vda"},                       // a name prefix is not a parent
        {0, 45, "/tmp/a", "/tmp", "tmpfs2"},                                 // the topmost of two mounts on one point
        {9, 9, "/mnt/my disk/inner/y", "/mnt/my disk/inner", "/dev/loop4"},  // unknown device: longest mount
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        const auto mount = findMount(entries, c.major, c.minor, c.path);
        ASSERT_TRUE(mount);
        EXPECT_EQ(mount->mountPoint, c.mountPoint);
        EXPECT_EQ(mount->source, c.source);
    }
    EXPECT_FALSE(findMount(parseMountInfo(""), 254, 0, "/x"));
}

TEST(MountInfo, ListsEachBlockDeviceOnceByItsRootMount) {
    // A bind mount of a folder of vda listed first gives way to vda's root mount; tmpfs, proc and
    // overlay have no block device.
    const std::string text = "40 27 254:0 /srv/etc /etc/hosts rw - ext4 /dev/vda rw\n" + std::string(kMountInfo) +
                             "41 27 7:3 / /again rw - ext4 /dev/loop3 rw\n";
    EXPECT_EQ(blockDeviceMountPoints(parseMountInfo(text)),
              (std::vector<std::string>{"/", "/mnt/my disk", "/mnt/my disk/inner"}));
}

TEST(MountInfo, DecodesUdevLabelEscapes) {
    const std::pair<std::string, std::string> cases[] = {
        {"My\\x20Disk", "My Disk"}, {"a\\x2fb", "a/b"}, {"\\xzz", "\\xzz"}, {"end\\x2", "end\\x2"}, {"数据", "数据"},
    };
    for (const auto& [label, decoded] : cases) EXPECT_EQ(decodeUdevLabel(label), decoded) << label;
}

}  // namespace
}  // namespace vantorix
