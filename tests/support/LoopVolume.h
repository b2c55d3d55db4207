#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "support/TemporaryFolder.h"

namespace vantorix::testing {

// A freshly made ext4 file system on a loop device, mounted in a temporary folder. Needs root and
// loop devices; `unavailableReason()` says why one cannot be made here. Unmounted, detached and
// deleted on destruction, whatever happened in between.
class LoopVolume {
public:
    static std::string unavailableReason();
    // `label` and `mountFolderName` (the name of the mount point in its temporary folder) are bytes,
    // handed to mkfs.ext4 and mkdir as they are: they need not be UTF-8.
    static std::unique_ptr<LoopVolume> create(const std::string& label, std::uint64_t sizeBytes, std::string* error,
                                              const std::string& mountFolderName = "mnt");
    ~LoopVolume();

    const std::string& device() const { return device_; }         // "/dev/loop3"
    std::string deviceName() const { return device_.substr(5); }  // "loop3"
    const std::string& mountPoint() const { return mountPoint_; }
    std::string backingFile() const { return folder_.string() + "/image.ext4"; }

    // Takes the volume apart step by step, as a pulled disk would vanish: unmount, detach the
    // loop device, then remove the device itself (its sysfs node disappears). True on success.
    bool unmount();
    bool detach();
    bool removeDevice();

private:
    LoopVolume() = default;
    TemporaryFolder folder_;
    std::string device_, mountPoint_;
    bool mounted_ = false, attached_ = false;
};

}  // namespace vantorix::testing
