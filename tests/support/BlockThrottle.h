#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vantorix::testing {

// A control group of its own whose processes write to one block device at most at a set speed:
// the block-I/O throttle of cgroup v1 (blkio.throttle.write_bps_device) where that hierarchy is
// mounted, else cgroup v2's io.max. The limit may change while the processes write. The group is
// removed on destruction, its processes moved back to the root group first.
class BlockThrottle {
public:
    // Why no throttle can be made here; empty when one can.
    static std::string unavailableReason();
    // For the kernel device name ("loop3"); nothing (and `error` says why) when it fails.
    static std::unique_ptr<BlockThrottle> create(const std::string& deviceName, std::string* error);
    ~BlockThrottle();
    BlockThrottle(const BlockThrottle&) = delete;
    BlockThrottle& operator=(const BlockThrottle&) = delete;

    bool limitWrites(std::uint64_t bytesPerSecond);
    // The program and its arguments run through a shell that joins the group before it execs them,
    // so that all of the program's writes are throttled.
    std::vector<std::string> joined(const std::vector<std::string>& argv) const;
    const std::string& path() const { return path_; }

private:
    BlockThrottle() = default;
    std::string path_, device_;  // the group's folder and the device's "MAJOR:MINOR"
    bool unified_ = false;       // cgroup v2
};

// The bytes written to the device since it appeared, from its block-layer counters.
std::uint64_t deviceBytesWritten(const std::string& deviceName);

}  // namespace vantorix::testing
