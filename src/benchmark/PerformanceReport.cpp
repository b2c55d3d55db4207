#include "benchmark/PerformanceReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "benchmark/DataSize.h"
#include "benchmark/ResultHistory.h"
#include "text/Formats.h"
#include "text/Language.h"
#include "text/Messages.h"
#include "text/Utf8.h"

namespace vantorix::report {
namespace {

using text::ByteUnits;
using text::localized;

// Chart canvas: 2400 × 1000 with a margin of 50, so the plot spans 2300 × 900 at 2.4:1.
constexpr double kWidth = 2400;
constexpr double kHeight = 1000;
constexpr double kMargin = 50;
constexpr double kPlotWidth = kWidth - 2 * kMargin;
constexpr double kPlotHeight = kHeight - 2 * kMargin;
constexpr const char* kWriteColour = "#f97316";
constexpr const char* kReadColour = "#38bdf8";

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
    std::string joined;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) joined += separator;
        joined += parts[i];
    }
    return joined;
}

// Speeds: KB, MB or GB per second.
std::string speedValue(double bytesPerSecond) {
    const double clamped = std::clamp(bytesPerSecond, 0.0, 9.2e18);
    return text::byteCountText(static_cast<std::uint64_t>(std::llround(clamped)),
                               ByteUnits::kilobytes | ByteUnits::megabytes | ByteUnits::gigabytes) +
           "/s";
}

// Capacities and the sample size: MB, GB or TB.
std::string sizeValue(std::uint64_t bytes) {
    return text::byteCountText(bytes, ByteUnits::megabytes | ByteUnits::gigabytes | ByteUnits::terabytes);
}

std::string unknown() { return localized("未知", "Unknown"); }

std::string orUnknown(const std::optional<std::string>& value) { return value && !value->empty() ? *value : unknown(); }

std::string axisLine(double x1, double y1, double x2, double y2) {
    return "<line x1=\"" + shortestDecimal(x1) + "\" y1=\"" + shortestDecimal(y1) + "\" x2=\"" + shortestDecimal(x2) +
           "\" y2=\"" + shortestDecimal(y2) + "\" stroke=\"rgba(148,163,184,0.8)\" stroke-width=\"1.5\" />";
}

std::string styleSheet() {
    static const std::pair<const char*, const char*> rules[] = {
        {"body",
         "font-family: -apple-system, BlinkMacSystemFont, \"SF Pro Display\", \"PingFang SC\", \"Segoe UI\", "
         "sans-serif; margin: 40px; background-color: #0f172a; color: #f8fafc;"},
        {"h1", "font-size: 32px; margin-bottom: 12px;"},
        {"h2", "font-size: 24px; margin-top: 32px; margin-bottom: 12px; color: #a5b4fc;"},
        {".card",
         "background: rgba(15, 23, 42, 0.7); border: 1px solid rgba(148, 163, 184, 0.25); border-radius: 16px; "
         "padding: 24px; margin-bottom: 24px; box-shadow: 0 12px 40px rgba(15, 23, 42, 0.4);"},
        {".metrics", "display: grid; grid-template-columns: repeat(auto-fit, minmax(220px, 1fr)); gap: 16px;"},
        {".metric", "background: rgba(148, 163, 184, 0.08); border-radius: 14px; padding: 16px;"},
        {".metric span", "display: block; font-size: 14px; color: #cbd5f5;"},
        {".metric strong", "display: block; font-size: 20px; margin-top: 6px;"},
        {"table", "width: 100%; border-collapse: collapse; margin-top: 16px;"},
        {"th, td", "padding: 10px; text-align: left; border-bottom: 1px solid rgba(148, 163, 184, 0.2);"},
        {"th", "background: rgba(30, 41, 59, 0.7);"},
        {"tr:nth-child(even)", "background: rgba(15, 23, 42, 0.5);"},
        {".badge",
         "display: inline-flex; align-items: center; background: rgba(59, 130, 246, 0.18); border-radius: 999px; "
         "padding: 6px 12px; margin-right: 12px; margin-bottom: 12px;"},
        {".badge span", "font-size: 14px;"},
        {".chart-wrapper", "position: relative; width: 100%;"},
        {".chart-wrapper::before", "content: \"\"; display: block; padding-top: 41.6667%;"},
        {".chart-wrapper svg",
         "position: absolute; inset: 0; width: 100%; height: 100%; background: rgba(15, 23, 42, 0.55); "
         "border-radius: 16px; padding: 0; box-sizing: border-box;"},
    };
    std::string sheet;
    for (const auto& [selector, declarations] : rules) {
        if (std::string_view(selector) == ".chart-wrapper") {
            sheet +=
                "\n        /* 导出的图表保持 2.4:1 的宽高比，宽度随父容器伸展（41.6667% = 1 ÷ 2.4）。"
                "\n           The exported chart keeps a 2.4:1 aspect ratio while its width spans the parent "
                "container (41.6667% = 1 ÷ 2.4). */";
        }
        sheet += fmt::format("\n        {} {{ {} }}", selector, declarations);
    }
    return sheet + "\n    ";
}

