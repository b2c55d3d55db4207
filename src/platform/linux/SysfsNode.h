#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/PropertyValue.h"
#include "platform/linux/SysfsAttributes.h"
#include "platform/linux/SysfsTree.h"

namespace vantorix::sysfs {

// Keys that the registry adds to a device's own attributes.
inline constexpr std::string_view kStatisticsKey = "Statistics";
inline constexpr std::string_view kPhysicalInterconnectKey = "Physical Interconnect";
inline constexpr std::string_view kProtocolCharacteristicsKey = "Protocol Characteristics";
inline constexpr std::string_view kDeviceSpeedKey = "Device Speed";
inline constexpr std::string_view kLinkDescriptionKey = "LinkDescription";
// The most the link can do, written like LinkDescription: the device's own top PCIe speed and
// width, or the hardware limit of a SATA port.
inline constexpr std::string_view kMaxLinkDescriptionKey = "MaxLinkDescription";
inline constexpr std::string_view kVendorIdKey = "vendor-id";
inline constexpr std::string_view kThunderboltGenerationKey = "ThunderboltGeneration";

// One device directory and its properties. The properties are read when they are looked up: the
// directory's attribute files under their own names, plus the keys above where they apply. The
// `stat` file of a block device is opened on the first statistics lookup and kept open for the
// life of the node, so that each later lookup costs one pread.
class SysfsNode final : public PropertyDictionary {
public:
    SysfsNode(std::shared_ptr<const SysfsTree> tree, std::filesystem::path dir, std::string subsystem,
              std::uint64_t inode);
    ~SysfsNode() override;
    SysfsNode(const SysfsNode&) = delete;
    SysfsNode& operator=(const SysfsNode&) = delete;

    const std::filesystem::path& dir() const { return dir_; }
    // The base name of the subsystem link; empty when there is none.
    const std::string& subsystem() const { return subsystem_; }
    std::uint64_t inode() const { return inode_; }

    // True while the directory exists and is still the one this node was made for. A block device
    // with a kept `stat` descriptor is judged by that file instead, without a path lookup: on
    // sysfs, a removed device's attribute fails to read (ENODEV), after which the node is absent;
    // elsewhere (a tree of ordinary files) the file must still be linked.
    bool present() const;

    // The counters of the block device's `stat` file, read now.
    std::optional<BlockStatCounters> statistics() const;

    // Attribute files (regular, readable, sorted by name) followed by the added keys that have a value.
    std::vector<std::string> keys() const override;
    std::optional<PropertyValue> find(std::string_view key) const override;

private:
    int statDescriptor() const;

    std::shared_ptr<const SysfsTree> tree_;
    std::filesystem::path dir_;
    std::string subsystem_;
    std::uint64_t inode_;
    mutable std::atomic<int> statFd_{-1};
    mutable std::atomic<bool> statOnSysfs_{false};  // set before statFd_ is published
    mutable std::atomic<bool> statGone_{false};     // a read of the kept file found the device removed
};

// The "Physical Interconnect" of a device directory whose subsystem names its bus, if it has one.
std::optional<std::string> physicalInterconnect(const std::filesystem::path& dir, std::string_view subsystem);

}  // namespace vantorix::sysfs
