#include "monitor/DeviceLoad.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

namespace vantorix {
namespace {

using namespace std::chrono_literals;

// One reading of a device's counters and the time since the reading before it.
struct Reading {
    std::chrono::nanoseconds after;
    std::uint64_t reads, readMs, writes, writeMs, busyMs, weightedMs, inFlight, discards, flushes;
    BlockStatistics statistics() const {
        BlockStatistics s;
        s.readsCompleted = reads;
        s.readMilliseconds = readMs;
        s.writesCompleted = writes;
        s.writeMilliseconds = writeMs;
        s.busyMilliseconds = busyMs;
        s.weightedMilliseconds = weightedMs;
        s.inFlight = inFlight;
        s.discardsCompleted = discards;
        s.flushesCompleted = flushes;
        return s;
    }
};

constexpr std::uint64_t k32 = 1ULL << 32;

// Every span is the sum of its consecutive differences, as a graph bin or a scrape interval sums
// the samples inside it; the expected figures are iostat -x's for the same counters.
TEST(DeviceLoad, FiguresOfScriptedCounterSequences) {
    struct Expected {
        std::optional<double> readAwait, writeAwait, utilization, queueDepth;
        std::uint64_t inFlight;
        double discardsPerSecond, flushesPerSecond;
    };
    struct Case {
        const char* name;
        std::vector<Reading> readings;
        Expected expected;
    };
    constexpr auto none = std::nullopt;
    const std::vector<Case> cases{
        {"one second of both directions",
         {{0ms, 100, 50, 200, 300, 1000, 5000, 0, 0, 0}, {1s, 110, 90, 220, 340, 1600, 5900, 3, 4, 2}},
         {4.0, 2.0, 0.6, 0.9, 3, 4.0, 2.0}},
        {"no completion: a request in flight all along has no await, yet keeps the device busy",
         {{0ms, 7, 70, 9, 90, 500, 500, 1, 0, 0},
          {1ms, 7, 70, 9, 90, 501, 501, 1, 0, 0},
          {1ms, 7, 70, 9, 90, 502, 502, 1, 0, 0}},
         {none, none, 1.0, 1.0, 1, 0, 0}},
        {"an idle span: utilisation and depth are zero, await absent",
         {{0ms, 5, 5, 5, 5, 5, 5, 0, 0, 0}, {1s, 5, 5, 5, 5, 5, 5, 0, 0, 0}},
         {none, none, 0.0, 0.0, 0, 0, 0}},
        {"bins of mixed spans sum to the outer readings' figures",
         {{0ms, 0, 0, 0, 0, 0, 0, 0, 0, 0},
          {1ms, 1, 1, 0, 0, 1, 1, 2, 0, 0},
          {1ms, 1, 1, 4, 0, 2, 3, 2, 0, 0},
          {8ms, 3, 2, 4, 9, 6, 13, 0, 0, 0},
          {990ms, 10, 12, 20, 41, 400, 700, 0, 0, 0}},
         {1.2, 2.05, 0.4, 0.7, 0, 0, 0}},
        {"time counters wrap at 2^32 milliseconds, as the kernel writes them",
         {{0ms, 10, k32 - 6, 0, 0, k32 - 100, k32 - 1, 0, 0, 0}, {100ms, 12, 4, 0, 0, 50, 99, 1, 0, 0}},
         {5.0, none, 1.0, 1.0, 1, 0, 0}},
        {"completion counters wrap only modulo 2^64: beyond 2^32 they just grow",
         {{0ms, k32 - 1, 10, k32, 10, 0, 0, 0, 0, 0}, {500ms, k32 + 1, 16, k32 + 3, 40, 250, 400, 0, 0, 0}},
         {3.0, 10.0, 0.5, 0.8, 0, 0, 0}},
        {"a reset (completions going back) counts as no time and no work, and the next span is normal",
         {{0ms, 900, 9000, 900, 9000, 9000, 9000, 0, 0, 0},
          {1s, 2, 20, 3, 30, 40, 50, 0, 0, 0},
          {1s, 4, 30, 3, 30, 540, 1050, 2, 0, 0}},
         {5.0, none, 0.5, 1.0, 2, 0, 0}},
        {"busy time counted in clock ticks can exceed a 1 ms span: utilisation stops at 1",
         {{0ms, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {1ms, 0, 0, 1, 4, 4, 4, 0, 0, 0}},
         {none, 4.0, 1.0, 4.0, 0, 0, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        LoadCounters span;
        for (std::size_t i = 1; i < c.readings.size(); ++i) {
            span += loadDifference(c.readings[i - 1].statistics(), c.readings[i].statistics(), c.readings[i].after);
        }
        const auto figures = loadFigures(span);
        const auto near = [](std::optional<double> actual, std::optional<double> expected, const char* what) {
            ASSERT_EQ(actual.has_value(), expected.has_value()) << what;
            if (expected) {
                EXPECT_NEAR(*actual, *expected, 1e-9) << what;
            }
        };
        near(figures.readAwaitMilliseconds, c.expected.readAwait, "read await");
        near(figures.writeAwaitMilliseconds, c.expected.writeAwait, "write await");
        near(figures.utilization, c.expected.utilization, "utilization");
        near(figures.averageQueueDepth, c.expected.queueDepth, "queue depth");
        EXPECT_EQ(figures.inFlight, c.expected.inFlight);
        EXPECT_NEAR(figures.discardsPerSecond, c.expected.discardsPerSecond, 1e-9);
        EXPECT_NEAR(figures.flushesPerSecond, c.expected.flushesPerSecond, 1e-9);
    }
}

}  // namespace
}  // namespace vantorix
