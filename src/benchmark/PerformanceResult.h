#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "benchmark/DataSize.h"
#include "benchmark/PageCacheCheck.h"
#include "benchmark/ProgressTracker.h"
#include "benchmark/SustainedWrite.h"
#include "benchmark/TestMode.h"
#include "util/Uuid.h"

namespace vantorix {

// How one figure of a result moved since the previous run of the same kind on the same drive.
struct FigureChange {
    std::string name;  // the figure's key: "writeThroughput", "SEQ1M Q8T1 read", ...
    double previous = 0;
    double current = 0;
    double percent = 0;    // the change, in per cent of the previous value
    bool dropped = false;  // fell by more than run-to-run noise

    friend bool operator==(const FigureChange&, const FigureChange&) = default;
};

struct ResultComparison {
    std::chrono::system_clock::time_point previousFinishedAt;
    std::vector<FigureChange> changes;  // in the order the result shows its figures

    const FigureChange* change(const std::string& name) const {
        for (const auto& entry : changes) {
            if (entry.name == name) return &entry;
        }
        return nullptr;
    }
    friend bool operator==(const ResultComparison&, const ResultComparison&) = default;
};

// The figures of one successful performance test.
struct PerformanceResult {
    Uuid id;
    DataSize dataSize = DataSize::availableSpace();  // the choice when the run started
    std::uint64_t actualByteCount = 0;               // bytes of each sequential phase
    bool isPayloadAdjusted = false;
    double writeDuration = 0;    // seconds, sequential write including the final flush
    double writeThroughput = 0;  // bytes per second
    double readDuration = 0;
    double readThroughput = 0;
    double randomWriteIOPS = 0;
    double randomReadIOPS = 0;
    std::int64_t randomBlockSize = 4096;
    std::int64_t randomOperationCount = 0;  // the smaller of the random write and read counts
    double maximumWriteThroughput = 0;
    double maximumReadThroughput = 0;
    std::vector<TimelineSample> timeline;  // write samples, then read samples
    std::chrono::system_clock::time_point finishedAt;
    TestMode mode;
    // The queue-depth test's figures, one per profile in the order of kQueueDepthProfiles; empty
    // for the standard test.
    std::vector<QueueDepthFigure> queueDepthFigures;
    // The standard test's phases against the device's counters, in the order they ran; empty when
    // the device's counters could not be opened.
    std::vector<PhaseTraffic> phaseTraffic;
    // Against the previous run of the same kind on the same drive, when the drive's history has one.
    std::optional<ResultComparison> comparison;
    // The sustained-write test's figures; absent for the other tests.
    std::optional<SustainedWriteFigures> sustained;
};

}  // namespace vantorix
