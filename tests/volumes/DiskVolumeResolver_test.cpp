#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <map>

#include "platform/linux/SysfsBlockDevices.h"
#include "support/ScopedEnvironment.h"
#include "volumes/DiskVolumeResolver.h"

namespace vantorix {
namespace {

using Metadata = DiskVolumeResolver::ConnectionMetadata;

}  // namespace

void PrintTo(const DiskVolumeResolver::ConnectionMetadata& m, std::ostream* os) {
    *os << "{" << m.type << ", " << m.speed.value_or("-") << ", " << m.vendor.value_or("-") << ", "
        << m.product.value_or("-") << "}";
}

namespace {

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

// How each kind of attachment reads to people.
TEST(DiskVolumeResolver, ConnectionOfEachBus) {
    testing::ScopedLanguage english("en_US.UTF-8");
    const auto attached = [](BusKind bus, std::optional<LinkState> link = std::nullopt) {
        BlockAttachment attachment;
        attachment.bus = bus;
        attachment.link = std::move(link);
        return attachment;
    };
    BlockAttachment named = attached(BusKind::usb, LinkState{"480", std::nullopt});
    named.vendor = "SanDisk";
    named.model = "Ultra Fit";
    named.vendorId = 0x0781;
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
        {named, {"USB 2.0", "480Mbps", "SanDisk", "Ultra Fit"}},
        {numbered, {"USB 3.0", "5Gbps", "0x1234", "0x00AB"}},
        {attached(BusKind::usb, LinkState{"1.5", std::nullopt}), {"USB 1.0", "1.5Mbps", std::nullopt, std::nullopt}},
        {attached(BusKind::usb, LinkState{"20000", std::nullopt}), {"USB 3.2 Gen2x2", "20Gbps", std::nullopt, std::nullopt}},
        {attached(BusKind::usb), {"USB", std::nullopt, std::nullopt, std::nullopt}},
        {thunderbolt, {"Thunderbolt 3", "40Gbps", std::nullopt, std::nullopt}},
        {attached(BusKind::thunderbolt), {"Thunderbolt", std::nullopt, std::nullopt, std::nullopt}},
        {attached(BusKind::pciExpress, LinkState{"16.0 GT/s PCIe", 4}), {"PCIe", "16.0 GT/s PCIe x4", std::nullopt, std::nullopt}},
        {attached(BusKind::pci), {"PCIe", std::nullopt, std::nullopt, std::nullopt}},
        {fabric, {"NVMe over TCP", std::nullopt, std::nullopt, std::nullopt}},
        {attached(BusKind::sata, LinkState{"6.0 Gbps", std::nullopt}), {"SATA", "6.0 Gbps", std::nullopt, std::nullopt}},
        {attached(BusKind::virtio), {"Virtio", std::nullopt, std::nullopt, std::nullopt}},
        {attached(BusKind::mmc), {"SD/MMC", std::nullopt, std::nullopt, std::nullopt}},
        {attached(BusKind::virtualDevice), {"Virtual Interface", std::nullopt, std::nullopt, std::nullopt}},
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

TEST(DiskVolumeResolver, ResolvesFoldersAndFallsBackToStatfs) {
    testing::ScopedLanguage english("en_US.UTF-8");
    SysfsBlockDevices devices(std::filesystem::path(VANTORIX_TEST_DATA_DIR) / "sysfs/loop");
    FakeVolumeInfoSource files;
    files.links["/mnt/data/link"] = "/mnt/data/sub";
    files.statistics["/mnt/data/sub"] = {"/dev/loop0", " ext4\n", "/mnt/data", 4096, 1000, 250};
    files.statistics["/mnt/bare"] = {"/dev/loop0", "", "/mnt/bare", 4096, 0, 0};
    files.statistics["/proc"] = {"proc", "proc", "/proc", 4096, 0, 0};
    files.resources["/mnt/data/sub"] = {"DATA", 5'000'000, 3'000'000};

    auto resolved = DiskVolumeResolver::resolve("file:///mnt/data/link", files, devices);
    ASSERT_TRUE(resolved.ok());
    EXPECT_EQ(resolved->url, "/mnt/data/sub");
    EXPECT_EQ(resolved->deviceName, "loop0");
    EXPECT_EQ(resolved->mountPoint, "/mnt/data");
    EXPECT_EQ(resolved->displayName, "DATA");
    EXPECT_EQ(resolved->fileSystemDescription, "EXT4");
    EXPECT_EQ(resolved->totalCapacityBytes, 5'000'000u);
    EXPECT_EQ(resolved->availableCapacityBytes, 3'000'000u);
    EXPECT_EQ(resolved->connectionTypeDescription, "Virtual Interface");
    EXPECT_FALSE(resolved->smartInfo);

    // Resource values unavailable: the statfs product, and no name but the folder's own.
    files.resources.erase("/mnt/data/sub");
    resolved = DiskVolumeResolver::resolve("/mnt/data/sub", files, devices);
    ASSERT_TRUE(resolved.ok());
    EXPECT_EQ(resolved->displayName, "sub");
    EXPECT_EQ(resolved->totalCapacityBytes, 4'096'000u);
    EXPECT_EQ(resolved->availableCapacityBytes, 1'024'000u);

    resolved = DiskVolumeResolver::resolve("/mnt/bare", files, devices);
    ASSERT_TRUE(resolved.ok());
    EXPECT_FALSE(resolved->totalCapacityBytes);  // a capacity of 0 is absent
    EXPECT_FALSE(resolved->availableCapacityBytes);
    EXPECT_FALSE(resolved->fileSystemDescription);

    // A source that is not a device still resolves; statistics fail later.
    resolved = DiskVolumeResolver::resolve("/proc", files, devices);
    ASSERT_TRUE(resolved.ok());
    EXPECT_EQ(resolved->deviceName, "proc");
    EXPECT_EQ(resolved->connectionTypeDescription, "Unknown");
    EXPECT_EQ(resolved->fileSystemDescription, "PROC");
}

TEST(DiskVolumeResolver, BadSelectionsGiveTheirErrors) {
    SysfsBlockDevices devices(std::filesystem::path(VANTORIX_TEST_DATA_DIR) / "sysfs/loop");
    FakeVolumeInfoSource files;
    files.statistics["/mnt/nosource"] = {"//", "tmpfs", "/mnt/nosource", 4096, 1, 1};
    const std::vector<std::pair<std::string, MonitorError>> cases{
        {"", MonitorError::invalidSelection()},
        {"https://example.invalid/x", MonitorError::invalidSelection()},
        {"file://", MonitorError::invalidSelection()},
        {"/does/not/exist", MonitorError::blockDeviceNotFound(ENOENT)},
        {"/mnt/nosource", MonitorError::blockDeviceNotFound()},
    };
    for (const auto& [url, error] : cases) {
        SCOPED_TRACE(url);
        auto resolved = DiskVolumeResolver::resolve(url, files, devices);
        ASSERT_FALSE(resolved.ok());
        EXPECT_EQ(resolved.error(), error);
    }
}

TEST(DiskVolumeResolver, ErrorDescriptionsFollowTheLanguage) {
    struct Case {
        MonitorError error;
        const char* english;
        const char* chinese;
    };
    const std::vector<Case> cases{
        {MonitorError::sysfsReadFailed("/sys/class/block/sda/stat: Permission denied"),
         "Reading the block device's sysfs entry failed: /sys/class/block/sda/stat: Permission denied.",
         "读取块设备的 sysfs 信息失败：/sys/class/block/sda/stat: Permission denied。"},
        {MonitorError::invalidSelection(), "Please select a valid volume.", "请选择一个有效的卷。"},
        {MonitorError::blockDeviceNotFound(), "Failed to find the block device of the selected path.",
         "无法找到所选路径对应的块设备。"},
        {MonitorError::statisticsUnavailable(), "Unable to fetch statistics for the selected volume.",
         "无法获取该卷的统计信息。"},
        {MonitorError::monitorStopped(), "Monitoring has been stopped.", "监控已停止。"},
    };
    for (const auto& c : cases) {
        {
            testing::ScopedLanguage english("en_GB.UTF-8");
            EXPECT_EQ(c.error.description(), c.english);
        }
        testing::ScopedLanguage chinese("zh_TW.UTF-8");
        EXPECT_EQ(c.error.description(), c.chinese);
    }
}

}  // namespace
}  // namespace vantorix
