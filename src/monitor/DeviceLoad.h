#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "platform/BlockStatistics.h"

namespace vantorix {

// What a device's request counters moved over a span of time: the differences of two readings, or
// the sum of the differences of consecutive readings. Every figure of the span (await, busy time,
// queue depth) is a ratio of these sums, so a span made of many short ones gives exactly the figure
// of one long reading over the same time, the way iostat -x computes it.
//
// The kernel's time counters are milliseconds, each the running sum of nanosecond times truncated
// at the reading, so over one 1 ms interval they move in whole steps: an interval's await can be off
// by up to a millisecond divided by its completions, and its busy time by up to a clock tick of
// the kernel (1–10 ms). The truncation errors do not add up: the sum of a run of intervals is the
// difference of its outer readings, exact to a millisecond, which is why spans are summed and
// never averaged.
struct LoadCounters {
    std::chrono::nanoseconds wall{0};  // the time between the readings, as this process measured it
    std::uint64_t readsCompleted = 0;
    std::uint64_t writesCompleted = 0;
    std::uint64_t readMilliseconds = 0;
    std::uint64_t writeMilliseconds = 0;
    std::uint64_t busyMilliseconds = 0;
    std::uint64_t weightedMilliseconds = 0;
    std::uint64_t discardsCompleted = 0;
    std::uint64_t flushesCompleted = 0;
    std::uint64_t inFlight = 0;  // requests in flight at the span's end (the later reading's)

    // Appends a later span: sums every difference and takes the later span's requests in flight.
    LoadCounters& operator+=(const LoadCounters& later) noexcept;

    friend bool operator==(const LoadCounters&, const LoadCounters&) = default;
};

// The counters' differences from `earlier` to `later`, read `wall` apart. The kernel writes its time
// fields as 32-bit numbers, so a time field that goes backwards while both readings fit in 32 bits
// has wrapped modulo 2^32; the other fields wrap modulo 2^64, like the byte counters. Completions
// going backwards cannot be a wrap (2^64 requests): the device was reset (removed and added again
// under its name), and the span says nothing, so it counts as no time and no work.
LoadCounters loadDifference(const BlockStatistics& earlier, const BlockStatistics& later,
                            std::chrono::nanoseconds wall) noexcept;

// The figures of one span.
struct LoadFigures {
    // Mean time per completed request, queueing included, in milliseconds: Δtime ÷ Δcompleted.
    // Absent when the span completed no request of that direction (it is not zero).
    std::optional<double> readAwaitMilliseconds;
    std::optional<double> writeAwaitMilliseconds;
    // Share of the span with at least one request in flight, 0–1: Δbusy ÷ Δwall. On a device that
    // serves requests in parallel this is busy time, not saturation. Absent for an empty span.
    std::optional<double> utilization;
    // Requests in flight on average over the span: Δweighted ÷ Δwall. Absent for an empty span.
    std::optional<double> averageQueueDepth;
    std::uint64_t inFlight = 0;  // at the span's end
    double discardsPerSecond = 0;
    double flushesPerSecond = 0;

    friend bool operator==(const LoadFigures&, const LoadFigures&) = default;
};

// The span's figures. Busy time is counted in kernel clock ticks, so over a short span it can exceed
// the span itself; utilisation stops at 1.
LoadFigures loadFigures(const LoadCounters& span) noexcept;

}  // namespace vantorix
