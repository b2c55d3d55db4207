#pragma once

#include <optional>
#include <string>
#include <vector>

#include "benchmark/DataSize.h"
#include "benchmark/DiskPerformanceTester.h"
#include "benchmark/PerformanceMetrics.h"
#include "dashboard/AccentColor.h"
#include "monitor/DiskIOMonitor.h"

namespace vantorix::dashboard {

// One fact of the volume panel: a symbol and a text.
struct InfoItem {
    std::string id;  // stable per kind of fact: "volume", "connection", "fileSystem", "capacity", "hardware"
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
    std::optional<std::string> bsdName;
    std::string connectionTypeDescription;
    std::optional<std::string> connectionSpeedDescription;
    std::string fileSystemDescription;
    std::string totalCapacityDescription;
    std::optional<std::uint64_t> totalCapacityBytes;
    std::string availableCapacityDescription;
    std::optional<std::uint64_t> availableCapacityBytes;
    std::string hardwareVendorDescription;
    std::string hardwareModelDescription;
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
    std::vector<MetricItem> stripItems;  // progress while running, else the last result
};

VolumePanelContent volumePanelContent(const DiskIOMonitor::State& monitor, const DiskPerformanceTester::State& tester,
                                      const PerformancePayloadContext& payload);

}  // namespace vantorix::dashboard
