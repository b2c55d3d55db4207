#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "benchmark/BenchmarkPhase.h"
#include "util/Uuid.h"

namespace vantorix {

// Live progress of a run, as the tester publishes it.
struct ProgressState {
    BenchmarkPhase phase = BenchmarkPhase::randomWrite;
    double fractionCompleted = 0;  // 0 … 1, of the whole run's weighted work
    double elapsedTime = 0;        // seconds since the run started
    std::optional<double> estimatedRemainingTime;
    // The queue-depth test's current step ("RND4K Q32T1 Read"), shown in place of the phase.
    std::optional<std::string> stepName;

    friend bool operator==(const ProgressState&, const ProgressState&) = default;
};

// The step's name when there is one, else the phase's name, in the current language.
std::string progressPhaseText(const ProgressState& progress);

// Bookkeeping of a run's work. Each phase has a fixed total of work units; advancing a phase with
// a total of 0 records work without moving the fraction.
class ProgressTracker {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr double kPublishInterval = 1.0;  // seconds between throttled publications

    explicit ProgressTracker(const std::array<double, 4>& phaseTotals);

    void advance(BenchmarkPhase phase, double amount);
    void complete(BenchmarkPhase phase);
    // The state at `now`; remembers `now` as the last publication.
    ProgressState snapshot(BenchmarkPhase phase, Clock::time_point runStart, Clock::time_point now);
    // Whether a throttled publication is due at `now`: the run is complete, or a second has
    // passed since the last publication.
    bool shouldPublish(Clock::time_point now) const;

    double totalWork() const { return totalWork_; }
    double totalCompleted() const { return totalCompleted_; }
    double completed(BenchmarkPhase phase) const { return completedPerPhase_[index(phase)]; }
    double fraction() const;

private:
    static std::size_t index(BenchmarkPhase phase) { return static_cast<std::size_t>(phase); }
    void addToTotal(double delta);

    std::array<double, 4> phaseTotals_;
    double totalWork_ = 0;
    std::array<double, 4> completedPerPhase_{};
    double totalCompleted_ = 0;
    std::optional<Clock::time_point> lastPublishDate_;  // absent: the distant past
};

// One point of a sequential phase's throughput over time.
struct TimelineSample {
    enum class Phase { sequentialWrite, sequentialRead };

    Uuid id;
    Phase phase = Phase::sequentialWrite;
    double timestamp = 0;  // seconds since the start of the run, at the end of the interval
    std::uint64_t bytesTransferred = 0;
    double throughput = 0;  // bytes per second

    // "sequentialWrite" or "sequentialRead".
    static std::string rawValue(Phase phase);
};

// Turns the chunks of one sequential phase into about one sample a second. A sample's throughput
// is its bytes over the time spent inside the transfers, counted as at least a second.
class TimelineSampler {
public:
    static constexpr double kInterval = 1.0;

    explicit TimelineSampler(TimelineSample::Phase phase) : phase_(phase) {}

    // A chunk of `bytes` that took `duration` seconds, ending `elapsed` seconds after the run started.
    void feed(std::uint64_t bytes, double duration, double elapsed);
    // Emits what is still pending, stamped `elapsed`.
    void finish(double elapsed);

    const std::vector<TimelineSample>& samples() const { return samples_; }
    std::vector<TimelineSample> takeSamples() { return std::move(samples_); }
    double maximumThroughput() const { return maximum_; }

private:
    void emit(double elapsed);

    TimelineSample::Phase phase_;
    std::uint64_t pendingBytes_ = 0;
    double accumulatedTime_ = 0;
    std::optional<double> lastSampleTime_;
    double maximum_ = 0;
    std::vector<TimelineSample> samples_;
};

}  // namespace vantorix
