#pragma once

#include <filesystem>

#include "platform/VolumeInfoSource.h"

namespace vantorix {

// Volume facts from the running system: stat() and /proc/self/mountinfo for the mount, statvfs
// for capacities, /dev/disk/by-label or libblkid for the file-system label.
class LinuxVolumeInfoSource final : public VolumeInfoSource {
public:
    struct Paths {
        std::filesystem::path mountInfo = "/proc/self/mountinfo";
        std::filesystem::path sysDevBlock = "/sys/dev/block";
        std::filesystem::path byLabel = "/dev/disk/by-label";
    };

    LinuxVolumeInfoSource() = default;
    explicit LinuxVolumeInfoSource(Paths paths) : paths_(std::move(paths)) {}

    std::optional<std::string> resolveSymlinks(const std::string& path) override;
    Result<FileSystemStatistics, int> fileSystemStatistics(const std::string& path) override;
    Result<VolumeResourceValues, int> resourceValues(const std::string& path) override;

private:
    Result<FileSystemStatistics, int> mountOf(const std::string& path);
    std::optional<std::string> labelOf(const std::string& device);

    Paths paths_;
};

}  // namespace vantorix
