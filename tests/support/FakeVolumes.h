#pragma once

#include <string>

#include "platform/VolumeInfoSource.h"

namespace vantorix {

// Every path is a folder on a volume whose device is named after the path's last component
// ("/volumes/fake0" is on /dev/fake0); paths under /missing do not exist.
class AnyPathOnFakeDisk final : public VolumeInfoSource {
public:
    std::optional<std::string> resolveSymlinks(const std::string& path) override { return path; }
    Result<FileSystemStatistics, int> fileSystemStatistics(const std::string& path) override {
        if (path.rfind("/missing", 0) == 0) return Failure{2};
        return FileSystemStatistics{"/dev/" + path.substr(path.rfind('/') + 1), "ext4", "/", 4096, 100, 50};
    }
    Result<VolumeResourceValues, int> resourceValues(const std::string&) override { return Failure{5}; }
};

}  // namespace vantorix
