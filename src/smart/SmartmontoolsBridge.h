#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string_view>

#include "protocol/SmartctlExecutionResult.h"
#include "smart/DiskSMARTInfo.h"

namespace vantorix::smart {

// Log category of one smartctl attempt and its interpretation.
inline constexpr std::string_view kBridgeLogCategory = "SmartmontoolsBridge";

// smartctl's output parsed as JSON when its top level is an object (ill-formed UTF-8 read as U+FFFD);
// nothing otherwise.
std::optional<nlohmann::ordered_json> parsedDocument(std::string_view jsonData);

// Logs what the helper returned for a device name: the exit status with the command, the standard
// output and standard error (as UTF-8, or as base64 when they are not valid UTF-8), and each message
// that smartctl reported in the JSON ("error", "fatal", "critical", "warning" and "warn" at error
// level, every other severity at debug level, as the rest: all of it comes again with every refresh
// of a selected volume). Accepts any bytes.
void logResultDiagnostics(const SmartctlExecutionResult& result, std::string_view deviceName);

// One attempt's interpretation of a helper result: the diagnostics, then the JSON interpreted in
// the current interface language with `commandDescription` as the source command. Nothing, with an
// error logged, when the output is not a JSON object or holds no usable SMART information.
std::optional<DiskSMARTInfo> interpretResult(const SmartctlExecutionResult& result, std::string_view deviceName);

}  // namespace vantorix::smart
