#pragma once

#include <filesystem>

#include "platform/BlockDeviceTopology.h"
#include "platform/linux/SysfsTree.h"

namespace vantorix {

// Block-device relations read from sysfs: a partition's directory lies inside its disk's, a
// stacked device lists what it stands on in `slaves/`, an NVMe namespace lies inside its
// controller's directory (or, with native multipath, inside a subsystem that lists its controllers).
class SysfsBlockDeviceTopology final : public BlockDeviceTopology {
public:
    explicit SysfsBlockDeviceTopology(const std::filesystem::path& sysfsRoot = "/sys") : tree_(sysfsRoot) {}

    std::optional<std::string> wholeDiskOf(std::string_view name) override;
    std::vector<std::string> slavesOf(std::string_view name) override;
    std::optional<std::string> nvmeControllerOf(std::string_view name) override;

private:
    bool isNvmeController(const std::string& name) const;

    sysfs::SysfsTree tree_;
};

}  // namespace vantorix
