#include "benchmark/SustainedWrite.h"

#include <algorithm>
#include <cmath>

namespace vantorix {
namespace {

using Points = std::vector<SustainedPoint>;

double stepStartSeconds(const Points& points, std::size_t step) { return step == 0 ? 0 : points[step - 1].seconds; }
std::uint64_t stepStartBytes(const Points& points, std::size_t step) {
    return step == 0 ? 0 : points[step - 1].bytesWritten;
}

// The bytes written by `seconds`, each step taken at its constant speed.
double bytesBy(const Points& points, double seconds) {
    const auto end = std::lower_bound(points.begin(), points.end(), seconds,
                                      [](const SustainedPoint& point, double t) { return point.seconds < t; });
    if (end == points.end()) return static_cast<double>(points.back().bytesWritten);
    const auto step = static_cast<std::size_t>(end - points.begin());
    const double from = stepStartSeconds(points, step);
    const auto fromBytes = static_cast<double>(stepStartBytes(points, step));
    const double length = end->seconds - from;
    if (length <= 0) return static_cast<double>(end->bytesWritten);
    return fromBytes + (static_cast<double>(end->bytesWritten) - fromBytes) * (seconds - from) / length;
}

double averageBetween(const Points& points, double from, double to) {
    return to > from ? (bytesBy(points, to) - bytesBy(points, from)) / (to - from) : 0.0;
}

std::optional<SustainedCliff> findCliff(const Points& points) {
    const double end = points.back().seconds;
    if (end <= kSustainedWindowSeconds) return std::nullopt;
    const double threshold = kCliffRatio * averageBetween(points, 0, kSustainedWindowSeconds);
    for (std::size_t i = 0; i < points.size(); ++i) {
        const double at = points[i].seconds;
        if (at <= kSustainedWindowSeconds || averageBetween(points, at - kSustainedWindowSeconds, at) >= threshold) {
            continue;
        }
        // The window's average is a weighted mean of its steps' speeds, so one of them is slow:
        // the first such step is where the speed fell.
        std::size_t step = 0;
        while (step < i &&
               !(points[step].seconds > at - kSustainedWindowSeconds && points[step].bytesPerSecond < threshold)) {
            ++step;
        }
        SustainedCliff cliff;
        cliff.bytes = stepStartBytes(points, step);
        cliff.secondsIn = stepStartSeconds(points, step);
        if (cliff.secondsIn > 0) cliff.speedBefore = static_cast<double>(cliff.bytes) / cliff.secondsIn;
        if (end > cliff.secondsIn) {
            cliff.speedAfter = static_cast<double>(points.back().bytesWritten - cliff.bytes) / (end - cliff.secondsIn);
        }
        return cliff;
    }
    return std::nullopt;
}

bool steadySince(const Points& points, const SustainedCliff& cliff) {
    const double end = points.back().seconds;
    if (end - cliff.secondsIn < kEarlyStopAfterCliffSeconds) return false;
    std::vector<double> speeds;
    for (const auto& point : points) {
        if (point.seconds > end - kSteadySpanSeconds) speeds.push_back(point.bytesPerSecond);
    }
    if (speeds.size() < kSteadyMinimumSteps) return false;
    double mean = 0;
    for (const double speed : speeds) mean += speed;
    mean /= static_cast<double>(speeds.size());
    return std::all_of(speeds.begin(), speeds.end(),
                       [mean](double speed) { return std::abs(speed - mean) <= kSteadyTolerance * mean; });
}

}  // namespace

SustainedAnalysis analyzeSustainedWrite(const std::vector<SustainedPoint>& points) {
    SustainedAnalysis analysis;
    if (points.empty()) return analysis;
    const double end = points.back().seconds;
    analysis.initialBytesPerSecond = averageBetween(points, 0, std::min(end, kSustainedWindowSeconds));
    analysis.steadyBytesPerSecond = averageBetween(points, std::max(0.0, end - kSustainedWindowSeconds), end);
    analysis.cliff = findCliff(points);
    analysis.steadyAfterCliff = analysis.cliff && steadySince(points, *analysis.cliff);
    return analysis;
}

SustainedWriteFigures sustainedWriteFigures(std::vector<SustainedPoint> points, std::uint64_t bytesWritten,
                                            double seconds, bool stoppedEarly) {
    SustainedWriteFigures figures;
    const SustainedAnalysis analysis = analyzeSustainedWrite(points);
    figures.bytesWritten = bytesWritten;
    figures.seconds = seconds;
    figures.averageBytesPerSecond = seconds > 0 ? static_cast<double>(bytesWritten) / seconds : 0;
    for (const auto& point : points) {
        figures.maximumBytesPerSecond = std::max(figures.maximumBytesPerSecond, point.bytesPerSecond);
    }
    figures.initialBytesPerSecond = analysis.initialBytesPerSecond;
    figures.cliff = analysis.cliff;
    figures.steadyBytesPerSecond = analysis.steadyBytesPerSecond;
    figures.stoppedEarly = stoppedEarly;
    figures.points = std::move(points);
    return figures;
}

std::optional<std::uint64_t> sustainedFileSize(std::optional<std::uint64_t> requested,
                                               std::optional<std::uint64_t> freeBytes) {
    std::uint64_t size = 0;
    if (requested) {
        if (freeBytes && *requested > *freeBytes) return std::nullopt;
        size = *requested;
    } else {
        if (!freeBytes) return std::nullopt;
        const auto share = static_cast<std::uint64_t>(static_cast<double>(*freeBytes) * kSustainedFreeSpaceShare);
        size = std::min(share, kSustainedSizeLimit);
    }
    size -= size % kSustainedBlockSize;
    if (size == 0) return std::nullopt;
    return size;
}

}  // namespace vantorix