std::string table(const std::vector<std::string>& headers, const std::vector<std::string>& rows) {
    return "<table>\n    <thead>\n        <tr>\n            <th>" + join(headers, "</th>\n            <th>") +
           "</th>\n        </tr>\n    </thead>\n    <tbody>\n        " + join(rows, "\n        ") +
           "\n    </tbody>\n</table>";
}

std::string samplesTable(const std::vector<TimelineSample>& timeline) {
    if (timeline.empty()) return "<p>" + localized("暂无采样数据。", "No samples recorded.") + "</p>";
    std::vector<std::string> rows;
    rows.reserve(timeline.size());
    for (const auto& sample : timeline) {
        const std::string phase = sample.phase == TimelineSample::Phase::sequentialWrite ? localized("写入", "Write")
                                                                                         : localized("读取", "Read");
        rows.push_back("<tr><td>" + htmlEscaped(phase) + "</td><td>" + fmt::format("{:.2f}", sample.timestamp) +
                       "</td><td>" + htmlEscaped(speedValue(sample.throughput)) + "</td></tr>");
    }
    return table({localized("阶段", "Phase"), localized("时间 (秒)", "Time (s)"), localized("吞吐率", "Throughput")},
                 rows);
}

// The queue-depth test's eight figures: one row per profile, read and write speed and IOPS.
std::string queueDepthTable(const std::vector<QueueDepthFigure>& figures) {
    std::vector<std::string> rows;
    rows.reserve(figures.size());
    for (const auto& figure : figures) {
        rows.push_back("<tr><td>" + htmlEscaped(figure.profile) + "</td><td>" + speedValue(figure.readBytesPerSecond) +
                       "</td><td>" + fmt::format("{:.2f}", figure.readIOPS) + "</td><td>" +
                       speedValue(figure.writeBytesPerSecond) + "</td><td>" + fmt::format("{:.2f}", figure.writeIOPS) +
                       "</td></tr>");
    }
    return table({localized("测试", "Test"), localized("读取", "Read"), localized("读取 IOPS", "Read IOPS"),
                  localized("写入", "Write"), localized("写入 IOPS", "Write IOPS")},
                 rows);
}

// How a warning stands out in a card: in orange, bold.
constexpr const char* kWarningStyle = "color: #c2410c; font-weight: 600;";

std::string warningParagraphs(const std::vector<std::string>& warnings) {
    std::string paragraphs;
    for (const auto& warning : warnings) {
        paragraphs += std::string("\n        <p style=\"") + kWarningStyle + "\">" + htmlEscaped(warning) + "</p>";
    }
    return paragraphs;
}

// Each phase against the device's counters, with the warning of each phase the page cache served;
// nothing when every phase reached the device.
std::string pageCacheSection(const std::vector<PhaseTraffic>& phases) {
    const std::vector<std::string> warnings = pageCacheWarnings(phases);
    if (warnings.empty()) return {};
    const auto bytes = phaseBytesText;
    std::vector<std::string> rows;
    rows.reserve(phases.size());
    for (const auto& traffic : phases) {
        rows.push_back(
            "<tr><td>" + htmlEscaped(phaseName(traffic.phase)) + "</td><td>" + bytes(traffic.bytesMoved) + "</td><td>" +
            (traffic.deviceBytes ? bytes(*traffic.deviceBytes) : htmlEscaped(localized("不可用", "Unavailable"))) +
            "</td></tr>");
    }
    std::string section = "\n    <div class=\"card\">\n        <h2>" +
                          htmlEscaped(localized("设备核对", "Device Check")) + "</h2>";
    section += warningParagraphs(warnings);
    return section + "\n        " +
           table({localized("阶段", "Phase"), localized("传输", "Moved"), localized("设备读写", "Reached the Device")},
                 rows) +
           "\n    </div>";
}

