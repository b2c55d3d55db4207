#include "exporter/SmartHealth.h"

#include <nlohmann/json.hpp>

#include "smart/SmartctlJSONInterpreter.h"

namespace vantorix::exporter {
namespace {

using json = nlohmann::ordered_json;

std::optional<double> numberAt(const json& document, std::initializer_list<const char*> path) {
    const json* node = &document;
    for (const char* key : path) {
        if (!node->is_object()) return std::nullopt;
        const auto found = node->find(key);
        if (found == node->end()) return std::nullopt;
        node = &*found;
    }
    if (!node->is_number()) return std::nullopt;
    return node->get<double>();
}

std::optional<double> reallocatedSectors(const json& document) {
    const auto attributes = document.find("ata_smart_attributes");
    if (attributes == document.end() || !attributes->is_object()) return std::nullopt;
    const auto table = attributes->find("table");
    if (table == attributes->end() || !table->is_array()) return std::nullopt;
    for (const auto& row : *table) {
        if (row.is_object() && numberAt(row, {"id"}) == 5.0) return numberAt(row, {"raw", "value"});
    }
    return std::nullopt;
}

}  // namespace

SmartFigures smartFiguresFromJson(std::string_view smartctlJson) {
    SmartFigures figures;
    const json document = json::parse(smartctlJson, nullptr, false);
    if (!document.is_object()) return figures;
    if (const auto status = document.find("smart_status"); status != document.end() && status->is_object()) {
        if (const auto passed = status->find("passed"); passed != status->end() && passed->is_boolean()) {
            figures.passed = passed->get<bool>();
        }
    }
    figures.capable = smart::capability(document);
    figures.temperatureCelsius = numberAt(document, {"temperature", "current"});
    figures.powerOnHours = numberAt(document, {"power_on_time", "hours"});
    figures.percentageUsed = numberAt(document, {"nvme_smart_health_information_log", "percentage_used"});
    figures.mediaErrors = numberAt(document, {"nvme_smart_health_information_log", "media_errors"});
    figures.reallocatedSectors = reallocatedSectors(document);
    return figures;
}

}  // namespace vantorix::exporter
