#include "charts/DiskIOGraphRendererCache.h"
#include "charts/GraphGeometry.h"
#include "charts/SampleFixtures.h"
#include "concurrency/WaitFor.h"
#include "support/ManualMainExecutor.h"
#include "support/ScopedEnvironment.h"
#include "text/Formats.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using G = GraphGeometry;
using Points = DiskIOGraphRendererCache::Points;
using testing::samplesBy;
using testing::samplesOf;

constexpr double kWidth = 510;  // 255 gaps of 2 px at scale 1
constexpr double kHeight = 200;

IndexedSample point(std::int64_t index, double read = 0, double write = 0) {
    return IndexedSample{index, read, write, 0, 0, 1};
}

// Request counters over `wallMs`: reads and writes completed with their milliseconds, then busy and
// weighted milliseconds.
LoadCounters counters(std::int64_t wallMs, std::uint64_t reads, std::uint64_t readMs, std::uint64_t writes,
                      std::uint64_t writeMs, std::uint64_t busyMs, std::uint64_t weightedMs) {
    return {std::chrono::milliseconds(wallMs), reads, writes, readMs, writeMs, busyMs, weightedMs, 0, 0, 0};
}

std::vector<double> values(const std::vector<G::AxisTick>& ticks) {
    std::vector<double> result;
    for (const auto& tick : ticks) result.push_back(tick.value);
    return result;
}

