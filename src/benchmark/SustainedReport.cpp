#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "benchmark/PerformanceMetrics.h"
#include "benchmark/PerformanceReport.h"
#include "text/Formats.h"
#include "text/Language.h"

namespace vantorix::report {
namespace {

using text::localized;

// The sustained chart's canvas: 2400 × 1000 like the throughput chart, with room for the
// figures of both vertical axes and of the horizontal one.
constexpr double kChartWidth = 2400;
constexpr double kChartHeight = 1000;
constexpr double kLeft = 150;
constexpr double kRight = 2250;
constexpr double kTop = 70;
constexpr double kBottom = 880;
constexpr const char* kSpeedColour = "#f97316";
constexpr const char* kTemperatureColour = "#f43f5e";
constexpr const char* kMarkColour = "#facc15";
constexpr const char* kInk = "#cbd5f5";

constexpr double kMegabyte = 1e6;
constexpr double kGigabyte = 1e9;

// The smallest of 1, 2, 4 and 8 times a power of ten that is at least `value`: a top for an axis
// whose four equal steps are round.
double roundedUp(double value) {
    if (value <= 0) return 1;
    const double power = std::pow(10.0, std::floor(std::log10(value)));
    for (const double factor : {1.0, 2.0, 4.0, 8.0, 10.0}) {
        if (factor * power >= value) return factor * power;
    }
    return 10 * power;
}

std::string number(double value) { return text::decimalText(value, 0, value < 10 ? 2 : 0); }

std::string textAt(double x, double y, const std::string& anchor, const std::string& content, int size = 24,
                   const char* colour = kInk) {
    return fmt::format(
        "\n    <text x=\"{:.2f}\" y=\"{:.2f}\" fill=\"{}\" font-size=\"{}\" text-anchor=\"{}\">{}</text>", x, y, colour,
        size, anchor, htmlEscaped(content));
}

std::string lineAt(double x1, double y1, double x2, double y2, const char* stroke, double width,
                   const char* extra = "") {
    return fmt::format(
        "\n    <line x1=\"{:.2f}\" y1=\"{:.2f}\" x2=\"{:.2f}\" y2=\"{:.2f}\" stroke=\"{}\" stroke-width=\"{}\"{} />",
        x1, y1, x2, y2, stroke, width, extra);
}

// The range of the temperatures taken with five degrees to spare, four steps of a multiple of five
// degrees; nothing without any.
std::optional<std::pair<double, double>> temperatureRange(const std::vector<SustainedPoint>& points) {
    std::optional<std::pair<double, double>> range;
    for (const auto& point : points) {
        if (!point.celsius) continue;
        if (!range) range = std::pair{*point.celsius, *point.celsius};
        range->first = std::min(range->first, *point.celsius);
        range->second = std::max(range->second, *point.celsius);
    }
    if (!range) return range;
    range->first = std::floor(range->first / 5) * 5 - 5;
    range->second = range->first + std::max(20.0, std::ceil((range->second + 5 - range->first) / 20) * 20);
    return range;
}

// The metric cards of the sustained-write test.
std::string sustainedMetrics(const SustainedWriteFigures& figures) {
    std::vector<std::pair<std::string, std::string>> metrics{
        {localized("写入量", "Written"), PerformanceMetrics::sizeText(figures.bytesWritten)},
        {localized("写入平均速度", "Average Write Speed"),
         PerformanceMetrics::speedText(figures.averageBytesPerSecond)},
        {localized("前 10 秒平均速度", "First 10 s Average"),
         PerformanceMetrics::speedText(figures.initialBytesPerSecond)},
        {localized("速度骤降点", "Speed Cliff"),
         figures.cliff ? PerformanceMetrics::sizeText(figures.cliff->bytes) : localized("无", "None")},
    };
    if (figures.cliff) {
        metrics.emplace_back(localized("骤降前速度", "Speed Before"),
                             PerformanceMetrics::speedText(figures.cliff->speedBefore));
        metrics.emplace_back(localized("骤降后速度", "Speed After"),
                             PerformanceMetrics::speedText(figures.cliff->speedAfter));
    }
    metrics.emplace_back(localized("稳定速度", "Steady Speed"),
                         PerformanceMetrics::speedText(figures.steadyBytesPerSecond));
    metrics.emplace_back(
        localized("提前结束", "Stopped Early"),
        figures.stoppedEarly ? localized("是（速度已稳定）", "Yes (speed steady)") : localized("否", "No"));
    std::string html = "\n        <div class=\"metrics\">";
    for (const auto& [label, value] : metrics) {
        html += "\n            <div class=\"metric\">\n                <span>" + htmlEscaped(label) +
                "</span>\n                <strong>" + htmlEscaped(value) + "</strong>\n            </div>";
    }
    return html + "\n        </div>\n        <p>" + htmlEscaped(PerformanceMetrics::cliffSentence(figures)) + "</p>";
}

// Every point: data written, time, the step's speed and the temperature.
std::string pointsTable(const std::vector<SustainedPoint>& points) {
    std::string rows;
    for (const auto& point : points) {
        rows += "\n            <tr><td>" + fmt::format("{:.3f}", static_cast<double>(point.bytesWritten) / kGigabyte) +
                "</td><td>" + fmt::format("{:.2f}", point.seconds) + "</td><td>" +
                fmt::format("{:.1f}", point.bytesPerSecond / kMegabyte) + "</td><td>" +
                (point.celsius ? fmt::format("{:.0f}", *point.celsius) : std::string("–")) + "</td></tr>";
    }
    return "<table>\n            <tr><th>" + htmlEscaped(localized("已写入 (GB)", "Written (GB)")) + "</th><th>" +
           htmlEscaped(localized("时间 (秒)", "Time (s)")) + "</th><th>" +
           htmlEscaped(localized("速度 (MB/s)", "Speed (MB/s)")) + "</th><th>" +
           htmlEscaped(localized("温度 (°C)", "Temperature (°C)")) + "</th></tr>" + rows + "\n        </table>";
}

// Where the chart puts a speed, an amount written and a temperature.
struct ChartScale {
    double topSpeed = 1;      // MB/s at the top
    double topGigabytes = 1;  // GB at the right
    std::optional<std::pair<double, double>> temperatures;

