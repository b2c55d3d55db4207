#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <nlohmann/json.hpp>
#include <vector>

#include "cli/Commands.h"
#include "cli/JsonOutput.h"
#include "cli/LinkCeilingJson.h"
#include "cli/StandardStreams.h"
#include "cli/TextTable.h"
#include "json/JsonText.h"
#include "monitor/LoadTexts.h"
#include "monitor/StatisticsSession.h"
#include "text/Formats.h"
#include "text/Language.h"
#include "text/TerminalText.h"
#include "volumes/DiskVolumeResolver.h"

namespace vantorix::cli {
namespace {

using ordered_json = nlohmann::ordered_json;

template <class T>
ordered_json optionalJson(const std::optional<T>& value) {
    return value ? ordered_json(*value) : ordered_json(nullptr);
}

std::string orUnknown(const std::optional<std::string>& value) {
    if (value && value->find_first_not_of(" \t\n") != std::string::npos) return *value;
    return text::localized("未知", "Unknown");
}

std::string capacityLine(const std::optional<std::uint64_t>& bytes) {
    if (!bytes) return text::localized("未知", "Unknown");
    return text::isEnglish() ? fmt::format("{} ({} bytes)", text::capacityText(*bytes), *bytes)
                             : fmt::format("{}（{} 字节）", text::capacityText(*bytes), *bytes);
}

std::string counterLine(std::uint64_t bytes) {
    return text::isEnglish() ? fmt::format("{} ({})", text::totalBytesText(bytes), bytes)
                             : fmt::format("{}（{}）", text::totalBytesText(bytes), bytes);
}

ordered_json queueJson(const std::optional<BlockQueue>& queue) {
    if (!queue) return nullptr;
    return ordered_json{{"requests", optionalJson(queue->requests)},
                        {"hardwareQueues", optionalJson(queue->hardwareQueues)},
                        {"rotational", optionalJson(queue->rotational)}};
}

// The volume and its counters as one JSON document; without counters, the failure in their place.
ordered_json infoDocument(const DiskVolumeDescriptor& volume, const std::optional<BlockStatistics>& snapshot,
                          const std::optional<MonitorError>& statisticsError) {
    ordered_json document{
        {"url", volume.url},
        {"device", volume.deviceName},
        {"displayName", volume.displayName},
        {"connectionTypeDescription", volume.connectionTypeDescription},
        {"connectionSpeedDescription", optionalJson(volume.connectionSpeedDescription)},
        {"fileSystemDescription", optionalJson(volume.fileSystemDescription)},
        {"totalCapacityBytes", optionalJson(volume.totalCapacityBytes)},
        {"availableCapacityBytes", optionalJson(volume.availableCapacityBytes)},
        {"hardwareVendor", optionalJson(volume.hardwareVendor)},
        {"hardwareModel", optionalJson(volume.hardwareModel)},
        {"linkCeiling", linkCeilingJson(volume.link)},
        {"queue", queueJson(volume.queue)},
    };
    if (snapshot) {
        document["statistics"] = ordered_json{{"bytesRead", snapshot->bytesRead()},
                                              {"bytesWritten", snapshot->bytesWritten()},
                                              {"readOperations", snapshot->readsCompleted},
                                              {"writeOperations", snapshot->writesCompleted},
                                              {"inFlight", snapshot->inFlight}};
    } else {
        // The description holds; the figures are missing: the failure in the same shape.
        document["statistics"] = nullptr;
        document.update(jsonError(statisticsError->name(), statisticsError->description()));
    }
    return document;
}

// The volume and its counters as the rows of a table.
std::vector<std::pair<std::string, std::string>> infoRows(const DiskVolumeDescriptor& volume,
                                                          const std::optional<BlockStatistics>& snapshot) {
    std::vector<std::pair<std::string, std::string>> rows{
        {text::localized("卷", "Volume"), volume.displayName},
        {text::localized("路径", "Path"), volume.url},
        {text::localized("设备", "Device"), volume.deviceName},
        {text::localized("文件系统", "File system"),
         volume.fileSystemDescription.value_or(text::localized("文件系统未知", "File system unknown"))},
        {text::localized("总容量", "Total capacity"), capacityLine(volume.totalCapacityBytes)},
        {text::localized("可用容量", "Available Capacity"), capacityLine(volume.availableCapacityBytes)},
        {text::localized("连接", "Connection"), volume.connectionTypeDescription},
        {text::localized("链路速度", "Link speed"), orUnknown(volume.connectionSpeedDescription)},
        {text::localized("链路上限", "Link ceiling"),
         orUnknown(volume.link ? ceilingValueText(*volume.link) : std::nullopt)},
    };
    if (const auto warning = volume.link ? slowLinkWarning(*volume.link) : std::nullopt) {
        rows.emplace_back(text::localized("链路警告", "Link warning"), *warning);
    }
    rows.emplace_back(text::localized("厂商", "Vendor"), orUnknown(volume.hardwareVendor));
    rows.emplace_back(text::localized("型号", "Model"), orUnknown(volume.hardwareModel));
    rows.emplace_back(text::localized("请求队列", "Request queue"), orUnknown(queueFactsText(volume.queue)));
    if (snapshot) {
        rows.emplace_back(text::localized("累计读取", "Bytes read"), counterLine(snapshot->bytesRead()));
        rows.emplace_back(text::localized("累计写入", "Bytes written"), counterLine(snapshot->bytesWritten()));
        rows.emplace_back(text::localized("读操作", "Read operations"), std::to_string(snapshot->readsCompleted));
        rows.emplace_back(text::localized("写操作", "Write operations"), std::to_string(snapshot->writesCompleted));
    }
    return rows;
}

}  // namespace

Environment Environment::standard() { return Environment{System::thisMachine(), &standardOutput(), &standardError()}; }

int runInfo(const InfoOptions& options, Environment& environment) {
    auto& out = *environment.out;
    auto& err = *environment.err;
    auto descriptor = DiskVolumeResolver::resolve(options.path, *environment.system.volumes,
                                                  *environment.system.devices);
    if (!descriptor.ok()) {
        err << text::terminalLines(descriptor.error().description()) << '\n';
        if (options.json) printJsonError(out, descriptor.error().name(), descriptor.error().description());
        return kFailure;
    }
    const auto& volume = descriptor.value();

    std::optional<MonitorError> statisticsError;
    std::optional<BlockStatistics> snapshot;
    auto session = StatisticsSession::create(environment.system.devices, volume.deviceName);
    if (session.ok()) {
        auto read = session.value()->snapshot();
        if (read.ok()) snapshot = read.value();
        else statisticsError = read.error();
    } else {
        statisticsError = session.error();
    }

    if (options.json) printJson(out, infoDocument(volume, snapshot, statisticsError));
    else printTable(out, infoRows(volume, snapshot));
    if (statisticsError) {
        err << text::terminalLines(statisticsError->description()) << '\n';
        return kFailure;
    }
    return kSuccess;
}

Command addInfoCommand(CLI::App& parent) {
    auto options = std::make_shared<InfoOptions>();
    auto* command = parent.add_subcommand(
        "info", text::localized("显示文件夹所在卷的信息和累计读写计数",
                                "Describe the volume behind a folder and its cumulative I/O counters"));
    command->add_option("path", options->path, text::localized("卷上的文件夹", "A folder on the volume"))->required();
    command->add_flag("--json", options->json, text::localized("以 JSON 输出", "Print JSON"));
    return {command, [options](Environment& environment) { return runInfo(*options, environment); }};
}

}  // namespace vantorix::cli
