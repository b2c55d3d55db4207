#include <gtest/gtest.h>

#include "monitor/DiskIOKitStatisticsProvider.h"
#include "platform/linux/SysfsRegistry.h"
#include "support/ScopedEnvironment.h"
#include "volumes/DiskVolumeResolver.h"

namespace vantorix {
namespace {

using Metadata = DiskVolumeResolver::ConnectionMetadata;

std::string fixture(const char* machine) { return std::string(VANTORIX_TEST_DATA_DIR) + "/sysfs/" + machine; }

// How each fixture machine's devices are attached, as the resolver reads them from sysfs.
TEST(FixtureConnections, AttachmentOfEachMachine) {
    testing::ScopedLanguage english("en_US.UTF-8");
    struct Case {
        const char* machine;
        const char* deviceName;
        Metadata expected;
    };
    const Metadata nvme{"PCIe", "8.0 GT/s PCIe x4", "0x144D", "Samsung SSD 970 EVO Plus 1TB"};
    const std::vector<Case> cases{
        {"nvme-laptop", "nvme0n1", nvme},
        {"nvme-laptop", "nvme0n1p2", nvme},
        {"dmcrypt-nvme", "dm-0", nvme},
        {"usb-stick", "sdb1", {"USB 3.0", "5Gbps", "SanDisk", "Ultra Fit"}},
        {"sata-disk", "sda1", {"SATA", "6.0 Gbps", "ATA", "Samsung SSD 860"}},
        {"virtio-disk", "vda1", {"Virtio", std::nullopt, "0x1AF4", std::nullopt}},
        {"loop", "loop0", {"Virtual Interface", std::nullopt, std::nullopt, std::nullopt}},
        {"loop", "nosuchdevice", {"Unknown", std::nullopt, std::nullopt, std::nullopt}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.machine) + " " + c.deviceName);
        SysfsRegistry registry(fixture(c.machine));
        const auto metadata = DiskVolumeResolver::connectionMetadata(registry, c.deviceName);
        EXPECT_EQ(metadata.type, c.expected.type);
        EXPECT_EQ(metadata.speed, c.expected.speed);
        EXPECT_EQ(metadata.vendor, c.expected.vendor);
        EXPECT_EQ(metadata.product, c.expected.product);
        EXPECT_EQ(registry.liveObjectCount(), 0u);
    }
}

// Partitions and mapped devices keep counters of their own, so statistics are found at depth 0.
TEST(FixtureConnections, StatisticsComeFromTheVolumesOwnDevice) {
    const std::pair<const char*, const char*> cases[] = {
        {"nvme-laptop", "nvme0n1p2"}, {"dmcrypt-nvme", "dm-0"}, {"usb-stick", "sdb"}, {"loop", "loop0"}};
    for (const auto& [machine, deviceName] : cases) {
        SCOPED_TRACE(std::string(machine) + " " + deviceName);
        auto registry = std::make_shared<SysfsRegistry>(fixture(machine));
        auto match = DiskIOKitStatisticsProvider::matchServices(*registry, deviceName);
        ASSERT_TRUE(match.ok());
        ASSERT_EQ(match->services.size(), 1u);
        EXPECT_EQ(match->services[0].description.rfind("block#0x", 0), 0u) << match->services[0].description;
        EXPECT_EQ(match->services[0].description.find("ancestor"), std::string::npos);
        EXPECT_EQ(match->snapshot.bytesRead % 512, 0u);
        for (const auto& entry : match->services) registry->release(entry.service);
        EXPECT_EQ(registry->liveObjectCount(), 0u);
    }
}

}  // namespace
}  // namespace vantorix
