#include "charts/HealthChart.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <ctime>
#include <iterator>
#include <limits>
#include <tuple>
#include <utility>

#include "text/Formats.h"
#include "text/Language.h"

namespace vantorix {
namespace {

using health::Figure;
using health::HealthSnapshot;

constexpr double kPlotInset = 6;         // room for a dot at the left edge
constexpr double kTickSpacing = 72;      // at least this much between time labels
constexpr double kTimeLabelHalf = 30;    // half a time label's width, kept inside the chart
constexpr double kHoverMargin = 16;      // around the plot, where the pointer still hovers
constexpr double kTooltipDistance = 12;  // between the marker and the bubble
constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 24 * kHour;

std::tm localParts(std::int64_t at) {
    const auto seconds = static_cast<std::time_t>(at);
    std::tm parts{};
    ::localtime_r(&seconds, &parts);
    return parts;
}

// The local calendar day of `parts` as a count of days since 1970-01-01.
std::int64_t dayNumber(const std::tm& parts) {
    using namespace std::chrono;
    const year_month_day date{year(parts.tm_year + 1900), month(static_cast<unsigned>(parts.tm_mon + 1)),
                              day(static_cast<unsigned>(parts.tm_mday))};
    return sys_days(date).time_since_epoch().count();
}

// The local midnight that starts the day `days` after the day of `parts`.
std::int64_t midnightAfter(std::tm parts, int days) {
    parts.tm_mday += days;
    parts.tm_hour = 0;
    parts.tm_min = 0;
    parts.tm_sec = 0;
    parts.tm_isdst = -1;
    return static_cast<std::int64_t>(::mktime(&parts));
}

std::string dateLabel(const std::tm& parts) {
    static constexpr std::array<const char*, 12> kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const auto month = static_cast<std::size_t>(std::clamp(parts.tm_mon, 0, 11));
    return text::isEnglish() ? fmt::format("{} {}", kMonths[month], parts.tm_mday)
                             : fmt::format("{}月{}日", parts.tm_mon + 1, parts.tm_mday);
}

// Ticks at whole local times between `from` and `to` (Unix seconds), at most one per kTickSpacing
// of `width`: every 10, 15 or 30 minutes, 1, 2, 3, 6 or 12 hours (labelled with the time, or the
// date at midnight), or every 1, 2, 7, 14, 28 or 56 days (at midnight, the weeks' on Mondays).
std::vector<std::pair<std::int64_t, std::string>> localTimeTicks(std::int64_t from, std::int64_t to, double width) {
    const auto most = std::max<std::int64_t>(1, static_cast<std::int64_t>(width / kTickSpacing));
    const std::int64_t span = to - from;
    static constexpr std::array<std::int64_t, 14> kSteps{600,       900,       1800,       kHour,    2 * kHour,
                                                         3 * kHour, 6 * kHour, 12 * kHour, kDay,     2 * kDay,
                                                         7 * kDay,  14 * kDay, 28 * kDay,  56 * kDay};
    const auto fits = std::find_if(kSteps.begin(), kSteps.end(),
                                   [&](std::int64_t step) { return span / step <= most; });
    const std::int64_t step = fits == kSteps.end() ? kSteps.back() * (span / kSteps.back() / most + 1) : *fits;
    std::vector<std::pair<std::int64_t, std::string>> ticks;
    if (step < kDay) {
        const std::tm first = localParts(from);
        const std::int64_t ofDay = first.tm_hour * kHour + first.tm_min * 60LL + first.tm_sec;
        for (std::int64_t at = from + (step - ofDay % step) % step; at <= to; at += step) {
            const std::tm parts = localParts(at);
            const bool midnight = parts.tm_hour == 0 && parts.tm_min == 0;
            ticks.emplace_back(at,
                               midnight ? dateLabel(parts) : fmt::format("{:02}:{:02}", parts.tm_hour, parts.tm_min));
        }
        return ticks;
    }
    const std::int64_t days = step / kDay;
    std::tm day = localParts(from);
    for (std::int64_t at = midnightAfter(day, 0) < from ? midnightAfter(day, 1) : midnightAfter(day, 0); at <= to;
         at = midnightAfter(day, 1)) {
        day = localParts(at);
        // Day 0 was a Thursday: shifted by 3, a week's ticks fall on Mondays.
        if ((dayNumber(day) + 3) % days == 0) ticks.emplace_back(at, dateLabel(day));
    }
    return ticks;
}

// The smallest of 2, 4 and 10 × 10^k that holds `value` and `least`: a top whose half is a whole
// number.
double roundTop(double value, double least) {
    const double target = std::max(value, least);
    if (!std::isfinite(target)) return least;
    for (double power = 1; power < 1e300; power *= 10) {
        for (const double factor : {2.0, 4.0, 10.0})
            if (factor * power >= target) return factor * power;
    }
    return target;
}

// The band's values: temperatures on whole 5 °C around what was read, at least 10 °C; the wear
// from 0 to at least 10%; counts from 0 to at least 2, above their baseline too.
std::pair<double, double> bandRange(Figure figure, double lowest, double highest) {
    if (figure == Figure::temperature) {
        const double low = std::floor((lowest - 1) / 5) * 5;
        double high = std::max(std::ceil((highest + 1) / 5) * 5, low + 10);
        if (std::fmod(high - low, 10) != 0) high += 5;
        return {low, high};
    }
    return {0, roundTop(highest, figure == Figure::percentageUsed ? 10 : 2)};
}

// Adds the reading at (x, y) to a piece of steps, holding the value before it until x. Readings in
// the pixel column of the one before make one vertical stroke with it: the piece keeps the
// column's entry, lowest, highest and last point.
struct StepBuilder {
    std::vector<HealthChart::Point>* piece = nullptr;
    std::size_t columnStart = 0;
    double column = 0;
    std::optional<double> entry;
    double low = 0;
    double high = 0;

