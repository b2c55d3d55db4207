#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "platform/BlockDevice.h"
#include "util/Result.h"
#include "volumes/MonitorError.h"

namespace vantorix {

// The counters of one volume's block device for one monitoring run. The device's `stat` file is
// opened once and read with one pread a sample. When a reading fails (the device went away, and
// may have come back under the same name) the file is opened again; the reading fails only when
// that fails too.
class StatisticsSession {
public:
    static Result<std::unique_ptr<StatisticsSession>, MonitorError> create(std::shared_ptr<BlockDevices> devices,
                                                                           std::string deviceName);
    ~StatisticsSession();
    StatisticsSession(const StatisticsSession&) = delete;
    StatisticsSession& operator=(const StatisticsSession&) = delete;

    Result<BlockStatistics, MonitorError> snapshot();
    // Closes the file. Safe to call from any thread, more than once; later readings fail with
    // monitorStopped.
    void end();

    const std::string& deviceName() const { return deviceName_; }

private:
    StatisticsSession(std::shared_ptr<BlockDevices> devices, std::string deviceName,
                      std::unique_ptr<BlockStatisticsFile> file);

    std::shared_ptr<BlockDevices> devices_;
    const std::string deviceName_;
    std::mutex mutex_;
    std::unique_ptr<BlockStatisticsFile> file_;  // guarded by mutex_
    bool ended_ = false;                         // guarded by mutex_
};

// The monitor's error for a failed read of a block device's counters: a device that is gone has no
// statistics; anything else is a sysfs read that failed.
MonitorError statisticsError(const BlockDeviceError& error);

}  // namespace vantorix
