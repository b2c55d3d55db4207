#include "monitor/StatisticsSession.h"

#include "log/Log.h"

namespace vantorix {
namespace {

const log::Logger& statisticsLog() {
    static const log::Logger& logger = log::logger("BlockStatistics");
    return logger;
}

}  // namespace

MonitorError statisticsError(const BlockDeviceError& error) {
    if (error.kind == BlockDeviceError::Kind::notFound) return MonitorError::statisticsUnavailable();
    return MonitorError::sysfsReadFailed(error.detail());
}

Result<std::unique_ptr<StatisticsSession>, MonitorError> StatisticsSession::create(
    std::shared_ptr<BlockDevices> devices, std::string deviceName) {
    auto file = devices->openStatistics(deviceName);
    if (!file.ok()) {
        statisticsLog().error("Cannot read the counters of block device {}: {}", deviceName, file.error().detail());
        return Failure{statisticsError(file.error())};
    }
    statisticsLog().debug("Reading the counters of block device {}", deviceName);
    return std::unique_ptr<StatisticsSession>(
        new StatisticsSession(std::move(devices), std::move(deviceName), std::move(file.value())));
}

StatisticsSession::StatisticsSession(std::shared_ptr<BlockDevices> devices, std::string deviceName,
                                     std::unique_ptr<BlockStatisticsFile> file)
    : devices_(std::move(devices)), deviceName_(std::move(deviceName)), file_(std::move(file)) {}

StatisticsSession::~StatisticsSession() = default;

Result<BlockStatistics, MonitorError> StatisticsSession::snapshot() {
    std::lock_guard lock(mutex_);
    if (ended_) return Failure{MonitorError::monitorStopped()};
    auto read = file_->read();
    if (read.ok()) return read.value();
    statisticsLog().notice("Reading the counters of block device {} failed ({}); opening its stat file again",
                           deviceName_, read.error().detail());
    auto reopened = devices_->openStatistics(deviceName_);
    if (reopened.ok()) {
        file_ = std::move(reopened.value());
        read = file_->read();
        if (read.ok()) return read.value();
    }
    const BlockDeviceError& error = reopened.ok() ? read.error() : reopened.error();
    statisticsLog().error("The counters of block device {} are unavailable: {}", deviceName_, error.detail());
    return Failure{statisticsError(error)};
}

void StatisticsSession::end() {
    std::unique_ptr<BlockStatisticsFile> closed;
    {
        std::lock_guard lock(mutex_);
        ended_ = true;
        closed = std::move(file_);
    }
}

}  // namespace vantorix
