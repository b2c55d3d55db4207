#include "platform/linux/SysfsBlockDeviceTopology.h"

#include <algorithm>
#include <system_error>

namespace vantorix {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> entryNames(const fs::path& dir) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator it(dir, error), end; !error && it != end; it.increment(error)) {
        names.push_back(it->path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// "nvme" followed by digits: a controller's name.
bool looksLikeController(std::string_view name) {
    return name.size() > 4 && name.substr(0, 4) == "nvme" &&
           std::all_of(name.begin() + 4, name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

std::optional<std::string> SysfsBlockDeviceTopology::wholeDiskOf(std::string_view name) {
    const auto dir = tree_.blockDevice(name);
    std::error_code error;
    if (!dir || !fs::exists(*dir / "partition", error)) return std::nullopt;
    const auto disk = dir->parent_path();
    if (!tree_.contains(disk) || !fs::exists(disk / "dev", error)) return std::nullopt;
    return disk.filename().string();
}

std::vector<std::string> SysfsBlockDeviceTopology::slavesOf(std::string_view name) {
    const auto dir = tree_.blockDevice(name);
    if (!dir) return {};
    std::vector<std::string> slaves;
    for (auto& slave : entryNames(*dir / "slaves")) {
        if (tree_.blockDevice(slave)) slaves.push_back(std::move(slave));
    }
    return slaves;
}

bool SysfsBlockDeviceTopology::isNvmeController(const std::string& name) const {
    std::error_code error;
    return looksLikeController(name) && fs::exists(tree_.root() / "class" / "nvme" / name, error);
}

std::optional<std::string> SysfsBlockDeviceTopology::nvmeControllerOf(std::string_view name) {
    if (name.substr(0, 4) != "nvme" || looksLikeController(name)) return std::nullopt;
    const auto dir = tree_.blockDevice(name);
    if (!dir) return std::nullopt;
    const auto parent = dir->parent_path();
    const std::string parentName = parent.filename().string();
    if (isNvmeController(parentName)) return parentName;
    // Native multipath: the namespace hangs below nvme-subsysN, which links to its controllers.
    for (const auto& entry : entryNames(parent)) {
        if (isNvmeController(entry)) return entry;
    }
    return std::nullopt;
}

}  // namespace vantorix
