#include "platform/linux/SysfsBlockDevices.h"
#include "platform/BlockStatistics.h"
#include "platform/linux/MountInfo.h"
#include "platform/linux/SysfsAttributes.h"

#include <gtest/gtest.h>

#include <functional>

#include "SysfsTestSupport.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using testing::sysfsFixture;
using testing::TreeCopy;

const std::string kNvmeFunction = "devices/pci0000:00/0000:00:1d.0/0000:3d:00.0";
const std::string kNvmeController = kNvmeFunction + "/nvme/nvme0";
const std::string kUsbStick = "devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1.3";
const std::string kSataLink = "devices/pci0000:00/0000:00:17.0/ata1/link1/ata_link/link1";

TEST(SysfsBlockDevices, NamesNumbersAndWhatADeviceStandsOn) {
    struct Case {
        std::string machine, name;
        unsigned major, minor;
        std::optional<std::string> wholeDisk;
        std::vector<std::string> members;
        std::optional<std::string> controller, serial, wwn;
    };
    const std::string eui = "eui.0025385b91b1c2d3";
    const std::vector<Case> cases = {
        {"nvme-laptop", "nvme0n1", 259, 0, std::nullopt, {}, "nvme0", "S4EWNX0R123456A", eui},
        {"nvme-laptop", "nvme0n1p2", 259, 2, "nvme0n1", {}, std::nullopt, "S4EWNX0R123456A", eui},
        {"dmcrypt-nvme", "dm-0", 254, 0, std::nullopt, {"nvme0n1p3"}, std::nullopt, "S4EWNX0R123456A", eui},
        {"sata-disk", "sda1", 8, 1, "sda", {}, std::nullopt, std::nullopt, std::nullopt},
        {"usb-stick", "sdb", 8, 16, std::nullopt, {}, std::nullopt, "4C530001230518115294", std::nullopt},
        {"loop", "loop0", 7, 0, std::nullopt, {}, std::nullopt, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.machine + " " + c.name);
        SysfsBlockDevices devices(sysfsFixture(c.machine));
        const auto device = devices.device(c.name);
        ASSERT_TRUE(device.ok()) << device.error().detail();
        EXPECT_EQ(device->name, c.name);
        EXPECT_EQ(std::pair(device->major, device->minor), std::pair(c.major, c.minor));
        EXPECT_EQ(device->wholeDisk, c.wholeDisk);
        EXPECT_EQ(device->members, c.members);
        EXPECT_EQ(device->nvmeController, c.controller);
        EXPECT_EQ(device->attachment.serial, c.serial);
        EXPECT_EQ(device->attachment.wwn, c.wwn);
    }
    SysfsBlockDevices devices(sysfsFixture("nvme-laptop"));
    for (const char* name : {"", ".", "..", "nvme0", "nvme0n1/..", "../nvme-laptop", "nosuchdevice"}) {
        const auto device = devices.device(name);
        ASSERT_FALSE(device.ok()) << name;
        EXPECT_EQ(device.error().kind, BlockDeviceError::Kind::notFound) << name;
        EXPECT_FALSE(devices.openStatistics(name).ok()) << name;
    }
}