// Each figure against the previous run of the same kind on the drive, with a warning for each drop;
// nothing without a previous run.
std::string comparisonSection(const std::optional<ResultComparison>& comparison) {
    if (!comparison) return {};
    std::vector<std::string> rows;
    rows.reserve(comparison->changes.size());
    for (const auto& change : comparison->changes) {
        const std::string style = change.dropped ? std::string(" style=\"") + kWarningStyle + "\"" : "";
        rows.push_back("<tr" + style + "><td>" + htmlEscaped(figureTitle(change.name)) + "</td><td>" +
                       htmlEscaped(figureValueText(change.name, change.previous)) + "</td><td>" +
                       htmlEscaped(figureValueText(change.name, change.current)) + "</td><td>" +
                       htmlEscaped(changeText(change.percent)) + "</td></tr>");
    }
    std::string section = "\n    <div class=\"card\">\n        <h2>" +
                          htmlEscaped(localized("与上次测试对比", "Compared With the Previous Run")) +
                          "</h2>\n        <p>" + htmlEscaped(localized("上次测试：", "Previous run: ")) +
                          htmlEscaped(text::mediumDateTimeText(comparison->previousFinishedAt)) + "</p>";
    section += warningParagraphs(dropWarnings(comparison));
    return section + "\n        " +
           table({localized("指标", "Figure"), localized("上次", "Previous"), localized("本次", "This Run"),
                  localized("变化", "Change")},
                 rows) +
           "\n    </div>";
}

std::string interfaceText(const DiskVolumeDescriptor& volume) {
    if (volume.connectionTypeDescription.empty()) return unknown();
    if (volume.connectionSpeedDescription && !volume.connectionSpeedDescription->empty()) {
        return volume.connectionTypeDescription + localized("（", " (") + *volume.connectionSpeedDescription +
               localized("）", ")");
    }
    return volume.connectionTypeDescription;
}

}  // namespace

std::string htmlEscaped(std::string_view raw) {
    // Labels and paths are bytes: what is not UTF-8 shows as U+FFFD, so the page stays valid.
    const std::string valid = text::lossyUtf8(raw);
    std::string escaped;
    escaped.reserve(valid.size());
    for (const char c : valid) {
        switch (c) {
            case '&': escaped += "&amp;"; break;
            case '"': escaped += "&quot;"; break;
            case '\'': escaped += "&#39;"; break;
            case '<': escaped += "&lt;"; break;
            case '>': escaped += "&gt;"; break;
            default: escaped += c;
        }
    }
    return escaped;
}

std::string shortestDecimal(double value) {
    std::string text = fmt::format("{}", value);
    if (std::isfinite(value) && text.find_first_of(".e") == std::string::npos) text += ".0";
    return text;
}

std::string reportBaseName(std::chrono::system_clock::time_point finishedAt) {
    return "Vantorix-Performance-" + text::fileNameTimestamp(finishedAt, true);
}

ChartLabels ChartLabels::current() {
    return {localized("时间 (秒)", "Time (seconds)"),
            localized("吞吐率（字节/秒）", "Throughput (bytes per second)"),
            localized("写入", "Write"),
            localized("读取", "Read"),
            localized("暂无采样数据", "No samples recorded"),
            localized("写入与读取吞吐率曲线", "Write and read throughput chart")};
}

