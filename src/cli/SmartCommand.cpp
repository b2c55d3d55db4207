#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "cli/Commands.h"
#include "cli/TextTable.h"
#include "smart/SmartSheetTexts.h"
#include "protocol/SmartctlExecutionResult.h"
#include "smart/SmartmontoolsBridge.h"
#include "text/Language.h"

namespace vantorix::cli {
namespace {

using ordered_json = nlohmann::ordered_json;

std::optional<std::string> readFile(const std::string& path, std::string& reason) {
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        reason = errno != 0 ? std::strerror(errno) : "open failed";
        return std::nullopt;
    }
    std::ostringstream contents;
    contents << file.rdbuf();
    if (file.bad() || std::filesystem::is_directory(path)) {
        reason = std::filesystem::is_directory(path) ? std::strerror(EISDIR) : "read failed";
        return std::nullopt;
    }
    return std::move(contents).str();
}

// The run as the helper would have described it: the recorded smartctl arguments when the output
// carries them, its exit status, and the device name for the log lines.
struct Replay {
    SmartctlExecutionResult result;
    std::string deviceName;
    bool isJsonObject = false;
};

Replay replayOf(const std::string& path, std::string contents) {
    Replay replay;
    replay.result.commandDescription = path;
    replay.deviceName = std::filesystem::path(path).stem().string();
    const auto document = smart::parsedDocument(contents);
    replay.isJsonObject = document.has_value();
    if (document) {
        if (const auto tool = document->find("smartctl"); tool != document->end() && tool->is_object()) {
            if (const auto argv = tool->find("argv"); argv != tool->end() && argv->is_array() && !argv->empty()) {
                std::string command;
                for (const auto& argument : *argv) {
                    if (!argument.is_string()) continue;
                    if (!command.empty()) command += ' ';
                    command += argument.get<std::string>();
                }
                if (!command.empty()) replay.result.commandDescription = command;
            }
            if (const auto status = tool->find("exit_status"); status != tool->end() && status->is_number_integer()) {
                const auto value = status->get<std::int64_t>();
                if (value >= std::numeric_limits<std::int32_t>::min() && value <= std::numeric_limits<std::int32_t>::max()) {
                    replay.result.terminationStatus = static_cast<std::int32_t>(value);
                }
            }
        }
        if (const auto device = document->find("device"); device != document->end() && device->is_object()) {
            if (const auto name = device->find("name"); name != device->end() && name->is_string()) {
                std::string deviceName = name->get<std::string>();
                if (deviceName.rfind("/dev/", 0) == 0) deviceName.erase(0, 5);
                if (!deviceName.empty()) replay.deviceName = deviceName;
            }
        }
    }
    replay.result.jsonData = std::move(contents);
    return replay;
}

int fail(const SmartOptions& options, Environment& environment, std::string_view code, const std::string& message) {
    *environment.err << message << '\n';
    if (options.json) *environment.out << ordered_json{{"error", {{"code", code}, {"message", message}}}}.dump(2) << '\n';
    return kFailure;
}

}  // namespace

int runSmart(const SmartOptions& options, Environment& environment) {
    std::string reason;
    auto contents = readFile(options.jsonFile, reason);
    if (!contents) {
        return fail(options, environment, "fileUnreadable",
                    text::isEnglish() ? fmt::format("Cannot read {}: {}", options.jsonFile, reason)
                                      : fmt::format("无法读取 {}：{}", options.jsonFile, reason));
    }
    const Replay replay = replayOf(options.jsonFile, *std::move(contents));
    const auto info = smart::interpretResult(replay.result, replay.deviceName);
    if (!info) {
        if (!replay.isJsonObject) {
            return fail(options, environment, "notSmartctlJSON",
                        text::localized("文件不是 smartctl 的 JSON 输出。", "The file is not smartctl JSON output."));
        }
        return fail(options, environment, "noUsableData",
                    text::localized("文件中没有可用的 SMART 信息。", "The file holds no usable SMART information."));
    }

    auto& out = *environment.out;
    if (options.json) {
        ordered_json details = ordered_json::array();
        for (const auto& detail : info->details) {
            details.push_back({{"id", detail.id.text()},
                               {"keyPath", detail.keyPath},
                               {"displayName", detail.displayName},
                               {"value", detail.value}});
        }
        const auto optionalJson = [](const auto& value) { return value ? ordered_json(*value) : ordered_json(nullptr); };
        out << ordered_json{{"overallStatus", optionalJson(info->overallStatus)},
                            {"isCapable", optionalJson(info->isCapable)},
                            {"sourceCommand", optionalJson(info->sourceCommand)},
                            {"details", std::move(details)}}
                   .dump(2, ' ', false, ordered_json::error_handler_t::replace)
            << '\n';
        return kSuccess;
    }

    std::vector<std::pair<std::string, std::string>> summary;
    if (info->overallStatus && !info->overallStatus->empty()) {
        summary.emplace_back(smart::overallStatusLabel(), *info->overallStatus);
    }
    if (info->isCapable) summary.emplace_back(smart::smartCapableLabel(), smart::capabilityText(*info->isCapable));
    if (!summary.empty()) {
        printTable(out, summary);
        out << '\n';
    }
    if (info->details.empty()) {
        out << smart::noDetailsNote() << '\n';
        return kSuccess;
    }
    std::vector<std::pair<std::string, std::string>> rows;
    rows.reserve(info->details.size());
    for (const auto& detail : info->details) rows.emplace_back(detail.displayName, detail.value);
    printTable(out, rows);
    return kSuccess;
}

}  // namespace vantorix::cli
