#pragma once

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "health/HealthHistory.h"
#include "util/Result.h"

namespace vantorix::cli {

// The drive-health history of `smart`: the file (--database, or the user's), a reading recorded
// from a smartctl answer, and the history, growth and baselines as text, CSV and JSON.

Result<std::unique_ptr<health::HealthHistory>, std::string> openHealthHistory(const std::optional<std::string>& file);

// "90s", "30m", "12h", "7d", "2w", or a number of seconds; nothing for anything else.
std::optional<std::chrono::seconds> parseDuration(std::string_view text);

// Records the reading in a smartctl answer; the error, in the user's language, when it failed.
std::optional<std::string> recordAnswer(health::HealthHistory& history, std::string_view smartctlJson,
                                        const std::string& deviceName);

// The growth of each figure with a baseline, measured against `current` where it has the figure
// (a fresh reading that may not be stored), else against the last stored reading.
std::vector<health::Growth> growthAgainst(const health::HealthHistory& history, const std::string& key,
                                          const std::optional<health::HealthSnapshot>& current);

nlohmann::ordered_json growthJson(const std::vector<health::Growth>& growth);
nlohmann::ordered_json identityJson(const health::DriveIdentity& identity);
// "Reallocated sectors grew by 8 since 2026-11-26 03:00 (baseline 0, set 2026-11-25 10:00)." for
// each figure that grew; nothing when none did.
void printGrowth(std::ostream& out, const std::vector<health::Growth>& growth);

enum class HistoryFormat { text, json, csv };
// The readings as a table (time and the figures any reading has), a JSON document or CSV.
void printHistory(std::ostream& out, HistoryFormat format, const health::DriveIdentity& identity,
                  const std::vector<health::HealthSnapshot>& readings, const std::vector<health::Growth>& growth);

}  // namespace vantorix::cli
