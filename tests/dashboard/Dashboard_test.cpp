#include <gtest/gtest.h>

#include "dashboard/MessageBubbles.h"
#include "dashboard/MetricCards.h"
#include "dashboard/ShellTexts.h"
#include "dashboard/SmartSheetContent.h"
#include "dashboard/VolumePanelContent.h"
#include "support/ScopedEnvironment.h"

namespace vantorix::dashboard {
namespace {

DiskSMARTInfo::Detail detail(std::string keyPath, std::string name, std::string value) {
    return {Uuid::make(), std::move(keyPath), std::move(name), std::move(value)};
}

TEST(VolumePanel, FallsBackInTheUsersLanguageWithoutASelection) {
    const DiskIOMonitor::State monitor;
    const DiskPerformanceTester::State tester;
    for (const auto& [lang, expected] : std::vector<std::pair<std::string, std::vector<std::string>>>{
             {"en_US.UTF-8",
              {"No volume selected", "Connection unavailable", "File system unknown",
               "Available Capacity: Unknown / Unknown", "Unknown · Unknown",
               "SMART data is not available for this volume"}},
             {"zh_CN.UTF-8",
              {"尚未选择卷", "连接信息不可用", "文件系统未知", "可用容量：未知 / 未知", "未知 · 未知",
               "当前卷未提供 SMART 数据"}}}) {
        testing::ScopedLanguage language(lang);
        const auto panel = volumePanelContent(monitor, tester,
                                              performancePayloadContext(std::nullopt, tester.dataSize, std::nullopt));
        std::vector<std::string> seen;
        for (const auto& item : panel.infoItems) seen.push_back(item.value);
        seen.push_back(panel.smartHint);
        EXPECT_EQ(seen, expected);
        EXPECT_FALSE(panel.performanceButton.enabled);
        EXPECT_FALSE(panel.exportButton.enabled);
    }
}

TEST(VolumePanel, ButtonsFollowTheMonitorAndTheTester) {
    const testing::ScopedLanguage english("en_US.UTF-8");
    DiskIOMonitor::State monitor;
    DiskVolumeDescriptor volume;
    volume.displayName = "Stick";
    volume.deviceName = "sdb1";
    volume.hardwareVendor = "  SanDisk ";  // no model
    volume.queue = BlockQueue{128, 1, true};
    monitor.selectedVolume = volume;
    const PerformancePayloadContext runnable{"Payload: 1 GB", EffectivePayload{1'000'000'000, false}, true,
                                             std::nullopt};
    const PerformancePayloadContext tooBig{"Not enough free space", std::nullopt, false, "Not enough free space"};
    struct Case {
        bool monitoring;
        std::size_t samples;
        bool running, result;
        PerformancePayloadContext payload;
        std::string monitorLabel, performanceLabel;
        bool performanceEnabled, exportEnabled;
    };
    const std::vector<Case> cases = {
        {false, 0, false, false, runnable, "Start", "Start Test", true, false},
        {true, 2, false, true, runnable, "Stop", "Retest", true, true},
        {true, 1, true, true, tooBig, "Stop", "Stop", true, false},
        {false, 5, false, false, tooBig, "Start", "Start Test", false, true},
    };
    for (const auto& c : cases) {
        monitor.isMonitoring = c.monitoring;
        FixedRingBuffer<DiskSample> buffer(10);
        for (std::size_t i = 0; i < c.samples; ++i) buffer.append(DiskSample{});
        monitor.samples = buffer.elements();
        DiskPerformanceTester::State tester;
        tester.isRunning = c.running;
        if (c.result) tester.lastResult = PerformanceResult{};
        const auto panel = volumePanelContent(monitor, tester, c.payload);
        EXPECT_EQ(panel.monitoringButton.label, c.monitorLabel);
        EXPECT_EQ(panel.performanceButton.label, c.performanceLabel);
        EXPECT_EQ(panel.performanceButton.enabled, c.performanceEnabled);
        EXPECT_EQ(panel.exportButton.enabled, c.exportEnabled);
        EXPECT_EQ(panel.infoItems[0].value, "Stick (sdb1)");
        EXPECT_EQ(panel.infoItems[4].value, "SanDisk · Unknown");
        EXPECT_EQ(panel.infoItems[5].value, "Request Queue: 128 requests, 1 hardware queue, rotational");
        EXPECT_EQ(panel.stripItems.size(), c.running ? 5U : c.result ? 8U : 0U);
    }
}

TEST(MetricCards, SevenCardsAndTheControllerTemperatureWhenUsable) {
    const testing::ScopedLanguage english("en_US.UTF-8");
    DiskIOMonitor::State monitor;
    monitor.monitoringDuration = 3725.4;
    auto cards = metricCards(monitor);
    ASSERT_EQ(cards.size(), 7U);
    EXPECT_EQ(cards[6].valueText, "01:02:05");

    struct Case {
        std::vector<DiskSMARTInfo::Detail> details;
        std::optional<std::string> card;
    };
    const std::vector<Case> cases = {
        {{}, std::nullopt},
        {{detail("nvme_smart_health_information_log.temperature", "Temperature", "41")}, "41 ℃"},
        {{detail("temperature.controller", "Temp", " 41 Celsius ")}, "41 Celsius"},
        {{detail("Temperature.Controller", "x", "unknown"), detail("a.controller_temperature", "x", "38.46 C")},
         "38.5 ℃"},
        {{detail("x", " controller TEMPERATURE ", "N/A"), detail("y", "主控温度", "hot")}, "hot ℃"},
        {{detail("temperature.current", "Temperature", "35")}, std::nullopt},
        {{detail("temperature.controller", "x", "暂无")}, std::nullopt},
    };
    for (const auto& c : cases) {
        monitor.selectedVolume = DiskVolumeDescriptor{};
        monitor.selectedVolume->smartInfo = DiskSMARTInfo{std::nullopt, std::nullopt, c.details, std::nullopt};
        cards = metricCards(monitor);
        ASSERT_EQ(cards.size(), c.card ? 8U : 7U);
        if (c.card) {
            EXPECT_EQ(cards[7].valueText, *c.card);
            EXPECT_EQ(cards[7].title, "Controller Temperature");
        }
    }
}

TEST(SmartSheet, ShowsSummaryRowsOnlyWhenKnownAndANoteWithoutDetails) {
    const testing::ScopedLanguage chinese("zh_CN.UTF-8");
    auto sheet = smartSheetContent({Uuid::make(), "Stick", DiskSMARTInfo{"", false, {}, std::nullopt}});
    EXPECT_EQ(sheet.title, "Stick 的 SMART 信息");
    EXPECT_EQ(sheet.summaryRows, (std::vector<std::pair<std::string, std::string>>{{"是否支持 SMART", "不支持"}}));
    EXPECT_EQ(sheet.emptyNote, "系统未提供额外的 SMART 详细属性。");
    sheet = smartSheetContent(
        {Uuid::make(), "Stick", DiskSMARTInfo{"PASSED", std::nullopt, {detail("a", "A", "1")}, std::nullopt}});
    EXPECT_EQ(sheet.summaryRows, (std::vector<std::pair<std::string, std::string>>{{"总体状态", "PASSED"}}));
    EXPECT_EQ(sheet.detailRows, (std::vector<std::pair<std::string, std::string>>{{"A", "1"}}));
    EXPECT_TRUE(sheet.emptyNote.empty());
}

TEST(ShellTexts, PickerEntriesAndTheFolderChoosersStart) {
    const auto joined = [](const auto& entries) {
        std::string labels;
        for (const auto& entry : entries) labels += (labels.empty() ? "" : "|") + entry.label;
        return labels;
    };
    for (const auto& [lang, precision, size] : std::vector<std::tuple<std::string, std::string, std::string>>{
             {"en_US.UTF-8", "1 ms|10 ms|100 ms|1000 ms", "Full Disk|1 GB|10 GB|100 GB|1000 GB|10000 GB"},
             {"zh_CN.UTF-8", "1 毫秒|10 毫秒|100 毫秒|1000 毫秒", "全盘|1 GB|10 GB|100 GB|1000 GB|10000 GB"}}) {
        testing::ScopedLanguage language(lang);
        EXPECT_EQ(joined(samplingPrecisionEntries()), precision);
        EXPECT_EQ(joined(testSampleSizeEntries()), size);
    }
    struct Case {
        std::vector<std::string> folders;
        std::optional<std::string> user;
        std::string start;
    };
    const std::vector<Case> cases = {
        {{"/run/media/ann", "/media/ann", "/mnt", "/home/ann"}, "ann", "/run/media/ann"},
        {{"/media/ann", "/media", "/home/ann"}, "ann", "/media/ann"},
        {{"/mnt", "/home/ann"}, std::nullopt, "/mnt"},
        {{}, "ann", "/"},
    };
    for (const auto& c : cases) {
        const auto isFolder = [&c](const std::string& path) {
            return std::find(c.folders.begin(), c.folders.end(), path) != c.folders.end();
        };
        EXPECT_EQ(folderChooserStart(isFolder, c.user, "/home/ann"), c.start);
    }
}

}  // namespace
}  // namespace vantorix::dashboard
