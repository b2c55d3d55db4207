#include "benchmark/SustainedWrite.h"

#include <gtest/gtest.h>

#include <cmath>

namespace vantorix {
namespace {

constexpr double MB = 1e6;
constexpr double GB = 1e9;

// A stretch of a drive's curve: up to `untilBytes` written, it writes at `megabytesPerSecond`.
struct Stretch {
    double untilBytes;
    double megabytesPerSecond;
};

// The points a run records over the curve, one per 256 MiB step; each step's speed is scaled by
// the next factor of `noise` (in turn), as a real drive's steps scatter.
std::vector<SustainedPoint> pointsOver(const std::vector<Stretch>& curve, const std::vector<double>& noise = {1}) {
    std::vector<SustainedPoint> points;
    double bytes = 0;
    double seconds = 0;
    const double end = curve.back().untilBytes;
    while (bytes < end) {
        const double stepEnd = std::min(end, bytes + static_cast<double>(kSustainedStepBytes));
        double stepSeconds = 0;
        for (double at = bytes; at < stepEnd;) {
            const auto stretch = std::find_if(curve.begin(), curve.end(), [&](auto& s) { return at < s.untilBytes; });
            const double to = std::min(stepEnd, stretch->untilBytes);
            stepSeconds += (to - at) / (stretch->megabytesPerSecond * MB);
            at = to;
        }
        stepSeconds /= noise[points.size() % noise.size()];
        seconds += stepSeconds;
        points.push_back({static_cast<std::uint64_t>(stepEnd), seconds, (stepEnd - bytes) / stepSeconds, {}});
        bytes = stepEnd;
    }
    return points;
}

TEST(SustainedWriteAnalysis, FindsTheCliffWhereTheSpeedFellAndStopsOnlyWhenSteadyAfterIt) {
    struct Case {
        const char* name;
        std::vector<Stretch> curve;
        std::vector<double> noise;
        std::optional<double> cliffBytes;  // where the speed really fell; absent: no cliff
        double before, after, steady;      // MB/s; before and after only with a cliff
        bool steadyAfterCliff;
    };
    const std::vector<Case> cases{
        {"flat", {{20 * GB, 1000}}, {1}, {}, 0, 0, 1000, false},
        {"clean cliff, steady long after it", {{12 * GB, 1000}, {32 * GB, 400}}, {1}, 12 * GB, 1000, 400, 400, true},
        {"cliff mid-step", {{12.1 * GB, 1000}, {26 * GB, 400}}, {1}, 12.1 * GB, 1000, 400, 400, true},
        {"noise with single slow steps is no cliff",
         {{30 * GB, 1000}},
         {1.3, 0.7, 1.1, 0.5, 1.2, 0.9},
         {},
         0,
         0,
         0,
         false},
        {"shorter than the window", {{3 * GB, 1000}, {3.5 * GB, 100}}, {1}, {}, 0, 0, 3500.0 / 8, false},
        {"cliff then recovery", {{12 * GB, 1000}, {18 * GB, 300}, {40 * GB, 1000}}, {1}, 12 * GB, 1000, 0, 1000, true},
        {"cliff too recent to stop", {{12 * GB, 1000}, {20 * GB, 400}}, {1}, 12 * GB, 1000, 400, 400, false},
        {"unsteady after the cliff", {{12 * GB, 1000}, {40 * GB, 400}}, {0.75, 1.25}, 12 * GB, 937.5, 0, 0, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto points = pointsOver(c.curve, c.noise);
        const auto analysis = analyzeSustainedWrite(points);
        ASSERT_EQ(analysis.cliff.has_value(), c.cliffBytes.has_value());
        if (c.cliffBytes) {
            // Within one step of the fall, not a trailing window later.
            EXPECT_NEAR(static_cast<double>(analysis.cliff->bytes), *c.cliffBytes,
                        static_cast<double>(kSustainedStepBytes));
            EXPECT_NEAR(analysis.cliff->speedBefore / MB, c.before, c.before * 0.05);
            if (c.after > 0) {
                EXPECT_NEAR(analysis.cliff->speedAfter / MB, c.after, c.after * 0.05);
            }
        }
        if (c.steady > 0) {
            EXPECT_NEAR(analysis.steadyBytesPerSecond / MB, c.steady, c.steady * 0.05);
        }
        EXPECT_EQ(analysis.steadyAfterCliff, c.steadyAfterCliff);
    }
    EXPECT_FALSE(analyzeSustainedWrite({}).cliff);
}

TEST(SustainedWriteAnalysis, FileSizeIsTheChoiceOrItsShareOfTheFreeSpaceInWholeBlocks) {
    constexpr std::uint64_t MiB = kSustainedBlockSize;
    struct Case {
        std::optional<std::uint64_t> requested, free, size;
    };
    const Case cases[] = {
        {2'000'000'000, 3'000'000'000, 2'000'000'000 / MiB * MiB},
        {2'000'000'000, 1'999'999'999, std::nullopt},
        {2'000'000'000, std::nullopt, 2'000'000'000 / MiB * MiB},
        {std::nullopt, 1000 * MiB, 800 * MiB},
        {std::nullopt, 4 * kSustainedSizeLimit, kSustainedSizeLimit},
        {std::nullopt, MiB, std::nullopt},
        {std::nullopt, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(sustainedFileSize(c.requested, c.free), c.size)
            << c.requested.value_or(0) << " of " << c.free.value_or(0);
    }
}

}  // namespace
}  // namespace vantorix
