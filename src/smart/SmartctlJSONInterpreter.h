#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

#include "smart/DiskSMARTInfo.h"

namespace vantorix::smart {

// Containers nested deeper than this (a top-level member is at depth 1) are not walked. smartctl's
// own output goes 8 levels deep; the bound keeps hostile input from costing unbounded time and memory.
inline constexpr int kMaximumWalkDepth = 64;

// The one-line verdict: smart_status.string when it is not blank, else "PASSED"/"FAILED" from
// smart_status.passed, else "NVMe Warning: " and the NVMe critical warning; none otherwise.
std::optional<std::string> overallStatus(const nlohmann::ordered_json& document, bool english);

// Whether the device supports SMART, from smart_support.available/enabled or, without a
// smart_support object, ata_smart_data.capabilities.smart_capable/supports_smart.
std::optional<bool> capability(const nlohmann::ordered_json& document);

// The whole document flattened into display rows (unordered): key path, catalogue or derived name
// in the given language, formatted value. Hidden catalogue entries and empty texts give no row.
std::vector<DiskSMARTInfo::Detail> flattenedRows(const nlohmann::ordered_json& document, bool english);

// Interprets a parsed smartctl JSON document in the current interface language. Nothing when the
// document is not an object or yields no status, no capability and no row. Never throws for any
// document content.
std::optional<DiskSMARTInfo> interpret(const nlohmann::ordered_json& document,
                                       std::optional<std::string> sourceCommand = std::nullopt);

}  // namespace vantorix::smart
