#include "monitor/DiskIOMonitor.h"

#include "concurrency/WeakOwner.h"
#include "log/Log.h"
#include "volumes/DiskVolumeResolver.h"

namespace vantorix {
namespace {

const log::Logger& monitorLog() {
    static const log::Logger& logger = log::logger("DiskIOMonitor");
    return logger;
}

}  // namespace

std::optional<DiskIOMonitor::SamplingPrecision> DiskIOMonitor::precisionFromRawValue(long long milliseconds) {
    for (const auto precision : allPrecisions) {
        if (rawValue(precision) == milliseconds) return precision;
    }
    return std::nullopt;
}

std::chrono::nanoseconds DiskIOMonitor::timerInterval(SamplingPrecision precision) {
    return std::chrono::milliseconds(rawValue(precision));
}

std::chrono::nanoseconds DiskIOMonitor::timerLeeway(SamplingPrecision precision) {
    using std::chrono::microseconds;
    switch (precision) {
        case SamplingPrecision::ms1: return microseconds(200);
        case SamplingPrecision::ms10: return microseconds(800);
        case SamplingPrecision::ms100: return std::chrono::milliseconds(4);
        case SamplingPrecision::ms1000: return std::chrono::milliseconds(40);
    }
    return std::chrono::milliseconds(40);
}

double DiskIOMonitor::intervalSeconds(SamplingPrecision precision) { return rawValue(precision) / 1000.0; }

std::shared_ptr<DiskIOMonitor> DiskIOMonitor::create(Dependencies dependencies) {
    std::shared_ptr<DiskIOMonitor> monitor(new DiskIOMonitor(std::move(dependencies)));
    monitor->coordinator();  // made before any queue can ask for it
    return monitor;
}

DiskIOMonitor::DiskIOMonitor(Dependencies dependencies)
    : dependencies_(std::move(dependencies)),
      monitorQueue_(std::make_unique<SerialQueue>("com.vantorix.monitor.queue", QualityOfService::userInteractive)) {
    state_.update([this](State& state) { state.samples = samplesBuffer_.elements(); });
}

DiskIOMonitor::~DiskIOMonitor() {
    if (follower_) follower_->cancel();
    // Nothing of this monitor runs any more (every closure holds it weakly), except possibly the
    // work item on whose thread the last owner let go. Stop the timer before its queue goes.
    if (timer_) {
        timer_->setHandler({});
        timer_->cancel();
        timer_.reset();
    }
    if (aggregationCoordinator_) {
        aggregationCoordinator_->setHandler({});
        aggregationCoordinator_->stop(false);
    }
    if (currentStatisticsSession_) currentStatisticsSession_->end();
}

AggregationCoordinator& DiskIOMonitor::coordinator() {
    if (!aggregationCoordinator_) {
        aggregationCoordinator_ = AggregationCoordinator::create(
            dependencies_.deliveryInterval, aggregationLeeway,
            [weak = weak_from_this(), main = dependencies_.mainExecutor](AggregationCoordinator::Payload batch) {
                if (weak.expired()) return;
                main->post([weak, batch = std::move(batch)] {
                    if (auto monitor = weak.lock()) monitor->applyBatch(batch);
                });
            });
    }
    return *aggregationCoordinator_;
}

void DiskIOMonitor::selectVolume(std::string_view url) {
    stopMonitoring(true);
    if (follower_) follower_->cancel();
    auto resolved = DiskVolumeResolver::resolve(url, *dependencies_.files, *dependencies_.devices);
    dependencies_.mainExecutor->post(weakly(weak_from_this(), [resolved = std::move(resolved)](DiskIOMonitor& self) {
        if (!resolved.ok()) {
            monitorLog().error("Volume selection failed: {}", resolved.error().description());
            self.state_.update([&](State& state) {
                state.selectedVolume.reset();
                state.errorMessage = resolved.error().description();
                state.error = resolved.error();
            });
            return;
        }
        self.state_.update([&](State& state) {
            state.selectedVolume = resolved.value();
            state.errorMessage.reset();
            state.error.reset();
        });
        if (self.follower_) self.follower_->start(resolved.value());
    }));
}

void DiskIOMonitor::startMonitoring() {
    const auto& selected = state_.get().selectedVolume;
    if (!selected) {
        state_.update([](State& state) {
            state.errorMessage = MonitorError::invalidSelection().description();
            state.error = MonitorError::invalidSelection();
        });
        return;
    }
    DiskVolumeDescriptor descriptor = *selected;
    stopMonitoring(false);
    coordinator().reset();
    coordinator().start();
    dependencies_.mainExecutor->post(weakly(weak_from_this(), [](DiskIOMonitor& self) {
        self.samplesBuffer_.removeAll();
        self.runStart_ = std::chrono::steady_clock::now();
        self.state_.update([&](State& state) {
            state.samples = self.samplesBuffer_.elements();
            state.totalReadBytes = state.totalWriteBytes = 0;
            state.totalLoad = {};
            state.currentReadBytes = state.currentWriteBytes = 0;
            state.currentReadOperations = state.currentWriteOperations = 0;
            state.monitoringStartDate = std::chrono::system_clock::now();
            state.monitoringDuration = 0;
            state.isMonitoring = true;
            state.errorMessage.reset();
            state.error.reset();
        });
    }));
    monitorQueue_->async(weakly(weak_from_this(), [descriptor = std::move(descriptor)](DiskIOMonitor& self) {
        self.beginSampling(descriptor);
    }));
}

void DiskIOMonitor::beginSampling(const DiskVolumeDescriptor& descriptor) {
    previousSnapshot_.reset();
    auto session = StatisticsSession::create(dependencies_.devices, descriptor.deviceName);
    if (!session.ok()) {
        failOnMonitorQueue(session.error());
        return;
    }
    auto first = session.value()->snapshot();
    if (!first.ok()) {
        failOnMonitorQueue(first.error());
        return;
    }
    currentStatisticsSession_ = std::move(session.value());
    previousSnapshot_ = first.value();
    previousSnapshotAt_ = std::chrono::steady_clock::now();
    monitorLog().debug("Monitoring {} every {} ms", currentStatisticsSession_->deviceName(), rawValue(queuePrecision_));

    timer_ = std::make_unique<RepeatingTimer>(*monitorQueue_);
    timer_->schedule(RepeatingTimer::Clock::now(), timerInterval(queuePrecision_), timerLeeway(queuePrecision_));
    timer_->setHandler(weakly(weak_from_this(), [](DiskIOMonitor& self) { self.tick(); }));
    timer_->resume();
}

void DiskIOMonitor::tick() {
    if (!currentStatisticsSession_) {
        failOnMonitorQueue(MonitorError::monitorStopped());
        return;
    }
    auto snapshot = currentStatisticsSession_->snapshot();
    if (!snapshot.ok()) {
        failOnMonitorQueue(snapshot.error());
        return;
    }
    process(snapshot.value());
}

void DiskIOMonitor::process(const BlockStatistics& snapshot) {
    const auto now = std::chrono::system_clock::now();
    const auto steadyNow = std::chrono::steady_clock::now();
    if (!previousSnapshot_) {
        previousSnapshot_ = snapshot;
        previousSnapshotAt_ = steadyNow;
        return;
    }
    const auto& previous = *previousSnapshot_;
    DiskSample sample{Uuid::make(),
                      now,
                      snapshot.bytesRead() - previous.bytesRead(),
                      snapshot.bytesWritten() - previous.bytesWritten(),
                      snapshot.readsCompleted - previous.readsCompleted,
                      snapshot.writesCompleted - previous.writesCompleted,
                      loadDifference(previous, snapshot, steadyNow - previousSnapshotAt_)};
    previousSnapshot_ = snapshot;
    previousSnapshotAt_ = steadyNow;
    const auto readBytes = sample.readBytes;
    const auto writeBytes = sample.writeBytes;
    coordinator().enqueue(sample, readBytes, writeBytes);
}

void DiskIOMonitor::failOnMonitorQueue(const MonitorError& error) {
    monitorLog().error("Monitoring failed: {}", error.description());
    dependencies_.mainExecutor->post(weakly(weak_from_this(), [error](DiskIOMonitor& self) {
        self.state_.update([&](State& state) {
            state.errorMessage = error.description();
            state.error = error;
        });
    }));
    stopMonitoring(true);
}

void DiskIOMonitor::stopMonitoring(bool flushPending) {
    // The timer belongs to the monitor queue; waiting for the queue here also lets a running tick
    // finish with its session before the timer goes.
    monitorQueue_->sync([this] {
        if (timer_) {
            timer_->setHandler({});
            timer_->cancel();
            timer_.reset();
        }
    });
    if (aggregationCoordinator_) aggregationCoordinator_->stop(flushPending);
    monitorQueue_->async(weakly(weak_from_this(), [](DiskIOMonitor& self) {
        if (self.currentStatisticsSession_) self.currentStatisticsSession_->end();
        self.currentStatisticsSession_.reset();
        self.previousSnapshot_.reset();
    }));
    dependencies_.mainExecutor->post(weakly(weak_from_this(), [](DiskIOMonitor& self) {
        self.state_.update([](State& state) {
            state.isMonitoring = false;
            state.monitoringStartDate.reset();
            state.monitoringDuration = 0;
        });
    }));
}

void DiskIOMonitor::setSamplingPrecision(SamplingPrecision precision) {
    if (precision == state_.get().samplingPrecision) return;
    state_.update([precision](State& state) { state.samplingPrecision = precision; });
    monitorQueue_->async(weakly(weak_from_this(), [precision](DiskIOMonitor& self) {
        self.queuePrecision_ = precision;
        if (self.timer_) {
            const auto interval = timerInterval(precision);
            self.timer_->schedule(interval, interval, timerLeeway(precision));
        }
    }));
}

void DiskIOMonitor::deliverPendingSamples() { coordinator().flush(); }

bool DiskIOMonitor::replaceSmartInfo(const std::optional<DiskSMARTInfo>& info) {
    const auto& selected = state_.get().selectedVolume;
    if (!selected || selected->smartInfo == info) return false;
    state_.update([&info](State& state) { state.selectedVolume->smartInfo = info; });
    return true;
}

void DiskIOMonitor::applyBatch(const AggregationCoordinator::Payload& batch) {
    for (const auto& sample : batch.samples) samplesBuffer_.append(sample);
    state_.update([&](State& state) {
        if (batch.latestSample) {
            state.currentReadBytes = batch.latestSample->readBytes;
            state.currentWriteBytes = batch.latestSample->writeBytes;
            state.currentReadOperations = batch.latestSample->readOperations;
            state.currentWriteOperations = batch.latestSample->writeOperations;
        }
        state.totalReadBytes += batch.readBytes;
        state.totalWriteBytes += batch.writeBytes;
        state.totalLoad += batch.load;
        state.samples = samplesBuffer_.elements();
        if (state.monitoringStartDate) {
            state.monitoringDuration =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - runStart_).count();
        }
    });
}

}  // namespace vantorix
