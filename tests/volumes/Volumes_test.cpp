#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/linux/SysfsBlockDevices.h"
#include "support/ScopedEnvironment.h"
#include "volumes/DiskVolumeResolver.h"

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
    const auto attached = [](BusKind bus, std::optional<LinkState> link = std::nullopt) {
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
        {attached(BusKind::usb, LinkState{"1.5", std::nullopt}), {"USB 1.0", "1.5Mbps", std::nullopt, std::nullopt}},
        {attached(BusKind::usb, LinkState{"20000", std::nullopt}),
         {"USB 3.2 Gen2x2", "20Gbps", std::nullopt, std::nullopt}},
        {thunderbolt, {"Thunderbolt 3", "40Gbps", std::nullopt, std::nullopt}},
        {attached(BusKind::thunderbolt), {"Thunderbolt", std::nullopt, std::nullopt, std::nullopt}},
        {fabric, {"NVMe over TCP", std::nullopt, std::nullopt, std::nullopt}},
        {attached(BusKind::mmc), {"SD/MMC", std::nullopt, std::nullopt, std::nullopt}},
        {unknownWithVendor, {"Unknown", std::nullopt, "Acme", std::nullopt}},
    };
    for (const auto& [attachment, expected] : cases) {
        SCOPED_TRACE(expected.type);
        EXPECT_EQ(DiskVolumeResolver::connectionMetadata(attachment), expected);
    }
    testing::ScopedLanguage chinese("zh_CN.UTF-8");
    EXPECT_EQ(DiskVolumeResolver::connectionMetadata({}).type, "未知");
    EXPECT_EQ(DiskVolumeResolver::connectionMetadata(thunderbolt).type, "雷雳 3");
    EXPECT_EQ(DiskVolumeResolver::connectionMetadata(attached(BusKind::thunderbolt)).type, "雷雳");
    EXPECT_EQ(DiskVolumeResolver::connectionMetadata(attached(BusKind::virtualDevice)).type, "虚拟接口");
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

// The English texts are read by the monitor's tests, and the messages' table the sysfs failure; here, the
// Chinese ones.
TEST(DiskVolumeResolver, ErrorDescriptionsInChinese) {
    const testing::ScopedLanguage chinese("zh_TW.UTF-8");
    EXPECT_EQ(MonitorError::statisticsUnavailable().description(), "无法获取该卷的统计信息。");
    EXPECT_EQ(MonitorError::monitorStopped().description(), "监控已停止。");
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
                    {"model", optionalText(connection.product)}};
        if (const auto link = DiskVolumeResolver::linkCeiling(attachment)) {
            actual["link"] = linkDescription(*link);
            const auto ceiling = ceilingBytesPerSecond(*link);
            actual["ceiling"] = ceiling ? json(*ceiling) : json(nullptr);
            actual["slowLink"] = slowLinkWarning(*link).has_value();
        } else {
            actual["link"] = nullptr;
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

}  // namespace
}  // namespace vantorix
