#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "charts/GraphGeometry.h"
#include "health/DriveHealth.h"
#include "health/HealthHistory.h"

namespace vantorix {

// The SMART sheet's history of a drive, everything about it that needs no pixels: one small chart
// per figure the drive reports (temperature, the wear estimate and each count that a healthy drive
// never increases), stacked over one time axis, each with a scale of its own; and, where the
// pointer hovers, the nearest reading with a marker and a bubble of its time and figures. The
// widget paints what this computes and forwards the pointer here.
//
// Readings are irregular in time: the history stores one when a figure changes and at least hourly
// while the drive is watched. A figure is drawn as steps, each reading's value held until the next
// reading; a reading without the figure, or a pause longer than kHeldFor (nobody watched the drive
// then), breaks its line.
//
// Coordinates are logical pixels with the origin at the top left of the whole chart, y downwards.
struct HealthChart {
    using Size = GraphGeometry::Size;
    using Point = GraphGeometry::Point;
    // A grid line and its label: x for the time axis, y for a value axis.
    struct Tick {
        double at = 0;
        std::string label;

        friend bool operator==(const Tick&, const Tick&) = default;
    };

    static constexpr std::int64_t kHeldFor = health::HealthHistory::kRecordAtLeastEvery.count() + std::int64_t{5} * 60;
    // The layout's fixed parts: a figure's title line above its band, the gap between figures,
    // the value labels right of the plot and the time labels below the last band.
    static constexpr double kTitleHeight = 20;
    static constexpr double kPanelGap = 10;
    static constexpr double kValueAxisWidth = 56;
    static constexpr double kTimeAxisHeight = 22;
    static constexpr double kMinimumBandHeight = 34;

    // One figure: its title line and its band, where the values run from `low` at `bottom` to
    // `high` at `top`.
    struct Panel {
        health::Figure figure = health::Figure::temperature;
        std::string title;   // "Temperature" / "温度"
        std::string latest;  // the last reading's value: "41 °C", "3%", "8"
        bool grew = false;   // a count above its baseline
        double titleTop = 0;
        double top = 0;
        double bottom = 0;
        double low = 0;
        double high = 1;
        std::vector<Tick> valueTicks;     // bottom, middle and top, labelled like `latest`
        std::optional<double> baselineY;  // a count's baseline
        // The steps, one polyline a piece; a piece of a single point is a lone reading. Readings
        // that fall into one pixel column make one vertical stroke there, so a piece has at most a
        // few points per column however many readings it holds.
        std::vector<std::vector<Point>> pieces;

        double y(double value) const;
    };

    Size size;
    std::int64_t from = 0;  // Unix seconds at plotLeft: the first reading
    std::int64_t to = 0;    // at plotRight: now, or the last reading when that is later
    double plotLeft = 0;
    double plotRight = 0;
    std::vector<Tick> timeTicks;  // whole local hours or days, labelled "14:00" or "Nov 24" / "11月24日"
    std::vector<Panel> panels;
    std::vector<double> readingX;  // every reading's x, oldest first

    double x(std::int64_t at) const;

    // The figures a chart is made for: temperature, wear and the growth figures, in that order,
    // those that some reading has.
    static std::vector<health::Figure> figuresOf(const std::vector<health::HealthSnapshot>& readings);
    // The height that gives every band of `panelCount` figures kMinimumBandHeight.
    static double minimumHeight(std::size_t panelCount);

    // The chart of `readings` (oldest first) at `size`; `growth` marks the counts that grew and
    // places their baselines. No panels without readings.
    static HealthChart make(const std::vector<health::HealthSnapshot>& readings,
                            const std::vector<health::Growth>& growth, std::int64_t now, Size size);

    // The reading closest in x to the pointer, while the pointer is over the chart (16 px around
    // the plot; the later of two equally close ones).
    std::optional<std::size_t> hovered(Point pointer) const;

    // The hover marker of reading `index`: its x and, for each panel, the height of its dot (none
    // where the reading lacks the figure).
    struct Marker {
        double x = 0;
        std::vector<std::optional<double>> dots;
    };
    Marker marker(const std::vector<health::HealthSnapshot>& readings, std::size_t index) const;

    // The bubble's texts: the reading's date and time, then one line a panel ("Temperature: 41 °C",
    // "—" where the reading lacks the figure), separated by line feeds.
    GraphGeometry::TooltipLines tooltipLines(const std::vector<health::HealthSnapshot>& readings,
                                             std::size_t index) const;
    // The bubble's top left: 12 px right of the marker, or left of it where it would pass the
    // chart's right edge; at the top of the first band, held within the chart.
    Point tooltipOrigin(const Marker& marker, Size bubble) const;

    // A value as the chart labels it: "41 °C", "3%", "1,204".
    static std::string valueText(health::Figure figure, double value);
};

}  // namespace vantorix
