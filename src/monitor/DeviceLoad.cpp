#include "monitor/DeviceLoad.h"

#include <algorithm>
#include <limits>

namespace vantorix {
namespace {

constexpr std::uint64_t kThirtyTwoBits = std::numeric_limits<std::uint32_t>::max();

std::uint64_t timeDifference(std::uint64_t earlier, std::uint64_t later) noexcept {
    if (later < earlier && earlier <= kThirtyTwoBits) return (later - earlier) & kThirtyTwoBits;
    return later - earlier;
}

std::optional<double> ratio(std::uint64_t numerator, std::uint64_t denominator) {
    if (denominator == 0) return std::nullopt;
    return static_cast<double>(numerator) / static_cast<double>(denominator);
}

}  // namespace

LoadCounters& LoadCounters::operator+=(const LoadCounters& later) noexcept {
    wall += later.wall;
    readsCompleted += later.readsCompleted;
    writesCompleted += later.writesCompleted;
    readMilliseconds += later.readMilliseconds;
    writeMilliseconds += later.writeMilliseconds;
    busyMilliseconds += later.busyMilliseconds;
    weightedMilliseconds += later.weightedMilliseconds;
    discardsCompleted += later.discardsCompleted;
    flushesCompleted += later.flushesCompleted;
    inFlight = later.inFlight;
    return *this;
}

LoadCounters loadDifference(const BlockStatistics& earlier, const BlockStatistics& later,
                            std::chrono::nanoseconds wall) noexcept {
    LoadCounters span;
    span.inFlight = later.inFlight;
    if (later.readsCompleted < earlier.readsCompleted || later.writesCompleted < earlier.writesCompleted) return span;
    span.wall = std::max(wall, std::chrono::nanoseconds::zero());
    span.readsCompleted = later.readsCompleted - earlier.readsCompleted;
    span.writesCompleted = later.writesCompleted - earlier.writesCompleted;
    span.readMilliseconds = timeDifference(earlier.readMilliseconds, later.readMilliseconds);
    span.writeMilliseconds = timeDifference(earlier.writeMilliseconds, later.writeMilliseconds);
    span.busyMilliseconds = timeDifference(earlier.busyMilliseconds, later.busyMilliseconds);
    span.weightedMilliseconds = timeDifference(earlier.weightedMilliseconds, later.weightedMilliseconds);
    span.discardsCompleted = later.discardsCompleted - earlier.discardsCompleted;
    span.flushesCompleted = later.flushesCompleted - earlier.flushesCompleted;
    return span;
}

LoadFigures loadFigures(const LoadCounters& span) noexcept {
    LoadFigures figures;
    figures.readAwaitMilliseconds = ratio(span.readMilliseconds, span.readsCompleted);
    figures.writeAwaitMilliseconds = ratio(span.writeMilliseconds, span.writesCompleted);
    figures.inFlight = span.inFlight;
    const double milliseconds = std::chrono::duration<double, std::milli>(span.wall).count();
    if (milliseconds > 0) {
        figures.utilization = std::min(static_cast<double>(span.busyMilliseconds) / milliseconds, 1.0);
        figures.averageQueueDepth = static_cast<double>(span.weightedMilliseconds) / milliseconds;
        figures.discardsPerSecond = static_cast<double>(span.discardsCompleted) * 1000.0 / milliseconds;
        figures.flushesPerSecond = static_cast<double>(span.flushesCompleted) * 1000.0 / milliseconds;
    }
    return figures;
}

}  // namespace vantorix
