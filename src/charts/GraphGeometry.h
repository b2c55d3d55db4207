#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "charts/ChartExportSupport.h"
#include "charts/DiskIOGraphRendererCache.h"
#include "charts/SampleWindow.h"

namespace vantorix {

// The dashboard's live throughput graph, everything about it that needs no pixels: where the
// sample slots lie at a zoom and shift, which samples are visible, the axis ticks and labels,
// which point the pointer hovers, the tooltip's texts and place, and what a pinch or drag
// commits. The widget paints what these compute and forwards its input here.
//
// Coordinates are the graph's own: logical pixels, origin at the top left of the plot, y
// downwards. The graph holds a fixed number of sample slots that fill from the right: the newest
// sample is at the right edge, and with fewer samples than slots the empty slots lead on the left.
struct GraphGeometry {
    static constexpr std::int64_t totalSlotCount = 256;
    static constexpr double minScale = 1.0;
    static constexpr double maxScale = 400.0;

    using Points = std::vector<IndexedSample>;
    // Time ticks: value in milliseconds ago, position 1 at the right edge (now) down to 0 at the
    // left. Throughput ticks: value in bytes per second, position 0 at the bottom up to 1 at the top.
    using AxisTick = ChartExportSupport::AxisTick;

    struct Size {
        double width = 0;
        double height = 0;
    };

    struct Point {
        double x = 0;
        double y = 0;

        friend bool operator==(const Point&, const Point&) = default;
    };

    // What the graph shows and how it is zoomed and shifted. `scale` and `offset` are the
    // committed zoom and shift (offset in pixels); `magnifyBy` and `dragTranslation` are a pinch
    // and a drag while they run (1 and 0 otherwise).
    struct View {
        std::int64_t sampleCount = 0;
        std::int64_t leadingPaddingCount = 0;
        std::int64_t totalSlotCount = GraphGeometry::totalSlotCount;
        double scale = 1;
        double offset = 0;
        double magnifyBy = 1;
        double dragTranslation = 0;
    };

    // Where the slots lie: the sample with index i of the shown list is at x = shift + i × spacing.
    struct Slots {
        std::int64_t slotCount = 1;
        double spacing = 0;
        double paddingWidth = 0;  // the width of the empty slots in front of the oldest sample
        double shift = 0;

        double x(std::int64_t index) const { return shift + static_cast<double>(index) * spacing; }
    };

    // The number of empty slots in front of `sampleCount` samples.
    static std::int64_t leadingPaddingCount(std::int64_t sampleCount);
    // A view of `sampleCount` samples with its leading padding, at a committed zoom and shift.
    static View viewOf(std::int64_t sampleCount, double scale, double offset);

    // scale × magnifyBy held within minScale … maxScale.
    static double effectiveScale(double scale, double magnifyBy);
    static Slots slots(const View& view, double width);
    // The indices of the samples on screen (with one more on either side), never empty when there
    // are samples.
    static SampleRange visibleRange(std::int64_t sampleCount, const Slots& slots, double width);
    // How many points the downsampling cache makes for a graph this wide: two per pixel.
    static std::int64_t pointTargetCount(double width);

    // ---- axes ----

    // Five ticks from 0 to the smallest of 1, 10 and 100 GB/s that holds the highest drawn speed
    // (or the next multiple of 100 GB/s above it); a single 0 without speeds.
    static std::vector<AxisTick> throughputTicks(const Points& points);
    // Pixels per byte per second: the height over the top tick, or 0 when the top is 0.
    static double yScale(const std::vector<AxisTick>& throughputTicks, double height);
    static double speedY(double speed, double yScale, double height) { return height - speed * yScale; }

    // Ticks of time ago over the whole slot window, at a nice step rounded up to whole sampling
    // intervals, with "now" (0, at the right) and the window's span (at the left) always present.
    // They depend on the interval and slot count alone, not on zoom or shift.
    static std::vector<AxisTick> timeTicks(std::int64_t sampleIntervalMs, std::int64_t slotCount);

    struct Label {
        AxisTick tick;
        std::string text;

        friend bool operator==(const Label&, const Label&) = default;
    };
    // "5 s ago" / "5 秒前" for the inner ticks; the first and last tick and ticks closer to now than
    // one sampling interval have none.
    static std::vector<Label> timeLabels(const std::vector<AxisTick>& timeTicks, std::int64_t sampleIntervalMs);
    static std::vector<Label> throughputLabels(const std::vector<AxisTick>& throughputTicks);

    // x positions of the slot grid lines from the left edge to the right edge.
    static std::vector<double> slotGridPositions(const Slots& slots, double width);

    // ---- one frame ----

    // Everything a frame draws apart from the hover marker. `plotted` are the downsampling cache's
    // points; they are drawn only when some sample is visible.
    struct Frame {
        Slots slots;
        SampleRange visibleRange;
        Points drawn;
        std::vector<AxisTick> throughputTicks;
        double yScale = 0;
        std::vector<AxisTick> timeTicks;
        std::vector<Point> readLine;
        std::vector<Point> writeLine;
    };
    static Frame frame(const View& view, Size graph, const Points& plotted, std::int64_t sampleIntervalMs);

    // ---- hover ----

    // Whether the pointer is near enough to the graph to hover it (16 px around it).
    static bool acceptsPointer(Point pointer, Size graph);
    // The drawn point (within 32 px beyond the edges) closest in x to the pointer; the earlier of
    // two equally close ones.
    static std::optional<IndexedSample> hoveredPoint(const Points& drawn, const Slots& slots, Size graph,
                                                     Point pointer);
    // The hovered point again after the samples changed: the drawn point with its index (held
    // within the shown samples), else the drawn point whose index is nearest.
    static std::optional<IndexedSample> retargeted(const std::optional<IndexedSample>& hovered, const Points& drawn,
                                                   std::int64_t sampleCount);

    // The hover marker: its x and the heights of its read and write dots, held within the graph.
    struct Marker {
        double x = 0;
        double readY = 0;
        double writeY = 0;
    };
    static Marker marker(const IndexedSample& point, const Slots& slots, double yScale, Size graph);

    struct TooltipLines {
        std::string primary;    // time · elapsed · window
        std::string secondary;  // read speed (bytes) | write speed (bytes)

        friend bool operator==(const TooltipLines&, const TooltipLines&) = default;
    };
    static TooltipLines tooltipLines(const IndexedSample& point, const SampleWindow& shown,
                                     std::int64_t sampleIntervalMs);

    // The bubble's size before it has been measured.
    static constexpr Size defaultTooltipSize{240, 80};
    // The bubble's top left: beside the marker (to its left when it would pass the right edge),
    // above the upper dot (below when there is no room), 12 px inside the graph where it fits.
    // A zero `bubble` stands for defaultTooltipSize.
    static Point tooltipOrigin(const Marker& marker, Size bubble, Size graph);

    // ---- gestures ----

    // The committed zoom after a pinch by `factor`.
    static double committedScale(double scale, double factor);
    // The pinch factor of a Ctrl + wheel turn: 1.1 per notch of 120 eighths of a degree.
    static double wheelZoomFactor(double angleDelta);
    // Zoom changes smaller than this are not worth a pinch.
    static constexpr double zoomChangeThreshold = 0.01;
    // The committed offset after a drag by `translation` px: the shift it reaches, held within
    // the slots' limits, less the padding width. Uses `view`'s committed scale and offset.
    static double committedOffset(const View& view, double width, double translation);
    // A press has to move this far before it drags.
    static constexpr double dragMinimumDistance = 10;
};

}  // namespace vantorix
