#include "dashboard/VolumePanelContent.h"

#include <algorithm>
#include <cctype>

#include "benchmark/PageCacheCheck.h"
#include "benchmark/ResultHistory.h"
#include "monitor/LoadTexts.h"
#include "smart/SmartValueText.h"
#include "text/Formats.h"
#include "text/Language.h"
#include "text/Trim.h"

namespace vantorix::dashboard {
namespace {

using text::localized;

std::string unknown() { return localized("未知", "Unknown"); }

std::string trimmedOrUnknown(const std::optional<std::string>& value) {
    if (!value) return unknown();
    const std::string_view trimmed = text::trimmed(*value);
    return trimmed.empty() ? unknown() : std::string(trimmed);
}

std::string capacityOrUnknown(const std::optional<std::uint64_t>& bytes) {
    return bytes ? text::capacityText(*bytes) : unknown();
}

}  // namespace

std::optional<std::string> linkCeilingShareText(const PerformanceResult& result,
                                                const std::optional<LinkCeiling>& link) {
    if (!link) return std::nullopt;
    return ceilingShareText(PerformanceMetrics::bestSequentialThroughput(result), *link);
}

namespace {

// The facts of the selected volume, with the fallbacks shown when there is none or a fact is
// missing.
void describeVolume(VolumePanelContent& panel, const std::optional<DiskVolumeDescriptor>& volume) {
    panel.isVolumeSelected = volume.has_value();
    panel.selectedVolumeName = volume ? volume->displayName : localized("尚未选择卷", "No volume selected");
    if (volume) panel.deviceName = volume->deviceName;
    panel.connectionTypeDescription = volume ? volume->connectionTypeDescription
                                             : localized("连接信息不可用", "Connection unavailable");
    if (volume) {
        panel.connectionSpeedDescription = volume->connectionSpeedDescription;
        panel.link = volume->link;
    }
    if (panel.link) {
        panel.linkCeilingDescription = linkCeilingText(*panel.link);
        panel.linkWarning = slowLinkWarning(*panel.link);
    }
    panel.fileSystemDescription = volume && volume->fileSystemDescription
                                      ? *volume->fileSystemDescription
                                      : localized("文件系统未知", "File system unknown");
    if (volume) {
        panel.totalCapacityBytes = volume->totalCapacityBytes;
        panel.availableCapacityBytes = volume->availableCapacityBytes;
        panel.smartInfo = volume->smartInfo;
    }
    panel.totalCapacityDescription = capacityOrUnknown(panel.totalCapacityBytes);
    panel.availableCapacityDescription = capacityOrUnknown(panel.availableCapacityBytes);
    panel.hardwareVendorDescription = trimmedOrUnknown(volume ? volume->hardwareVendor : std::nullopt);
    panel.hardwareModelDescription = trimmedOrUnknown(volume ? volume->hardwareModel : std::nullopt);
    if (const auto facts = queueFactsText(volume ? volume->queue : std::nullopt))
        panel.queueDescription = localized("请求队列：", "Request Queue: ") + *facts;
}

// The lines of facts under the panel's title, made of the descriptions worked out before.
std::vector<InfoItem> infoItemsFor(const VolumePanelContent& panel) {
    std::string volumeLine = panel.selectedVolumeName;
    if (panel.deviceName) volumeLine += localized("（", " (") + *panel.deviceName + localized("）", ")");
    std::string connectionLine = panel.connectionTypeDescription;
    if (panel.connectionSpeedDescription) connectionLine += " · " + *panel.connectionSpeedDescription;
    std::vector<InfoItem> items = {
        {"volume", "internaldrive.fill", volumeLine},
        {"connection", "bolt.horizontal.fill", connectionLine},
    };
    if (panel.linkCeilingDescription) {
        items.push_back({"linkCeiling", "gauge.with.needle", *panel.linkCeilingDescription});
    }
    if (panel.linkWarning) {
        items.push_back({"linkWarning", PerformanceMetrics::warningIcon(), *panel.linkWarning});
    }
    items.insert(items.end(), {
                                  {"fileSystem", "doc.text.fill", panel.fileSystemDescription},
                                  {"capacity", "chart.pie.fill",
                                   localized("可用容量：", "Available Capacity: ") +
                                       panel.availableCapacityDescription + " / " + panel.totalCapacityDescription},
                                  {"hardware", "building.2.fill",
                                   panel.hardwareVendorDescription + " · " + panel.hardwareModelDescription},
                              });
    if (panel.queueDescription) items.push_back({"queue", "tray.full.fill", *panel.queueDescription});
    return items;
}

void setButtons(VolumePanelContent& panel) {
    panel.chooseVolumeButton = {localized("选择卷", "Choose Volume"), "externaldrive", true, AccentColor::blue};
    panel.monitoringButton = panel.isMonitoring
                                 ? PanelButton{localized("停止监控", "Stop"), "pause.fill", true, AccentColor::orange}
                                 : PanelButton{localized("开始监控", "Start"), "play.fill", true, AccentColor::green};
    panel.smartButton = {localized("SMART 信息", "SMART Info"), "wrench.and.screwdriver.fill", true, AccentColor::teal};
    panel.smartHint = panel.smartInfo
                          ? localized("查看系统提供的 SMART 详细信息", "View SMART details provided by the system")
                          : localized("当前卷未提供 SMART 数据", "SMART data is not available for this volume");
    panel.exportButton = {localized("导出图表", "Export Chart"), "square.and.arrow.down", panel.exportEnabled,
                          AccentColor::purple};
    const bool canRun = panel.isPerformanceTestAvailable && panel.isVolumeSelected;
    if (panel.isPerformanceRunning) {
        panel.performanceButton = {localized("停止", "Stop"), "stop.fill", true, AccentColor::red};
    } else if (panel.lastPerformanceResult) {
        panel.performanceButton = {localized("重测", "Retest"), "arrow.clockwise", canRun, AccentColor::indigo};
    } else {
        panel.performanceButton = {localized("开始测试", "Start Test"), "speedometer", canRun, AccentColor::indigo};
    }
}

// The text with each space between a number and its unit ("67.1 MB", "0 B") made unbreakable,
// so that a wrapped line never leaves the unit alone.
std::string unitsKeptWithNumbers(std::string text) {
    std::string kept;
    kept.reserve(text.size() + 8);
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool betweenNumberAndUnit = text[i] == ' ' && i > 0 && i + 1 < text.size() &&
                                          std::isdigit(static_cast<unsigned char>(text[i - 1])) != 0 &&
                                          std::isupper(static_cast<unsigned char>(text[i + 1])) != 0;
        kept += betweenNumberAndUnit ? std::string("\u00a0") : std::string(1, text[i]);
    }
    return kept;
}

// The progress while a test runs, else the last result with its share of the link ceiling.
std::vector<MetricItem> stripItemsFor(const VolumePanelContent& panel) {
    std::vector<MetricItem> items;
    if (panel.isPerformanceRunning) {
        const std::string payloadValue = panel.performancePayloadPreview
                                             ? payloadSizeText(panel.performancePayloadPreview->byteCount)
                                             : panel.performanceSelection.title();
        items = PerformanceMetrics::runningItems(panel.performanceProgressState, payloadValue);
    } else if (panel.lastPerformanceResult) {
        items = PerformanceMetrics::resultItems(*panel.lastPerformanceResult);
        // Each phase against the device's counters: a phase served from the page cache says so.
        for (const auto& traffic : panel.lastPerformanceResult->phaseTraffic) {
            const bool cached = traffic.servedFromPageCache();
            items.push_back(
                {cached ? PerformanceMetrics::warningIcon() : "checkmark.circle.fill", "",
                 phaseName(traffic.phase) + localized("：", ": ") + unitsKeptWithNumbers(phaseTrafficText(traffic)),
                 MetricItem::Style::normal});
        }
        if (auto share = linkCeilingShareText(*panel.lastPerformanceResult, panel.link)) {
            const auto ceiling = ceilingBytesPerSecond(*panel.link);
            items.push_back({"gauge.with.needle", std::move(*share),
                             PerformanceMetrics::speedText(static_cast<double>(*ceiling)), MetricItem::Style::normal});
        }
    }
    return items;
}

}  // namespace

