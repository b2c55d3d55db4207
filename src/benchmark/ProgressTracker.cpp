#include "benchmark/ProgressTracker.h"

#include <algorithm>

#include "text/Language.h"

namespace vantorix {

std::string rawValue(BenchmarkPhase phase) {
    switch (phase) {
        case BenchmarkPhase::randomWrite: return "randomWrite";
        case BenchmarkPhase::randomRead: return "randomRead";
        case BenchmarkPhase::sequentialWrite: return "sequentialWrite";
        case BenchmarkPhase::sequentialRead: return "sequentialRead";
    }
    return {};
}

std::string phaseName(BenchmarkPhase phase) {
    switch (phase) {
        case BenchmarkPhase::randomWrite: return text::localized("随机写入阶段", "Random Write Phase");
        case BenchmarkPhase::randomRead: return text::localized("随机读取阶段", "Random Read Phase");
        case BenchmarkPhase::sequentialWrite: return text::localized("顺序写入阶段", "Sequential Write Phase");
        case BenchmarkPhase::sequentialRead: return text::localized("顺序读取阶段", "Sequential Read Phase");
    }
    return {};
}

std::string progressPhaseText(const ProgressState& progress) {
    return progress.stepName ? *progress.stepName : phaseName(progress.phase);
}

ProgressTracker::ProgressTracker(const std::array<double, 4>& phaseTotals) : phaseTotals_(phaseTotals) {
    for (const double total : phaseTotals_) totalWork_ += total;
}

void ProgressTracker::addToTotal(double delta) {
    totalCompleted_ = std::min(std::max(totalWork_, 1.0), totalCompleted_ + delta);
}

void ProgressTracker::advance(BenchmarkPhase phase, double amount) {
    const double total = phaseTotals_[index(phase)];
    double& completedValue = completedPerPhase_[index(phase)];
    const double previous = completedValue;
    double delta = 0;
    if (total > 0) {
        completedValue = std::min(total, previous + amount);
        delta = std::max(completedValue - previous, 0.0);
    } else {
        completedValue = previous + amount;
    }
    addToTotal(delta);
}

void ProgressTracker::complete(BenchmarkPhase phase) {
    const double total = phaseTotals_[index(phase)];
    if (total <= 0) return;
    double& completedValue = completedPerPhase_[index(phase)];
    const double previous = completedValue;
    completedValue = total;
    addToTotal(std::max(total - previous, 0.0));
}

double ProgressTracker::fraction() const { return std::clamp(totalCompleted_ / std::max(totalWork_, 1.0), 0.0, 1.0); }

ProgressState ProgressTracker::snapshot(BenchmarkPhase phase, Clock::time_point runStart, Clock::time_point now) {
    ProgressState state;
    state.phase = phase;
    state.fractionCompleted = fraction();
    state.elapsedTime = std::chrono::duration<double>(now - runStart).count();
    if (state.fractionCompleted >= 1) {
        state.estimatedRemainingTime = 0.0;
    } else if (state.fractionCompleted > 0) {
        state.estimatedRemainingTime = std::max(state.elapsedTime / state.fractionCompleted - state.elapsedTime, 0.0);
    }
    lastPublishDate_ = now;
    return state;
}

bool ProgressTracker::shouldPublish(Clock::time_point now) const {
    if (fraction() >= 1 || !lastPublishDate_) return true;
    return std::chrono::duration<double>(now - *lastPublishDate_).count() >= kPublishInterval;
}

std::string TimelineSample::rawValue(Phase phase) {
    return phase == Phase::sequentialWrite ? "sequentialWrite" : "sequentialRead";
}

void TimelineSampler::feed(std::uint64_t bytes, double duration, double elapsed) {
    pendingBytes_ += bytes;
    accumulatedTime_ += duration;
    const bool due = lastSampleTime_ ? elapsed - *lastSampleTime_ >= kInterval : elapsed >= kInterval;
    if (due) emit(elapsed);
}

void TimelineSampler::finish(double elapsed) {
    if (pendingBytes_ > 0) emit(elapsed);
}

void TimelineSampler::emit(double elapsed) {
    const double throughput = pendingBytes_ == 0
                                  ? 0.0
                                  : static_cast<double>(pendingBytes_) / std::max(accumulatedTime_, kInterval);
    samples_.push_back(TimelineSample{Uuid::make(), phase_, elapsed, pendingBytes_, throughput});
    maximum_ = std::max(maximum_, throughput);
    pendingBytes_ = 0;
    accumulatedTime_ = 0;
    lastSampleTime_ = elapsed;
}

}  // namespace vantorix