TEST(GraphGeometry, SlotsFillFromTheRightAndTheVisibleRangeAndGridFollowTheShift) {
    struct Case {
        const char* name;
        std::int64_t samples;
        double scale, offset, width;
        SampleRange range;
        double oldestX, firstGridLine;
    };
    const Case cases[] = {
        {"one sample at the right edge", 1, 1, 0, kWidth, {0, 1}, kWidth, 0},
        {"10 samples after 246 empty slots", 10, 1, 0, kWidth, {0, 10}, 492, 0},
        {"scale 2, shifted left: a sample beyond each edge", 256, 2, -202, kWidth, {49, 180}, -202, -2},
        {"all right of the graph: one sample; grid a slot left of the remainder", 10, 2, -3, kWidth, {0, 1}, 981, -3},
        {"no samples", 0, 1, 0, kWidth, {0, 0}, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const G::Slots slots = G::slots(G::viewOf(c.samples, c.scale, c.offset), c.width);
        EXPECT_EQ(G::visibleRange(c.samples, slots, c.width), c.range);
        if (c.samples > 0) {
            EXPECT_DOUBLE_EQ(slots.x(0), c.oldestX);
        }
        if (c.offset == 0 && c.samples > 0) {
            EXPECT_DOUBLE_EQ(slots.x(c.samples - 1), c.width * c.scale);
        }
        const auto grid = G::slotGridPositions(slots, c.width);
        ASSERT_EQ(grid.empty(), c.width == 0);
        if (grid.empty()) continue;
        EXPECT_DOUBLE_EQ(grid.front(), c.firstGridLine);
        EXPECT_TRUE(grid.back() <= c.width && grid.back() + slots.spacing > c.width);
    }
}

TEST(GraphGeometry, WithoutVisibleSamplesNothingIsDrawnAndTheAxisHasOneTick) {
    // Points the cache still holds from earlier samples must not be drawn over an empty graph.
    const G::Points stale = {point(0, 5e8, 1e8), point(1, 2e8, 3e8)};
    const G::Frame empty = G::frame(G::viewOf(0, 1, 0), {kWidth, kHeight}, stale, 1000);
    EXPECT_EQ(empty.visibleRange, (SampleRange{0, 0}));
    EXPECT_TRUE(empty.drawn.empty() && empty.readLine.empty() && empty.writeLine.empty());
    EXPECT_EQ(empty.throughputTicks, (std::vector<G::AxisTick>{{0, 0}}));
    EXPECT_EQ(empty.yScale, 0);

    const G::Frame shown = G::frame(G::viewOf(2, 1, 0), {kWidth, kHeight}, stale, 1000);
    ASSERT_EQ(shown.readLine.size(), 2u);
    EXPECT_EQ(shown.readLine[1], (G::Point{kWidth, kHeight - 2e8 * kHeight / 1e9}));
    EXPECT_EQ(shown.writeLine[0], (G::Point{kWidth - 2, kHeight - 1e8 * kHeight / 1e9}));
}

TEST(GraphGeometry, ZoomStaysWithinOneTo400) {
    struct Case {
        double scale, factor, expected;
    };
    const Case cases[] = {
        {300, 2, 400},
        {400, 1.5, 400},
        {1, 0.5, 1},
        {2, 0.25, 1},
        {3, 2, 6},
        {std::numeric_limits<double>::quiet_NaN(), 1, 1},
        {std::numeric_limits<double>::infinity(), 1, 400},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(G::committedScale(c.scale, c.factor), c.expected) << c.scale << " × " << c.factor;
        G::View pinched = G::viewOf(256, c.scale, 0);
        pinched.magnifyBy = c.factor;
        EXPECT_DOUBLE_EQ(G::slots(pinched, kWidth).spacing, 2 * c.expected) << c.scale << " × " << c.factor;
    }
}

TEST(GraphGeometry, DragStopsAtTheOldestSlotAndTheNewestSample) {
    struct Case {
        const char* name;
        std::int64_t samples;
        double scale, offset, translation, committedOffset, newestX;
    };
    const Case cases[] = {
        {"scale 1: right does nothing", 256, 1, 0, 100, 0, kWidth},
        {"scale 2: right stops with the oldest slot at the left edge", 256, 2, -100, 300, 0, 2 * kWidth},
        {"scale 2: left within the content", 256, 2, 0, -200, -200, 2 * kWidth - 200},
        {"scale 2: left stops with the newest at the right edge", 256, 2, -100, -2000, -kWidth, kWidth},
        {"scale 2, 10 samples: left stops at the newest", 10, 2, 0, -2000, -kWidth, kWidth},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        G::View view = G::viewOf(c.samples, c.scale, c.offset);
        const double offset = G::committedOffset(view, kWidth, c.translation);
        EXPECT_DOUBLE_EQ(offset, c.committedOffset);

        // While the drag runs the graph shows what the release commits, and the committed offset
        // is reached exactly.
        view.dragTranslation = c.translation;
        const G::Slots dragging = G::slots(view, kWidth);
        const G::Slots committed = G::slots(G::viewOf(c.samples, c.scale, offset), kWidth);
        EXPECT_DOUBLE_EQ(dragging.shift, committed.shift);
        EXPECT_DOUBLE_EQ(committed.shift, committed.paddingWidth + offset);
        EXPECT_DOUBLE_EQ(committed.x(c.samples - 1), c.newestX);
    }
}

TEST(GraphGeometry, ThroughputAxisTopsAtAPowerOfTenOrAMultipleOf100GB) {
    struct Case {
        double read, write;
        std::vector<double> ticks;
    };
    const std::vector<Case> cases = {
        {3e8, 1e8, {0, 2.5e8, 5e8, 7.5e8, 1e9}},         {1, 0, {0, 2.5e8, 5e8, 7.5e8, 1e9}},
        {0, 2.5e9, {0, 2.5e9, 5e9, 7.5e9, 1e10}},        {1e10, 0, {0, 2.5e9, 5e9, 7.5e9, 1e10}},
        {2.5e11, 0, {0, 7.5e10, 1.5e11, 2.25e11, 3e11}}, {0, 0, {0}},
    };
    for (const Case& c : cases) {
        const auto ticks = G::throughputTicks({point(0, c.read, c.write), point(1)});
        EXPECT_EQ(values(ticks), c.ticks) << c.read << " / " << c.write;
        EXPECT_DOUBLE_EQ(ticks.back().position, c.ticks.size() > 1 ? 1.0 : 0.0);
        EXPECT_DOUBLE_EQ(G::yScale(ticks, kHeight), c.ticks.back() > 0 ? kHeight / c.ticks.back() : 0.0);
    }
}

TEST(GraphGeometry, HoverPicksTheClosestDrawnPointNearTheGraph) {
    // Points every 10 px from x = 0; one far beyond the right edge.
    const G::Slots slots{256, 10, 0, 0};
    const G::Points drawn = {point(0), point(1), point(2), point(9)};
    const G::Size graph{50, 40};
    struct Case {
        const char* name;
        G::Point pointer;
        std::optional<std::int64_t> index;
    };
    const Case cases[] = {
        {"exactly between two points: the earlier", {5, 20}, 0},
        {"just past the middle", {5.5, 20}, 1},
        {"16 px right of the graph: the last point within reach", {66, 20}, 2},
        {"too far left", {-16.5, 20}, std::nullopt},
        {"too far below", {10, 56.5}, std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto hovered = G::hoveredPoint(drawn, slots, graph, c.pointer);
        EXPECT_EQ(hovered ? std::optional(hovered->index) : std::nullopt, c.index);
    }
    EXPECT_FALSE(G::hoveredPoint(drawn, slots, {0, 40}, {0, 0}));
}

TEST(GraphGeometry, TooltipTextsInBothLanguages) {
    const auto shown = samplesBy(
        10, [](std::size_t) { return 0; }, [](std::size_t) { return 0; });
    const IndexedSample sample{5, 1.5e6, 0, 3'000'000, std::numeric_limits<std::uint64_t>::max(), 2};
    const std::string time = text::tooltipTimeText(shown[5].timestamp);
    struct Case {
        const char* lang;
        IndexedSample point;
        std::int64_t intervalMs;
        G::TooltipLines lines;
    };
    // Byte counts beyond 2^63 − 1 are shown as 2^63 − 1; an index past the samples has no time.
    const std::vector<Case> cases = {
        {"en_US.UTF-8",
         sample,
         1000,
         {"Time: " + time + " · Elapsed: 5 s · Window: 2 s", "Read: 1.5 MB/s (3 MB) | Write: 0 B/s (9,223,372.04 TB)"}},
        {"zh_CN.UTF-8",
         sample,
         1000,
         {"时间: " + time + " · 相对时间: 5 秒 · 采样时长: 2 秒",
          "读取: 1.5 MB/秒 (3 MB) | 写入: 0 B/秒 (9,223,372.04 TB)"}},
        {"en_US.UTF-8",
         IndexedSample{10, 0, 2e3, 0, 2'000, 0},
         10,
         {"Elapsed: 100 ms · Window: 10 ms", "Read: 0 B/s (0 B) | Write: 2 KB/s (2 KB)"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.lang);
        const vantorix::testing::ScopedLanguage language(c.lang);
        EXPECT_EQ(G::tooltipLines(c.point, shown, c.intervalMs), c.lines);
    }
}

TEST(GraphGeometry, LatencyAndLoadAxesInBothLanguages) {
    struct Case {
        const char* lang;
        GraphMeasure measure;
        LoadCounters load;
        std::vector<std::string> labels;
    };
    const Case cases[] = {
        {"en_US.UTF-8",
         GraphMeasure::latency,
         counters(1000, 100, 42, 0, 0, 0, 0),
         {"0 ms", "0.2 ms", "0.4 ms", "0.6 ms", "0.8 ms"}},
        {"zh_CN.UTF-8",
         GraphMeasure::latency,
         counters(1000, 0, 0, 1, 12'000, 0, 0),
         {"0 秒", "5 秒", "10 秒", "15 秒", "20 秒"}},
        {"en_US.UTF-8", GraphMeasure::latency, counters(1000, 0, 0, 0, 0, 500, 500), {"0 ms"}},
        {"en_US.UTF-8",
         GraphMeasure::load,
         counters(1000, 0, 0, 0, 0, 500, 3210),
         {"0", "2", "4", "0%", "50%", "100%"}},
        {"zh_CN.UTF-8", GraphMeasure::load, {}, {"0", "0.5", "1", "0%", "50%", "100%"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.labels.back());
        const vantorix::testing::ScopedLanguage language(c.lang);
        std::vector<std::string> labels;
        for (const auto& label :
             G::valueLabels(c.measure, G::valueTicks(c.measure, {IndexedSample{0, 0, 0, 0, 0, 1, c.load}, point(1)})))
            labels.push_back(label.text);
        EXPECT_EQ(labels, c.labels);
    }
}

TEST(GraphGeometry, TooltipStaysBesideTheMarkerAndInsideTheGraph) {
    struct Case {
        const char* name;
        G::Marker marker;
        G::Size bubble, graph;
        G::Point origin;
    };
    const Case cases[] = {
        {"right of and above the upper dot", {300, 200, 150}, {200, 60}, {600, 300}, {316, 74}},
        {"just fits right of the marker", {372, 200, 150}, {200, 60}, {600, 300}, {388, 74}},
        {"left of the marker near the right edge", {500, 200, 150}, {200, 60}, {600, 300}, {284, 74}},
        {"marker right of the graph: 12 px in", {700, 200, 150}, {200, 60}, {600, 300}, {388, 74}},
        {"below the dot near the top", {300, 30, 80}, {200, 60}, {600, 300}, {316, 46}},
        {"less than 12 px above: below the dot", {300, 80, 150}, {200, 60}, {600, 300}, {316, 96}},
        {"marker left of the graph: 12 px in", {-40, 200, 150}, {200, 60}, {600, 300}, {12, 74}},
        {"low graph: 12 px from the top", {300, 10, 10}, {200, 60}, {600, 80}, {316, 12}},
        {"unmeasured bubble: 240 × 80", {300, 200, 150}, {0, 0}, {600, 300}, {316, 54}},
        {"one dot: beside it", {300, std::nullopt, 150}, {200, 60}, {600, 300}, {316, 74}},
        {"no dot: above the bottom", {300, std::nullopt, std::nullopt}, {200, 60}, {600, 300}, {316, 224}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(G::tooltipOrigin(c.marker, c.bubble, c.graph), c.origin);
    }
}

constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();

// A cache with its main thread, and every list of points it published, in order.
struct Graph {
    std::shared_ptr<ManualMainExecutor> main = std::make_shared<ManualMainExecutor>();
    std::shared_ptr<DiskIOGraphRendererCache> cache = DiskIOGraphRendererCache::create(main);
    std::vector<Points> published;
    Subscription subscription = cache->subscribe([this](const Points& points) { published.push_back(points); });

    // Requests and runs the main thread until the request's result is installed.
    void show(const SampleWindow& samples, SampleRange range, std::int64_t target, std::int64_t intervalMs) {
        cache->update(samples, range, target, intervalMs);
        settle();
    }
    void settle() {
        ASSERT_TRUE(main->runUntil([this] { return !cache->hasPendingWork(); }, 10s));
        main->drain();
    }
};

TEST(DiskIOGraphRendererCache, BinsTheVisibleRangeIntoAtMostTheTargetCount) {
    struct Case {
        const char* name;
        std::size_t samples;
        SampleRange range;
        std::int64_t target, chunk;
        std::size_t bins;
        SampleRange lastRange;
        std::int64_t lastIndex;
    };
    const Case cases[] = {
        {"10,000 samples to 1,600 points", 10'000, {0, 10'000}, 1'600, 7, 1'429, {9'996, 10'000}, 9'998},
        {"span not above the target: one point each", 50, {10, 30}, 100, 1, 20, {29, 30}, 29},
        {"bins align to the range's start", 100, {3, 100}, 10, 10, 10, {93, 100}, 96},
        {"range clamped to the samples", 40, {-5, 90}, 4, 10, 4, {30, 40}, 35},
        {"target below 1 counts as 1", 12, {0, 12}, 0, 12, 1, {0, 12}, 6},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Graph graph;
        graph.show(samplesBy(
                       c.samples, [](std::size_t i) { return i; }, [](std::size_t) { return 0; }),
                   c.range, c.target, 1000);
        const auto& bins = graph.cache->cachedBins();
        EXPECT_EQ(graph.cache->cachedChunkSize(), c.chunk);
        ASSERT_EQ(bins.size(), c.bins);
        EXPECT_EQ(bins.back().range, c.lastRange);
        EXPECT_EQ(bins.back().sample.index, c.lastIndex);
        EXPECT_EQ(bins.back().sample.sampleCount, c.lastRange.upper - c.lastRange.lower);
        ASSERT_EQ(graph.published.size(), 1u);
        EXPECT_EQ(graph.published.back().size(), c.bins);
    }
}

TEST(DiskIOGraphRendererCache, APointKeepsThePeakSpeedsAndTheByteTotalsOfItsBin) {
    struct Case {
        const char* name;
        std::vector<std::pair<std::uint64_t, std::uint64_t>> bytes;
        std::int64_t target, intervalMs;
        Points points;
    };
    const double max = static_cast<double>(kMax);
    const Case cases[] = {
        {"one point per sample at 100 ms", {{100, 7}, {0, 3}}, 5, 100, {{0, 1000, 70, 100, 7, 1}, {1, 0, 30, 0, 3, 1}}},
        {"peaks and sums of three samples at 10 ms",
         {{5, 1}, {9, 8}, {2, 4}, {1, 1}},
         2,
         10,
         {{1, 900, 800, 14, 9, 2}, {3, 200, 400, 3, 5, 2}}},
        {"no interval: speeds 0, sums still right", {{5, 6}, {7, 8}}, 1, 0, {{1, 0, 0, 12, 14, 2}}},
        {"sums saturate at 2^64 - 1", {{kMax - 1, 1}, {2, kMax}}, 1, 1000, {{1, max, max, kMax, kMax, 2}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Graph graph;
        const auto samples = samplesOf(c.bytes);
        graph.show(samples, {0, static_cast<std::int64_t>(samples.size())}, c.target, c.intervalMs);
        EXPECT_EQ(graph.cache->plottedSamples(), c.points);
    }
}

TEST(DiskIOGraphRendererCache, ABinsLatencyAndLoadComeFromItsSummedCountersNotTheSamplesMean) {
    // Bins of two samples. The first: one slow read and 99 fast ones, 1.09 ms (the samples' mean is
    // 5.5 ms), no write; busy 16 of 40 ms, 40 % (mean 60 %); 2.5 queued (mean 2). The second
    // completes nothing: no await; busy 30 of 40 ms, 75 % (mean 50 %); 1.5 queued (mean 1).
    Graph graph;
    const auto samples = samplesOf({{0, 0}, {0, 0}, {0, 0}, {0, 0}},
                                   {counters(10, 1, 10, 0, 0, 10, 10), counters(30, 99, 99, 0, 0, 6, 90),
                                    counters(10, 0, 0, 0, 0, 0, 0), counters(30, 0, 0, 0, 0, 30, 60)});
    graph.show(samples, {0, 4}, 2, 1000);
    const Points& points = graph.cache->plottedSamples();
    ASSERT_EQ(points.size(), 2u);
    struct Case {
        const char* lang;
        GraphMeasure measure;
        std::optional<BlockQueue> queue;
        std::array<std::string, 2> secondary;  // of each bin
    };
    const Case cases[] = {
        {"en_US.UTF-8", GraphMeasure::latency, std::nullopt, {"Read: 1.09 ms | Write: —", "Read: — | Write: —"}},
        {"zh_CN.UTF-8", GraphMeasure::latency, std::nullopt, {"读取: 1.09 毫秒 | 写入: —", "读取: — | 写入: —"}},
        {"en_US.UTF-8",
         GraphMeasure::load,
         BlockQueue{64, 1, true},
         {"Utilization: 40% | Average Queue Depth: 2.50 / 64", "Utilization: 75% | Average Queue Depth: 1.50 / 64"}},
        {"zh_CN.UTF-8",
         GraphMeasure::load,
         BlockQueue{std::nullopt, 4, false},
         {"繁忙时间: 40% | 平均队列深度: 2.50", "繁忙时间: 75% | 平均队列深度: 1.50"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.secondary[0]);
        const vantorix::testing::ScopedLanguage language(c.lang);
        for (std::size_t i = 0; i < 2; ++i)
            EXPECT_EQ(G::tooltipLines(points[i], samples, 1000, c.measure, c.queue).secondary, c.secondary[i]);
    }

    // The latency lines break where a bin has no await, and the marker has no dot there; the load
    // lines lie in their bands (busy share from the top, depth up to a top of 4 from the bottom).
    const G::Frame latency = G::frame(G::viewOf(4, 1, 0), {kWidth, kHeight}, points, 1000, GraphMeasure::latency);
    EXPECT_EQ(values(latency.throughputTicks), (std::vector<double>{0, 0.5, 1, 1.5, 2}));
    EXPECT_DOUBLE_EQ(latency.readLine[0].y, kHeight - 1.09 * kHeight / 2);
    EXPECT_EQ(latency.readLine[1].y, G::gapY);
    EXPECT_EQ(latency.writeLine[0].y, G::gapY);
    EXPECT_FALSE(G::marker(points[1], latency, {kWidth, kHeight}).readY);
    const G::Frame load = G::frame(G::viewOf(4, 1, 0), {kWidth, kHeight}, points, 1000, GraphMeasure::load);
    const double band = G::loadBandShare * kHeight;
    EXPECT_DOUBLE_EQ(load.readLine[0].y, band * 0.6);
    EXPECT_DOUBLE_EQ(load.writeLine[0].y, kHeight - 2.5 * band / 4);
}

// The same request starts no work; a grown range of the same samples keeps the bins in step; other
// samples, another interval or an empty range or list replace what is shown.
TEST(DiskIOGraphRendererCache, FollowsChangesOfTheSamplesTheRangeAndTheInterval) {
    Graph graph;
    const auto ones = samplesBy(
        100, [](std::size_t) { return 1; }, [](std::size_t) { return 1; });
    graph.show(ones, {0, 48}, 10, 1000);
    ASSERT_EQ(graph.cache->cachedBins().back().range, (SampleRange{45, 48}));
    graph.cache->update(ones, {0, 48}, 10, 1000);
    EXPECT_FALSE(graph.cache->hasPendingWork());
    EXPECT_EQ(graph.main->pendingCount(), 0u);

    graph.show(ones, {0, 50}, 10, 1000);
    const auto& bins = graph.cache->cachedBins();
    ASSERT_EQ(bins.size(), 10u);
    for (std::size_t i = 0; i < bins.size(); ++i) {
        EXPECT_EQ(bins[i].range, (SampleRange{static_cast<std::int64_t>(5 * i), static_cast<std::int64_t>(5 * i + 5)}));
        EXPECT_EQ(bins[i].sample.readBytes, 5u) << i;
    }
    const auto more = samplesBy(
        101, [](std::size_t) { return 3; }, [](std::size_t) { return 3; });
    graph.show(more, {0, 50}, 10, 1000);
    for (const auto& bin : graph.cache->cachedBins()) EXPECT_EQ(bin.sample.readBytes, 15u);
    graph.show(more, {0, 50}, 10, 100);
    EXPECT_EQ(graph.cache->plottedSamples().front().readSpeed, 30.0);
    graph.show(more, {120, 130}, 10, 100);
    EXPECT_TRUE(graph.cache->plottedSamples().empty());
    graph.show(more, {0, 50}, 10, 100);
    graph.show(samplesOf({}), {0, 50}, 10, 100);
    EXPECT_TRUE(graph.cache->plottedSamples().empty());
    EXPECT_EQ(graph.published.size(), 7u);
}

TEST(DiskIOGraphRendererCache, OnlyTheLatestRequestsResultIsInstalled) {
    Graph graph;
    const auto first = samplesBy(
        20'000, [](std::size_t) { return 1; }, [](std::size_t) { return 1; });
    const auto second = samplesBy(
        300, [](std::size_t) { return 7; }, [](std::size_t) { return 7; });

    // The first job finishes and its installer waits on the main thread when the second request
    // comes: it must drop its result, even though it arrives first.
    graph.cache->update(first, {0, 20'000}, 100, 1000);
    ASSERT_TRUE(testing::waitFor([&] { return graph.main->pendingCount() == 1; }));
    graph.cache->update(second, {0, 300}, 100, 1000);
    // A third request while the second may still be queued or running supersedes it too.
    graph.cache->update(second, {0, 200}, 100, 1000);
    graph.settle();

    ASSERT_EQ(graph.published.size(), 1u);
    EXPECT_EQ(graph.published[0].size(), 100u);
    EXPECT_EQ(graph.published[0].front().readBytes, 14u);
    EXPECT_EQ(graph.cache->cachedRange(), (SampleRange{0, 200}));
}

}  // namespace
}  // namespace vantorix