std::string chartSVG(const std::vector<TimelineSample>& timeline, const ChartLabels& labels) {
    std::string svg = "<svg viewBox=\"0 0 " + shortestDecimal(kWidth) + " " + shortestDecimal(kHeight) +
                      R"(" role="img" aria-label=")" + htmlEscaped(labels.accessible) +
                      "\">\n    <rect x=\"0\" y=\"0\" width=\"" + shortestDecimal(kWidth) + "\" height=\"" +
                      shortestDecimal(kHeight) + "\" rx=\"16\" fill=\"rgba(15,23,42,0.45)\" />\n    ";

    for (const double f : {0.0, 0.25, 0.5, 0.75, 1.0}) {
        const double y = kHeight - kMargin - f * kPlotHeight;
        svg += fmt::format(
            "<line x1=\"{:.2f}\" y1=\"{:.2f}\" x2=\"{:.2f}\" y2=\"{:.2f}\" stroke=\"rgba(148,163,184,{})\" "
            "stroke-width=\"1\"/>",
            kMargin, y, kWidth - kMargin, y, f == 0.0 ? "0.6" : "0.3");
    }
    svg += "\n    " + axisLine(kMargin, kHeight - kMargin, kWidth - kMargin, kHeight - kMargin) + "\n" +
           axisLine(kMargin, kMargin, kMargin, kHeight - kMargin);

    const double timeX = kWidth / 2;
    const double timeY = kHeight - kMargin / 3;
    const double throughputX = kMargin / 1.5;
    const double throughputY = kHeight / 2;
    svg += "\n    <text x=\"" + shortestDecimal(timeX) + "\" y=\"" + shortestDecimal(timeY) +
           R"(" fill="#cbd5f5" font-size="28" text-anchor="middle">)" + htmlEscaped(labels.timeAxis) +
           "</text>\n<text x=\"" + shortestDecimal(throughputX) + "\" y=\"" + shortestDecimal(throughputY) +
           R"(" fill="#cbd5f5" font-size="28" text-anchor="middle" transform="rotate(-90 )" +
           shortestDecimal(throughputX) + " " + shortestDecimal(throughputY) + ")\">" +
           htmlEscaped(labels.throughputAxis) + "</text>";

    if (timeline.empty()) {
        svg += "\n    <text x=\"" + shortestDecimal(timeX) + "\" y=\"" + shortestDecimal(throughputY) +
               R"(" fill="#cbd5f5" font-size="32" text-anchor="middle">)" + htmlEscaped(labels.empty) + "</text>";
    } else {
        double first = timeline.front().timestamp;
        double last = first;
        double top = 1.0;
        for (const auto& sample : timeline) {
            first = std::min(first, sample.timestamp);
            last = std::max(last, sample.timestamp);
            top = std::max(top, sample.throughput);
        }
        const double span = std::max(last - first, 0.001);
        for (const auto phase : {TimelineSample::Phase::sequentialWrite, TimelineSample::Phase::sequentialRead}) {
            std::vector<std::string> points;
            for (const auto& sample : timeline) {
                if (sample.phase != phase) continue;
                const double x = kMargin + (std::max(sample.timestamp - first, 0.0) / span) * kPlotWidth;
                const double y = kHeight - kMargin - std::min(sample.throughput / top, 1.0) * kPlotHeight;
                points.push_back(fmt::format("{:.2f},{:.2f}", x, y));
            }
            if (points.empty()) continue;  // a series without samples draws nothing
            svg += "\n    <polyline points=\"" + join(points, " ") + R"(" fill="none" stroke=")" +
                   (phase == TimelineSample::Phase::sequentialWrite ? kWriteColour : kReadColour) +
                   R"(" stroke-width="2.5" stroke-linejoin="round" stroke-linecap="round"/>)";
        }
    }

    svg +=
        "\n    <g transform=\"translate(50.0, 30.0)\">\n    <rect x=\"0\" y=\"-12\" width=\"220\" height=\"24\" "
        "rx=\"12\" fill=\"rgba(15,23,42,0.6)\" />\n    <circle cx=\"16\" cy=\"0\" r=\"6\" fill=\"#f97316\" />\n    "
        "<text x=\"30\" y=\"4\" font-size=\"13\" fill=\"#f8fafc\">" +
        htmlEscaped(labels.writeLegend) +
        "</text>\n    <circle cx=\"118\" cy=\"0\" r=\"6\" fill=\"#38bdf8\" />\n    <text x=\"132\" y=\"4\" "
        "font-size=\"13\" fill=\"#f8fafc\">" +
        htmlEscaped(labels.readLegend) + "</text>\n</g>\n</svg>";
    return svg;
}

