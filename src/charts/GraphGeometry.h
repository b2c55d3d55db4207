#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "charts/ChartExportSupport.h"
#include "charts/DiskIOGraphRendererCache.h"
#include "charts/SampleWindow.h"
#include "monitor/LoadTexts.h"

namespace vantorix {

// What the graph plots, as two lines over the same time axis. Throughput: the read and write speed.
// Latency: the read and write await in milliseconds. Load: the share of time the device was busy
// (0–100 %) in a band at the top and its average queue depth in a band at the bottom, each band
// with its own scale, so that neither figure is read against the other's axis.
enum class GraphMeasure { throughput, latency, load };

// The dashboard's live graph, everything about it that needs no pixels: where the sample slots
// lie at a zoom and shift, which samples are visible, the axis ticks and labels of each measure,
// which point the pointer hovers, the tooltip's texts and place, and what a pinch or drag commits.
// The widget paints what these compute and forwards its input here. Zoom, shift and hover work
// alike in every measure: they depend on the points' places in time alone.
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
    // left. Value ticks: position 0 at the bottom up to 1 at the top; the value in bytes per second
    // (throughput), milliseconds (latency), or, in the load view, a share of time 0–1 in the busy
    // band and a number of requests in the depth band (see loadTicks).
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

    // Five ticks from 0 to four times the smallest step of 1, 2, 2.5 or 5 × 10^k ms that holds the
    // highest await drawn, the top at least 0.1 ms; a single 0 when no point has an await.
    static std::vector<AxisTick> latencyTicks(const Points& points);
    // The share of the plot's height of each load band. The busy band lies at the top, the depth
    // band at the bottom, and the rest of the height lies between them.
    static constexpr double loadBandShare = 0.42;
    // Six ticks: 0, half the top and the top of the depth band (the top the smallest of 1, 2, 2.5 or
    // 5 × 10^k, doubled, that holds the highest average depth drawn, at least 1), then 0, 0.5 and 1
    // of the busy band.
    static std::vector<AxisTick> loadTicks(const Points& points);
    // The value axis's ticks and their labels for `measure`: speeds ("750 MB/s"), milliseconds
    // ("2.5 ms" / "2.5 毫秒", or seconds once the top reaches 10 s), or percentages and depths
    // ("50%", "4").
    static std::vector<AxisTick> valueTicks(GraphMeasure measure, const Points& points);
    static std::vector<Label> valueLabels(GraphMeasure measure, const std::vector<AxisTick>& valueTicks);

    // The measure's name for its switch: "吞吐量" / "Throughput", "延迟" / "Latency", "负载" / "Load".
    static std::string measureName(GraphMeasure measure);
    // The two lines' names for the legend: read and write, or the busy share (utilizationLabel) and
    // the average queue depth.
    static std::array<std::string, 2> lineNames(GraphMeasure measure, const std::optional<BlockQueue>& queue);

    // x positions of the slot grid lines from the left edge to the right edge.
    static std::vector<double> slotGridPositions(const Slots& slots, double width);

    // ---- one frame ----

    // The height of a line's point where the line breaks: the point has no figure there (a bin in
    // which no request of that direction completed has no await, a bin of no time no load). It
    // compares equal to itself, so that two frames with the same gaps are the same.
    static constexpr double gapY = std::numeric_limits<double>::infinity();

    // Everything a frame draws apart from the hover marker. `plotted` are the downsampling cache's
    // points; they are drawn only when some sample is visible.
    struct Frame {
        GraphMeasure measure = GraphMeasure::throughput;
        Slots slots;
        SampleRange visibleRange;
        Points drawn;
        std::vector<AxisTick> throughputTicks;  // the value axis's ticks, of whatever the measure is
        // Pixels per unit of the value axis: per byte per second, per millisecond, or per whole busy
        // share (the busy band's height) in the load view.
        double yScale = 0;
        double depthScale = 0;  // in the load view, pixels per request of average queue depth
        std::vector<AxisTick> timeTicks;
        // The first and second line: read and write, or in the load view busy share and queue depth.
        // A point at gapY breaks its line.
        std::vector<Point> readLine;
        std::vector<Point> writeLine;
    };
    static Frame frame(const View& view, Size graph, const Points& plotted, std::int64_t sampleIntervalMs,
                       GraphMeasure measure = GraphMeasure::throughput);
    // The heights of `point` on the frame's two lines; nothing where the point has no figure.
    static std::array<std::optional<double>, 2> lineHeights(const IndexedSample& point, const Frame& frame,
                                                            double height);

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

    // The hover marker: its x and the heights of the dots on the first and second line, held
    // within the graph; no dot where the point has no figure.
    struct Marker {
        double x = 0;
        std::optional<double> readY;
        std::optional<double> writeY;
    };
    static Marker marker(const IndexedSample& point, const Frame& frame, Size graph);

    struct TooltipLines {
        std::string primary;  // time · elapsed · window
        // Throughput: read speed (bytes) | write speed (bytes). Latency: read await | write await,
        // "—" without completions. Load: busy share | average queue depth / the device's nr_requests.
        std::string secondary;

        friend bool operator==(const TooltipLines&, const TooltipLines&) = default;
    };
    static TooltipLines tooltipLines(const IndexedSample& point, const SampleWindow& shown,
                                     std::int64_t sampleIntervalMs, GraphMeasure measure = GraphMeasure::throughput,
                                     const std::optional<BlockQueue>& queue = std::nullopt);

    // The bubble's size before it has been measured.
    static constexpr Size defaultTooltipSize{240, 80};
    // The bubble's top left: beside the marker (to its left when it would pass the right edge),
    // above the upper dot (below when there is no room; above the bottom without dots), 12 px
    // inside the graph where it fits. A zero `bubble` stands for defaultTooltipSize.
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
