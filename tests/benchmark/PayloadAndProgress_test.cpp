#include <gtest/gtest.h>

#include "benchmark/DataSize.h"
#include "benchmark/PerformanceMetrics.h"
#include "benchmark/ProgressTracker.h"
#include "support/ScopedEnvironment.h"

namespace vantorix {
namespace {

constexpr std::uint64_t GB = 1'000'000'000ULL;

TEST(PayloadSizing, RuleAtItsBoundaries) {
    struct Case {
        DataSize size;
        std::optional<std::uint64_t> free;
        std::optional<std::uint64_t> bytes;  // absent: not enough free space
    };
    const Case cases[] = {
        {DataSize::gigabytes(10), std::nullopt, 10 * GB},
        {DataSize::availableSpace(), std::nullopt, std::nullopt},
        {DataSize::availableSpace(), 999'999'999, std::nullopt},
        {DataSize::availableSpace(), GB, GB},
        {DataSize::gigabytes(10), 10 * GB, 10 * GB},
        {DataSize::gigabytes(10), 10 * GB - 1, std::nullopt},
        {DataSize::availableSpace(), 1'234'567'890'123ULL, 1'234'000'000'000ULL},
        {DataSize::availableSpace(), 499'963'174'912ULL, 499'000'000'000ULL},
        {DataSize::gigabytes(0), 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size.id() + " free " + (c.free ? std::to_string(*c.free) : "unknown"));
        const auto payload = effectivePayload(c.size, c.free);
        ASSERT_EQ(payload.has_value(), c.bytes.has_value());
        if (payload) {
            EXPECT_EQ(payload->byteCount, *c.bytes);
            EXPECT_FALSE(payload->isAdjusted);
        }
    }
}

TEST(PayloadSizing, ChoicesAndTheirNames) {
    testing::ScopedLanguage english("en_US.UTF-8");
    std::vector<std::string> ids, titles;
    for (const auto& size : DataSize::allCases()) {
        ids.push_back(size.id());
        titles.push_back(size.title());
        EXPECT_EQ(DataSize::fromId(size.id()), size);
    }
    EXPECT_EQ(ids, (std::vector<std::string>{"availableSpace", "gigabytes_1", "gigabytes_10", "gigabytes_100",
                                             "gigabytes_1000", "gigabytes_10000"}));
    EXPECT_EQ(titles, (std::vector<std::string>{"Full Disk", "1 GB", "10 GB", "100 GB", "1000 GB", "10000 GB"}));
    EXPECT_FALSE(DataSize::fromId("gigabytes_7"));
}

TEST(PayloadSizing, ContextTextsInBothLanguages) {
    DiskVolumeDescriptor volume;
    volume.availableCapacityBytes = 1'234'567'890'123ULL;
    const EffectivePayload whole{1'234'000'000'000ULL, false};
    const EffectivePayload ten{10 * GB, false};
    const EffectivePayload adjusted{5 * GB, true};
    struct Case {
        const char* lang;
        std::optional<DiskVolumeDescriptor> volume;
        DataSize size;
        std::optional<EffectivePayload> preview;
        PerformancePayloadContext expected;
    };
    const char* choose = "Please choose a volume before running the test.";
    const char* full = "Not enough free space to run the performance test.";
    const Case cases[] = {
        {"en_US.UTF-8", std::nullopt, DataSize::availableSpace(), std::nullopt, {"Payload: Full Disk", {}, false, choose}},
        {"en_US.UTF-8", std::nullopt, DataSize::gigabytes(10), std::nullopt, {"Payload: 10 GB", {}, false, {}}},
        {"en_US.UTF-8", volume, DataSize::availableSpace(), std::nullopt, {full, {}, false, full}},
        {"en_US.UTF-8", volume, DataSize::availableSpace(), whole, {"Payload: Full Disk (1.23 TB)", whole, true, {}}},
        {"en_US.UTF-8", volume, DataSize::gigabytes(10), ten, {"Payload: 10 GB", ten, true, {}}},
        {"en_US.UTF-8", volume, DataSize::gigabytes(10), adjusted,
         {"Current payload: 10 GB (will adjust to 5 GB)", adjusted, true, {}}},
        {"zh_CN.UTF-8", std::nullopt, DataSize::availableSpace(), std::nullopt,
         {"数据量：全盘", {}, false, "请先选择需要测试的卷。"}},
        {"zh_CN.UTF-8", volume, DataSize::availableSpace(), std::nullopt,
         {"剩余容量不足，无法运行性能测试。", {}, false, "剩余容量不足，无法运行性能测试。"}},
        {"zh_CN.UTF-8", volume, DataSize::availableSpace(), whole, {"数据量：全盘（1.23 TB）", whole, true, {}}},
        {"zh_CN.UTF-8", volume, DataSize::gigabytes(10), adjusted,
         {"当前测试数据量：10 GB（预计自动调整为 5 GB）", adjusted, true, {}}},
    };
    for (const auto& c : cases) {
        testing::ScopedLanguage language(c.lang);
        const auto context = performancePayloadContext(c.volume, c.size, c.preview);
        EXPECT_EQ(context, c.expected) << context.description;
    }
}

TEST(ProgressTracker, FractionsAndEstimates) {
    using Clock = ProgressTracker::Clock;
    const auto start = Clock::time_point{};
    const auto at = [&](double seconds) {
        return start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    };
    ProgressTracker tracker({0, 0, 100, 100});

    tracker.advance(BenchmarkPhase::randomWrite, 4096);  // a phase of weight 0 never moves the fraction
    EXPECT_EQ(tracker.completed(BenchmarkPhase::randomWrite), 4096);
    auto state = tracker.snapshot(BenchmarkPhase::randomWrite, start, at(5));
    EXPECT_EQ(state.fractionCompleted, 0);
    EXPECT_FALSE(state.estimatedRemainingTime);

    tracker.advance(BenchmarkPhase::sequentialWrite, 50);
    state = tracker.snapshot(BenchmarkPhase::sequentialWrite, start, at(10));
    EXPECT_DOUBLE_EQ(state.fractionCompleted, 0.25);
    EXPECT_DOUBLE_EQ(*state.estimatedRemainingTime, 30);  // 10 / 0.25 − 10

    tracker.advance(BenchmarkPhase::sequentialWrite, 500);  // capped at the phase's total
    tracker.complete(BenchmarkPhase::sequentialWrite);      // adds nothing more
    EXPECT_DOUBLE_EQ(tracker.fraction(), 0.5);

    // The throttle: a second after the last publication, or whenever the run is complete.
    EXPECT_FALSE(tracker.shouldPublish(at(10.5)));
    EXPECT_TRUE(tracker.shouldPublish(at(11)));
    tracker.complete(BenchmarkPhase::sequentialRead);
    EXPECT_TRUE(tracker.shouldPublish(at(10.1)));
    state = tracker.snapshot(BenchmarkPhase::sequentialRead, start, at(20));
    EXPECT_EQ(state.fractionCompleted, 1);
    EXPECT_EQ(state.estimatedRemainingTime, 0.0);
    EXPECT_DOUBLE_EQ(state.elapsedTime, 20);

    // With no weight at all, the fraction stays 0.
    ProgressTracker empty({0, 0, 0, 0});
    empty.complete(BenchmarkPhase::sequentialRead);
    EXPECT_EQ(empty.fraction(), 0);
}

TEST(TimelineSampler, SamplesAboutOnceASecondOverTransferTime) {
    struct Chunk {
        std::uint64_t bytes;
        double duration;
        double elapsed;
    };
    struct Expected {
        double timestamp;
        std::uint64_t bytes;
        double throughput;
    };
    struct Case {
        const char* name;
        std::vector<Chunk> chunks;
        double finishAt;
        std::vector<Expected> samples;
    };
    const std::uint64_t S = 16'777'216;
    const Case cases[] = {
        {"first chunk alone, short chunk counted as a second", {{S, 0.4, 10.4}}, 10.4, {{10.4, S, S / 1.0}}},
        {"0.3 s chunks: a sample every fourth chunk",
         {{S, 0.3, 10.3}, {S, 0.3, 10.6}, {S, 0.3, 10.9}, {S, 0.3, 11.2}, {S, 0.3, 11.5}, {S, 0.3, 11.8},
          {S, 0.3, 12.1}, {S, 0.3, 12.4}, {S, 0.3, 12.7}},
         12.7,
         {{10.3, S, S / 1.0}, {11.5, 4 * S, 4 * S / 1.2}, {12.7, 4 * S, 4 * S / 1.2}}},
        {"pending bytes become a final sample", {{S, 0.3, 10.3}, {100, 0.1, 10.4}}, 10.5, {{10.3, S, S / 1.0}, {10.5, 100, 100}}},
        {"nothing is due before the first second", {{S, 0.2, 0.5}, {S, 0.2, 0.99}, {S, 0.2, 1.0}}, 1.0, {{1.0, 3 * S, 3 * S / 1.0}}},
        {"no chunks, no samples", {}, 3, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TimelineSampler sampler(TimelineSample::Phase::sequentialRead);
        for (const auto& chunk : c.chunks) sampler.feed(chunk.bytes, chunk.duration, chunk.elapsed);
        sampler.finish(c.finishAt);
        ASSERT_EQ(sampler.samples().size(), c.samples.size());
        double maximum = 0;
        for (std::size_t i = 0; i < c.samples.size(); ++i) {
            const auto& sample = sampler.samples()[i];
            EXPECT_DOUBLE_EQ(sample.timestamp, c.samples[i].timestamp);
            EXPECT_EQ(sample.bytesTransferred, c.samples[i].bytes);
            EXPECT_DOUBLE_EQ(sample.throughput, c.samples[i].throughput);
            EXPECT_EQ(sample.phase, TimelineSample::Phase::sequentialRead);
            maximum = std::max(maximum, sample.throughput);
        }
        EXPECT_DOUBLE_EQ(sampler.maximumThroughput(), maximum);
    }
}

TEST(PerformanceMetrics, StripTexts) {
    testing::ScopedLanguage english("en_US.UTF-8");
    // Durations are text::clockDurationText's; the running items below show they are wired in.
    struct Percent {
        double fraction;
        const char* text;
    };
    for (const Percent c : {Percent{0, "0%"}, Percent{0.5, "50%"}, Percent{0.1234, "12.3%"}, Percent{1.7, "100%"},
                            Percent{-1, "0%"}}) {
        EXPECT_EQ(PerformanceMetrics::progressText(c.fraction), c.text) << c.fraction;
    }

    auto items = PerformanceMetrics::runningItems(std::nullopt, "1 GB");
    ASSERT_EQ(items.size(), 5U);
    EXPECT_EQ(items[2].value, "Random Write Phase");
    EXPECT_EQ(items[3].value, "00:00:00");
    EXPECT_EQ(items[4].value, "Calculating…");
    EXPECT_EQ(items[4].style, MetricItem::Style::placeholder);
    items = PerformanceMetrics::runningItems(ProgressState{BenchmarkPhase::sequentialRead, 0.75, 30, 10, std::nullopt}, "1 GB");
    EXPECT_EQ(items[0].value, "75%");
    EXPECT_EQ(items[2].value, "Sequential Read Phase");
    EXPECT_EQ(items[3].value, "00:00:30");
    EXPECT_EQ(items[4].value, "00:00:10");

    PerformanceResult result;
    result.actualByteCount = 2'500'000'000ULL;
    result.writeThroughput = 1'234'567'890;
    result.maximumReadThroughput = 0;
    std::vector<std::string> titles, values;
    for (const auto& item : PerformanceMetrics::resultItems(result)) {
        titles.push_back(item.title);
        values.push_back(item.value);
    }
    EXPECT_EQ(titles, (std::vector<std::string>{"Sample Size", "Average Write Speed", "Average Read Speed",
                                                "Random Write IOPS", "Random Read IOPS", "Peak Write Speed",
                                                "Peak Read Speed", "Finished"}));
    EXPECT_EQ(values[0], "2.5 GB");
    EXPECT_EQ(values[1], "1.23 GB/s");
    EXPECT_EQ(values[6], "0 MB/s");
}

}  // namespace
}  // namespace vantorix
