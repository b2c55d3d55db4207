#include "volumes/LinkCeiling.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/ScopedEnvironment.h"

namespace vantorix {
namespace {

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
        std::optional<std::string> ceiling;
        std::optional<std::string> share;
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
    testing::ScopedLanguage chinese("zh_CN.UTF-8");
    EXPECT_EQ(slowLinkWarning({pcie(8 * G, 1, 8 * G, 4)}), "该硬盘当前以 PCIe 3.0 x1 运行，但它支持 PCIe 3.0 x4。");
    EXPECT_EQ(linkDescription({ThunderboltLink{3}}), "雷雳 3");
}

}  // namespace
}  // namespace vantorix
