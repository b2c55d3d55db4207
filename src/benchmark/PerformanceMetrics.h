#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "benchmark/PerformanceResult.h"
#include "benchmark/ProgressTracker.h"

namespace vantorix {

// The performance test's figures as the dashboard's metrics strip shows them, in the current
// language. The command line prints the same items.
struct MetricItem {
    enum class Style { highlight, normal, placeholder };

    std::string icon;  // symbol name
    std::string title;
    std::string value;
    Style style = Style::normal;

    friend bool operator==(const MetricItem&, const MetricItem&) = default;
};

struct PerformanceMetrics {
    PerformanceMetrics() = delete;

    // "HH:MM:SS" of the seconds rounded half away from zero; negative counts as 0; hours unbounded.
    static std::string durationText(double seconds);
    // The fraction clamped to 0 … 1 as a percentage with at most one fraction digit.
    static std::string progressText(double fraction);

    // The strip's heading and the icon of a payload warning.
    static MetricItem heading();
    static const char* warningIcon() { return "exclamationmark.triangle.fill"; }

    // While a run is in progress: progress, payload, phase, elapsed and ETA.
    static std::vector<MetricItem> runningItems(const std::optional<ProgressState>& progress,
                                                const std::string& payloadValue);
    // After a run: sample size, average and peak speeds, IOPS and the finish time.
    static std::vector<MetricItem> resultItems(const PerformanceResult& result);
    // After a sustained-write test: written bytes, average speed, the cliff with the speeds before
    // and after it, the steady speed and the finish time (SustainedMetrics.cpp).
    static std::vector<MetricItem> sustainedItems(const PerformanceResult& result,
                                                  const SustainedWriteFigures& figures);
    // "Write speed fell at 12.3 GB: 1.2 GB/s before, 420 MB/s after", or why there is no cliff.
    static std::string cliffSentence(const SustainedWriteFigures& figures);

    // The speed a result is held against its link's ceiling: the higher of the sequential write
    // and read averages. A peak is one short sample, whose window can catch a burst a cache
    // absorbed, and is no fair measure against the link.
    static double bestSequentialThroughput(const PerformanceResult& result) {
        return std::max(result.writeThroughput, result.readThroughput);
    }

    // Speeds in MB/s or GB/s; sizes in MB or GB.
    static std::string speedText(double bytesPerSecond);
    static std::string sizeText(std::uint64_t bytes);
    static std::string iopsText(double operationsPerSecond);
};

}  // namespace vantorix
