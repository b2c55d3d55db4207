#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>

#include "monitor/DiskIOMonitor.h"

namespace vantorix {

// The dashboard's live figures, computed from the monitor's history. Shared by the desktop
// dashboard and the command-line monitor.
struct MonitorMetrics {
    struct Rates {
        double read = 0;
        double write = 0;
        friend bool operator==(const Rates&, const Rates&) = default;
    };

    // Bytes per second over the last second: the newest samples whose intervals add up to one
    // second, divided by max(that time, 1 s). Fewer samples than a second's worth still divide by
    // one second, so a run's first moments do not overstate the speed.
    template <class History>
    static Rates lastSecondSpeeds(const History& samples, DiskIOMonitor::SamplingPrecision precision) {
        // Whole milliseconds, so that ten 0.1 s intervals make exactly one second.
        const long long interval = DiskIOMonitor::rawValue(precision);
        long long elapsed = 0;
        std::uint64_t read = 0, write = 0;
        for (std::size_t i = samples.size(); i > 0 && elapsed < 1000; --i) {
            const auto& sample = samples[i - 1];
            elapsed += interval;
            read += sample.readBytes;
            write += sample.writeBytes;
        }
        const double seconds = static_cast<double>(std::max(elapsed, 1000LL)) / 1000.0;
        return {static_cast<double>(read) / seconds, static_cast<double>(write) / seconds};
    }

    // Operations per second over the newest second's worth of samples (at most round(1 / interval)
    // samples), divided by the time those samples cover.
    template <class History>
    static Rates operationRates(const History& samples, DiskIOMonitor::SamplingPrecision precision) {
        const double interval = DiskIOMonitor::intervalSeconds(precision);
        const auto perSecond = static_cast<std::size_t>(std::max(std::llround(1.0 / interval), 1LL));
        const std::size_t count = std::min(perSecond, static_cast<std::size_t>(samples.size()));
        const double seconds = interval * static_cast<double>(count);
        if (count == 0 || !(seconds > 0)) return {};
        std::uint64_t reads = 0, writes = 0;
        for (std::size_t i = samples.size() - count; i < samples.size(); ++i) {
            reads += samples[i].readOperations;
            writes += samples[i].writeOperations;
        }
        return {static_cast<double>(reads) / seconds, static_cast<double>(writes) / seconds};
    }

    // The request counters of the same newest second of samples that lastSecondSpeeds() sums, for
    // the figures loadFigures() makes of them.
    template <class History>
    static LoadCounters lastSecondLoad(const History& samples, DiskIOMonitor::SamplingPrecision precision) {
        const long long interval = DiskIOMonitor::rawValue(precision);
        long long elapsed = 0;
        std::size_t first = samples.size();
        for (; first > 0 && elapsed < 1000; --first) elapsed += interval;
        LoadCounters load;
        for (std::size_t i = first; i < samples.size(); ++i) load += samples[i].load;
        return load;
    }

    // The run's duration as hours, minutes and seconds ("01:02:05"; hours go past 24).
    static std::string durationText(double seconds);
};

}  // namespace vantorix
