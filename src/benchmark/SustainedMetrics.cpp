#include <fmt/format.h>

#include "benchmark/PerformanceMetrics.h"
#include "benchmark/ResultHistory.h"
#include "text/Formats.h"
#include "text/Language.h"

namespace vantorix {

using text::localized;
using Style = MetricItem::Style;

std::string PerformanceMetrics::cliffSentence(const SustainedWriteFigures& figures) {
    if (figures.cliff) {
        const auto& cliff = *figures.cliff;
        return text::isEnglish() ? fmt::format("Write speed fell at {}: {} before, {} after", sizeText(cliff.bytes),
                                               speedText(cliff.speedBefore), speedText(cliff.speedAfter))
                                 : fmt::format("写入速度在 {} 处下降：之前 {}，之后 {}", sizeText(cliff.bytes),
                                               speedText(cliff.speedBefore), speedText(cliff.speedAfter));
    }
    const std::string window = text::decimalText(kSustainedWindowSeconds, 0, 0);
    if (figures.seconds <= kSustainedWindowSeconds) {
        return text::isEnglish() ? fmt::format("No cliff: the test wrote for less than {} s, too short to tell", window)
                                 : fmt::format("没有速度骤降：测试写入不足 {} 秒，无法判断", window);
    }
    const std::string share = text::percentText(kCliffRatio, 0);
    const std::string initial = speedText(figures.initialBytesPerSecond);
    return text::isEnglish()
               ? fmt::format("No cliff: the write speed stayed above {} of its first {} s ({})", share, window, initial)
               : fmt::format("没有速度骤降：写入速度始终高于前 {} 秒（{}）的 {}", window, initial, share);
}

std::vector<MetricItem> PerformanceMetrics::sustainedItems(const PerformanceResult& result,
                                                           const SustainedWriteFigures& figures) {
    std::string written = sizeText(figures.bytesWritten);
    if (figures.stoppedEarly) written += localized("（速度稳定，提前结束）", " (speed steady, stopped early)");
    std::vector<MetricItem> items{
        {"externaldrive.fill", localized("写入量", "Written"), written, Style::normal},
        {"info.circle", localized("测试方式", "Test Mode"), modeDescription(result.mode), Style::normal},
        {iconWithDrop("arrow.down.circle.fill", result, {"averageWriteThroughput"}),
         localized("写入平均速度", "Average Write Speed"),
         valueWithChange(speedText(figures.averageBytesPerSecond), result, "averageWriteThroughput"), Style::highlight},
    };
    if (figures.cliff) {
        items.push_back({"arrow.down.to.line.compact", localized("速度骤降点", "Speed Cliff"),
                         sizeText(figures.cliff->bytes), Style::normal});
        items.push_back({"speedometer", localized("骤降前 → 骤降后", "Before → After"),
                         speedText(figures.cliff->speedBefore) + " → " + speedText(figures.cliff->speedAfter),
                         Style::normal});
    } else {
        items.push_back({"arrow.down.to.line.compact", localized("速度骤降点", "Speed Cliff"), localized("无", "None"),
                         Style::placeholder});
    }
    items.push_back(
        {iconWithDrop("gauge.with.needle", result, {"steadyWriteThroughput"}), localized("稳定速度", "Steady Speed"),
         valueWithChange(speedText(figures.steadyBytesPerSecond), result, "steadyWriteThroughput"), Style::highlight});
    items.push_back({"clock.badge.checkmark", localized("完成时间", "Finished"),
                     text::mediumDateTimeText(result.finishedAt), Style::normal});
    return items;
}

}  // namespace vantorix
