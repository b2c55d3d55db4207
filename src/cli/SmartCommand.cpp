#include <fmt/format.h>
#include <unicode/uchar.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "cli/Commands.h"
#include "smart/SmartSheetTexts.h"
#include "smart/SmartctlExecutionResult.h"
#include "smart/SmartmontoolsBridge.h"
#include "smart/Utf8.h"
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
};

Replay replayOf(const std::string& path, std::string contents) {
    Replay replay;
    replay.result.commandDescription = path;
    replay.deviceName = std::filesystem::path(path).stem().string();
    if (const auto document = smart::parsedDocument(contents)) {
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

// Terminal columns of a text: two for East Asian wide and full-width characters, one otherwise.
std::size_t terminalColumns(std::string_view text) {
    std::size_t columns = 0;
    std::size_t offset = 0;
    while (offset < text.size()) {
        const int c = smart::nextCodePoint(text, offset);
        const auto width = c < 0 ? U_EA_NEUTRAL : u_getIntPropertyValue(c, UCHAR_EAST_ASIAN_WIDTH);
        columns += width == U_EA_WIDE || width == U_EA_FULLWIDTH ? 2 : 1;
    }
    return columns;
}

void printAligned(std::ostream& out, const std::vector<std::pair<std::string, std::string>>& rows) {
    std::size_t width = 0;
    for (const auto& row : rows) width = std::max(width, terminalColumns(row.first));
    for (const auto& [label, value] : rows) {
        out << label << std::string(width - terminalColumns(label) + 2, ' ') << value << '\n';
    }
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
    const bool isObject = smart::parsedDocument(*contents).has_value();
    const Replay replay = replayOf(options.jsonFile, *std::move(contents));
    const auto info = smart::interpretResult(replay.result, replay.deviceName);
    if (!info) {
        if (!isObject) {
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
        printAligned(out, summary);
        out << '\n';
    }
    if (info->details.empty()) {
        out << smart::noDetailsNote() << '\n';
        return kSuccess;
    }
    std::vector<std::pair<std::string, std::string>> rows;
    rows.reserve(info->details.size());
    for (const auto& detail : info->details) rows.emplace_back(detail.displayName, detail.value);
    printAligned(out, rows);
    return kSuccess;
}

}  // namespace vantorix::cli
