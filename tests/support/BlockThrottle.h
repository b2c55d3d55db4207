#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vantorix::testing {

// A control group whose processes write to one block device at most at a set speed, which may
// change while they write: cgroup v1's blkio.throttle.write_bps_device where that hierarchy is
// mounted, else cgroup v2's io.max. Removed on destruction, its processes moved to the root first.
class BlockThrottle {
public:
    // Why no throttle can be made here; empty when one can.
    static std::string unavailableReason();
    // For the kernel device name ("loop3"); nothing (and `error` says why) when it fails.
    static std::unique_ptr<BlockThrottle> create(const std::string& deviceName, std::string* error);
    BlockThrottle() = default;
    BlockThrottle(const BlockThrottle&) = delete;
    BlockThrottle& operator=(const BlockThrottle&) = delete;
    ~BlockThrottle();

    bool limitWrites(std::uint64_t bytesPerSecond);
    // `argv` run through a shell that joins the group before it execs them, so all their writes count.
    std::vector<std::string> joined(const std::vector<std::string>& argv) const;
    const std::string& path() const { return path_; }

private:
    std::string path_, device_;  // the group's folder and the device's "MAJOR:MINOR"
    bool unified_ = false;       // cgroup v2
};

// The bytes written to the device since it appeared, from its block-layer counters.
std::uint64_t deviceBytesWritten(const std::string& deviceName);

}  // namespace vantorix::testing
