#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/linux/SysfsBlockDevices.h"
#include "support/ScopedEnvironment.h"
#include "volumes/DiskVolumeResolver.h"
#include "volumes/LinkCeiling.h"

namespace vantorix {
namespace {

using Metadata = DiskVolumeResolver::ConnectionMetadata;
using json = nlohmann::json;

// File-system answers keyed by resolved path.
class FakeVolumeInfoSource final : public VolumeInfoSource {
public:
    std::map<std::string, std::string> links;
    std::map<std::string, FileSystemStatistics> statistics;
    std::map<std::string, VolumeResourceValues> resources;

    std::optional<std::string> resolveSymlinks(const std::string& path) override {
        if (auto it = links.find(path); it != links.end()) return it->second;
        return path;
    }
    Result<FileSystemStatistics, int> fileSystemStatistics(const std::string& path) override {
        if (auto it = statistics.find(path); it != statistics.end()) return it->second;
        return Failure{2};
    }
    Result<VolumeResourceValues, int> resourceValues(const std::string& path) override {
        if (auto it = resources.find(path); it != resources.end()) return it->second;
        return Failure{5};
    }
};

// How each kind of attachment reads to people, beyond the kinds the sysfs fixtures hold (FixtureAttachments).
TEST(DiskVolumeResolver, ConnectionOfEachBus) {
    testing::ScopedLanguage english("en_US.UTF-8");
    const auto attached = [](BusKind bus, std::optional<LinkState> link = {}) {
        BlockAttachment attachment;
        attachment.bus = bus;
        attachment.link = std::move(link);
        return attachment;
    };
    BlockAttachment numbered = attached(BusKind::usb, LinkState{"5000", std::nullopt});
    numbered.vendorId = 0x1234;
    numbered.productId = 0xab;
    BlockAttachment thunderbolt = attached(BusKind::thunderbolt);
    thunderbolt.thunderboltGeneration = 3;
    BlockAttachment fabric = attached(BusKind::nvmeFabrics);
    fabric.nvmeTransport = "tcp";
    BlockAttachment unknownWithVendor;
    unknownWithVendor.vendor = "Acme";
    const std::vector<std::pair<BlockAttachment, Metadata>> cases{
        {numbered, {"USB 3.0", "5Gbps", "0x1234", "0x00AB"}},
        {attached(BusKind::usb, LinkState{"1.5", {}}), {"USB 1.0", "1.5Mbps", {}, {}}},
        {attached(BusKind::usb, LinkState{"20000", {}}), {"USB 3.2 Gen2x2", "20Gbps", {}, {}}},
        {thunderbolt, {"Thunderbolt 3", "40Gbps", {}, {}}},
        {attached(BusKind::thunderbolt), {"Thunderbolt", {}, {}, {}}},
        {fabric, {"NVMe over TCP", {}, {}, {}}},
        {attached(BusKind::mmc), {"SD/MMC", {}, {}, {}}},
        {unknownWithVendor, {"Unknown", {}, "Acme", {}}},
    };
    for (const auto& [attachment, expected] : cases) {
        SCOPED_TRACE(expected.type);
        EXPECT_EQ(DiskVolumeResolver::connectionMetadata(attachment), expected);
    }
}

// Folders on a real volume are checked end to end by the integration tests; here, the fallbacks.
TEST(DiskVolumeResolver, ResolvesFoldersFallsBackToStatfsAndRefusesBadSelections) {
    SysfsBlockDevices devices(std::filesystem::path(VANTORIX_TEST_DATA_DIR) / "sysfs/loop");
    FakeVolumeInfoSource files;
    files.links["/mnt/data/link"] = "/mnt/data/sub";
    files.statistics["/mnt/data/sub"] = {"/dev/loop0", " ext4\n", "/mnt/data", 4096, 1000, 250};
    files.statistics["/mnt/data/plain"] = files.statistics["/mnt/data/sub"];
    files.statistics["/mnt/bare"] = {"/dev/loop0", "", "/mnt/bare", 4096, 0, 0};
    files.statistics["/mnt/nosource"] = {"//", "tmpfs", "/mnt/nosource", 4096, 1, 1};
    files.resources["/mnt/data/sub"] = {"DATA", 5'000'000, 3'000'000};
    struct Case {
        std::string url, resolved, device, name;
        std::optional<std::string> fileSystem;
        std::optional<std::uint64_t> total, available;  // a capacity of 0 is absent
    };
    const Case cases[] = {
        {"file:///mnt/data/link", "/mnt/data/sub", "loop0", "DATA", "EXT4", 5'000'000, 3'000'000},
        // Without resource values: the statfs product, and no name but the folder's own.
        {"/mnt/data/plain", "/mnt/data/plain", "loop0", "plain", "EXT4", 4'096'000, 1'024'000},
        {"/mnt/bare", "/mnt/bare", "loop0", "bare", std::nullopt, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        const auto resolved = DiskVolumeResolver::resolve(c.url, files, devices);
        ASSERT_TRUE(resolved.ok()) << c.url;
        EXPECT_EQ(std::tie(resolved->url, resolved->deviceName, resolved->displayName),
                  std::tie(c.resolved, c.device, c.name));
        EXPECT_EQ(resolved->fileSystemDescription, c.fileSystem) << c.url;
        EXPECT_EQ(resolved->totalCapacityBytes, c.total) << c.url;
        EXPECT_EQ(resolved->availableCapacityBytes, c.available) << c.url;
    }
    const std::pair<std::string, MonitorError> refused[]{
        {"file://", MonitorError::invalidSelection()},
        {"/does/not/exist", MonitorError::blockDeviceNotFound(ENOENT)},
        {"/mnt/nosource", MonitorError::blockDeviceNotFound()},
    };
    for (const auto& [url, error] : refused) {
        const auto resolved = DiskVolumeResolver::resolve(url, files, devices);
        ASSERT_FALSE(resolved.ok()) << url;
        EXPECT_EQ(resolved.error(), error) << url;
    }
}

json optionalText(const std::optional<std::string>& value) { return value ? json(*value) : json(nullptr); }

// What people see of every block device in every sysfs tree under tests/data/sysfs: connection type,
// link speed, vendor, model, link ceiling and counters. attachments.jsonl holds the figures as an
// earlier reader of the same trees gave them; reading the trees anew must give the same.
TEST(FixtureAttachments, EveryDeviceOfEveryTreeReadsAsRecorded) {
    testing::ScopedLanguage english("en_US.UTF-8");
    const std::string data = VANTORIX_TEST_DATA_DIR;
    std::ifstream recorded(data + "/sysfs/attachments.jsonl");
    ASSERT_TRUE(recorded) << "attachments.jsonl";
    int rows = 0;
    for (std::string line; std::getline(recorded, line); ++rows) {
        const json expected = json::parse(line);
        const std::string machine = expected["machine"], name = expected["device"];
        SCOPED_TRACE(machine + " " + name);
        SysfsBlockDevices devices(data + "/sysfs/" + machine);
        const auto device = devices.device(name);
        const BlockAttachment attachment = device.ok() ? device->attachment : BlockAttachment{};
        const auto connection = DiskVolumeResolver::connectionMetadata(attachment);
        json actual{{"machine", machine},
                    {"device", name},
                    {"type", connection.type},
                    {"speed", optionalText(connection.speed)},
                    {"vendor", optionalText(connection.vendor)},
                    {"model", optionalText(connection.product)},
                    {"link", nullptr}};
        if (const auto link = DiskVolumeResolver::linkCeiling(attachment)) {
            actual["link"] = linkDescription(*link);
            const auto ceiling = ceilingBytesPerSecond(*link);
            actual["ceiling"] = ceiling ? json(*ceiling) : json(nullptr);
            actual["slowLink"] = slowLinkWarning(*link).has_value();
        }
        auto file = devices.openStatistics(name);
        if (file.ok()) {
            const auto counters = file.value()->read();
            ASSERT_TRUE(counters.ok()) << counters.error().detail();
            actual["counters"] = {counters->bytesRead(), counters->bytesWritten(), counters->readsCompleted,
                                  counters->writesCompleted};
        } else {
            EXPECT_EQ(file.error().kind, BlockDeviceError::Kind::notFound);
            actual["counters"] = "statisticsUnavailable";
        }
        EXPECT_EQ(actual, expected);
    }
    EXPECT_EQ(rows, 34);
}

constexpr std::uint64_t G = 1'000'000'000;
constexpr std::uint64_t M = 1'000'000;

PcieLink pcie(std::uint64_t rate, unsigned width, std::optional<std::uint64_t> maxRate = std::nullopt,
              std::optional<unsigned> maxWidth = std::nullopt) {
    return {rate, width, maxRate, maxWidth};
}

// Links the sysfs fixtures hold are also checked by FixtureAttachments.
TEST(LinkCeiling, CeilingDescriptionAndWarningOfEachLink) {
    testing::ScopedLanguage english("en_US.UTF-8");
    struct Case {
        LinkCeiling link;
        std::optional<std::uint64_t> bytes;
        std::string description;
        std::optional<std::string> warning;
    };
    const auto slowPcie = [](const std::string& runs, const std::string& can) {
        return "The drive runs at " + runs + "; it can use " + can + ".";
    };
    const auto usb2Port = [](const std::string& rate) {
        return "A USB 3 drive on a USB 2 port: it runs at " + rate + ". A USB 3 port and cable would be faster.";
    };
    const std::string sataHeldBack =
        "The SATA link runs at 3.0 Gb/s, below the port's 6.0 Gb/s: the cable or the drive is holding it back.";
    const std::vector<Case> cases{
        {{pcie(64 * G, 4)}, 30'250'000'000, "PCIe 6.0 x4", std::nullopt},
        // Narrower than it could be, slower, and narrower at a rate above the slot's: the best of both.
        {{pcie(8 * G, 1, 8 * G, 4)}, 984'615'384, "PCIe 3.0 x1", slowPcie("PCIe 3.0 x1", "PCIe 3.0 x4")},
        {{pcie(2'500 * M, 4, 16 * G, 4)}, G, "PCIe 1.0 x4", slowPcie("PCIe 1.0 x4", "PCIe 4.0 x4")},
        {{pcie(16 * G, 2, 8 * G, 4)}, 3'938'461'538, "PCIe 4.0 x2", slowPcie("PCIe 4.0 x2", "PCIe 4.0 x4")},
        {{pcie(8 * G, 0)}, std::nullopt, "PCIe 3.0", std::nullopt},
        {{SataLink{1'500 * M, std::nullopt}}, 150'000'000, "SATA 1.5 Gb/s", std::nullopt},
        {{SataLink{3 * G, 6 * G}}, 300'000'000, "SATA 3.0 Gb/s", sataHeldBack},
        {{UsbLink{12 * M, 0x0300}}, 1'500'000, "USB 1.1", usb2Port("12 Mb/s")},
        {{UsbLink{480 * M, 0x0320}}, 60'000'000, "USB 2.0", usb2Port("480 Mb/s")},
        {{UsbLink{480 * M, std::nullopt}}, 60'000'000, "USB 2.0", std::nullopt},
        {{UsbLink{20 * G, 0x0320}}, 2'424'242'424, "USB 3.2 Gen2x2", std::nullopt},
        {{ThunderboltLink{3}}, 3'938'461'538, "Thunderbolt 3", std::nullopt},
        {{ThunderboltLink{9}}, std::nullopt, "Thunderbolt 9", std::nullopt},
        {{}, std::nullopt, "Unknown", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        EXPECT_EQ(ceilingBytesPerSecond(c.link), c.bytes);
        EXPECT_EQ(linkDescription(c.link), c.description);
        EXPECT_EQ(slowLinkWarning(c.link), c.warning);
    }
}

TEST(LinkCeiling, CeilingAndShareTextsInBothLanguages) {
    const LinkCeiling nvme{pcie(8 * G, 4)};
    struct Case {
        std::string lang;
        LinkCeiling link;
        double measured;
        std::optional<std::string> ceiling, share;
    };
    const LinkCeiling usb2{UsbLink{480 * M, std::nullopt}};
    const std::vector<Case> cases{
        {"en_US.UTF-8", nvme, 2'441'846'153, "Link ceiling: 3.94 GB/s (PCIe 3.0 x4)", "62% of the link ceiling"},
        {"zh_CN.UTF-8", nvme, 2'441'846'153, "链路上限：3.94 GB/秒（PCIe 3.0 x4）", "达到链路上限的 62%"},
        {"en_US.UTF-8", usb2, 66'000'000, "Link ceiling: 60 MB/s (USB 2.0)", "110% of the link ceiling"},
        {"en_US.UTF-8", nvme, 0, "Link ceiling: 3.94 GB/s (PCIe 3.0 x4)", std::nullopt},
        {"en_US.UTF-8", {ThunderboltLink{7}}, 1e9, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        testing::ScopedLanguage language(c.lang);
        EXPECT_EQ(linkCeilingText(c.link), c.ceiling);
        EXPECT_EQ(ceilingShareText(c.measured, c.link), c.share);
    }
    testing::ScopedLanguage chinese("zh_CN.UTF-8");  // the warning's word order is its own
    EXPECT_EQ(slowLinkWarning({pcie(8 * G, 1, 8 * G, 4)}), "该硬盘当前以 PCIe 3.0 x1 运行，但它支持 PCIe 3.0 x4。");
}

}  // namespace
}  // namespace vantorix