std::string smartSection(const std::optional<DiskSMARTInfo>& smart) {
    const std::string opening = "<div class=\"card\">\n    <h2>" +
                                htmlEscaped(localized("SMART 信息", "SMART Information")) + "</h2>\n    ";
    if (!smart) {
        return opening + "<p>" + localized("未检测到可用的 SMART 信息。", "No SMART information was provided.") +
               "</p>\n</div>";
    }
    std::string section = opening + "<p>" +
                          localized("以下内容来自系统的 SMART 报告。",
                                    "The information below is sourced from the system SMART report.") +
                          "</p>\n<ul>";
    const auto item = [&](const std::string& label, const std::string& value) {
        section += "\n    <li><strong>" + htmlEscaped(label) + ":</strong> " + htmlEscaped(value) + "</li>";
    };
    if (smart->overallStatus && !smart->overallStatus->empty()) {
        item(localized("总体状态", "Overall Status"), *smart->overallStatus);
    }
    if (smart->isCapable) {
        item(localized("是否支持 SMART", "SMART Capable"),
             *smart->isCapable ? localized("支持", "Supported") : localized("不支持", "Not Supported"));
    }
    section += "\n</ul>\n";
    if (smart->details.empty()) {
        section += "<p>" +
                   localized("系统未提供额外的 SMART 详细属性。",
                             "The system did not expose additional SMART attributes.") +
                   "</p>";
    } else {
        std::vector<std::string> rows;
        rows.reserve(smart->details.size());
        for (const auto& detail : smart->details) {
            rows.push_back("<tr><td>" + htmlEscaped(detail.displayName) + "</td><td>" + htmlEscaped(detail.value) +
                           "</td></tr>");
        }
        section += "<table>\n    <tr>\n        <th>" + htmlEscaped(localized("属性", "Attribute")) +
                   "</th>\n        <th>" + htmlEscaped(localized("属性值", "Value")) + "</th>\n    </tr>\n    " +
                   join(rows, "\n    ") + "\n</table>";
    }
    return section + "\n\n</div>";
}

// The summary card's facts about the volume and the sample.
std::vector<std::pair<std::string, std::string>> summaryBadges(const PerformanceResult& result,
                                                               const DiskVolumeDescriptor& volume) {
    const auto capacity = [](const std::optional<std::uint64_t>& bytes) {
        return bytes ? sizeValue(*bytes) : unknown();
    };
    std::string sampleSize = sizeValue(result.actualByteCount);
    if (result.isPayloadAdjusted) {
        sampleSize += localized("（已根据剩余容量自动调整）", "(automatically adjusted to fit free space)");
    }
    return {
        {localized("卷名", "Volume"), volume.displayName.empty() ? unknown() : volume.displayName},
        {localized("接口类型", "Interface"), interfaceText(volume)},
        {localized("文件系统", "File System"), orUnknown(volume.fileSystemDescription)},
        {localized("总容量", "Total Capacity"), capacity(volume.totalCapacityBytes)},
        {localized("剩余容量", "Free Capacity"), capacity(volume.availableCapacityBytes)},
        {localized("测试样本大小", "Sample Size"), sampleSize},
        {localized("制造商", "Manufacturer"), orUnknown(volume.hardwareVendor)},
        {localized("型号", "Model"), orUnknown(volume.hardwareModel)},
    };
}

// Each label and its value, escaped, with `between` in between.
std::vector<std::string> labelledTexts(const std::vector<std::pair<std::string, std::string>>& pairs,
                                       const std::string& between) {
    std::vector<std::string> texts;
    texts.reserve(pairs.size());
    for (const auto& [label, value] : pairs) texts.push_back(htmlEscaped(label) + between + htmlEscaped(value));
    return texts;
}