    explicit ChartScale(const SustainedWriteFigures& figures) : temperatures(temperatureRange(figures.points)) {
        for (const auto& point : figures.points) topSpeed = std::max(topSpeed, point.bytesPerSecond / kMegabyte);
        topSpeed = roundedUp(topSpeed);
        topGigabytes = roundedUp(std::max(static_cast<double>(figures.bytesWritten) / kGigabyte, 0.001));
    }
    double x(double bytes) const { return kLeft + bytes / kGigabyte / topGigabytes * (kRight - kLeft); }
    double ySpeed(double bytesPerSecond) const {
        return kBottom - std::min(bytesPerSecond / kMegabyte / topSpeed, 1.0) * (kBottom - kTop);
    }
    double yTemperature(double celsius) const {
        return kBottom -
               (celsius - temperatures->first) / (temperatures->second - temperatures->first) * (kBottom - kTop);
    }
};

// Grid, axes, their figures (four steps on each) and their titles.
std::string axes(const ChartScale& scale) {
    std::string svg;
    for (int step = 0; step <= 4; ++step) {
        const double fraction = step / 4.0;
        const double y = kBottom - fraction * (kBottom - kTop);
        svg += lineAt(kLeft, y, kRight, y, step == 0 ? "rgba(148,163,184,0.8)" : "rgba(148,163,184,0.3)", 1.5);
        svg += textAt(kLeft - 14, y + 8, "end", number(fraction * scale.topSpeed));
        svg += textAt(kLeft + fraction * (kRight - kLeft), kBottom + 36, "middle",
                      number(fraction * scale.topGigabytes));
        if (const auto& range = scale.temperatures) {
            svg += textAt(kRight + 14, y + 8, "start", number(range->first + fraction * (range->second - range->first)),
                          24, kTemperatureColour);
        }
    }
    svg += lineAt(kLeft, kTop, kLeft, kBottom, "rgba(148,163,184,0.8)", 1.5);
    svg += textAt((kLeft + kRight) / 2, kBottom + 86, "middle", localized("已写入 (GB)", "Data written (GB)"), 28);
    svg += fmt::format(
        "\n    <text x=\"44\" y=\"{0:.2f}\" fill=\"{1}\" font-size=\"28\" text-anchor=\"middle\" "
        "transform=\"rotate(-90 44 {0:.2f})\">{2}</text>",
        (kTop + kBottom) / 2, kInk, htmlEscaped(localized("写入速度 (MB/s)", "Write speed (MB/s)")));
    if (scale.temperatures) {
        svg += lineAt(kRight, kTop, kRight, kBottom, "rgba(244,63,94,0.6)", 1.5);
        svg += fmt::format(
            "\n    <text x=\"2362\" y=\"{0:.2f}\" fill=\"{1}\" font-size=\"28\" text-anchor=\"middle\" "
            "transform=\"rotate(90 2362 {0:.2f})\">{2}</text>",
            (kTop + kBottom) / 2, kTemperatureColour, htmlEscaped(localized("温度 (°C)", "Temperature (°C)")));
    }
    return svg;
}

// Each step at its speed from the point before it to its own, and the steady speed across.
std::string speedLines(const SustainedWriteFigures& figures, const ChartScale& scale) {
    std::string steps;
    double from = 0;
    for (const auto& point : figures.points) {
        const double y = scale.ySpeed(point.bytesPerSecond);
        steps += fmt::format("{}{:.2f},{:.2f} {:.2f},{:.2f}", steps.empty() ? "" : " ", scale.x(from), y,
                             scale.x(static_cast<double>(point.bytesWritten)), y);
        from = static_cast<double>(point.bytesWritten);
    }
    std::string svg = fmt::format(
        "\n    <polyline points=\"{}\" fill=\"none\" stroke=\"{}\" stroke-width=\"3\" stroke-linejoin=\"round\" />",
        steps, kSpeedColour);
    const double steadyY = scale.ySpeed(figures.steadyBytesPerSecond);
    svg += lineAt(kLeft, steadyY, kRight, steadyY, "rgba(248,250,252,0.55)", 2, " stroke-dasharray=\"6 10\"");
    svg += textAt(kRight - 8, steadyY - 12, "end",
                  localized("稳定速度 ", "Steady ") + PerformanceMetrics::speedText(figures.steadyBytesPerSecond), 22,
                  "#f8fafc");
    return svg;
}

// The temperatures taken, dotted, on the right-hand axis.
std::string temperatureLine(const std::vector<SustainedPoint>& points, const ChartScale& scale) {
    std::string line;
    for (const auto& point : points) {
        if (!point.celsius) continue;
        line += fmt::format("{}{:.2f},{:.2f}", line.empty() ? "" : " ",
                            scale.x(static_cast<double>(point.bytesWritten)), scale.yTemperature(*point.celsius));
    }
    return fmt::format(
        "\n    <polyline points=\"{}\" fill=\"none\" stroke=\"{}\" stroke-width=\"2.5\" "
        "stroke-dasharray=\"2 6\" stroke-linecap=\"round\" />",
        line, kTemperatureColour);
}

// A vertical line where the speed fell, labelled on the side with more room.
std::string cliffMark(const SustainedCliff& cliff, const ChartScale& scale) {
    const double x = scale.x(static_cast<double>(cliff.bytes));
    const bool leftOfLine = x > (kLeft + kRight) / 2;
    return lineAt(x, kTop, x, kBottom, kMarkColour, 2.5, " stroke-dasharray=\"12 8\"") +
           textAt(x + (leftOfLine ? -12 : 12), kTop + 30, leftOfLine ? "end" : "start",
                  localized("速度骤降点 ", "Cliff at ") + PerformanceMetrics::sizeText(cliff.bytes), 26, kMarkColour);
}

std::string legend(bool withTemperature) {
    std::string svg = fmt::format(
        "\n    <g transform=\"translate({:.1f}, 34.0)\">\n    <circle cx=\"16\" cy=\"0\" r=\"6\" fill=\"{}\" />{}",
        kLeft, kSpeedColour, textAt(30, 7, "start", localized("写入速度", "Write speed"), 22, "#f8fafc"));
    if (withTemperature) {
        svg += fmt::format("\n    <circle cx=\"236\" cy=\"0\" r=\"6\" fill=\"{}\" />{}", kTemperatureColour,
                           textAt(250, 7, "start", localized("硬盘温度", "Drive temperature"), 22, "#f8fafc"));
    }
    return svg + "\n    </g>";
}

}  // namespace

std::string sustainedChartSVG(const SustainedWriteFigures& figures) {
    const ChartScale scale(figures);
    std::string svg = fmt::format(
        "<svg viewBox=\"0 0 {0} {1}\" role=\"img\" aria-label=\"{2}\">\n    <rect x=\"0\" y=\"0\" width=\"{0}\" "
        "height=\"{1}\" rx=\"16\" fill=\"rgba(15,23,42,0.45)\" />",
        kChartWidth, kChartHeight,
        htmlEscaped(localized("写入速度随写入量变化的曲线", "Write speed against the data written")));
    svg += axes(scale);
    if (figures.points.empty()) {
        return svg +
               textAt((kLeft + kRight) / 2, (kTop + kBottom) / 2, "middle",
                      localized("暂无采样数据", "No samples recorded"), 32) +
               "\n</svg>";
    }
    svg += speedLines(figures, scale);
    if (scale.temperatures) svg += temperatureLine(figures.points, scale);
    if (figures.cliff) svg += cliffMark(*figures.cliff, scale);
    return svg + legend(scale.temperatures.has_value()) + "\n</svg>";
}

std::string sustainedSection(const SustainedWriteFigures& figures) {
    const std::string samplesHeading = htmlEscaped(localized("采样数据", "Sampled Data"));
    return "\n    <div class=\"card\">\n        <h2>" + htmlEscaped(localized("持续写入", "Sustained Write")) +
           "</h2>" + sustainedMetrics(figures) + "\n    </div>\n    <div class=\"card\">\n        <h2>" +
           htmlEscaped(localized("写入速度图表", "Write Speed Chart")) +
           "</h2>\n        <div class=\"chart-wrapper\">\n            " + sustainedChartSVG(figures) +
           "\n        </div>\n    </div>\n    <div class=\"card\">\n        <h2>" + samplesHeading +
           "</h2>\n        <details>\n            <summary style=\"cursor: pointer; font-size: 16px; font-weight: "
           "600;\">" +
           samplesHeading + "</summary>\n        " + pointsTable(figures.points) +
           "\n        </details>\n    </div>\n    ";
}

}  // namespace vantorix::report
