#include "charts/DiskIOGraphRendererCache.h"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "charts/SampleFixtures.h"
#include "support/ManualMainExecutor.h"
#include "concurrency/WaitFor.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using testing::samplesBy;
using testing::samplesOf;
using Points = DiskIOGraphRendererCache::Points;

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
        graph.show(samplesBy(c.samples, [](std::size_t i) { return i; }, [](std::size_t) { return 0; }), c.range,
                   c.target, 1000);
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
        {"peaks and sums of three samples at 10 ms", {{5, 1}, {9, 8}, {2, 4}, {1, 1}}, 2, 10,
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

// The same request starts no work; a grown range of the same samples keeps the bins in step; other
// samples, another interval or an empty range or list replace what is shown.
TEST(DiskIOGraphRendererCache, FollowsChangesOfTheSamplesTheRangeAndTheInterval) {
    Graph graph;
    const auto ones = samplesBy(100, [](std::size_t) { return 1; }, [](std::size_t) { return 1; });
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
    const auto more = samplesBy(101, [](std::size_t) { return 3; }, [](std::size_t) { return 3; });
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
    const auto first = samplesBy(20'000, [](std::size_t) { return 1; }, [](std::size_t) { return 1; });
    const auto second = samplesBy(300, [](std::size_t) { return 7; }, [](std::size_t) { return 7; });

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
