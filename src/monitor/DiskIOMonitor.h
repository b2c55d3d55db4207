#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "concurrency/MainExecutor.h"
#include "concurrency/Published.h"
#include "concurrency/RepeatingTimer.h"
#include "concurrency/SerialQueue.h"
#include "monitor/AggregationCoordinator.h"
#include "monitor/DiskSample.h"
#include "monitor/FixedRingBuffer.h"
#include "monitor/StatisticsSession.h"
#include "platform/BlockDevice.h"
#include "platform/VolumeInfoSource.h"
#include "volumes/DiskVolumeDescriptor.h"
#include "volumes/MonitorError.h"

namespace vantorix {

// The live traffic monitor of the selected volume. It samples the volume's cumulative counters on
// a timer of its own queue, turns consecutive readings into samples, and publishes the bounded
// history, the newest values, the run's totals and its duration on the main thread.
//
// Threads: the public functions and the published state belong to the main thread (stopMonitoring
// may also be called on the monitor queue). Counter reads and the sampling timer run on the
// monitor queue; samples travel to the main thread in batches through the aggregation coordinator.
class DiskIOMonitor : public std::enable_shared_from_this<DiskIOMonitor> {
public:
    enum class SamplingPrecision : int { ms1 = 1, ms10 = 10, ms100 = 100, ms1000 = 1000 };
    static constexpr std::array<SamplingPrecision, 4> allPrecisions{
        SamplingPrecision::ms1, SamplingPrecision::ms10, SamplingPrecision::ms100, SamplingPrecision::ms1000};
    // Exactly 1, 10, 100 and 1000 name a precision.
    static std::optional<SamplingPrecision> precisionFromRawValue(long long milliseconds);
    static int rawValue(SamplingPrecision precision) { return static_cast<int>(precision); }
    static std::chrono::nanoseconds timerInterval(SamplingPrecision precision);
    static std::chrono::nanoseconds timerLeeway(SamplingPrecision precision);
    // The sampling interval in seconds: 0.001, 0.01, 0.1 or 1.
    static double intervalSeconds(SamplingPrecision precision);

    using MonitorError = vantorix::MonitorError;
    using SampleHistory = FixedRingBuffer<DiskSample>::Elements;

    static constexpr std::size_t maximumSamples = 60000;
    static constexpr std::chrono::nanoseconds aggregationInterval{16'666'666};
    static constexpr std::chrono::nanoseconds aggregationLeeway{std::chrono::milliseconds(2)};

    // Everything the monitor publishes. Changed on the main thread only; subscribers hear of each
    // change after it is made.
    struct State {
        SampleHistory samples;  // oldest first
        std::optional<DiskVolumeDescriptor> selectedVolume;
        bool isMonitoring = false;
        std::optional<std::chrono::system_clock::time_point> monitoringStartDate;
        double monitoringDuration = 0;  // seconds from the start to the last delivered batch
        std::uint64_t currentReadBytes = 0;
        std::uint64_t currentWriteBytes = 0;
        std::uint64_t currentReadOperations = 0;
        std::uint64_t currentWriteOperations = 0;
        std::uint64_t totalReadBytes = 0;
        std::uint64_t totalWriteBytes = 0;
        LoadCounters totalLoad;  // the run's request counters, summed from its start
        std::optional<std::string> errorMessage;
        std::optional<MonitorError> error;  // the failure errorMessage describes
        SamplingPrecision samplingPrecision = SamplingPrecision::ms1000;
    };

    // Follows the selection: started for every successful selection, cancelled when the selection
    // changes. The SMART refresh plugs in here.
    class SelectionFollower {
    public:
        virtual ~SelectionFollower() = default;
        virtual void start(const DiskVolumeDescriptor& descriptor) = 0;
        virtual void cancel() = 0;
    };

    struct Dependencies {
        std::shared_ptr<BlockDevices> devices;
        std::shared_ptr<VolumeInfoSource> files;
        std::shared_ptr<MainExecutor> mainExecutor;
        // How often the samples travel to the main thread in one batch. A front end that looks at
        // the figures less often than a display refreshes (the command-line tool, once a second)
        // spares the main thread and the coordinator those wake-ups with a longer period, and
        // calls deliverPendingSamples() before it looks.
        std::chrono::nanoseconds deliveryInterval = aggregationInterval;
    };

    static std::shared_ptr<DiskIOMonitor> create(Dependencies dependencies);
    ~DiskIOMonitor();
    DiskIOMonitor(const DiskIOMonitor&) = delete;
    DiskIOMonitor& operator=(const DiskIOMonitor&) = delete;

    const State& state() const { return state_.get(); }
    Subscription subscribe(std::function<void(const State&)> subscriber) {
        return state_.subscribe(std::move(subscriber));
    }
    void setSelectionFollower(std::shared_ptr<SelectionFollower> follower) { follower_ = std::move(follower); }

    // Makes the volume behind `url` (a path or a file URL) the selection; stops a running run first.
    void selectVolume(std::string_view url);
    void startMonitoring();
    // Ends the run. With `flushPending`, samples still waiting for delivery reach the history first.
    void stopMonitoring(bool flushPending);
    void setSamplingPrecision(SamplingPrecision precision);
    // Sends the samples waiting for the next batch to the main thread now. They are applied by
    // work that this posts to the main executor, so work posted after this call sees them.
    void deliverPendingSamples();

    // Replaces the selection by a copy whose SMART data is `info`, unless the selection carries
    // that value already (compared field by field, row ids included); true when it published.
    // Main thread; there must be a selection.
    bool replaceSmartInfo(const std::optional<DiskSMARTInfo>& info);

    // The main-thread half of a delivery: appends a batch to the history and updates the current
    // values, totals and duration. The coordinator's deliveries land here.
    void applyBatch(const AggregationCoordinator::Payload& batch);

private:
    explicit DiskIOMonitor(Dependencies dependencies);
    void beginSampling(const DiskVolumeDescriptor& descriptor);  // monitor queue
    void tick();                                                 // monitor queue
    void process(const BlockStatistics& snapshot);               // monitor queue
    void failOnMonitorQueue(const MonitorError& error);          // monitor queue
    AggregationCoordinator& coordinator();

    Dependencies dependencies_;
    Published<State> state_{State{}};
    FixedRingBuffer<DiskSample> samplesBuffer_{maximumSamples};
    std::chrono::steady_clock::time_point runStart_{};  // steady twin of monitoringStartDate
    std::shared_ptr<SelectionFollower> follower_;

    // Monitor queue state.
    std::optional<BlockStatistics> previousSnapshot_;
    std::chrono::steady_clock::time_point previousSnapshotAt_{};
    std::unique_ptr<StatisticsSession> currentStatisticsSession_;
    std::unique_ptr<RepeatingTimer> timer_;
    SamplingPrecision queuePrecision_ = SamplingPrecision::ms1000;  // the precision the queue schedules with

    std::shared_ptr<AggregationCoordinator> aggregationCoordinator_;
    // Declared last: destroyed first, after the timer is cancelled, so no work outlives the members.
    std::unique_ptr<SerialQueue> monitorQueue_;
};

}  // namespace vantorix
