#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace vantorix {

// The sustained-write test writes one file sequentially with direct I/O, 1 MiB blocks eight deep,
// and records the speed of every 256 MiB step, so that the point where a drive's fast cache runs
// full (the cliff) and the speed it holds afterwards show.

inline constexpr std::uint32_t kSustainedBlockSize = 1'048'576;  // 1 MiB
inline constexpr std::uint32_t kSustainedQueueDepth = 8;
inline constexpr std::uint64_t kSustainedStepBytes = 268'435'456;  // 256 MiB between two points
// Without a size chosen, the test writes this share of the free space, at most kSustainedSizeLimit.
inline constexpr double kSustainedFreeSpaceShare = 0.8;
inline constexpr std::uint64_t kSustainedSizeLimit = 274'877'906'944;  // 256 GiB

// The rules of the analysis (see analyzeSustainedWrite).
inline constexpr double kSustainedWindowSeconds = 10;  // the initial and the trailing window
inline constexpr double kCliffRatio = 0.6;             // a fall below this share of the initial speed
inline constexpr double kEarlyStopAfterCliffSeconds = 30;
inline constexpr double kSteadySpanSeconds = 20;
inline constexpr double kSteadyTolerance = 0.15;
inline constexpr std::size_t kSteadyMinimumSteps = 3;

// The end of one step: the bytes written so far, the seconds since the writing started, the speed
// of the step that ends here, and the drive's last temperature sampled by then.
struct SustainedPoint {
    std::uint64_t bytesWritten = 0;
    double seconds = 0;
    double bytesPerSecond = 0;
    std::optional<double> celsius;

    friend bool operator==(const SustainedPoint&, const SustainedPoint&) = default;
};

// Where the speed fell: the bytes written and the seconds when the first slow step began, and the
// average speeds before and after that point.
struct SustainedCliff {
    std::uint64_t bytes = 0;
    double secondsIn = 0;
    double speedBefore = 0;
    double speedAfter = 0;

    friend bool operator==(const SustainedCliff&, const SustainedCliff&) = default;
};

// What a sustained-write test measured.
struct SustainedWriteFigures {
    std::vector<SustainedPoint> points;
    std::uint64_t bytesWritten = 0;
    double seconds = 0;  // from the first write to the last completion
    double averageBytesPerSecond = 0;
    double maximumBytesPerSecond = 0;  // of the fastest step
    double initialBytesPerSecond = 0;  // the average of the first kSustainedWindowSeconds
    std::optional<SustainedCliff> cliff;
    double steadyBytesPerSecond = 0;
    bool stoppedEarly = false;  // the speed was steady after a cliff, so the rest was not written

    friend bool operator==(const SustainedWriteFigures&, const SustainedWriteFigures&) = default;
};

// What the points say, computed from them alone.
struct SustainedAnalysis {
    double initialBytesPerSecond = 0;  // of the whole run when it is shorter than the window
    std::optional<SustainedCliff> cliff;
    double steadyBytesPerSecond = 0;
    // The early-stop rule holds at the last point.
    bool steadyAfterCliff = false;
};

// The cliff, the steady speed and the early-stop rule over points in the order they were taken.
// Step i runs from the point before it (or from 0 bytes at 0 s) to point i at a constant speed;
// a window's average speed is the bytes its steps moved inside the window over its length.
// - The initial speed is the average of the first kSustainedWindowSeconds. At each point from
//   then on, the average of the trailing kSustainedWindowSeconds is compared with it; at the first
//   point where it is below kCliffRatio of it, the cliff is the start of the first step of that
//   window whose own speed is below kCliffRatio of the initial speed. A run shorter than the
//   window has no cliff.
// - The steady speed is the average of the last kSustainedWindowSeconds (of the whole run when
//   it is shorter).
// - Early stop: there is a cliff, at least kEarlyStopAfterCliffSeconds have passed since it, and
//   the speeds of the steps that reach into the last kSteadySpanSeconds (at least
//   kSteadyMinimumSteps of them) all lie within kSteadyTolerance of their mean.
SustainedAnalysis analyzeSustainedWrite(const std::vector<SustainedPoint>& points);

// The figures of a run from its points, the bytes and seconds it wrote in all, and whether it
// stopped early.
SustainedWriteFigures sustainedWriteFigures(std::vector<SustainedPoint> points, std::uint64_t bytesWritten,
                                            double seconds, bool stoppedEarly);

// The size of the test file: `requested` bytes when given (a size chosen), else
// kSustainedFreeSpaceShare of the free space within kSustainedSizeLimit; in whole blocks, and
// nothing when that leaves none or the free space is too small.
std::optional<std::uint64_t> sustainedFileSize(std::optional<std::uint64_t> requested,
                                               std::optional<std::uint64_t> freeBytes);

}  // namespace vantorix
