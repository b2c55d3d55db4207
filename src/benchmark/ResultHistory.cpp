#include "benchmark/ResultHistory.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <nlohmann/json.hpp>

#include "benchmark/PerformanceMetrics.h"
#include "text/Formats.h"
#include "text/Language.h"

namespace vantorix {
namespace {

// Figures keep the order the result shows them in.
using json = nlohmann::ordered_json;
using text::localized;

constexpr std::string_view kReadSuffix = " read";
constexpr std::string_view kWriteSuffix = " write";

bool isSpeed(const std::string& name) {
    return name.find("Throughput") != std::string::npos || name.starts_with("SEQ");
}

std::int64_t unixMilliseconds(std::chrono::system_clock::time_point time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

}  // namespace

std::string runKind(const TestMode& mode) {
    if (mode.kind != TestKind::standard) return rawValue(mode.kind);
    return mode.bypassCache ? "standardDirect" : "standard";
}

std::vector<ComparableFigure> comparableFigures(const PerformanceResult& result) {
    if (result.sustained) {
        return {{"averageWriteThroughput", result.sustained->averageBytesPerSecond},
                {"steadyWriteThroughput", result.sustained->steadyBytesPerSecond}};
    }
    if (result.mode.kind == TestKind::queueDepth) {
        std::vector<ComparableFigure> figures;
        for (const auto& figure : result.queueDepthFigures) {
            const bool sequential = figure.profile.starts_with("SEQ");
            figures.push_back(
                {figure.profile + std::string(kReadSuffix), sequential ? figure.readBytesPerSecond : figure.readIOPS});
            figures.push_back({figure.profile + std::string(kWriteSuffix),
                               sequential ? figure.writeBytesPerSecond : figure.writeIOPS});
        }
        return figures;
    }
    return {{"writeThroughput", result.writeThroughput},
            {"readThroughput", result.readThroughput},
            {"randomWriteIOPS", result.randomWriteIOPS},
            {"randomReadIOPS", result.randomReadIOPS}};
}

std::string figureTitle(const std::string& name) {
    if (name == "writeThroughput") return localized("写入平均速度", "Average Write Speed");
    if (name == "readThroughput") return localized("读取平均速度", "Average Read Speed");
    if (name == "randomWriteIOPS") return localized("随机写入 IOPS", "Random Write IOPS");
    if (name == "randomReadIOPS") return localized("随机读取 IOPS", "Random Read IOPS");
    if (name == "averageWriteThroughput") return localized("写入平均速度", "Average Write Speed");
    if (name == "steadyWriteThroughput") return localized("稳定速度", "Steady Speed");
    for (const auto& [suffix, word] :
         {std::pair{kReadSuffix, localized("读取", "Read")}, std::pair{kWriteSuffix, localized("写入", "Write")}}) {
        if (name.ends_with(suffix)) return name.substr(0, name.size() - suffix.size()) + " " + word;
    }
    return name;
}

std::string figureValueText(const std::string& name, double value) {
    return isSpeed(name) ? PerformanceMetrics::speedText(value) : PerformanceMetrics::iopsText(value);
}

std::string changeText(double percent) {
    const double size = std::abs(percent);
    std::string number = text::decimalText(size, 0, size < 10 ? 1 : 0);
    if (number == "0") return "±0%";
    return (percent < 0 ? "\u2212" : "+") + number + "%";
}

std::string dropWarning(const FigureChange& change, std::chrono::system_clock::time_point previousFinishedAt) {
    const std::string size = text::decimalText(std::abs(change.percent), 0, 0);
    const std::string when = text::mediumDateTimeText(previousFinishedAt);
    return text::isEnglish()
               ? fmt::format("Warning: {} is {}% below the previous run's ({}).", figureTitle(change.name), size, when)
               : fmt::format("警告：{}比上次测试（{}）低 {}%。", figureTitle(change.name), when, size);
}

std::vector<std::string> dropWarnings(const std::optional<ResultComparison>& comparison) {
    std::vector<std::string> warnings;
    if (!comparison) return warnings;
    for (const auto& change : comparison->changes) {
        if (change.dropped) warnings.push_back(dropWarning(change, comparison->previousFinishedAt));
    }
    return warnings;
}

std::string valueWithChange(std::string value, const PerformanceResult& result, const std::string& figure) {
    const auto* change = result.comparison ? result.comparison->change(figure) : nullptr;
    if (change != nullptr) value += localized("（", " (") + changeText(change->percent) + localized("）", ")");
    return value;
}

const char* iconWithDrop(const char* icon, const PerformanceResult& result,
                         std::initializer_list<std::string> figures) {
    for (const auto& figure : figures) {
        const auto* change = result.comparison ? result.comparison->change(figure) : nullptr;
        if (change != nullptr && change->dropped) return PerformanceMetrics::warningIcon();
    }
    return icon;
}

health::BenchmarkRun benchmarkRun(const PerformanceResult& result, const std::string& version) {
    json figures = json::object();
    for (const auto& figure : comparableFigures(result)) figures[figure.name] = figure.value;
    json phases = json::array();
    for (const auto& traffic : result.phaseTraffic) {
        phases.push_back({{"phase", rawValue(traffic.phase)},
                          {"bytesMoved", traffic.bytesMoved},
                          {"deviceBytes", traffic.deviceBytes ? json(*traffic.deviceBytes) : json(nullptr)},
                          {"servedFromPageCache", traffic.servedFromPageCache()}});
    }
    return {unixMilliseconds(result.finishedAt),
            runKind(result.mode),
            result.actualByteCount,
            figures.dump(),
            phases.dump(),
            version};
}

std::vector<ComparableFigure> storedFigures(const health::BenchmarkRun& run) {
    std::vector<ComparableFigure> figures;
    const json stored = json::parse(run.figures, nullptr, false);
    if (!stored.is_object()) return figures;
    for (const auto& [name, value] : stored.items()) {
        if (value.is_number()) figures.push_back({name, value.get<double>()});
    }
    return figures;
}

std::vector<PhaseTraffic> storedPageCheck(const health::BenchmarkRun& run) {
    std::vector<PhaseTraffic> phases;
    const json stored = json::parse(run.pageCache, nullptr, false);
    if (!stored.is_array()) return phases;
    for (const auto& entry : stored) {
        if (!entry.is_object() || !entry.value("bytesMoved", json()).is_number_unsigned()) continue;
        const auto name = entry.value("phase", std::string());
        const auto phase = std::find_if(kBenchmarkPhases.begin(), kBenchmarkPhases.end(),
                                        [&](BenchmarkPhase p) { return rawValue(p) == name; });
        if (phase == kBenchmarkPhases.end()) continue;
        PhaseTraffic traffic{*phase, entry["bytesMoved"].get<std::uint64_t>(), std::nullopt};
        if (const auto device = entry.value("deviceBytes", json()); device.is_number_unsigned())
            traffic.deviceBytes = device.get<std::uint64_t>();
        phases.push_back(traffic);
    }
    return phases;
}

ResultComparison compareWith(const std::vector<ComparableFigure>& current, const health::BenchmarkRun& previous) {
    ResultComparison comparison;
    comparison.previousFinishedAt = std::chrono::system_clock::time_point(
        std::chrono::milliseconds(previous.finishedMs));
    const auto before = storedFigures(previous);
    for (const auto& figure : current) {
        const auto found = std::find_if(before.begin(), before.end(),
                                        [&](const ComparableFigure& f) { return f.name == figure.name; });
        if (found == before.end() || !(found->value > 0) || !std::isfinite(figure.value)) continue;
        const double percent = (figure.value - found->value) / found->value * 100;
        comparison.changes.push_back({figure.name, found->value, figure.value, percent, percent < -kDropPercent});
    }
    return comparison;
}

health::DriveIdentity driveIdentity(const BlockDevice& device) {
    health::DriveIdentity identity;
    const auto& attachment = device.attachment;
    if (attachment.wwn && attachment.wwn->starts_with("naa.")) {
        identity.wwn = "0x" + attachment.wwn->substr(4);
        std::transform(identity.wwn.begin(), identity.wwn.end(), identity.wwn.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    }
    identity.model = attachment.model.value_or("");
    identity.serial = attachment.serial.value_or("");
    identity.backingFile = attachment.backingFile.value_or("");
    identity.deviceHint = device.name;
    return identity;
}

const health::BenchmarkRun* previousRun(const std::vector<health::BenchmarkRun>& runs, const std::string& kind,
                                        std::int64_t beforeMs) {
    const health::BenchmarkRun* previous = nullptr;
    for (const auto& run : runs) {
        if (run.kind == kind && run.finishedMs < beforeMs) previous = &run;
    }
    return previous;
}

}  // namespace vantorix
