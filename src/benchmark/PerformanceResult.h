#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "benchmark/DataSize.h"
#include "benchmark/ProgressTracker.h"
#include "benchmark/SustainedWrite.h"
#include "benchmark/TestMode.h"
#include "util/Uuid.h"

namespace vantorix {

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
    // The sustained-write test's figures; absent for the other tests.
    std::optional<SustainedWriteFigures> sustained;
};

}  // namespace vantorix
