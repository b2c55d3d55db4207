#include "platform/linux/SysfsBlockDevices.h"

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

}  // namespace
}  // namespace vantorix
