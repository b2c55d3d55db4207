#include "smart/SmartmontoolsBridge.h"

#include <algorithm>
#include <array>
#include <exception>
#include <string>

#include "log/Log.h"
#include "protocol/Base64.h"
#include "smart/SmartValueText.h"
#include "smart/SmartctlJSONInterpreter.h"
#include "text/Trim.h"
#include "text/Utf8.h"

namespace vantorix::smart {
namespace {

using json = nlohmann::ordered_json;

const log::Logger& bridgeLogger() { return log::logger(kBridgeLogCategory); }

std::string readableBytes(std::string_view bytes) {
    return text::isValidUtf8(bytes) ? std::string(bytes) : protocol::base64Encoded(bytes);
}

bool isSevere(std::string_view severity) {
    static constexpr std::array<std::string_view, 5> kSevere{"error", "fatal", "critical", "warning", "warn"};
    const std::string lower = lowercased(severity);
    return std::find(kSevere.begin(), kSevere.end(), lower) != kSevere.end();
}

void logMessages(const json& list, const std::string& command) {
    if (!list.is_array()) return;
    for (const auto& message : list) {
        if (!message.is_object()) continue;
        const auto text = message.find("string");
        if (text == message.end() || !text->is_string()) continue;
        const std::string_view content = vantorix::text::trimmed(text->get_ref<const std::string&>());
        if (content.empty()) continue;
        const auto severityMember = message.find("severity");
        const std::string severity = severityMember != message.end() && severityMember->is_string()
                                         ? severityMember->get<std::string>()
                                         : std::string("notice");
        const auto line = fmt::format("smartctl reported message (severity: {}) for command {}: {}", severity, command,
                                      content);
        // The other messages come again with every refresh of a selected volume: debug.
        bridgeLogger().write(isSevere(severity) ? log::Level::error : log::Level::debug, line);
    }
}

void logDiagnostics(const SmartctlExecutionResult& result, std::string_view deviceName, const json* document) {
    const auto& log = bridgeLogger();
    // Debug: a drive whose smartctl sets status bits sets them with every refresh.
    if (result.terminationStatus != 0) {
        log.debug("smartctl exited with status {} for device {}; continuing to parse command: {}",
                  result.terminationStatus, deviceName, result.commandDescription);
    } else {
        log.debug("smartctl exited with status 0 for device {}; command: {}", deviceName, result.commandDescription);
    }
    if (log.enabled(log::Level::debug)) {
        if (result.jsonData.empty()) log.debug("smartctl stdout for device {} was empty", deviceName);
        else log.debug("smartctl stdout for device {}: {}", deviceName, readableBytes(result.jsonData));
        if (result.standardError.empty()) log.debug("smartctl stderr for device {} was empty", deviceName);
        else log.debug("smartctl stderr for device {}: {}", deviceName, readableBytes(result.standardError));
    }
    if (document == nullptr) return;
    if (const auto messages = document->find("messages"); messages != document->end()) {
        logMessages(*messages, result.commandDescription);
    }
    if (const auto tool = document->find("smartctl"); tool != document->end() && tool->is_object()) {
        if (const auto messages = tool->find("messages"); messages != tool->end()) {
            logMessages(*messages, result.commandDescription);
        }
    }
}

}  // namespace

std::optional<json> parsedDocument(std::string_view jsonData) {
    if (jsonData.empty()) return std::nullopt;
    try {
        // Broken USB bridges put bytes that are not UTF-8 into identification strings; the rest of
        // such output is still worth reading, so those bytes become U+FFFD instead of failing the parse.
        std::string repaired;
        if (!text::isValidUtf8(jsonData)) {
            repaired = text::lossyUtf8(jsonData);
            jsonData = repaired;
        }
        json document = json::parse(jsonData.begin(), jsonData.end(), nullptr, /*allow_exceptions=*/false);
        if (!document.is_object()) return std::nullopt;
        return document;
    } catch (const std::exception&) {
        // Parsing reports malformed text without exceptions; what is left is running out of memory.
        return std::nullopt;
    }
}

void logResultDiagnostics(const SmartctlExecutionResult& result, std::string_view deviceName) {
    const auto document = parsedDocument(result.jsonData);
    logDiagnostics(result, deviceName, document ? &*document : nullptr);
}

std::optional<DiskSMARTInfo> interpretResult(const SmartctlExecutionResult& result, std::string_view deviceName) {
    const auto document = parsedDocument(result.jsonData);
    logDiagnostics(result, deviceName, document ? &*document : nullptr);
    if (!document) {
        bridgeLogger().error("Failed to decode smartctl JSON for device {}", deviceName);
        return std::nullopt;
    }
    auto info = interpret(*document, result.commandDescription);
    if (!info) {
        bridgeLogger().error("smartctl JSON for device {} did not contain usable SMART information", deviceName);
        return std::nullopt;
    }
    bridgeLogger().debug("Successfully parsed SMART details for device {} via privileged helper", deviceName);
    return info;
}

}  // namespace vantorix::smart
