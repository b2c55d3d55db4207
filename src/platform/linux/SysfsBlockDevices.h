#pragma once

#include <filesystem>

#include "platform/BlockDevice.h"
#include "platform/linux/SysfsTree.h"

namespace vantorix {

// Block devices as sysfs shows them under a root ("/sys", or a copied tree in tests).
//
// A device is <root>/class/block/NAME. Its attachment is read walking up the device tree from its
// directory: a partition leads to its disk, a stacked device to its first member, a disk to the
// controller, port and bus devices above it. The walk ends at <root>/devices.
class SysfsBlockDevices final : public BlockDevices {
public:
    explicit SysfsBlockDevices(const std::filesystem::path& sysfsRoot = "/sys") : tree_(sysfsRoot) {}

    Result<BlockDevice, BlockDeviceError> device(std::string_view name) override;
    Result<std::unique_ptr<BlockStatisticsFile>, BlockDeviceError> openStatistics(std::string_view name) override;

private:
    std::filesystem::path classPath(std::string_view name) const;
    BlockAttachment attachmentOf(const std::filesystem::path& dir) const;
    std::optional<std::string> nvmeControllerOf(const std::filesystem::path& dir, std::string_view name) const;

    sysfs::SysfsTree tree_;
};

}  // namespace vantorix
