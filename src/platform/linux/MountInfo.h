#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantorix {

// One line of /proc/self/mountinfo.
struct MountInfoEntry {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::string root;
    std::string mountPoint;
    std::string fileSystemType;
    std::string source;
};

// Parses the text of a mountinfo file; malformed lines are passed over. Octal escapes such as
// "\040" in paths are decoded.
std::vector<MountInfoEntry> parseMountInfo(std::string_view text);

// The mount that holds `path` (absolute, symbolic links resolved) on device major:minor: among
// the entries of that device whose mount point contains the path, the one with the longest mount
// point (the last listed when several are mounted on the same point). When no entry of that
// device contains the path, the longest mount point containing the path.
std::optional<MountInfoEntry> findMount(const std::vector<MountInfoEntry>& entries, std::uint32_t major,
                                        std::uint32_t minor, std::string_view path);

// True when `mountPoint` is `path` or one of its ancestors.
bool mountPointContains(std::string_view mountPoint, std::string_view path);

// The mount points of block-device file systems (major number not 0, source a /dev/ node), each
// device once: its mount of the file system's root when there is one (not a bind mount of a
// folder inside it), else its first listed mount.
std::vector<std::string> blockDeviceMountPoints(const std::vector<MountInfoEntry>& entries);

// Decodes the "\xNN" escapes udev uses in /dev/disk/by-label names.
std::string decodeUdevLabel(std::string_view name);

}  // namespace vantorix