// Each case changes one fact of a copied tree and says what the attachment reads then.
TEST(SysfsBlockDevices, AttachmentFollowsTheDevicesAbove) {
    struct Case {
        std::string label, machine, name;
        std::function<void(const TreeCopy&)> change;
        BusKind bus;
        std::optional<LinkState> link;
        std::string transport;
    };
    const LinkState pcieX4{"8.0 GT/s PCIe", 4};
    const std::vector<Case> cases = {
        {"NVMe over TCP", "nvme-laptop", "nvme0n1", [](auto& t) { t.write(kNvmeController + "/transport", "tcp\n"); },
         BusKind::nvmeFabrics, std::nullopt, "tcp"},
        {"link speed known only to the port above", "nvme-laptop", "nvme0n1",
         [](auto& t) { t.write(kNvmeFunction + "/current_link_speed", "Unknown\n"); }, BusKind::pciExpress, pcieX4, ""},
        {"no width", "nvme-laptop", "nvme0n1", [](auto& t) { fs::remove(t / (kNvmeFunction + "/current_link_width")); },
         BusKind::pciExpress, LinkState{"8.0 GT/s PCIe", std::nullopt}, ""},
        {"conventional PCI", "sata-disk", "sda",
         [](auto& t) { fs::remove_all(t / "devices/pci0000:00/0000:00:17.0/ata1/ata_port"); }, BusKind::pci,
         std::nullopt, ""},
        {"USB 1.0, a partition", "usb-stick", "sdb1", [](auto& t) { t.write(kUsbStick + "/speed", "1.5\n"); },
         BusKind::usb, LinkState{"1.5", std::nullopt}, ""},
        {"SATA link down", "sata-disk", "sda", [](auto& t) { t.write(kSataLink + "/sata_spd", "<unknown>\n"); },
         BusKind::sata, std::nullopt, ""},
        {"dm without members", "dmcrypt-nvme", "dm-0",
         [](auto& t) { fs::remove(t / "devices/virtual/block/dm-0/slaves/nvme0n1p3"); }, BusKind::virtualDevice,
         std::nullopt, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const TreeCopy tree(c.machine);
        c.change(tree);
        const auto device = SysfsBlockDevices(tree.root()).device(c.name);
        ASSERT_TRUE(device.ok()) << device.error().detail();
        EXPECT_EQ(device->attachment.bus, c.bus);
        EXPECT_EQ(device->attachment.link, c.link);
        EXPECT_EQ(device->attachment.nvmeTransport, c.transport);
    }
}

TEST(SysfsBlockDevices, ThunderboltAndMemoryCards) {
    const TreeCopy tree;
    const std::string tb = "devices/pci0000:00/0000:00:0d.2/domain0/0-0/0-1";
    const std::string card = "devices/platform/fe320000.mmc/mmc_host/mmc0/mmc0:0001";
    tree.link(tb + "/subsystem", "bus/thunderbolt");
    tree.write(tb + "/generation", "3\n");
    tree.link(card + "/subsystem", "bus/mmc");
    tree.write(card + "/name", "SC64G\n");
    for (const auto& [name, dir] : {std::pair{"sdt", tb}, std::pair{"mmcblk0", card}}) {
        tree.link(dir + "/block/" + name + "/subsystem", "class/block");
        tree.link(std::string("class/block/") + name, dir + "/block/" + name);
    }
    SysfsBlockDevices devices(tree.root());
    const auto thunderbolt = devices.device("sdt");
    const auto memoryCard = devices.device("mmcblk0");
    ASSERT_TRUE(thunderbolt.ok() && memoryCard.ok());
    EXPECT_EQ(thunderbolt->attachment.bus, BusKind::thunderbolt);
    EXPECT_EQ(thunderbolt->attachment.thunderboltGeneration, 3u);
    EXPECT_EQ(memoryCard->attachment.bus, BusKind::mmc);
    EXPECT_EQ(memoryCard->attachment.model, "SC64G");
}

// A missing statistics file is not found at opening; an empty or oversized one is malformed at reading.
TEST(SysfsBlockDevices, StatisticsFilesThatCannotBeReadAreNamedInTheError) {
    const std::string stat = kNvmeController + "/nvme0n1/stat";
    for (const std::string& content : {std::string("<missing>"), std::string(), std::string(2000, '1')}) {
        const TreeCopy tree("nvme-laptop");
        const bool missing = content == "<missing>";
        if (missing) fs::remove(tree / stat);
        else tree.write(stat, content);
        auto file = SysfsBlockDevices(tree.root()).openStatistics("nvme0n1");
        ASSERT_EQ(file.ok(), !missing);
        const BlockDeviceError error = missing ? file.error() : file.value()->read().error();
        EXPECT_EQ(error.kind, missing ? BlockDeviceError::Kind::notFound : BlockDeviceError::Kind::malformed);
        EXPECT_NE(error.detail().find("/class/block/nvme0n1/stat"), std::string::npos) << error.detail();
    }
}

TEST(SysfsNumbers, DecimalHexadecimalAndHexLiterals) {
    struct Case {
        std::string text;
        std::optional<std::uint64_t> decimal, hex, literal;
    };
    const std::vector<Case> cases = {
        {"1953525168", 1953525168, 0x1953525168, std::nullopt},
        {"18446744073709551615", 18446744073709551615u, std::nullopt, std::nullopt},
        {"18446744073709551616", std::nullopt, std::nullopt, std::nullopt},
        {" 42", std::nullopt, std::nullopt, std::nullopt},
        {"0781", 781, 0x0781, std::nullopt},
        {"0x144d", std::nullopt, std::nullopt, 0x144d},
        {"0x10000000000000000", std::nullopt, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(sysfs::parseDecimal(c.text), c.decimal) << "'" << c.text << "'";
        EXPECT_EQ(sysfs::parseHex(c.text), c.hex) << "'" << c.text << "'";
        EXPECT_EQ(sysfs::parseHexLiteral(c.text), c.literal) << "'" << c.text << "'";
    }
}

TEST(BlockStatisticsText, ParsesEveryFieldTheKernelGives) {
    const auto stat = [](std::initializer_list<std::uint64_t> fields) {
        BlockStatistics s;
        std::uint64_t* target[] = {&s.readsCompleted,   &s.readsMerged,          &s.sectorsRead,
                                   &s.readMilliseconds, &s.writesCompleted,      &s.writesMerged,
                                   &s.sectorsWritten,   &s.writeMilliseconds,    &s.inFlight,
                                   &s.busyMilliseconds, &s.weightedMilliseconds, &s.discardsCompleted,
                                   &s.discardsMerged,   &s.sectorsDiscarded,     &s.discardMilliseconds,
                                   &s.flushesCompleted, &s.flushMilliseconds};
        std::size_t i = 0;
        for (const auto value : fields) *target[i++] = value;
        return s;
    };
    struct Case {
        std::string text;
        std::optional<BlockStatistics> expected;
    };
    const std::vector<Case> cases = {
        {"\t1\t2\t3\t4\t5\t6\t7\t8\t9\t10\t11\n", stat({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11})},
        {"1 2 3 4 5 6 7 8 9 10 11 12 13 14 15", stat({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15})},
        {"1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19",
         stat({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17})},
        {"18446744073709551615 0 18446744073709551615 0 1 0 2 0 0 0 0",
         stat({18446744073709551615u, 0, 18446744073709551615u, 0, 1, 0, 2, 0, 0, 0, 0})},
        {"1 2 3 4 5 6 7", std::nullopt},
        {"1 2 3 x 5 6 7 8 9 10 11", std::nullopt},
        {"1 2 18446744073709551616 4 5 6 7 8 9 10 11", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(parseBlockStatistics(c.text), c.expected) << "'" << c.text << "'";
    // Sectors are 512 bytes, and a byte count wraps as the sector count does.
    EXPECT_EQ(stat({0, 0, 3}).bytesRead(), 1536u);
    EXPECT_EQ(stat({0, 0, 0, 0, 0, 0, 18446744073709551615u}).bytesWritten(), 18446744073709551104u);
}

TEST(SysfsAttributeFile, ReadsTextAndPassesOverWhatIsNotAReadableTextAttribute) {
    const testing::TreeCopy dir;
    struct Case {
        std::string name, content;
        std::optional<std::string> text;  // nothing: passed over
    };
    const std::vector<Case> cases = {
        {"plain", "Samsung SSD 860 \n", "Samsung SSD 860 "},
        {"lines", "MAJOR=8\nMINOR=0\n\n", "MAJOR=8\nMINOR=0"},
        {"empty", "", ""},
        {"page", std::string(sysfs::kMaxAttributeSize, 'a'), std::string(sysfs::kMaxAttributeSize, 'a')},
        {"too-long", std::string(sysfs::kMaxAttributeSize + 1, 'a'), std::nullopt},
        {"binary", std::string("\x01\x00\x02\n", 4), std::nullopt},
        {"latin1", "Caf\xe9\n", std::nullopt},
        {"utf8", "\xe9\x9b\xb7\xe9\x9b\xb3\n", "\xe9\x9b\xb7\xe9\x9b\xb3"},
    };
    for (const auto& c : cases) dir.write(c.name, c.content);
    fs::create_symlink("plain", dir / "a-link");
    for (const auto& c : cases) EXPECT_EQ(sysfs::readAttribute(dir.root(), c.name), c.text) << c.name;
    for (const char* rejected : {"a-link", "missing", "..", "../plain"})
        EXPECT_EQ(sysfs::readAttribute(dir.root(), rejected), std::nullopt) << rejected;
}

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
        const char *path, *mountPoint, *source;
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
