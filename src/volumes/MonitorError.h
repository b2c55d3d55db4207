#pragma once

#include <string>

namespace vantorix {

// Errors of volume selection, statistics and monitoring. The description follows the interface
// language at the moment it is made.
class MonitorError {
public:
    enum class Code { sysfsReadFailed, invalidSelection, blockDeviceNotFound, statisticsUnavailable, monitorStopped };

    // `detail` names the sysfs path and what went wrong with it.
    static MonitorError sysfsReadFailed(std::string detail) { return {Code::sysfsReadFailed, std::move(detail)}; }
    static MonitorError invalidSelection() { return {Code::invalidSelection, {}}; }
    // `systemError`: the errno that says why the path led to no device (ENOENT, ELOOP, …), or 0.
    static MonitorError blockDeviceNotFound(int systemError = 0) {
        return {Code::blockDeviceNotFound, {}, systemError};
    }
    static MonitorError statisticsUnavailable() { return {Code::statisticsUnavailable, {}}; }
    static MonitorError monitorStopped() { return {Code::monitorStopped, {}}; }

    Code code() const { return code_; }
    // What sysfsReadFailed carries; empty for the other cases.
    const std::string& detail() const { return detail_; }
    // What blockDeviceNotFound carries; 0 otherwise.
    int systemError() const { return systemError_; }
    std::string description() const;
    // Stable case name, for logs and JSON.
    const char* name() const;

    friend bool operator==(const MonitorError&, const MonitorError&) = default;

private:
    MonitorError(Code code, std::string detail, int systemError = 0)
        : code_(code), detail_(std::move(detail)), systemError_(systemError) {}
    Code code_;
    std::string detail_;
    int systemError_;
};

}  // namespace vantorix
