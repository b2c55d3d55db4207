#pragma once

#include <optional>
#include <string>
#include <vector>

#include "benchmark/DataSize.h"
#include "benchmark/DiskPerformanceTester.h"
#include "benchmark/PerformanceMetrics.h"
#include "dashboard/AccentColor.h"
#include "monitor/DiskIOMonitor.h"
#include "volumes/LinkCeiling.h"

namespace vantorix::dashboard {

// One fact of the volume panel: a symbol and a text.
struct InfoItem {
    // Stable per kind of fact: "volume", "connection", then "linkCeiling" and "linkWarning" when the
    // link has them, "fileSystem", "capacity", "hardware", and "queue" when the device has one.
    std::string id;
    std::string icon;
    std::string value;
    friend bool operator==(const InfoItem&, const InfoItem&) = default;
};

// A button of the panel as it is to be drawn.
struct PanelButton {
    std::string label;
    std::string symbol;
    bool enabled = true;
    AccentColor accent = AccentColor::blue;
    friend bool operator==(const PanelButton&, const PanelButton&) = default;
};

// Everything the volume control panel shows, worked out from the monitor's and the tester's
// published state; every fallback is in the current language.
struct VolumePanelContent {
    std::string selectedVolumeName;
    std::optional<std::string> deviceName;
    std::string connectionTypeDescription;
    std::optional<std::string> connectionSpeedDescription;
    std::optional<LinkCeiling> link;
    std::optional<std::string> linkCeilingDescription;  // "Link ceiling: 3.94 GB/s (PCIe 3.0 x4)"
    std::optional<std::string> linkWarning;             // the link is slower than the drive can use
    std::string fileSystemDescription;
    std::string totalCapacityDescription;
    std::optional<std::uint64_t> totalCapacityBytes;
    std::string availableCapacityDescription;
    std::optional<std::uint64_t> availableCapacityBytes;
    std::string hardwareVendorDescription;
    std::string hardwareModelDescription;
    std::optional<std::string> queueDescription;  // "Request Queue: 128 requests, 1 hardware queue, rotational"
    std::optional<DiskSMARTInfo> smartInfo;
    bool isVolumeSelected = false;
    bool isMonitoring = false;
    bool exportEnabled = false;
    bool isPerformanceRunning = false;
    std::optional<ProgressState> performanceProgressState;
    std::string performancePayloadDescription;
    DataSize performanceSelection = DataSize::availableSpace();
    std::optional<EffectivePayload> performancePayloadPreview;
    std::optional<PerformanceResult> lastPerformanceResult;
    bool isPerformanceTestAvailable = false;
    std::optional<std::string> performanceWarningMessage;

    // How it is drawn.
    std::vector<InfoItem> infoItems;
    PanelButton chooseVolumeButton;
    PanelButton monitoringButton;
    PanelButton smartButton;
    std::string smartHint;  // under the SMART button
    PanelButton exportButton;
    PanelButton performanceButton;
    MetricItem stripHeading;
    // Progress while running, else the last result, followed by its share of the link ceiling when
    // the link has one.
    std::vector<MetricItem> stripItems;
};

// "62% of the link ceiling" / "达到链路上限的 62%" for the run's best sequential speed
// (PerformanceMetrics::bestSequentialThroughput) on `link`;
// nothing without a link ceiling or a measured speed.
std::optional<std::string> linkCeilingShareText(const PerformanceResult& result,
                                                const std::optional<LinkCeiling>& link);

VolumePanelContent volumePanelContent(const DiskIOMonitor::State& monitor, const DiskPerformanceTester::State& tester,
                                      const PerformancePayloadContext& payload);

}  // namespace vantorix::dashboard
