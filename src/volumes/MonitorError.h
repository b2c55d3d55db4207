#pragma once

#include <cstdint>
#include <string>

namespace vantorix {

// Errors of volume selection, statistics and monitoring. The description follows the interface
// language at the moment it is made.
class MonitorError {
public:
    enum class Code { ioKitMatchingFailed, invalidSelection, bsdNameResolutionFailed, statisticsUnavailable, monitorStopped };

    static MonitorError ioKitMatchingFailed(std::int32_t resultCode) { return {Code::ioKitMatchingFailed, resultCode}; }
    static MonitorError invalidSelection() { return {Code::invalidSelection, 0}; }
    static MonitorError bsdNameResolutionFailed() { return {Code::bsdNameResolutionFailed, 0}; }
    static MonitorError statisticsUnavailable() { return {Code::statisticsUnavailable, 0}; }
    static MonitorError monitorStopped() { return {Code::monitorStopped, 0}; }

    Code code() const { return code_; }
    // The platform result code carried by ioKitMatchingFailed; 0 for the other cases.
    std::int32_t resultCode() const { return resultCode_; }
    std::string description() const;
    // Stable case name, for logs and JSON.
    const char* name() const;

    friend bool operator==(const MonitorError&, const MonitorError&) = default;

private:
    MonitorError(Code code, std::int32_t resultCode) : code_(code), resultCode_(resultCode) {}
    Code code_;
    std::int32_t resultCode_;
};

}  // namespace vantorix
