#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "platform/FakeRegistry.h"
#include "platform/linux/SysfsRegistry.h"
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

TEST(DiskVolumeResolver, NumericLinkSpeedsBecomeTexts) {
    // Up to 128 a number is in Gbps, from 1000 in Kbps, from a million in bits per second.
    const std::vector<std::pair<double, std::optional<std::string>>> cases{
        {8, "8Gbps"},       {2.5, "2.5Gbps"},        {10.125, "10.12Gbps"},  {128, "128Gbps"},
        {129, "129"},       {1000, "1Mbps"},         {2500, "2.5Mbps"},      {999'999, "1000Mbps"},
        {1'000'000, "1Mbps"}, {5'000'000'000.0, "5Gbps"}, {1.5e12, "1.5Tbps"}, {0, std::nullopt},
        {-4, std::nullopt},
    };
    for (const auto& [value, expected] : cases) {
        SCOPED_TRACE(value);
        EXPECT_EQ(DiskVolumeResolver::speedText(value), expected);
    }
}

TEST(DiskVolumeResolver, LinkSpeedLookupOrderAndNesting) {
    struct Case {
        const char* name;
        std::shared_ptr<const PropertyDictionary> properties;
        std::optional<std::string> expected;
    };
    const std::vector<Case> cases{
        {"number key", makeDictionary({{"LinkSpeed", 8}}), "8Gbps"},
        {"key order wins over dictionary order", makeDictionary({{"PCIeLinkRate", 16}, {"link-speed", 8}}), "8Gbps"},
        {"zero is skipped", makeDictionary({{"link-speed", 0}, {"LinkRate", 5'000'000'000.0}}), "5Gbps"},
        {"number beats description", makeDictionary({{"LinkDescription", "x"}, {"LinkRate", 2}}), "2Gbps"},
        {"description with GT/s unchanged", makeDictionary({{"LinkDescription", " 8.0 GT/s x4 "}}), "8.0 GT/s x4"},
        {"bare number description", makeDictionary({{"link_speed_description", "10"}}), "10Gbps"},
        {"other description unchanged", makeDictionary({{"linkDescription", "fast"}}), "fast"},
        {"empty description skipped", makeDictionary({{"LinkDescription", "  "}, {"linkDescription", "6.0 Gbps"}}),
         "6.0 Gbps"},
        {"nested value key", makeDictionary({{"LinkSpeed", PropertyValue(makeDictionary({{"current", 5'000'000'000.0}}))}}),
         "5Gbps"},
        {"nested string value", makeDictionary({{"LinkRate", PropertyValue(makeDictionary({{"Speed", "12"}}))}}), "12Gbps"},
        {"searched two levels down",
         makeDictionary({{"a", PropertyValue(makeDictionary({{"b", PropertyValue(makeDictionary({{"LinkSpeed", 4}}))}}))}}),
         "4Gbps"},
        {"not three levels down",
         makeDictionary({{"a", PropertyValue(makeDictionary(
                                   {{"b", PropertyValue(makeDictionary(
                                              {{"c", PropertyValue(makeDictionary({{"LinkSpeed", 4}}))}}))}}))}}),
         std::nullopt},
        {"nothing", makeDictionary({{"speed", 5}}), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(DiskVolumeResolver::linkSpeed(*c.properties), c.expected);
    }
}

TEST(DiskVolumeResolver, VendorAndModelOfADictionary) {
    struct Case {
        const char* name;
        std::shared_ptr<const PropertyDictionary> properties;
        std::optional<std::string> vendor;
        std::optional<std::string> model;
    };
    const std::vector<Case> cases{
        {"strings trimmed", makeDictionary({{"vendor", "ATA     "}, {"model", " Samsung SSD 860 \n"}}), "ATA",
         "Samsung SSD 860"},
        {"key order", makeDictionary({{"Vendor", "B"}, {"Vendor Name", "A"}, {"product", "Q"}, {"Product Name", "P"}}),
         "A", "P"},
        {"empty strings skipped", makeDictionary({{"Vendor Name", " "}, {"manufacturer", "SanDisk"}}), "SanDisk",
         std::nullopt},
        {"numeric ids", makeDictionary({{"idVendor", 4660}, {"idProduct", 0x5583}}), "0x1234", "0x5583"},
        {"vendor-id after idVendor", makeDictionary({{"vendor-id", 0x144d}}), "0x144D", std::nullopt},
        {"wide id keeps all digits", makeDictionary({{"idVendor", 0x12345}}), "0x12345", std::nullopt},
        {"model bytes", makeDictionary({{"model", PropertyBytes{'W', 'D', 'C', ' ', 0, 'x'}}}), std::nullopt, "WDC"},
        {"number under vendor is not a name", makeDictionary({{"vendor", 0x1af4}}), std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(DiskVolumeResolver::vendor(*c.properties), c.vendor);
        EXPECT_EQ(DiskVolumeResolver::model(*c.properties), c.model);
    }
}

TEST(DiskVolumeResolver, UsbLookupByCodeKeyOrWord) {
    struct Case {
        std::shared_ptr<const PropertyDictionary> properties;
        std::optional<std::string> type;
        std::optional<std::string> speed;
    };
    const std::vector<Case> cases{
        {makeDictionary({{"Device Speed", 2}}), "USB 2.0", "480Mbps"},
        {makeDictionary({{"Device Speed", 0}}), "USB 1.0", "1.5Mbps"},
        {makeDictionary({{"Device Speed", 5}}), "USB 3.2 Gen2x2", "20Gbps"},
        {makeDictionary({{"Device Speed", 6}, {"USBCurrentSpeed", 4}}), "USB 3.1 Gen2", "10Gbps"},
        {makeDictionary({{"PortCurrentSpeed", " SuperSpeed "}}), "USB 3.0", "5Gbps"},
        {makeDictionary({{"PortCurrentSpeed", "usb 4"}}), "USB 3.2 Gen2x2", "20Gbps"},
        {makeDictionary({{"PortMaximumSpeed", "full-speed"}}), "USB 1.1", "12Mbps"},
        {makeDictionary({{"PortCurrentSpeed", "hyperspeed"}}), std::nullopt, std::nullopt},
        {makeDictionary({{"Device Speed", 1.5}}), std::nullopt, std::nullopt},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        const auto row = DiskVolumeResolver::usbLookup(*cases[i].properties);
        EXPECT_EQ(row ? std::optional(row->type) : std::nullopt, cases[i].type);
        EXPECT_EQ(row ? std::optional(row->speed) : std::nullopt, cases[i].speed);
    }
}

// A matched service over a chain of ancestors, nearest first.
Metadata metadataOf(std::vector<std::shared_ptr<const PropertyDictionary>> chain, FakeRegistry* registryOut = nullptr) {
    FakeRegistry local;
    FakeRegistry& registry = registryOut != nullptr ? *registryOut : local;
    std::optional<FakeRegistry::ServiceId> parent;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) parent = registry.addService("node", *it, parent);
    registry.addMatch("disk9", *parent);
    auto metadata = DiskVolumeResolver::connectionMetadata(registry, "disk9");
    EXPECT_EQ(registry.outstandingReferences(), 0);
    EXPECT_EQ(registry.overReleases(), 0);
    return metadata;
}

TEST(DiskVolumeResolver, ConnectionTypesFromTheRegistry) {
    testing::ScopedLanguage english("en_US.UTF-8");
    const auto protocol = [](const char* interconnect) {
        return PropertyValue(makeDictionary({{"Physical Interconnect", interconnect}}));
    };
    struct Case {
        const char* name;
        std::vector<std::shared_ptr<const PropertyDictionary>> chain;
        Metadata expected;
    };
    const std::vector<Case> cases{
        {"usb device speed on an ancestor",
         {makeDictionary({{"Protocol Characteristics", protocol("USB")}}), makeDictionary({}),
          makeDictionary({{"Device Speed", 2}, {"manufacturer", "SanDisk"}, {"product", "Ultra Fit"}})},
         {"USB 2.0", "480Mbps", "SanDisk", "Ultra Fit"}},
        {"usb row speed yields to a link speed",
         {makeDictionary({{"Physical Interconnect", "usb"}, {"Device Speed", 3}, {"LinkSpeed", 10}})},
         {"USB 3.0", "10Gbps", std::nullopt, std::nullopt}},
        {"usb without a row", {makeDictionary({{"Physical Interconnect", "USB"}})}, {"USB", std::nullopt, std::nullopt, std::nullopt}},
        {"thunderbolt generation 3 without link speed",
         {makeDictionary({{"Physical Interconnect", "Thunderbolt"},
                          {"Info", PropertyValue(makeDictionary({{"ThunderboltGeneration", 3}}))}})},
         {"Thunderbolt 3", "40Gbps", std::nullopt, std::nullopt}},
        {"thunderbolt version key and a link speed",
         {makeDictionary({{"Physical Interconnect", "thunderbolt"}, {"thunderbolt_version", 1}, {"LinkSpeed", 20}})},
         {"Thunderbolt 1", "20Gbps", std::nullopt, std::nullopt}},
        {"thunderbolt unknown generation",
         {makeDictionary({{"Physical Interconnect", "Thunderbolt"}, {"ThunderboltGeneration", 9}})},
         {"Thunderbolt", std::nullopt, std::nullopt, std::nullopt}},
        {"pci express with link from the parent",
         {makeDictionary({{"Protocol Characteristics", protocol("PCI-Express")}}),
          makeDictionary({{"model", "Samsung SSD 970 EVO Plus 1TB"}}), makeDictionary({}),
          makeDictionary({{"LinkDescription", "8.0 GT/s PCIe x4"}, {"vendor-id", 0x144d}})},
         {"PCIe", "8.0 GT/s PCIe x4", "0x144D", "Samsung SSD 970 EVO Plus 1TB"}},
        {"other interconnect as it is",
         {makeDictionary({{"Protocol Characteristics", PropertyValue(PropertyArray{PropertyValue(makeDictionary(
                                                           {{"Physical Interconnect", " SATA "}}))})}}),
          makeDictionary({{"vendor", "ATA     "}, {"model", "Samsung SSD 860"}}),
          makeDictionary({{"LinkDescription", "6.0 Gbps"}})},
         {"SATA", "6.0 Gbps", "ATA", "Samsung SSD 860"}},
        {"vendor without interconnect stops the walk",
         {makeDictionary({{"vendor", "Acme"}}), makeDictionary({{"Physical Interconnect", "USB"}, {"Device Speed", 2}})},
         {"Unknown", std::nullopt, "Acme", std::nullopt}},
        {"interconnect found on an ancestor service",
         {makeDictionary({}), makeDictionary({{"Physical Interconnect", "Virtio"}})},
         {"Virtio", std::nullopt, std::nullopt, std::nullopt}},
        {"an ancestor's vendor makes the matched service answer first",
         {makeDictionary({}), makeDictionary({{"Physical Interconnect", "Virtio"}, {"vendor-id", 0x1af4}})},
         {"Unknown", std::nullopt, "0x1AF4", std::nullopt}},
        {"nothing anywhere", {makeDictionary({}), makeDictionary({})}, {"Unknown", std::nullopt, std::nullopt, std::nullopt}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(metadataOf(c.chain), c.expected);
    }
}

TEST(DiskVolumeResolver, ChineseTextsForUnknownAndThunderbolt) {
    testing::ScopedLanguage chinese("zh_CN.UTF-8");
    EXPECT_EQ(metadataOf({makeDictionary({})}).type, "未知");
    EXPECT_EQ(metadataOf({makeDictionary({{"Physical Interconnect", "Thunderbolt"}, {"ThunderboltGeneration", 3}})}),
              (Metadata{"雷雳 3", "40Gbps", std::nullopt, std::nullopt}));
    EXPECT_EQ(metadataOf({makeDictionary({{"Physical Interconnect", "Thunderbolt"}})}).type, "雷雳");
}

TEST(DiskVolumeResolver, ConnectionMetadataWalksAtMostTwelveAncestors) {
    testing::ScopedLanguage english("en_US.UTF-8");
    std::vector<std::shared_ptr<const PropertyDictionary>> chain(13, makeDictionary({}));
    chain.push_back(makeDictionary({{"Physical Interconnect", "SAS"}}));  // 13 levels up: never inspected
    EXPECT_EQ(metadataOf(chain).type, "Unknown");
    chain.erase(chain.begin());  // now 12 levels up
    EXPECT_EQ(metadataOf(chain).type, "SAS");
}

TEST(DiskVolumeResolver, ResolvesFoldersAndFallsBackToStatfs) {
    testing::ScopedLanguage english("en_US.UTF-8");
    FakeRegistry registry;
    registry.addMatch("loop3", registry.addService("block", makeDictionary({{"Protocol Characteristics",
        PropertyValue(makeDictionary({{"Physical Interconnect", "Virtual Interface"}}))}})));
    FakeVolumeInfoSource files;
    files.links["/mnt/data/link"] = "/mnt/data/sub";
    files.statistics["/mnt/data/sub"] = {"/dev/loop3", " ext4\n", "/mnt/data", 4096, 1000, 250};
    files.statistics["/mnt/bare"] = {"/dev/loop3", "", "/mnt/bare", 4096, 0, 0};
    files.statistics["/proc"] = {"proc", "proc", "/proc", 4096, 0, 0};
    files.resources["/mnt/data/sub"] = {"DATA", 5'000'000, std::nullopt, 0, 3'000'000};

    auto resolved = DiskVolumeResolver::resolve("file:///mnt/data/link", files, registry);
    ASSERT_TRUE(resolved.ok());
    EXPECT_EQ(resolved->url, "/mnt/data/sub");
    EXPECT_EQ(resolved->deviceName, "loop3");
    EXPECT_EQ(resolved->displayName, "DATA");
    EXPECT_EQ(resolved->fileSystemDescription, "EXT4");
    EXPECT_EQ(resolved->totalCapacityBytes, 5'000'000u);
    EXPECT_EQ(resolved->availableCapacityBytes, 3'000'000u);  // important usage was 0, so opportunistic
    EXPECT_EQ(resolved->connectionTypeDescription, "Virtual Interface");
    EXPECT_FALSE(resolved->smartInfo);

    // Resource values unavailable: the statfs product, and no name but the folder's own.
    files.resources.erase("/mnt/data/sub");
    resolved = DiskVolumeResolver::resolve("/mnt/data/sub", files, registry);
    ASSERT_TRUE(resolved.ok());
    EXPECT_EQ(resolved->displayName, "sub");
    EXPECT_EQ(resolved->totalCapacityBytes, 4'096'000u);
    EXPECT_EQ(resolved->availableCapacityBytes, 1'024'000u);

    resolved = DiskVolumeResolver::resolve("/mnt/bare", files, registry);
    ASSERT_TRUE(resolved.ok());
    EXPECT_FALSE(resolved->totalCapacityBytes);  // a capacity of 0 is absent
    EXPECT_FALSE(resolved->availableCapacityBytes);
    EXPECT_FALSE(resolved->fileSystemDescription);

    // A source that is not a device still resolves; statistics fail later.
    resolved = DiskVolumeResolver::resolve("/proc", files, registry);
    ASSERT_TRUE(resolved.ok());
    EXPECT_EQ(resolved->deviceName, "proc");
    EXPECT_EQ(resolved->connectionTypeDescription, "Unknown");
    EXPECT_EQ(resolved->fileSystemDescription, "PROC");
}

TEST(DiskVolumeResolver, LinkCeilingOfEachFixtureMachine) {
    testing::ScopedLanguage english("en_US.UTF-8");
    struct Case {
        std::string machine;
        std::string deviceName;
        std::optional<LinkKind> kind;
        std::string description;
        std::optional<std::uint64_t> ceiling;
        bool warns;
    };
    const std::vector<Case> cases{
        {"nvme-laptop", "nvme0n1p1", LinkKind::pcie, "PCIe 3.0 x4", 3'938'461'538, false},
        {"dmcrypt-nvme", "dm-0", LinkKind::pcie, "PCIe 3.0 x4", 3'938'461'538, false},
        {"nvme-x1", "nvme0n1", LinkKind::pcie, "PCIe 3.0 x1", 984'615'384, true},
        {"usb-stick", "sdb1", LinkKind::usb, "USB 3.0", 500'000'000, false},
        {"usb2-port", "sdb1", LinkKind::usb, "USB 2.0", 60'000'000, true},
        {"usb-gen2", "sdb", LinkKind::usb, "USB 3.1 Gen2", 1'212'121'212, false},
        {"sata-disk", "sda1", LinkKind::sata, "SATA 6.0 Gb/s", 600'000'000, false},
        {"sata-3g", "sda", LinkKind::sata, "SATA 3.0 Gb/s", 300'000'000, true},
        {"virtio-disk", "vda", std::nullopt, "", std::nullopt, false},
        {"loop", "loop0", std::nullopt, "", std::nullopt, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.machine);
        SysfsRegistry registry(std::filesystem::path(VANTORIX_TEST_DATA_DIR) / "sysfs" / c.machine);
        FakeVolumeInfoSource files;
        files.statistics["/mnt/volume"] = {"/dev/" + c.deviceName, "ext4", "/mnt/volume", 4096, 1, 1};
        const auto resolved = DiskVolumeResolver::resolve("/mnt/volume", files, registry);
        ASSERT_TRUE(resolved.ok());
        ASSERT_EQ(resolved->link.has_value(), c.kind.has_value());
        if (!resolved->link) continue;
        EXPECT_EQ(resolved->link->kind(), *c.kind);
        EXPECT_EQ(linkDescription(*resolved->link), c.description);
        EXPECT_EQ(ceilingBytesPerSecond(*resolved->link), c.ceiling);
        EXPECT_EQ(slowLinkWarning(*resolved->link).has_value(), c.warns);
    }
}

TEST(DiskVolumeResolver, BadSelectionsGiveTheirErrors) {
    FakeRegistry registry;
    FakeVolumeInfoSource files;
    files.statistics["/mnt/nosource"] = {"//", "tmpfs", "/mnt/nosource", 4096, 1, 1};
    const std::vector<std::pair<std::string, MonitorError>> cases{
        {"", MonitorError::invalidSelection()},
        {"https://example.invalid/x", MonitorError::invalidSelection()},
        {"file://", MonitorError::invalidSelection()},
        {"/does/not/exist", MonitorError::bsdNameResolutionFailed()},
        {"/mnt/nosource", MonitorError::bsdNameResolutionFailed()},
    };
    for (const auto& [url, error] : cases) {
        SCOPED_TRACE(url);
        auto resolved = DiskVolumeResolver::resolve(url, files, registry);
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
        {MonitorError::ioKitMatchingFailed(-536870210), "IOKit matching failed with code: -536870210.",
         "IOKit 匹配失败，错误码：-536870210。"},
        {MonitorError::invalidSelection(), "Please select a valid volume.", "请选择一个有效的卷。"},
        {MonitorError::bsdNameResolutionFailed(), "Failed to resolve the BSD name for the selected path.",
         "无法解析所选路径对应的 BSD 名称。"},
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
