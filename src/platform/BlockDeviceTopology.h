#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantorix {

// How kernel block devices stand on one another, by device name.
class BlockDeviceTopology {
public:
    virtual ~BlockDeviceTopology() = default;
    // The whole disk a partition belongs to ("sda1" → "sda"); nothing for anything else.
    virtual std::optional<std::string> wholeDiskOf(std::string_view name) = 0;
    // The devices a stacked device (device-mapper, md) is built on, in name order; empty otherwise.
    virtual std::vector<std::string> slavesOf(std::string_view name) = 0;
    // The NVMe controller of a namespace ("nvme0n1" → "nvme0"); nothing for anything else.
    virtual std::optional<std::string> nvmeControllerOf(std::string_view name) = 0;

protected:
    BlockDeviceTopology() = default;
    BlockDeviceTopology(const BlockDeviceTopology&) = default;
    BlockDeviceTopology& operator=(const BlockDeviceTopology&) = default;
};

}  // namespace vantorix
