#include "exporter/SmartHealth.h"

#include <nlohmann/json.hpp>

#include "smart/SmartctlJSONInterpreter.h"

namespace vantorix::exporter {

SmartFigures smartFiguresFromJson(std::string_view smartctlJson, double at, std::string_view device) {
    SmartFigures figures;
    figures.refreshedAt = at;
    auto reading = health::driveReadingFromJson(smartctlJson, static_cast<std::int64_t>(at), device);
    if (!reading) return figures;
    figures.drive = std::move(*reading);
    figures.capable = smart::capability(nlohmann::ordered_json::parse(smartctlJson, nullptr, false));
    return figures;
}

}  // namespace vantorix::exporter
