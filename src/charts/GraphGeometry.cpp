#include "charts/GraphGeometry.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

#include "text/Formats.h"
#include "text/Language.h"

namespace vantorix {
namespace {

using AxisTick = GraphGeometry::AxisTick;

double finiteOr(double value, double fallback) { return std::isfinite(value) ? value : fallback; }

// A whole number of slots or samples from a computed double, held within lower … upper first so
// that the conversion is always defined.
std::int64_t toIndex(double value, std::int64_t lower, std::int64_t upper) {
    if (std::isnan(value)) return lower;
    return static_cast<std::int64_t>(std::clamp(value, static_cast<double>(lower), static_cast<double>(upper)));
}

// The smallest of 1, 2, 2.5 and 5 × 10^k that is at least `least`; `least` itself when it is not a
// positive finite number.
double stepAtLeast(double least) {
    if (!(least > 0) || !std::isfinite(least)) return least;
    double power = std::pow(10.0, std::floor(std::log10(least)));
    for (int decade = 0; decade < 3; ++decade, power *= 10) {
        for (const double factor : {1.0, 2.0, 2.5, 5.0})
            if (factor * power >= least) return factor * power;
    }
    return least;
}

std::string bytesText(std::uint64_t bytes) {
    constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    using text::ByteUnits;
    return text::byteCountText(std::min(bytes, largest), ByteUnits::bytes | ByteUnits::kilobytes |
                                                             ByteUnits::megabytes | ByteUnits::gigabytes |
                                                             ByteUnits::terabytes);
}

}  // namespace

std::int64_t GraphGeometry::leadingPaddingCount(std::int64_t sampleCount) {
    return std::max(totalSlotCount - sampleCount, std::int64_t{0});
}

GraphGeometry::View GraphGeometry::viewOf(std::int64_t sampleCount, double scale, double offset) {
    View view;
    view.sampleCount = sampleCount;
    view.leadingPaddingCount = leadingPaddingCount(sampleCount);
    view.scale = scale;
    view.offset = offset;
    return view;
}

double GraphGeometry::effectiveScale(double scale, double magnifyBy) {
    const double product = scale * magnifyBy;
    if (std::isnan(product)) return minScale;
    return std::clamp(product, minScale, maxScale);
}

GraphGeometry::Slots GraphGeometry::slots(const View& view, double width) {
    const std::int64_t count = std::max(view.sampleCount, std::int64_t{0});
    const std::int64_t padding = std::max(view.leadingPaddingCount, std::int64_t{0});
    Slots result;
    result.slotCount = std::max({count + padding, view.totalSlotCount, std::int64_t{1}});
    const double baseSpacing = width / static_cast<double>(std::max(result.slotCount - 1, std::int64_t{1}));
    result.spacing = baseSpacing * effectiveScale(view.scale, view.magnifyBy);
    result.paddingWidth = result.spacing * static_cast<double>(padding);

    const double raw = result.paddingWidth + finiteOr(view.offset, 0) + finiteOr(view.dragTranslation, 0);
    const double upper = std::max(result.paddingWidth, 0.0);
    if (result.slotCount < 2) {
        result.shift = std::min(std::max(raw, -width), upper);
        return result;
    }
    // The oldest slot may not move right of the left edge, the newest sample not left of the right
    // edge; content narrower than the graph stays where the padding puts it.
    const double contentWidth = result.spacing * static_cast<double>(result.slotCount - 1);
    double lower = width - contentWidth + result.paddingWidth;
    if (contentWidth <= width) lower = std::min(upper, lower);
    result.shift = std::min(upper, std::max(raw, lower));
    return result;
}

SampleRange GraphGeometry::visibleRange(std::int64_t sampleCount, const Slots& slots, double width) {
    if (sampleCount < 1) return {0, 0};
    const double spacing = slots.spacing;
    if (!(spacing > 0) || !std::isfinite(spacing)) return {0, sampleCount};
    const std::int64_t first = std::max(toIndex(std::floor((-spacing - slots.shift) / spacing), -1, sampleCount),
                                        std::int64_t{0});
    const std::int64_t last = std::min(sampleCount - 1,
                                       toIndex(std::ceil((spacing + width - slots.shift) / spacing), -1, sampleCount));
    if (last >= first) return {first, last + 1};
    const std::int64_t only = std::min(sampleCount - 1, first);
    return {only, only + 1};
}

std::int64_t GraphGeometry::pointTargetCount(double width) {
    constexpr std::int64_t most = 1'000'000'000;
    return std::max(toIndex(std::floor(2 * width), 1, most), std::int64_t{1});
}

std::vector<AxisTick> GraphGeometry::throughputTicks(const Points& points) {
    double highest = 0;
    for (const IndexedSample& point : points) highest = std::max({highest, point.readSpeed, point.writeSpeed});
    if (!(highest > 0)) return {AxisTick{0, 0}};
    highest = std::min(highest, std::numeric_limits<double>::max());

    double top = 0;
    for (const double candidate : {1e9, 1e10, 1e11}) {
        if (candidate >= highest) {
            top = candidate;
            break;
        }
    }
    if (top == 0) top = 1e11 * std::ceil(highest / 1e11);

    std::vector<AxisTick> ticks;
    ticks.reserve(5);
    for (int k = 0; k <= 4; ++k) ticks.push_back(AxisTick{top * k / 4, k / 4.0});
    return ticks;
}

double GraphGeometry::yScale(const std::vector<AxisTick>& throughputTicks, double height) {
    if (throughputTicks.empty() || !(throughputTicks.back().value > 0)) return 0;
    return height / throughputTicks.back().value;
}

std::vector<AxisTick> GraphGeometry::timeTicks(std::int64_t sampleIntervalMs, std::int64_t slotCount) {
    if (sampleIntervalMs < 1) return {AxisTick{0, 1}};
    const auto interval = static_cast<double>(sampleIntervalMs);
    const double span = interval * static_cast<double>(std::max(slotCount - 1, std::int64_t{1}));
    if (!(span > 0)) return {AxisTick{0, 1}};

    double step = ChartExportSupport::niceStep(span / 6);
    if (!(step > 0) || !std::isfinite(step)) return {AxisTick{span, 0}, AxisTick{0, 1}};
    // Whole sampling intervals, so that every tick falls on a sample.
    step = std::max(std::ceil(step / interval), 1.0) * interval;

    const double limit = span + std::max(span * 0.001, 0.000001);
    std::vector<AxisTick> ticks;
    for (std::int64_t k = 0;; ++k) {
        const double value = static_cast<double>(k) * step;
        if (value > limit) break;
        const double clamped = std::min(value, span);
        ticks.push_back(AxisTick{clamped, 1 - clamped / span});
    }
    if (ticks.empty() || ticks.front().position < 0.999999) ticks.insert(ticks.begin(), AxisTick{0, 1});
    if (ticks.back().position > 0.000001) ticks.push_back(AxisTick{span, 0});
    return ticks;
}

std::vector<GraphGeometry::Label> GraphGeometry::timeLabels(const std::vector<AxisTick>& timeTicks,
                                                            std::int64_t sampleIntervalMs) {
    std::vector<Label> labels;
    for (std::size_t i = 1; i + 1 < timeTicks.size(); ++i) {
        const AxisTick& tick = timeTicks[i];
        if (tick.value < static_cast<double>(sampleIntervalMs)) continue;
        labels.push_back(Label{tick, text::durationText(tick.value, /*ago=*/true)});
    }
    return labels;
}

std::vector<GraphGeometry::Label> GraphGeometry::throughputLabels(const std::vector<AxisTick>& throughputTicks) {
    std::vector<Label> labels;
    labels.reserve(throughputTicks.size());
    for (const AxisTick& tick : throughputTicks) labels.push_back(Label{tick, text::speedText(tick.value)});
    return labels;
}

std::vector<AxisTick> GraphGeometry::latencyTicks(const Points& points) {
    bool any = false;
    double highest = 0;
    for (const IndexedSample& point : points) {
        const LoadFigures figures = loadFigures(point.load);
        for (const auto& await : {figures.readAwaitMilliseconds, figures.writeAwaitMilliseconds}) {
            if (!await) continue;
            any = true;
            highest = std::max(highest, *await);
        }
    }
    if (!any) return {AxisTick{0, 0}};
    const double top = 4 * stepAtLeast(std::max(highest, 0.1) / 4);
    std::vector<AxisTick> ticks;
    ticks.reserve(5);
    for (int k = 0; k <= 4; ++k) ticks.push_back(AxisTick{top * k / 4, k / 4.0});
    return ticks;
}

std::vector<AxisTick> GraphGeometry::loadTicks(const Points& points) {
    double deepest = 0;
    for (const IndexedSample& point : points) {
        if (const auto depth = loadFigures(point.load).averageQueueDepth) deepest = std::max(deepest, *depth);
    }
    const double half = stepAtLeast(std::max(deepest, 1.0) / 2);
    constexpr double band = loadBandShare;
    return {AxisTick{0, 0},        AxisTick{half, band / 2},    AxisTick{2 * half, band},
            AxisTick{0, 1 - band}, AxisTick{0.5, 1 - band / 2}, AxisTick{1, 1}};
}

std::vector<AxisTick> GraphGeometry::valueTicks(GraphMeasure measure, const Points& points) {
    if (measure == GraphMeasure::latency) return latencyTicks(points);
    if (measure == GraphMeasure::load) return loadTicks(points);
    return throughputTicks(points);
}

std::vector<GraphGeometry::Label> GraphGeometry::valueLabels(GraphMeasure measure,
                                                             const std::vector<AxisTick>& valueTicks) {
    if (measure == GraphMeasure::throughput) return throughputLabels(valueTicks);
    const bool seconds = !valueTicks.empty() && valueTicks.back().value >= 10'000;
    std::vector<Label> labels;
    labels.reserve(valueTicks.size());
    for (const AxisTick& tick : valueTicks) {
        std::string shown;
        if (measure == GraphMeasure::load) {
            // The busy band's ticks lie in the upper half, the depth band's in the lower.
            shown = tick.position > 0.5 ? text::percentText(tick.value, 0) : text::decimalText(tick.value, 0, 2);
        } else if (seconds) {
            shown = text::decimalText(tick.value / 1000, 0, 2) + text::localized(" 秒", " s");
        } else {
            shown = text::decimalText(tick.value, 0, 3) + text::localized(" 毫秒", " ms");
        }
        labels.push_back(Label{tick, std::move(shown)});
    }
    return labels;
}

std::string GraphGeometry::measureName(GraphMeasure measure) {
    if (measure == GraphMeasure::latency) return text::localized("延迟", "Latency");
    if (measure == GraphMeasure::load) return text::localized("负载", "Load");
    return text::localized("吞吐量", "Throughput");
}

std::array<std::string, 2> GraphGeometry::lineNames(GraphMeasure measure, const std::optional<BlockQueue>& queue) {
    if (measure == GraphMeasure::load)
        return {utilizationLabel(queue), text::localized("平均队列深度", "Average Queue Depth")};
    return {text::localized("读取", "Read"), text::localized("写入", "Write")};
}

std::vector<double> GraphGeometry::slotGridPositions(const Slots& slots, double width) {
    std::vector<double> positions;
    const double spacing = slots.spacing;
    if (!(spacing > 0) || !std::isfinite(spacing) || !(width >= 0)) return positions;
    double start = std::fmod(slots.shift, spacing);
    if (start > 0) start -= spacing;
    const std::int64_t count = toIndex(std::floor((width - start) / spacing), -1, 1'000'000) + 1;
    positions.reserve(static_cast<std::size_t>(std::max(count, std::int64_t{0})));
    for (std::int64_t k = 0; k < count; ++k) positions.push_back(start + static_cast<double>(k) * spacing);
    return positions;
}

GraphGeometry::Frame GraphGeometry::frame(const View& view, Size graph, const Points& plotted,
                                          std::int64_t sampleIntervalMs, GraphMeasure measure) {
    Frame frame;
    frame.measure = measure;
    frame.slots = slots(view, graph.width);
    frame.visibleRange = visibleRange(view.sampleCount, frame.slots, graph.width);
    if (frame.visibleRange.upper > frame.visibleRange.lower) frame.drawn = plotted;
    frame.throughputTicks = valueTicks(measure, frame.drawn);
    if (measure == GraphMeasure::load) {
        frame.yScale = loadBandShare * graph.height;
        frame.depthScale = frame.yScale / frame.throughputTicks[2].value;
    } else {
        frame.yScale = yScale(frame.throughputTicks, graph.height);
    }
    frame.timeTicks = timeTicks(sampleIntervalMs, frame.slots.slotCount);
    frame.readLine.reserve(frame.drawn.size());
    frame.writeLine.reserve(frame.drawn.size());
    for (const IndexedSample& point : frame.drawn) {
        const double x = frame.slots.x(point.index);
        const auto [first, second] = lineHeights(point, frame, graph.height);
        frame.readLine.push_back(Point{x, first.value_or(gapY)});
        frame.writeLine.push_back(Point{x, second.value_or(gapY)});
    }
    return frame;
}

std::array<std::optional<double>, 2> GraphGeometry::lineHeights(const IndexedSample& point, const Frame& frame,
                                                                double height) {
    if (frame.measure == GraphMeasure::throughput) {
        return {speedY(point.readSpeed, frame.yScale, height), speedY(point.writeSpeed, frame.yScale, height)};
    }
    const LoadFigures figures = loadFigures(point.load);
    const auto scaled = [](const std::optional<double>& value, auto place) -> std::optional<double> {
        if (!value) return std::nullopt;
        return place(*value);
    };
    if (frame.measure == GraphMeasure::latency) {
        const auto awaitY = [&](double milliseconds) { return height - milliseconds * frame.yScale; };
        return {scaled(figures.readAwaitMilliseconds, awaitY), scaled(figures.writeAwaitMilliseconds, awaitY)};
    }
    // The busy band runs from the top down to loadBandShare of the height, the depth band up from
    // the bottom as far.
    return {scaled(figures.utilization, [&](double share) { return frame.yScale * (1 - share); }),
            scaled(figures.averageQueueDepth, [&](double depth) { return height - depth * frame.depthScale; })};
}

bool GraphGeometry::acceptsPointer(Point pointer, Size graph) {
    constexpr double margin = 16;
    return graph.width > 0 && graph.height > 0 && pointer.x >= -margin && pointer.x <= graph.width + margin &&
           pointer.y >= -margin && pointer.y <= graph.height + margin;
}

std::optional<IndexedSample> GraphGeometry::hoveredPoint(const Points& drawn, const Slots& slots, Size graph,
                                                         Point pointer) {
    if (!acceptsPointer(pointer, graph)) return std::nullopt;
    constexpr double margin = 32;
    std::optional<IndexedSample> closest;
    double closestDistance = std::numeric_limits<double>::infinity();
    for (const IndexedSample& point : drawn) {
        const double x = slots.x(point.index);
        if (!(x >= -margin && x <= graph.width + margin)) continue;
        const double distance = std::abs(x - pointer.x);
        if (distance < closestDistance) {
            closest = point;
            closestDistance = distance;
        }
    }
    return closest;
}

std::optional<IndexedSample> GraphGeometry::retargeted(const std::optional<IndexedSample>& hovered, const Points& drawn,
                                                       std::int64_t sampleCount) {
    if (sampleCount <= 0 || !hovered) return std::nullopt;
    const std::int64_t index = std::clamp(hovered->index, std::int64_t{0}, sampleCount - 1);
    std::optional<IndexedSample> nearest;
    std::int64_t nearestDistance = std::numeric_limits<std::int64_t>::max();
    for (const IndexedSample& point : drawn) {
        if (point.index == index) return point;
        const std::int64_t distance = point.index > index ? point.index - index : index - point.index;
        if (distance < nearestDistance) {
            nearest = point;
            nearestDistance = distance;
        }
    }
    return nearest;
}

GraphGeometry::Marker GraphGeometry::marker(const IndexedSample& point, const Frame& frame, Size graph) {
    const double bottom = std::max(graph.height, 0.0);
    const auto dotY = [&](const std::optional<double>& y) -> std::optional<double> {
        if (!y) return std::nullopt;
        return std::isnan(*y) ? bottom : std::clamp(*y, 0.0, bottom);
    };
    const auto [first, second] = lineHeights(point, frame, graph.height);
    return Marker{frame.slots.x(point.index), dotY(first), dotY(second)};
}

GraphGeometry::TooltipLines GraphGeometry::tooltipLines(const IndexedSample& point, const SampleWindow& shown,
                                                        std::int64_t sampleIntervalMs, GraphMeasure measure,
                                                        const std::optional<BlockQueue>& queue) {
    const double interval = sampleIntervalMs >= 1 ? static_cast<double>(sampleIntervalMs) : 0.0;
    std::string primary;
    if (point.index >= 0 && static_cast<std::uint64_t>(point.index) < shown.size()) {
        primary = text::localized("时间", "Time") + ": " +
                  text::tooltipTimeText(shown[static_cast<std::size_t>(point.index)].timestamp) + " · ";
    }
    primary += text::localized("相对时间", "Elapsed") + ": " +
               text::durationText(static_cast<double>(point.index) * interval, /*ago=*/false);
    primary += " · " + text::localized("采样时长", "Window") + ": " +
               text::durationText(static_cast<double>(std::max(point.sampleCount, std::int64_t{1})) * interval,
                                  /*ago=*/false);

    const auto [first, second] = lineNames(measure, queue);
    std::string secondary;
    if (measure == GraphMeasure::throughput) {
        secondary = first + ": " + text::speedText(point.readSpeed) + " (" + bytesText(point.readBytes) + ") | " +
                    second + ": " + text::speedText(point.writeSpeed) + " (" + bytesText(point.writeBytes) + ")";
    } else if (const LoadFigures figures = loadFigures(point.load); measure == GraphMeasure::latency) {
        secondary = first + ": " + awaitText(figures.readAwaitMilliseconds) + " | " + second + ": " +
                    awaitText(figures.writeAwaitMilliseconds);
    } else {
        secondary = first + ": " + utilizationText(figures.utilization) + " | " + second + ": " +
                    queueDepthText(figures.averageQueueDepth, queue);
    }
    return TooltipLines{std::move(primary), std::move(secondary)};
}

GraphGeometry::Point GraphGeometry::tooltipOrigin(const Marker& marker, Size bubble, Size graph) {
    constexpr double gap = 16;
    constexpr double inset = 12;
    const Size size = bubble.width > 0 && bubble.height > 0 ? bubble : defaultTooltipSize;
    constexpr double none = std::numeric_limits<double>::infinity();
    const double top = marker.readY || marker.writeY
                           ? std::min(marker.readY.value_or(none), marker.writeY.value_or(none))
                           : graph.height;

    double x = marker.x + gap;
    if (marker.x + gap + size.width > graph.width - inset) x = marker.x - size.width - gap;
    x = std::min(std::max(graph.width - size.width - inset, inset), std::max(x, inset));

    double y = top - size.height - gap;
    if (y < inset) y = top + gap;
    y = std::min(std::max(graph.height - size.height - inset, inset), std::max(y, inset));
    return Point{x, y};
}

double GraphGeometry::committedScale(double scale, double factor) { return effectiveScale(scale, factor); }

double GraphGeometry::wheelZoomFactor(double angleDelta) { return std::pow(1.1, angleDelta / 120); }

double GraphGeometry::committedOffset(const View& view, double width, double translation) {
    View dragged = view;
    dragged.magnifyBy = 1;
    dragged.dragTranslation = translation;
    const Slots reached = slots(dragged, width);
    return reached.shift - reached.paddingWidth;
}

}  // namespace vantorix
