#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "benchmark/BenchmarkPhase.h"
#include "benchmark/DataSize.h"
#include "benchmark/DriveTemperatureProbe.h"
#include "benchmark/PerformanceResult.h"
#include "benchmark/ProgressTracker.h"
#include "benchmark/TemporaryFileRegistry.h"
#include "benchmark/TestError.h"
#include "benchmark/TestMode.h"
#include "concurrency/MainExecutor.h"
#include "concurrency/Published.h"
#include "concurrency/SerialQueue.h"
#include "concurrency/Task.h"
#include "health/DriveHealth.h"
#include "platform/BlockDevice.h"
#include "platform/FileSystem.h"
#include "util/Uuid.h"
#include "volumes/DiskVolumeDescriptor.h"

namespace vantorix {

// Measures a volume by writing and reading real files in its folder. The standard test has four
// timed phases: random 4 KiB writes, random 4 KiB reads, a sequential write of the whole payload
// in 16 MiB blocks and a sequential read of it, through the page cache or, with the cache
// bypassed, with direct I/O. The queue-depth test runs four profiles, each read and written for a
// fixed time, with direct I/O on io_uring. The sustained-write test writes one file of up to
// kSustainedSizeLimit with direct I/O on io_uring and follows its speed. Each run is one task, known by a token; its
// progress and outcome are published on the main thread, its files are removed on the cleanup queue and, after a
// success, a report is written on the export queue. A run holds the volume's folder open from its start: its files and
// its report are made in that folder, and a volume that goes away (its path leads elsewhere) fails the run. Runs lay
// out their files one after another: a run started right after a stop waits until the stopped one has let go of its
// files and their removal is committed.
class DiskPerformanceTester : public std::enable_shared_from_this<DiskPerformanceTester> {
public:
    using Result = PerformanceResult;

    static constexpr std::int64_t randomBlockSize = 4096;
    static constexpr std::uint64_t randomPhaseWorkingSetLimit = 536'870'912;  // 512 MiB
    static constexpr std::int64_t sequentialBlockSize = 16'777'216;           // 16 MiB
    // The queue-depth test's file is the payload, at most this large: beyond it the profiles
    // measure nothing new and only the preparation grows.
    static constexpr std::uint64_t queueDepthFileLimit = 68'719'476'736;  // 64 GiB

    struct Dependencies {
        std::shared_ptr<MainExecutor> mainExecutor;
        std::shared_ptr<FileSystem> files;
        // The volumes' block devices, whose counters each phase is held against; null: none.
        std::shared_ptr<BlockDevices> devices = {};
        // The drive's temperature beside the sustained-write test's speed; absent, there is none.
        std::shared_ptr<DriveTemperatureProbe> temperatureProbe = {};
        // Where each finished run is recorded for its drive and compared with the previous run of
        // its kind (the drive-health history), and the version recorded with it; none: neither.
        struct History {
            std::string path;
            std::string version;
        };
        std::optional<History> history = {};
    };

    // What a run does. The defaults are what users get; tests and comparisons may shorten them.
    struct Parameters {
        double randomPhaseDuration = 5.0;  // seconds of each random phase
        // Bytes of each sequential phase (of the sustained-write test's file) in place of the size
        // rule (still checked against the volume's free space).
        std::optional<std::uint64_t> payloadBytes;
    };

    // Told on the test's own thread, synchronously, when each phase starts and when it ends
    // with the bytes it moved. For callers that measure around the phases (the command line
    // compares them with the device's counters).
    struct PhaseObserver {
        std::function<void(BenchmarkPhase)> started;
        std::function<void(BenchmarkPhase, std::uint64_t bytesMoved)> finished;
    };

    struct State {
        DataSize dataSize = DataSize::availableSpace();
        TestMode testMode;
        bool isRunning = false;
        std::optional<ProgressState> progressState;
        std::optional<Result> lastResult;
        std::optional<std::string> errorMessage;
        std::optional<std::string> automaticReportMessage;
        Uuid automaticReportMessageToken = Uuid::make();
        std::optional<DiskVolumeDescriptor> lastTestVolume;
        std::optional<std::string> lastReportPath;  // the file of the last automatic report
    };

