#pragma once

#include "platform/FileSystem.h"

namespace vantorix {

// Files through POSIX calls. A handle keeps its position itself and reads and writes with
// pread/pwrite, so a seek costs no system call.
class PosixFileSystem final : public FileSystem {
public:
    Result<Unit, FileError> createEmptyFile(const std::string& path) override;
    bool exists(const std::string& path) override;
    Result<Unit, FileError> remove(const std::string& path) override;
    // syncfs(2) of the file system.
    Result<Unit, FileError> commitRemovals(const std::string& directory) override;

    Result<std::unique_ptr<FileHandle>, FileError> open(const std::string& path, FileAccess access,
                                                        CacheMode cache) override;
    Result<std::unique_ptr<QueuedFile>, FileError> openQueued(const std::string& path) override;

    Result<std::string, FileError> writeNewFileAtomically(const std::string& directory, const std::string& baseName,
                                                          const std::string& extension,
                                                          std::string_view data) override;
};

}  // namespace vantorix
