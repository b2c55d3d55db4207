#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "util/Result.h"

namespace vantorix {

// What the file system says about the volume that holds a path.
struct FileSystemStatistics {
    std::string mountSource;  // e.g. "/dev/nvme0n1p2"; symbolic links resolved
    std::string typeName;     // e.g. "ext4"
    std::string mountPoint;   // e.g. "/home"
    std::uint64_t blockSize = 0;
    std::uint64_t totalBlocks = 0;
    std::uint64_t availableBlocks = 0;  // available to an unprivileged user
};

// Named values of the volume that holds a path; each may be missing.
struct VolumeResourceValues {
    std::optional<std::string> name;
    std::optional<std::uint64_t> totalCapacity;
    std::optional<std::uint64_t> availableCapacity;  // what an unprivileged user may still use
};

// File-system queries the volume resolver needs. Errors carry an errno value.
class VolumeInfoSource {
public:
    virtual ~VolumeInfoSource() = default;
    // The absolute path with every symbolic link resolved; nothing when it cannot be resolved.
    virtual std::optional<std::string> resolveSymlinks(const std::string& path) = 0;
    virtual Result<FileSystemStatistics, int> fileSystemStatistics(const std::string& path) = 0;
    virtual Result<VolumeResourceValues, int> resourceValues(const std::string& path) = 0;
};

}  // namespace vantorix
