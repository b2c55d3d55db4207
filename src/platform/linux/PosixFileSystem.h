#pragma once

#include "platform/FileSystem.h"

namespace vantorix {

// Folders held by a descriptor, their files reached with openat(2) and its relatives (symbolic
// links at a test file's name are refused). A handle keeps its position itself and reads and
// writes with pread/pwrite, so a seek costs no system call. The device of a folder is checked
// against /sys/class/block/NAME/dev; a folder's place, against stat(2) of its path; removals are
// committed with syncfs(2).
class PosixFileSystem final : public FileSystem {
public:
    Result<std::shared_ptr<Directory>, FileError> openDirectory(const std::string& path,
                                                                const std::string& deviceName) override;
};

}  // namespace vantorix
