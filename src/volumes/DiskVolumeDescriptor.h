#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/BlockDevice.h"
#include "smart/DiskSMARTInfo.h"
#include "volumes/LinkCeiling.h"

namespace vantorix {

// The selected volume, as the resolver describes it. Compared field by field.
struct DiskVolumeDescriptor {
    std::string url;         // absolute path of the chosen folder, symbolic links resolved
    std::string mountPoint;  // where the file system that holds the folder is mounted
    std::string deviceName;  // the kernel's name of the mounted block device ("sda1", "dm-0")
    std::string displayName;
    std::string connectionTypeDescription;
    std::optional<std::string> connectionSpeedDescription;
    std::optional<std::string> fileSystemDescription;
    std::optional<std::uint64_t> totalCapacityBytes;
    std::optional<std::uint64_t> availableCapacityBytes;
    std::optional<std::string> hardwareVendor;
    std::optional<std::string> hardwareModel;
    std::optional<DiskSMARTInfo> smartInfo;
    std::optional<LinkCeiling> link;  // the link's figures, when the bus reports them
    std::optional<BlockQueue> queue;  // how the device takes requests, when it has a queue

    friend bool operator==(const DiskVolumeDescriptor&, const DiskVolumeDescriptor&) = default;
};

}  // namespace vantorix
