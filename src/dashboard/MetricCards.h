#pragma once

#include <optional>
#include <string>
#include <vector>

#include "dashboard/AccentColor.h"
#include "monitor/DiskIOMonitor.h"
#include "smart/DiskSMARTInfo.h"
#include "util/Uuid.h"

namespace vantorix::dashboard {

// One card of the dashboard's row of live figures.
struct MetricCardContent {
    Uuid id = Uuid::make();
    std::string title;
    std::string iconSystemName;
    std::string valueText;
    AccentColor accentColor = AccentColor::blue;
    std::string footer;
};

// The cards in their fixed order: read and write speed over the last second, read and write
// operation rates, total read and written, monitoring duration, and, when the selected volume's
// SMART data name a usable controller temperature, that temperature.
std::vector<MetricCardContent> metricCards(const DiskIOMonitor::State& state);

// The controller temperature as the eighth card shows it ("41 ℃"), from the first detail that
// names the controller temperature and has a usable value; nothing when there is none.
std::optional<std::string> controllerTemperatureText(const DiskSMARTInfo& info);

}  // namespace vantorix::dashboard
