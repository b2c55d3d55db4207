#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "util/Result.h"

namespace vantorix {

// A failed file operation: the system's error number and its text.
struct FileError {
    int code = 0;
    std::string message;
};

// An open file with a current position. Reads and writes happen at the position and advance it.
class FileHandle {
public:
    virtual ~FileHandle() = default;

    virtual Result<Unit, FileError> seek(std::uint64_t offset) = 0;
    // Writes the whole buffer or fails.
    virtual Result<Unit, FileError> write(std::span<const std::byte> data) = 0;
    // Reads up to `buffer.size()` bytes; fewer at the end of the file, 0 at or past the end.
    virtual Result<std::size_t, FileError> read(std::span<std::byte> buffer) = 0;
    virtual Result<Unit, FileError> truncate(std::uint64_t length) = 0;
    // Flushes the file's data to storage.
    virtual Result<Unit, FileError> synchronize() = 0;
    // Closes the file; later calls fail. Destroying an open handle closes it too.
    virtual Result<Unit, FileError> close() = 0;

protected:
    FileHandle() = default;
    FileHandle(const FileHandle&) = default;
    FileHandle& operator=(const FileHandle&) = default;
};

class QueuedFile;

enum class FileAccess { updating, writing, reading };

// Buffered I/O goes through the page cache. Direct I/O goes straight to the device: buffers,
// offsets and lengths must then be multiples of kDirectIoAlignment.
enum class CacheMode { buffered, direct };
inline constexpr std::size_t kDirectIoAlignment = 4096;

// A folder held open. Its files are named relative to it (single names, no slashes), so they stay
// in this folder on this file system whatever later happens to the folder's path: a volume
// unmounted lazily leaves the path leading to the folder underneath, and isInPlace() says so.
class Directory {
public:
    virtual ~Directory() = default;

    // The path the folder was opened at.
    virtual const std::string& path() const = 0;
    // Whether the path still leads to this folder.
    virtual bool isInPlace() = 0;
    // The bytes an unprivileged user may still write on the folder's file system.
    virtual Result<std::uint64_t, FileError> availableBytes() = 0;
    // Makes the space of files removed from the folder's file system usable at once: a journaling
    // file system gives out the blocks a removal freed only once the removal is committed, and a
    // removed file that was still open frees its blocks only when its last descriptor closes.
    virtual Result<Unit, FileError> commitRemovals() = 0;

    // Creates an empty file; fails when something exists at the name already.
    virtual Result<Unit, FileError> createEmptyFile(const std::string& name) = 0;
    virtual bool exists(const std::string& name) = 0;
    virtual Result<Unit, FileError> remove(const std::string& name) = 0;
    // Opens an existing file (not a symbolic link). A direct open fails with EINVAL where the file
    // system cannot bypass the page cache: it refuses O_DIRECT, or it keeps its files in memory.
    virtual Result<std::unique_ptr<FileHandle>, FileError> open(const std::string& name, FileAccess access,
                                                                CacheMode cache) = 0;
    // Opens an existing file for direct, queued reading and writing; EINVAL as above.
    virtual Result<std::unique_ptr<QueuedFile>, FileError> openQueued(const std::string& name) = 0;

    // Writes `data` as a new file named `baseName` + `extension`, or, when that name is taken,
    // `baseName` + "-1" + `extension`, "-2", … (the first free one). The file appears complete or
    // not at all, and an existing file is never replaced. Returns its path.
    virtual Result<std::string, FileError> writeNewFileAtomically(const std::string& baseName,
                                                                  const std::string& extension,
                                                                  std::string_view data) = 0;

protected:
    Directory() = default;
    Directory(const Directory&) = default;
    Directory& operator=(const Directory&) = default;
};

// Where the performance test and its report find their folder.
class FileSystem {
public:
    virtual ~FileSystem() = default;

    // Opens the folder at `path` on the volume whose block device is `deviceName` (the kernel's
    // name). A folder that is not on that device fails with ENODEV: the volume is no longer
    // mounted there. File systems without a block device of their own are taken as they are.
    virtual Result<std::shared_ptr<Directory>, FileError> openDirectory(const std::string& path,
                                                                        const std::string& deviceName) = 0;

protected:
    FileSystem() = default;
    FileSystem(const FileSystem&) = default;
    FileSystem& operator=(const FileSystem&) = default;
};

}  // namespace vantorix
