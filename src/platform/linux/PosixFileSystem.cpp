#include "platform/linux/PosixFileSystem.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/QueuedFile.h"
#include "platform/linux/IoUringQueuedFile.h"

namespace vantorix {
namespace {

FileError lastError() {
    const int code = errno;
    return FileError{code, std::strerror(code)};
}

class PosixFileHandle final : public FileHandle {
public:
    explicit PosixFileHandle(int fd) : fd_(fd) {}
    ~PosixFileHandle() override {
        if (fd_ >= 0) ::close(fd_);
    }
    PosixFileHandle(const PosixFileHandle&) = delete;
    PosixFileHandle& operator=(const PosixFileHandle&) = delete;

    Result<Unit, FileError> seek(std::uint64_t offset) override {
        if (fd_ < 0) return Failure{FileError{EBADF, std::strerror(EBADF)}};
        if (offset > static_cast<std::uint64_t>(INT64_MAX)) return Failure{FileError{EINVAL, std::strerror(EINVAL)}};
        position_ = offset;
        return Unit{};
    }

    Result<Unit, FileError> write(std::span<const std::byte> data) override {
        while (!data.empty()) {
            const ssize_t n = ::pwrite(fd_, data.data(), data.size(), static_cast<off_t>(position_));
            if (n < 0) {
                if (errno == EINTR) continue;
                return Failure{lastError()};
            }
            if (n == 0) return Failure{FileError{EIO, std::strerror(EIO)}};
            position_ += static_cast<std::uint64_t>(n);
            data = data.subspan(static_cast<std::size_t>(n));
        }
        return Unit{};
    }

    Result<std::size_t, FileError> read(std::span<std::byte> buffer) override {
        for (;;) {
            const ssize_t n = ::pread(fd_, buffer.data(), buffer.size(), static_cast<off_t>(position_));
            if (n < 0) {
                if (errno == EINTR) continue;
                return Failure{lastError()};
            }
            position_ += static_cast<std::uint64_t>(n);
            return static_cast<std::size_t>(n);
        }
    }

    Result<Unit, FileError> truncate(std::uint64_t length) override {
        if (::ftruncate(fd_, static_cast<off_t>(length)) != 0) return Failure{lastError()};
        return Unit{};
    }

    Result<Unit, FileError> synchronize() override {
        if (::fsync(fd_) != 0) return Failure{lastError()};
        return Unit{};
    }

    Result<Unit, FileError> close() override {
        const int fd = fd_;
        fd_ = -1;
        if (fd < 0 || ::close(fd) != 0) return Failure{fd < 0 ? FileError{EBADF, std::strerror(EBADF)} : lastError()};
        return Unit{};
    }

private:
    int fd_;
    std::uint64_t position_ = 0;
};

// File systems whose files live in memory: O_DIRECT may be accepted there, but there is no
// device behind the page cache to reach.
bool keepsFilesInMemory(int fd) {
    struct statfs info {};
    if (::fstatfs(fd, &info) != 0) return false;
    return info.f_type == TMPFS_MAGIC || info.f_type == RAMFS_MAGIC;
}

FileError directIoRefused() {
    return FileError{EINVAL, "The file system cannot bypass the page cache"};
}

// Writes everything to `fd`, then flushes it to storage.
bool writeAllAndSync(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return ::fsync(fd) == 0;
}

}  // namespace

Result<Unit, FileError> PosixFileSystem::createEmptyFile(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return Failure{lastError()};
    ::close(fd);
    return Unit{};
}

bool PosixFileSystem::exists(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

Result<Unit, FileError> PosixFileSystem::remove(const std::string& path) {
    if (::unlink(path.c_str()) != 0) return Failure{lastError()};
    return Unit{};
}

Result<Unit, FileError> PosixFileSystem::commitRemovals(const std::string& directory) {
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return Failure{lastError()};
    const bool committed = ::syncfs(fd) == 0;
    const FileError error = committed ? FileError{} : lastError();
    ::close(fd);
    if (!committed) return Failure{error};
    return Unit{};
}

Result<std::unique_ptr<FileHandle>, FileError> PosixFileSystem::open(const std::string& path, FileAccess access,
                                                                     CacheMode cache) {
    int flags = access == FileAccess::updating ? O_RDWR : access == FileAccess::writing ? O_WRONLY : O_RDONLY;
    if (cache == CacheMode::direct) flags |= O_DIRECT;
    const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0) return Failure{lastError()};
    if (cache == CacheMode::direct && keepsFilesInMemory(fd)) {
        ::close(fd);
        return Failure{directIoRefused()};
    }
    return std::unique_ptr<FileHandle>(std::make_unique<PosixFileHandle>(fd));
}

Result<std::unique_ptr<QueuedFile>, FileError> PosixFileSystem::openQueued(const std::string& path) {
    {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return Failure{lastError()};
        const bool inMemory = keepsFilesInMemory(fd);
        ::close(fd);
        if (inMemory) return Failure{directIoRefused()};
    }
    return openIoUringQueuedFile(path);
}

Result<std::string, FileError> PosixFileSystem::writeNewFileAtomically(const std::string& directory,
                                                                       const std::string& baseName,
                                                                       const std::string& extension,
                                                                       std::string_view data) {
    std::string folder = directory;
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    const std::string prefix = folder == "/" ? folder : folder + "/";

    // The data goes to a hidden temporary file first, which is then given its name without
    // replacing anything: the file appears complete or not at all.
    std::string temporary = prefix + "." + baseName + ".XXXXXX";
    const int fd = ::mkstemp(temporary.data());
    if (fd < 0) return Failure{lastError()};
    if (::fchmod(fd, 0644) != 0 || !writeAllAndSync(fd, data)) {
        const FileError error = lastError();
        ::close(fd);
        ::unlink(temporary.c_str());
        return Failure{error};
    }
    if (::close(fd) != 0) {
        const FileError error = lastError();
        ::unlink(temporary.c_str());
        return Failure{error};
    }

    for (unsigned suffix = 0;; ++suffix) {
        const std::string target =
            prefix + baseName + (suffix == 0 ? std::string() : fmt::format("-{}", suffix)) + extension;
        int status = ::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE);
        if (status != 0 && errno == EINVAL) {
            // A file system without RENAME_NOREPLACE: a hard link never replaces either.
            status = ::link(temporary.c_str(), target.c_str());
            if (status == 0) ::unlink(temporary.c_str());
        }
        if (status == 0) return target;
        if (errno != EEXIST) {
            const FileError error = lastError();
            ::unlink(temporary.c_str());
            return Failure{error};
        }
    }
}

}  // namespace vantorix