    void add(double x, double y) {
        if (!piece->empty() && std::floor(x) == column) {
            low = std::min(low, y);
            high = std::max(high, y);
        } else {
            entry = piece->empty() ? std::nullopt : std::optional<double>(piece->back().y);
            columnStart = piece->size();
            column = std::floor(x);
            low = high = y;
        }
        const double at = piece->size() > columnStart ? (*piece)[columnStart].x : x;
        piece->resize(columnStart);
        for (const auto& tail : {entry, std::optional<double>(low), std::optional<double>(high), std::optional(y)}) {
            if (tail && (piece->size() == columnStart || piece->back().y != *tail)) piece->push_back({at, *tail});
        }
    }
};

}  // namespace

double HealthChart::Panel::y(double value) const { return bottom - (value - low) / (high - low) * (bottom - top); }

double HealthChart::x(std::int64_t at) const {
    return plotLeft + static_cast<double>(at - from) / static_cast<double>(to - from) * (plotRight - plotLeft);
}

std::vector<Figure> HealthChart::figuresOf(const std::vector<HealthSnapshot>& readings) {
    std::vector<Figure> order{Figure::temperature, Figure::percentageUsed};
    order.insert(order.end(), health::kGrowthFigures.begin(), health::kGrowthFigures.end());
    std::vector<Figure> figures;
    for (const Figure figure : order) {
        if (std::any_of(readings.begin(), readings.end(), [&](const auto& reading) { return reading[figure]; }))
            figures.push_back(figure);
    }
    return figures;
}

double HealthChart::minimumHeight(std::size_t panelCount) {
    const auto n = static_cast<double>(panelCount);
    return kTimeAxisHeight + n * (kTitleHeight + kMinimumBandHeight) + std::max(n - 1, 0.0) * kPanelGap;
}

HealthChart HealthChart::make(const std::vector<HealthSnapshot>& readings, const std::vector<health::Growth>& growth,
                              std::int64_t now, Size size) {
    HealthChart chart;
    chart.size = size;
    if (readings.empty()) return chart;
    chart.to = std::max(now, readings.back().at);
    chart.from = std::min(readings.front().at, chart.to - kHour);
    chart.plotLeft = kPlotInset;
    chart.plotRight = std::max(size.width - kValueAxisWidth, chart.plotLeft + 1);
    for (auto& [at, label] : localTimeTicks(chart.from, chart.to, chart.plotRight - chart.plotLeft)) {
        const double x = chart.x(at);
        if (x - kTimeLabelHalf >= 0 && x + kTimeLabelHalf <= size.width)
            chart.timeTicks.push_back({x, std::move(label)});
    }
    chart.readingX.reserve(readings.size());
    for (const auto& reading : readings) chart.readingX.push_back(chart.x(reading.at));

    const auto figures = figuresOf(readings);
    const auto count = static_cast<double>(figures.size());
    const double band = std::max(
        (size.height - kTimeAxisHeight - count * kTitleHeight - (count - 1) * kPanelGap) / count, kMinimumBandHeight);
    for (std::size_t i = 0; i < figures.size(); ++i) {
        Panel panel;
        panel.figure = figures[i];
        panel.title = health::figureTitle(panel.figure);
        panel.titleTop = static_cast<double>(i) * (kTitleHeight + band + kPanelGap);
        panel.top = panel.titleTop + kTitleHeight;
        panel.bottom = panel.top + band;
        double lowest = std::numeric_limits<double>::infinity();
        double highest = -std::numeric_limits<double>::infinity();
        for (const auto& reading : readings) {
            if (const auto& value = reading[panel.figure]) {
                lowest = std::min(lowest, *value);
                highest = std::max(highest, *value);
                panel.latest = valueText(panel.figure, *value);
            }
        }
        const auto baseline = std::find_if(growth.begin(), growth.end(),
                                           [&](const health::Growth& entry) { return entry.figure == panel.figure; });
        if (baseline != growth.end()) highest = std::max(highest, baseline->baseline);
        std::tie(panel.low, panel.high) = bandRange(panel.figure, lowest, highest);
        for (const double value : {panel.low, (panel.low + panel.high) / 2, panel.high})
            panel.valueTicks.push_back({panel.y(value), valueText(panel.figure, value)});
        if (baseline != growth.end()) {
            panel.baselineY = panel.y(baseline->baseline);
            panel.grew = baseline->amount() > 0;
        }

        StepBuilder steps;
        std::optional<std::int64_t> previousAt;
        for (std::size_t k = 0; k < readings.size(); ++k) {
            const auto& value = readings[k][panel.figure];
            if (!value || !previousAt || readings[k].at - *previousAt > kHeldFor) steps.piece = nullptr;
            previousAt = value ? std::optional(readings[k].at) : std::nullopt;
            if (!value) continue;
            if (steps.piece == nullptr) steps.piece = &panel.pieces.emplace_back();
            steps.add(chart.readingX[k], panel.y(*value));
        }
        chart.panels.push_back(std::move(panel));
    }
    return chart;
}

std::optional<std::size_t> HealthChart::hovered(Point pointer) const {
    if (readingX.empty() || pointer.x < plotLeft - kHoverMargin || pointer.x > plotRight + kHoverMargin ||
        pointer.y < -kHoverMargin || pointer.y > size.height + kHoverMargin)
        return std::nullopt;
    const auto after = std::lower_bound(readingX.begin(), readingX.end(), pointer.x);
    if (after == readingX.end()) return readingX.size() - 1;
    std::size_t index = static_cast<std::size_t>(after - readingX.begin());
    // Of equal x, the last; of two neighbours, the closer, the later on a tie.
    while (index + 1 < readingX.size() && readingX[index + 1] == readingX[index]) ++index;
    if (after != readingX.begin() && pointer.x - *std::prev(after) < *after - pointer.x)
        index = static_cast<std::size_t>(std::prev(after) - readingX.begin());
    return index;
}

HealthChart::Marker HealthChart::marker(const std::vector<HealthSnapshot>& readings, std::size_t index) const {
    Marker marker;
    marker.x = std::clamp(readingX[index], plotLeft, plotRight);
    for (const Panel& panel : panels) {
        const auto& value = readings[index][panel.figure];
        marker.dots.push_back(value ? std::optional(panel.y(*value)) : std::nullopt);
    }
    return marker;
}

GraphGeometry::TooltipLines HealthChart::tooltipLines(const std::vector<HealthSnapshot>& readings,
                                                      std::size_t index) const {
    const auto& reading = readings[index];
    GraphGeometry::TooltipLines lines;
    lines.primary = text::mediumDateTimeText(std::chrono::system_clock::from_time_t(reading.at));
    for (const Panel& panel : panels) {
        const auto& value = reading[panel.figure];
        if (!lines.secondary.empty()) lines.secondary += '\n';
        lines.secondary += panel.title + text::localized("：", ": ") + (value ? valueText(panel.figure, *value) : "—");
    }
    return lines;
}

HealthChart::Point HealthChart::tooltipOrigin(const Marker& marker, Size bubble) const {
    double x = marker.x + kTooltipDistance;
    if (x + bubble.width > size.width) x = marker.x - kTooltipDistance - bubble.width;
    const double top = panels.empty() ? 0 : panels.front().top;
    return {std::max(x, 0.0), std::max(std::min(top, size.height - bubble.height), 0.0)};
}

std::string HealthChart::valueText(Figure figure, double value) {
    if (figure == Figure::temperature) return text::decimalText(value, 0, 1) + " °C";
    if (figure == Figure::percentageUsed) return text::percentText(value / 100, 0);
    return text::decimalText(value, 0, health::isGrowthFigure(figure) ? 0 : 2);
}

}  // namespace vantorix
