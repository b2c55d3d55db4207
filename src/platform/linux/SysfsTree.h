#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace vantorix::sysfs {

// The shape of one sysfs tree: where its device directories are, how a block device name leads to
// one, and which directory stands above another. Paths handed out are canonical (symbolic links
// resolved) and lie strictly inside <root>/devices. Stateless apart from its root; safe to share.
class SysfsTree {
public:
    explicit SysfsTree(const std::filesystem::path& root);

    const std::filesystem::path& root() const { return root_; }
    const std::filesystem::path& devicesDir() const { return devices_; }

    // True when `dir` lies strictly below <root>/devices.
    bool contains(const std::filesystem::path& dir) const;

    // The device directory that <root>/class/block/NAME leads to, when there is one.
    std::optional<std::filesystem::path> blockDevice(std::string_view name) const;

    // The directory above `dir` in the device tree. A stacked block device (one whose `slaves/` is
    // not empty: device-mapper, md) stands on its first slave by name, so a logical volume leads
    // to the disk beneath it. Nothing when the parent would be <root>/devices itself.
    std::optional<std::filesystem::path> parentOf(const std::filesystem::path& dir, std::string_view subsystem) const;

    // True for a directory below <root>/devices/virtual.
    bool isVirtual(const std::filesystem::path& dir) const;

private:
    std::optional<std::filesystem::path> firstSlave(const std::filesystem::path& dir) const;

    std::filesystem::path root_;
    std::filesystem::path devices_;
    std::string devicesPrefix_;  // devices_ followed by '/'
    std::string virtualPrefix_;  // devices_/virtual followed by '/'
};

// The base name of the target of `dir`/subsystem ("block", "pci", "usb", ...), or an empty string
// when `dir` has no such link.
std::string subsystemOf(const std::filesystem::path& dir);

}  // namespace vantorix::sysfs
