#include <gtest/gtest.h>

#include <QDir>
#include <QLabel>
#include <algorithm>
#include <vector>

#include "ScopedScheme.h"
#include "support/ScopedEnvironment.h"
#include "ui/Appearance.h"
#include "ui/VolumeControlPanel.h"

namespace vantorix::ui {
namespace {

using vantorix::testing::ScopedLanguage;

QLabel* labelShowing(const QWidget& parent, const QString& text) {
    for (auto* label : parent.findChildren<QLabel*>()) {
        if (label->text() == text) return label;
    }
    return nullptr;
}

// An NVMe drive that can use PCIe 3.0 x4, running at `width` lanes.
DiskVolumeDescriptor nvmeVolume(unsigned width) {
    DiskVolumeDescriptor volume;
    volume.displayName = "Samsung SSD 970";
    volume.deviceName = "nvme0n1p2";
    volume.connectionTypeDescription = "PCI-Express";
    volume.connectionSpeedDescription = "8.0 GT/s PCIe x" + std::to_string(width);
    volume.fileSystemDescription = "EXT4";
    volume.totalCapacityBytes = 1'000'204'886'016;
    volume.availableCapacityBytes = 612'000'000'000;
    volume.hardwareVendor = "0x144D";
    volume.hardwareModel = "Samsung SSD 970 EVO Plus 1TB";
    volume.link = LinkCeiling{PcieLink{8'000'000'000, width, 8'000'000'000, 4}};
    return volume;
}

TEST(VolumeControlPanel, ShowsTheLinkCeilingAndAnOrangeWarningOnlyWhileTheVolumeHasThem) {
    for (const std::string lang : {"en_US.UTF-8", "zh_CN.UTF-8"}) {
        const ScopedLanguage language(lang);
        const DiskVolumeDescriptor volume = nvmeVolume(1);
        DiskIOMonitor::State monitor;
        monitor.selectedVolume = volume;
        DiskPerformanceTester::State tester;
        PerformanceResult result;
        result.writeThroughput = 781'000'000;
        result.readThroughput = 842'000'000;
        tester.lastResult = result;
        const PerformancePayloadContext payload{"", std::nullopt, true, std::nullopt};

        VolumeControlPanel panel;
        panel.resize(380, 760);
        panel.setContent(dashboard::volumePanelContent(monitor, tester, payload));
        const QStringList texts = panel.infoTexts();
        const QString ceiling = QString::fromStdString(*linkCeilingText(*volume.link));
        const QString warning = QString::fromStdString(*slowLinkWarning(*volume.link));
        EXPECT_EQ(texts.size(), 7);
        EXPECT_EQ(texts.indexOf(ceiling), 2);
        EXPECT_EQ(texts.indexOf(warning), 3);
        QLabel* warningLabel = labelShowing(panel, warning);
        ASSERT_NE(warningLabel, nullptr);
        EXPECT_EQ(warningLabel->palette().color(QPalette::WindowText), accentColor(dashboard::AccentColor::orange));
        EXPECT_NE(labelShowing(panel, ceiling)->palette().color(QPalette::WindowText),
                  accentColor(dashboard::AccentColor::orange));
        EXPECT_TRUE(panel.strip()->itemTexts().last().startsWith(
            QString::fromStdString(*ceilingShareText(842'000'000, *volume.link))));

        QDir().mkpath(QStringLiteral(VANTORIX_SCREENSHOT_DIR));
        EXPECT_TRUE(panel.grab().save(QStringLiteral(VANTORIX_SCREENSHOT_DIR "/volume-panel-slow-link-") +
                                      QString::fromStdString(lang.substr(0, 2)) + QStringLiteral(".png")));

        // Another volume without link figures: the two lines go, and the facts after them move up
        // into their rows in the ordinary colour.
        monitor.selectedVolume->link.reset();
        panel.setContent(dashboard::volumePanelContent(monitor, tester, payload));
        EXPECT_EQ(panel.infoTexts().size(), 5);
        EXPECT_EQ(panel.infoTexts().indexOf(warning), -1);
        EXPECT_NE(warningLabel->palette().color(QPalette::WindowText), accentColor(dashboard::AccentColor::orange))
            << warningLabel->text().toStdString();
    }
}

TEST(VolumeControlPanel, AQueueDepthResultShowsItsModeAndProfilesInTheStrip) {
    for (const auto& [lang, dark] : std::vector<std::pair<std::string, bool>>{
             {"en_US.UTF-8", false}, {"en_US.UTF-8", true}, {"zh_CN.UTF-8", false}, {"zh_CN.UTF-8", true}}) {
        const ScopedLanguage language(lang);
        const ScopedScheme scheme(dark);
        const DiskVolumeDescriptor volume = nvmeVolume(4);
        DiskIOMonitor::State monitor;
        monitor.selectedVolume = volume;
        DiskPerformanceTester::State tester;
        PerformanceResult result;
        result.mode = TestMode{TestKind::queueDepth, true, 5};
        result.actualByteCount = 1'073'741'824;
        result.queueDepthFigures = {{"SEQ1M Q8T1", 3'412'000'000, 3254, 2'950'000'000, 2813},
                                    {"SEQ1M Q1T1", 1'980'000'000, 1888, 1'870'000'000, 1783},
                                    {"RND4K Q32T1", 1'230'000'000, 300'293, 980'000'000, 239'258},
                                    {"RND4K Q1T1", 61'000'000, 14'892, 198'000'000, 48'339}};
        result.writeThroughput = 2'950'000'000;
        result.readThroughput = 3'412'000'000;
        tester.lastResult = result;
        tester.testMode = result.mode;
        const PerformancePayloadContext payload{"", std::nullopt, true, std::nullopt};

        VolumeControlPanel panel;
        panel.resize(380, 900);
        panel.setContent(dashboard::volumePanelContent(monitor, tester, payload));
        const QStringList items = panel.strip()->itemTexts();
        const auto has = [&](const QString& text) {
            return std::any_of(items.begin(), items.end(), [&](const QString& item) { return item.contains(text); });
        };
        EXPECT_TRUE(has(QString::fromStdString(modeDescription(result.mode))));
        EXPECT_TRUE(has(QStringLiteral("RND4K Q32T1")));
        EXPECT_TRUE(has(QString::fromStdString(*ceilingShareText(3'412'000'000, *volume.link))));

        QDir().mkpath(QStringLiteral(VANTORIX_SCREENSHOT_DIR));
        EXPECT_TRUE(panel.grab().save(QStringLiteral(VANTORIX_SCREENSHOT_DIR "/volume-panel-queue-depth-") +
                                      QString::fromStdString(lang.substr(0, 2)) +
                                      (dark ? QStringLiteral("-dark.png") : QStringLiteral("-light.png"))));
    }
}

}  // namespace
}  // namespace vantorix::ui
