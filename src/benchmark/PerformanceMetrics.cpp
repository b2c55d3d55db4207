#include "benchmark/PerformanceMetrics.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>

#include "benchmark/ResultHistory.h"
#include "text/Formats.h"
#include "text/Language.h"

namespace vantorix {

using text::localized;
using Style = MetricItem::Style;

std::string PerformanceMetrics::durationText(double seconds) { return text::clockDurationText(seconds); }

std::string PerformanceMetrics::progressText(double fraction) {
    const double clamped = std::isnan(fraction) ? 0.0 : std::clamp(fraction, 0.0, 1.0);
    std::string text = text::percentText(clamped, 1);
    return text.empty() ? std::string("0%") : text;
}

MetricItem PerformanceMetrics::heading() {
    return {"speedometer", localized("性能测试", "Performance Test"), {}, Style::normal};
}

std::vector<MetricItem> PerformanceMetrics::runningItems(const std::optional<ProgressState>& progress,
                                                         const std::string& payloadValue) {
    const std::string phase = progress ? progressPhaseText(*progress) : phaseName(BenchmarkPhase::randomWrite);
    std::vector<MetricItem> items{
        {"gauge.with.needle", localized("进度", "Progress"), progressText(progress ? progress->fractionCompleted : 0),
         Style::highlight},
        {"tray.full.fill", localized("数据量", "Payload"), payloadValue, Style::normal},
        {"internaldrive", localized("阶段", "Phase"), phase, Style::normal},
        {"clock", localized("已用时间", "Elapsed"), durationText(progress ? progress->elapsedTime : 0), Style::normal},
    };
    if (progress && progress->estimatedRemainingTime) {
        items.push_back({"hourglass", localized("预计剩余", "ETA"), durationText(*progress->estimatedRemainingTime),
                         Style::normal});
    } else {
        items.push_back(
            {"hourglass", localized("预计剩余", "ETA"), localized("计算中…", "Calculating…"), Style::placeholder});
    }
    return items;
}

std::string PerformanceMetrics::speedText(double bytesPerSecond) {
    const double clamped = std::isnan(bytesPerSecond) ? 0.0 : std::clamp(bytesPerSecond, 0.0, 9.2e18);
    return text::byteCountText(static_cast<std::uint64_t>(std::llround(clamped)),
                               text::ByteUnits::megabytes | text::ByteUnits::gigabytes) +
           "/s";
}

std::string PerformanceMetrics::sizeText(std::uint64_t bytes) {
    return text::byteCountText(bytes, text::ByteUnits::megabytes | text::ByteUnits::gigabytes);
}

std::string PerformanceMetrics::iopsText(double operationsPerSecond) {
    return text::decimalText(std::max(operationsPerSecond, 0.0), 0, 0);
}

namespace {

// When the changes are against a previous run: when it finished.
void addPreviousRun(std::vector<MetricItem>& items, const PerformanceResult& result) {
    if (!result.comparison) return;
    items.push_back({"clock", localized("对比上次测试", "Compared With"),
                     text::mediumDateTimeText(result.comparison->previousFinishedAt), Style::normal});
}

}  // namespace

std::vector<MetricItem> PerformanceMetrics::resultItems(const PerformanceResult& result) {
    if (result.sustained) {
        auto items = sustainedItems(result, *result.sustained);
        addPreviousRun(items, result);
        return items;
    }
    if (result.mode.kind == TestKind::queueDepth) {
        std::vector<MetricItem> items{
            {"externaldrive.fill", localized("样本大小", "Sample Size"), sizeText(result.actualByteCount),
             Style::normal},
            {"info.circle", localized("测试方式", "Test Mode"), modeDescription(result.mode), Style::normal},
        };
        for (const auto& figure : result.queueDepthFigures) {
            const bool sequential = figure.profile.rfind("SEQ", 0) == 0;
            const std::string read = figure.profile + " read", write = figure.profile + " write";
            const auto value = [&](double bytesPerSecond, double iops, const std::string& name) {
                return valueWithChange(sequential ? speedText(bytesPerSecond) : iopsText(iops) + " IOPS", result, name);
            };
            items.push_back(
                {iconWithDrop(sequential ? "speedometer" : "square.grid.3x3", result, {read, write}), figure.profile,
                 localized("读 ", "Read ") + value(figure.readBytesPerSecond, figure.readIOPS, read) +
                     localized(" · 写 ", " · Write ") + value(figure.writeBytesPerSecond, figure.writeIOPS, write),
                 sequential && figure.profile == kQueueDepthProfiles[0].name ? Style::highlight : Style::normal});
        }
        items.push_back({"clock.badge.checkmark", localized("完成时间", "Finished"),
                         text::mediumDateTimeText(result.finishedAt), Style::normal});
        addPreviousRun(items, result);
        return items;
    }
    std::vector<MetricItem> items{
        {"externaldrive.fill", localized("样本大小", "Sample Size"), sizeText(result.actualByteCount), Style::normal},
        {iconWithDrop("arrow.down.circle.fill", result, {"writeThroughput"}),
         localized("写入平均速度", "Average Write Speed"),
         valueWithChange(speedText(result.writeThroughput), result, "writeThroughput"), Style::highlight},
        {iconWithDrop("arrow.up.circle.fill", result, {"readThroughput"}),
         localized("读取平均速度", "Average Read Speed"),
         valueWithChange(speedText(result.readThroughput), result, "readThroughput"), Style::highlight},
        {iconWithDrop("square.grid.3x3.fill", result, {"randomWriteIOPS"}),
         localized("随机写入 IOPS", "Random Write IOPS"),
         valueWithChange(iopsText(result.randomWriteIOPS), result, "randomWriteIOPS"), Style::normal},
        {iconWithDrop("square.grid.3x3", result, {"randomReadIOPS"}), localized("随机读取 IOPS", "Random Read IOPS"),
         valueWithChange(iopsText(result.randomReadIOPS), result, "randomReadIOPS"), Style::normal},
        {"arrow.down.to.line.compact", localized("写入最大速度", "Peak Write Speed"),
         speedText(result.maximumWriteThroughput), Style::normal},
        {"arrow.up.to.line.compact", localized("读取最大速度", "Peak Read Speed"),
         speedText(result.maximumReadThroughput), Style::normal},
        {"clock.badge.checkmark", localized("完成时间", "Finished"), text::mediumDateTimeText(result.finishedAt),
         Style::normal},
    };
    if (!result.mode.isDefault()) {
        items.insert(items.begin() + 1,
                     {"info.circle", localized("测试方式", "Test Mode"), modeDescription(result.mode), Style::normal});
    }
    addPreviousRun(items, result);
    return items;
}

}  // namespace vantorix