std::string reportHTML(const PerformanceResult& result, const DiskVolumeDescriptor& volume) {
    const std::string title = localized("磁盘性能测试报告", "Disk Performance Test Report");
    const std::vector<std::pair<std::string, std::string>> metrics{
        {localized("写入平均速度", "Average Write Speed"), speedValue(result.writeThroughput)},
        {localized("读取平均速度", "Average Read Speed"), speedValue(result.readThroughput)},
        {localized("随机写入 IOPS", "Random Write IOPS"), fmt::format("{:.2f}", result.randomWriteIOPS)},
        {localized("随机读取 IOPS", "Random Read IOPS"), fmt::format("{:.2f}", result.randomReadIOPS)},
        {localized("最大写入速度", "Maximum Write Speed"), speedValue(result.maximumWriteThroughput)},
        {localized("最大读取速度", "Maximum Read Speed"), speedValue(result.maximumReadThroughput)},
    };

    const std::vector<std::string> badgeTexts = labelledTexts(summaryBadges(result, volume), "：");
    const std::vector<std::string> metricTexts = labelledTexts(metrics, "</span>\n                <strong>");
    const std::string blockSize = text::byteCountText(
        static_cast<std::uint64_t>(std::max<std::int64_t>(result.randomBlockSize, 0)),
        ByteUnits::bytes | ByteUnits::kilobytes | ByteUnits::megabytes);
    const std::string randomLine = text::randomTestSummary(
        blockSize, static_cast<std::uint64_t>(std::max<std::int64_t>(result.randomOperationCount, 0)));
    const std::string finishedLine = localized("完成时间", "Finished At") + "：" +
                                     text::mediumDateTimeText(result.finishedAt);

    std::string html = "<!DOCTYPE html>\n<html lang=\"" + std::string(text::isEnglish() ? "en" : "zh-Hans") +
                       "\">\n<head>\n    <meta charset=\"utf-8\" />\n    <title>" + htmlEscaped(title) +
                       "</title>\n    <style>" + styleSheet() + "</style>\n</head>\n<body>\n    <h1>" +
                       htmlEscaped(title) + "</h1>";
    // Any other test than the standard one says how it ran, under the title.
    if (!result.mode.isDefault()) {
        html += "\n    <p class=\"mode\">" + htmlEscaped(localized("测试方式", "Test Mode")) + "：" +
                htmlEscaped(modeDescription(result.mode)) + "</p>";
    }
    const std::string badgeList = "\n    <div class=\"card\">\n        <h2>" +
                                  htmlEscaped(localized("摘要", "Summary")) +
                                  "</h2>\n        <div class=\"badge\"><span>" +
                                  join(badgeTexts, "</span></div>\n        <div class=\"badge\"><span>") +
                                  "</span></div>";
    if (result.mode.kind != TestKind::standard) {
        html += badgeList + "\n        <p>" + htmlEscaped(finishedLine) + "</p>\n    </div>";
        html += comparisonSection(result.comparison);
        html += result.sustained
                    ? sustainedSection(*result.sustained)
                    : "\n    <div class=\"card\">\n        <h2>" +
                          htmlEscaped(localized("队列深度测试", "Queue-Depth Profiles")) + "</h2>\n        " +
                          queueDepthTable(result.queueDepthFigures) + "\n    </div>\n    ";
        html += smartSection(volume.smartInfo);
        return html + "\n</body>\n</html>";
    }
    html +=
        badgeList + "\n        <div class=\"metrics\">\n            <div class=\"metric\">\n                <span>" +
        join(metricTexts, "</strong>\n            </div>\n            <div class=\"metric\">\n                <span>") +
        "</strong>\n            </div>\n        </div>\n        <p>" + htmlEscaped(randomLine) + "</p>\n        <p>" +
        htmlEscaped(finishedLine) + "</p>\n    </div>";
    html += pageCacheSection(result.phaseTraffic);
    html += comparisonSection(result.comparison);
    html += "\n    <div class=\"card\">\n        <h2>" + htmlEscaped(localized("吞吐率图表", "Throughput Chart")) +
            "</h2>\n        <div class=\"chart-wrapper\">\n            " +
            chartSVG(result.timeline, ChartLabels::current()) + "\n        </div>\n    </div>\n    ";
    html += smartSection(volume.smartInfo);
    const std::string samplesHeading = htmlEscaped(localized("采样数据", "Sampled Data"));
    html +=
        "\n    <div class=\"card\">\n        <h2>" + samplesHeading +
        "</h2>\n        <details>\n            <summary style=\"cursor: pointer; font-size: 16px; font-weight: 600;\">" +
        samplesHeading + "</summary>\n            " + samplesTable(result.timeline) +
        "\n        </details>\n    </div>\n</body>\n</html>";
    return html;
}

}  // namespace vantorix::report
