#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <variant>
#include <vector>

#include "charts/SampleWindow.h"
#include "concurrency/Cancellation.h"
#include "concurrency/MainExecutor.h"
#include "concurrency/Published.h"
#include "concurrency/SerialQueue.h"
#include "monitor/DeviceLoad.h"
#include "util/Uuid.h"

namespace vantorix {

// One plotted point of the graph: the bin of samples it stands for, reduced to its peak speeds, its
// byte totals and the sum of its request counters. The latency and load figures of the bin come
// from that sum (loadFigures), never from averaging the samples' own figures: a sample of one slow
// request and one of a thousand fast ones make a bin of a thousand and one requests.
struct IndexedSample {
    // The counters may be left out: a point of the throughput graph alone needs none.
    IndexedSample() = default;
    IndexedSample(std::int64_t at, double read, double write, std::uint64_t readTotal, std::uint64_t writeTotal,
                  std::int64_t count, LoadCounters counters = {})
        : index(at),
          readSpeed(read),
          writeSpeed(write),
          readBytes(readTotal),
          writeBytes(writeTotal),
          sampleCount(count),
          load(counters) {}

    std::int64_t index = 0;        // the middle of the bin, as an index into the sample list
    double readSpeed = 0;          // highest per-sample read speed in the bin, bytes per second
    double writeSpeed = 0;         // highest per-sample write speed in the bin, bytes per second
    std::uint64_t readBytes = 0;   // sum of the bin's read bytes, saturating at 2^64 − 1
    std::uint64_t writeBytes = 0;  // sum of the bin's write bytes, saturating at 2^64 − 1
    std::int64_t sampleCount = 0;
    LoadCounters load;  // the bin's samples' request counters, summed

    friend bool operator==(const IndexedSample&, const IndexedSample&) = default;
};

// A half-open range of sample indices, lower..<upper.
struct SampleRange {
    std::int64_t lower = 0;
    std::int64_t upper = 0;

    friend bool operator==(const SampleRange&, const SampleRange&) = default;
};

struct DownsampledBin {
    SampleRange range;
    IndexedSample sample;

    friend bool operator==(const DownsampledBin&, const DownsampledBin&) = default;
};

// Tells cheaply whether a sample list may have changed: its length and the ids at both ends.
struct DataSignature {
    std::int64_t count = 0;
    std::optional<Uuid> firstID;
    std::optional<Uuid> lastID;

    static DataSignature of(const SampleWindow& samples);
    static const DataSignature empty;

    friend bool operator==(const DataSignature&, const DataSignature&) = default;
};

// What a request needs computed, given what the cache already holds.
struct DownsamplingPlan {
    struct Recompute {
        std::vector<DownsampledBin> preservedBins;  // kept as they are, in front of the new bins
        std::int64_t recomputeStart = 0;            // the sample index at which computing resumes
    };
    struct None {};
    using Work = std::variant<Recompute, None>;

    Work work;
    SampleRange sanitizedRange;
    std::int64_t targetCount = 0;
    std::int64_t chunkSize = 0;
};

// Reduces the graph's visible samples to at most a target number of points (bins) on a background
// queue, keeps the bins so that the next request can reuse them, and publishes the points on the
// main thread as plottedSamples.
//
// Threads: update(), the accessors and the published points belong to the main thread (the thread
// of the MainExecutor). A request supersedes the one before it: the older job is cancelled before
// it starts, or, once running, gives up when it sees that its token is no longer current, and its
// result is dropped on arrival. Jobs and installers hold the cache weakly and do nothing once it
// is gone.
class DiskIOGraphRendererCache : public std::enable_shared_from_this<DiskIOGraphRendererCache> {
public:
    using Points = std::vector<IndexedSample>;

    static std::shared_ptr<DiskIOGraphRendererCache> create(std::shared_ptr<MainExecutor> mainExecutor);
    ~DiskIOGraphRendererCache();
    DiskIOGraphRendererCache(const DiskIOGraphRendererCache&) = delete;
    DiskIOGraphRendererCache& operator=(const DiskIOGraphRendererCache&) = delete;

    // Asks for the points of `range` of `samples`, at most `targetCount` of them, with speeds for
    // samples `sampleIntervalMs` milliseconds apart. The result arrives later in plottedSamples.
    void update(const SampleWindow& samples, SampleRange range, std::int64_t targetCount,
                std::int64_t sampleIntervalMs);

    const Points& plottedSamples() const { return plottedSamples_.get(); }
    Subscription subscribe(std::function<void(const Points&)> subscriber) {
        return plottedSamples_.subscribe(std::move(subscriber));
    }

    // What the cache holds (main thread).
    const std::vector<DownsampledBin>& cachedBins() const { return cachedBins_; }
    SampleRange cachedRange() const { return cachedRange_; }
    std::int64_t cachedTargetCount() const { return cachedTargetCount_; }
    std::int64_t cachedChunkSize() const { return cachedChunkSize_; }
    std::int64_t cachedSampleIntervalMs() const { return cachedSampleIntervalMs_; }
    const DataSignature& cachedDataSignature() const { return cachedDataSignature_; }
    bool hasPendingWork() const { return pendingWorkItem_.has_value(); }

    // The work that a request for lower..<upper with these counts needs, compared with the cache.
    DownsamplingPlan makePlan(std::int64_t lower, std::int64_t upper, std::int64_t targetCount,
                              std::int64_t chunkSize) const;

    // 1000 ÷ interval, or 0 for an interval below 1 ms.
    static double speedFactor(std::int64_t sampleIntervalMs);
    // `range` clamped to the list's indices 0..<count, never inverted.
    static SampleRange sanitize(SampleRange range, std::int64_t count);
    // Bins of `chunkSize` samples from `start` up to `upper` (the last may be shorter).
    static std::vector<DownsampledBin> computeBins(const SampleWindow& samples, std::int64_t start, std::int64_t upper,
                                                   std::int64_t chunkSize, double speedFactor);

private:
    // The identity of the one job that may still install its result; read by the job on the queue.
    class CurrentJob {
    public:
        void set(std::optional<Uuid> token);
        bool is(const Uuid& token) const;

    private:
        mutable std::mutex mutex_;
        std::optional<Uuid> token_;
    };

    struct Result {
        std::vector<DownsampledBin> bins;
        SampleRange range;
        std::int64_t targetCount = 0;
        std::int64_t chunkSize = 0;
        std::int64_t sampleIntervalMs = 0;
        DataSignature signature;
    };

    explicit DiskIOGraphRendererCache(std::shared_ptr<MainExecutor> mainExecutor);
    void cancelPendingWork();
    void install(Result result);
    void postInstaller(Result result);

    std::shared_ptr<MainExecutor> mainExecutor_;
    Published<Points> plottedSamples_;
    std::vector<DownsampledBin> cachedBins_;
    SampleRange cachedRange_;
    std::int64_t cachedTargetCount_ = 0;
    std::int64_t cachedChunkSize_ = 0;
    std::int64_t cachedSampleIntervalMs_ = 0;
    DataSignature cachedDataSignature_;
    std::optional<CancellationSource> pendingWorkItem_;
    std::shared_ptr<CurrentJob> pendingWorkToken_ = std::make_shared<CurrentJob>();
    // Declared last: destroyed first, while the fields above still exist for the jobs it finishes.
    std::unique_ptr<SerialQueue> downsamplingQueue_;
};

}  // namespace vantorix
