#include <gtest/gtest.h>

#include <QDir>
#include <QLabel>
#include <algorithm>

#include "ScopedScheme.h"
#include "support/ScopedEnvironment.h"
#include "ui/Appearance.h"
#include "ui/VolumeControlPanel.h"

namespace vantorix::ui {
namespace {

using vantorix::testing::ScopedLanguage;

QColor colourOf(const QWidget& parent, const QString& text) {
    for (auto* label : parent.findChildren<QLabel*>()) {
        if (label->text() == text) return label->palette().color(QPalette::WindowText);
    }
    return {};
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

// The panel for `volume` with `result` as the last test's.
void show(VolumeControlPanel& panel, const DiskVolumeDescriptor& volume, const PerformanceResult& result) {
    DiskIOMonitor::State monitor;
    monitor.selectedVolume = volume;
    DiskPerformanceTester::State tester;
    tester.lastResult = result;
    tester.testMode = result.mode;
    panel.setContent(dashboard::volumePanelContent(monitor, tester, {"", std::nullopt, true, std::nullopt}));
}

void save(QWidget& panel, const std::string& name) {
    QDir().mkpath(QStringLiteral(VANTORIX_SCREENSHOT_DIR));
    EXPECT_TRUE(panel.grab().save(QStringLiteral(VANTORIX_SCREENSHOT_DIR "/") + QString::fromStdString(name) + ".png"));
}

TEST(VolumeControlPanel, ShowsTheLinkCeilingAndAnOrangeWarningOnlyWhileTheVolumeHasThem) {
    for (const std::string lang : {"en_US.UTF-8", "zh_CN.UTF-8"}) {
        const ScopedLanguage language(lang);
        DiskVolumeDescriptor volume = nvmeVolume(1);
        PerformanceResult result;
        result.writeThroughput = 781'000'000;
        result.readThroughput = 842'000'000;
        VolumeControlPanel panel;
        panel.resize(380, 760);
        show(panel, volume, result);
        const QStringList texts = panel.infoTexts();
        const QString ceiling = QString::fromStdString(*linkCeilingText(*volume.link));
        const QString warning = QString::fromStdString(*slowLinkWarning(*volume.link));
        const QColor orange = accentColor(dashboard::AccentColor::orange);
        EXPECT_EQ(texts.size(), 7);
        EXPECT_EQ(texts.indexOf(ceiling), 2);
        EXPECT_EQ(texts.indexOf(warning), 3);
        EXPECT_EQ(colourOf(panel, warning), orange);
        EXPECT_NE(colourOf(panel, ceiling), orange);
        EXPECT_TRUE(panel.strip()->itemTexts().last().startsWith(
            QString::fromStdString(*ceilingShareText(842'000'000, *volume.link))));
        save(panel, "volume-panel-slow-link-" + lang.substr(0, 2));

        // Another volume without link figures: the two lines go, and the facts after them move up
        // into their rows in the ordinary colour.
        volume.link.reset();
        show(panel, volume, result);
        EXPECT_EQ(panel.infoTexts().size(), 5);
        EXPECT_EQ(panel.infoTexts().indexOf(warning), -1);
        EXPECT_NE(colourOf(panel, panel.infoTexts()[3]), orange);
    }
}

TEST(VolumeControlPanel, AQueueDepthResultShowsItsModeAndProfilesInTheStrip) {
    for (const auto& [lang, dark] : {std::pair{"en_US.UTF-8", false}, {"en_US.UTF-8", true}, {"zh_CN.UTF-8", false},
                                     {"zh_CN.UTF-8", true}}) {
        const ScopedLanguage language(lang);
        const ScopedScheme scheme(dark);
        const DiskVolumeDescriptor volume = nvmeVolume(4);
        PerformanceResult result;
        result.mode = TestMode{TestKind::queueDepth, true, 5};
        result.actualByteCount = 1'073'741'824;
        result.queueDepthFigures = {{"SEQ1M Q8T1", 3'412'000'000, 3254, 2'950'000'000, 2813},
                                    {"SEQ1M Q1T1", 1'980'000'000, 1888, 1'870'000'000, 1783},
                                    {"RND4K Q32T1", 1'230'000'000, 300'293, 980'000'000, 239'258},
                                    {"RND4K Q1T1", 61'000'000, 14'892, 198'000'000, 48'339}};
        result.writeThroughput = 2'950'000'000;
        result.readThroughput = 3'412'000'000;
        VolumeControlPanel panel;
        panel.resize(380, 900);
        show(panel, volume, result);
        const QString items = panel.strip()->itemTexts().join('\n');
        EXPECT_TRUE(items.contains(QString::fromStdString(modeDescription(result.mode))));
        EXPECT_TRUE(items.contains(QStringLiteral("RND4K Q32T1")));
        EXPECT_TRUE(items.contains(QString::fromStdString(*ceilingShareText(3'412'000'000, *volume.link))));
        const std::string look = std::string(lang).substr(0, 2) + (dark ? "-dark" : "-light");
        save(panel, "volume-panel-queue-depth-" + look);
    }
}

}  // namespace
}  // namespace vantorix::ui