VolumePanelContent volumePanelContent(const DiskIOMonitor::State& monitor, const DiskPerformanceTester::State& tester,
                                      const PerformancePayloadContext& payload) {
    VolumePanelContent panel;
    describeVolume(panel, monitor.selectedVolume);
    panel.isMonitoring = monitor.isMonitoring;
    panel.exportEnabled = monitor.samples.size() > 1;

    panel.isPerformanceRunning = tester.isRunning;
    panel.performanceProgressState = tester.progressState;
    panel.performancePayloadDescription = payload.description;
    panel.performanceSelection = tester.dataSize;
    panel.performancePayloadPreview = payload.preview;
    panel.lastPerformanceResult = tester.lastResult;
    panel.isPerformanceTestAvailable = payload.isAvailable;
    panel.performanceWarningMessage = payload.warning;
    if (!tester.isRunning && tester.lastResult) {
        auto warnings = pageCacheWarnings(tester.lastResult->phaseTraffic);
        for (auto& warning : dropWarnings(tester.lastResult->comparison)) warnings.push_back(std::move(warning));
        for (const auto& warning : warnings) {
            panel.performanceWarningMessage = panel.performanceWarningMessage
                                                  ? *panel.performanceWarningMessage + "\n" + warning
                                                  : warning;
        }
    }

    panel.infoItems = infoItemsFor(panel);
    setButtons(panel);
    panel.stripHeading = PerformanceMetrics::heading();
    panel.stripItems = stripItemsFor(panel);
    return panel;
}

}  // namespace vantorix::dashboard