    static std::shared_ptr<DiskPerformanceTester> create(Dependencies dependencies);
    static std::shared_ptr<DiskPerformanceTester> create(Dependencies dependencies, Parameters parameters);
    ~DiskPerformanceTester();
    DiskPerformanceTester(const DiskPerformanceTester&) = delete;
    DiskPerformanceTester& operator=(const DiskPerformanceTester&) = delete;

    // Main thread only, like everything below unless said otherwise.
    const State& state() const { return state_.get(); }
    Subscription subscribe(std::function<void(const State&)> subscriber) {
        return state_.subscribe(std::move(subscriber));
    }

    void setDataSize(const DataSize& size);
    void setTestMode(const TestMode& mode);
    std::optional<EffectivePayload> payloadPreview(const std::optional<DiskVolumeDescriptor>& volume) const;
    // Set before a run starts; the running task keeps the observer it started with.
    void setPhaseObserver(PhaseObserver observer) { observer_ = std::move(observer); }

    // When the volume's free space looks too small, the space test files removed just before are
    // about to give back is counted too (see bytesHeldByEarlierRuns).
    void runTest(const std::optional<DiskVolumeDescriptor>& volume);
    void stopTest();

    // Waits until every run's task has returned and the file removals and report writes
    // enqueued so far are done. Their outcomes still arrive on the main thread afterwards.
    void waitForBackgroundWork();

    const TemporaryFileRegistry& temporaryFiles() const { return *temporaryFiles_; }

private:
    class Run;
    enum class Outcome { success, cancelled, failed };
    // A run's task, the volume it runs on (its mount point) and the bytes of its test files that
    // are not yet removed with the removal committed.
    struct RunRecord {
        Task task;
        std::string volumeRoot;
        std::shared_ptr<std::atomic<std::uint64_t>> heldBytes = std::make_shared<std::atomic<std::uint64_t>>(0);
    };

    DiskPerformanceTester(Dependencies dependencies, Parameters parameters);

    // The sustained-write test's file for the volume (see sustainedFileSize).
    std::optional<EffectivePayload> sustainedPayload(const DiskVolumeDescriptor& volume) const;
    void publishProgress(const Uuid& token, const ProgressState& progress);
    void deliver(const Uuid& token, Outcome outcome, std::optional<Result> result, std::string message,
                 std::shared_ptr<Directory> folder);
    void startAutomaticExport(const Result& result, const DiskVolumeDescriptor& volume,
                              std::shared_ptr<Directory> folder);
    void retire(RunRecord run);
    // The payload of a run on the volume, or why it cannot run there.
    ::vantorix::Result<EffectivePayload, TestError> payloadFor(const DiskVolumeDescriptor& volume,
                                                               Directory& folder) const;
    // The drive the volume is on, when runs are recorded and the device is known.
    health::DriveIdentity driveOf(const DiskVolumeDescriptor& volume) const;
    // What stopped or finished runs on the volume still hold in test files.
    std::uint64_t bytesHeldByEarlierRuns(const DiskVolumeDescriptor& volume) const;

    Dependencies dependencies_;
    Parameters parameters_;
    Published<State> state_{State{}};
    PhaseObserver observer_;
    std::shared_ptr<TemporaryFileRegistry> temporaryFiles_ = std::make_shared<TemporaryFileRegistry>();
    std::shared_ptr<SerialQueue> cleanupQueue_;
    std::shared_ptr<SerialQueue> automaticExportQueue_;
    std::shared_ptr<std::mutex> turn_ = std::make_shared<std::mutex>();  // see Run::waitForTurn
    RunRecord current_;
    std::vector<RunRecord> retired_;  // stopped or finished runs that may still be winding down
    std::optional<Uuid> activeTestToken_;
};

}  // namespace vantorix
