#include "platform/linux/PosixFileSystem.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <optional>
#include <random>
#include <system_error>
#include <utility>

#include "platform/QueuedFile.h"
#include "platform/linux/IoUringQueuedFile.h"

namespace vantorix {
namespace {

FileError lastError() {
    const int code = errno;
    return FileError{code, std::generic_category().message(code)};
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
        if (fd_ < 0) return Failure{FileError{EBADF, std::generic_category().message(EBADF)}};
        if (offset > static_cast<std::uint64_t>(INT64_MAX))
            return Failure{FileError{EINVAL, std::generic_category().message(EINVAL)}};
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
            if (n == 0) return Failure{FileError{EIO, std::generic_category().message(EIO)}};
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
        if (fd < 0 || ::close(fd) != 0)
            return Failure{fd < 0 ? FileError{EBADF, std::generic_category().message(EBADF)} : lastError()};
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

FileError directIoRefused() { return FileError{EINVAL, "The file system cannot bypass the page cache"}; }

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

// A name of a file directly in a folder: no separators, not "." or "..".
bool isPlainName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

FileError badName() { return FileError{EINVAL, "Not a plain file name"}; }

// The major:minor of a block device, from sysfs.
std::optional<std::pair<unsigned, unsigned>> blockDeviceNumber(const std::string& name) {
    if (!isPlainName(name)) return std::nullopt;
    std::ifstream file("/sys/class/block/" + name + "/dev");
    unsigned major = 0;
    unsigned minor = 0;
    char colon = 0;
    if (!(file >> major >> colon >> minor) || colon != ':') return std::nullopt;
    return std::pair{major, minor};
}

// Six letters and digits for a temporary name.
std::string randomSuffix() {
    static constexpr char kCharacters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    thread_local std::mt19937 generator{std::random_device{}()};
    std::uniform_int_distribution<std::size_t> pick(0, sizeof kCharacters - 2);
    std::string suffix(6, ' ');
    for (char& c : suffix) c = kCharacters[pick(generator)];
    return suffix;
}

class PosixDirectory final : public Directory {
public:
    PosixDirectory(int fd, std::string path, const struct stat& identity)
        : fd_(fd), path_(std::move(path)), device_(identity.st_dev), inode_(identity.st_ino) {}
    ~PosixDirectory() override { ::close(fd_); }
    PosixDirectory(const PosixDirectory&) = delete;
    PosixDirectory& operator=(const PosixDirectory&) = delete;

    const std::string& path() const override { return path_; }

    bool isInPlace() override {
        struct stat now {};
        return ::stat(path_.c_str(), &now) == 0 && now.st_dev == device_ && now.st_ino == inode_;
    }

    Result<std::uint64_t, FileError> availableBytes() override {
        struct statvfs info {};
        if (::fstatvfs(fd_, &info) != 0) return Failure{lastError()};
        return static_cast<std::uint64_t>(info.f_bavail) * info.f_frsize;
    }

    Result<Unit, FileError> commitRemovals() override {
        if (::syncfs(fd_) != 0) return Failure{lastError()};
        return Unit{};
    }

    Result<Unit, FileError> createEmptyFile(const std::string& name) override {
        if (!isPlainName(name)) return Failure{badName()};
        const int fd = ::openat(fd_, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644);
        if (fd < 0) return Failure{lastError()};
        ::close(fd);
        return Unit{};
    }

    bool exists(const std::string& name) override {
        struct stat info {};
        return isPlainName(name) && ::fstatat(fd_, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
    }

    Result<Unit, FileError> remove(const std::string& name) override {
        if (!isPlainName(name)) return Failure{badName()};
        if (::unlinkat(fd_, name.c_str(), 0) != 0) return Failure{lastError()};
        return Unit{};
    }

    Result<std::unique_ptr<FileHandle>, FileError> open(const std::string& name, FileAccess access,
                                                        CacheMode cache) override {
        if (!isPlainName(name)) return Failure{badName()};
        int flags = access == FileAccess::updating ? O_RDWR : access == FileAccess::writing ? O_WRONLY : O_RDONLY;
        if (cache == CacheMode::direct) flags |= O_DIRECT;
        const int fd = ::openat(fd_, name.c_str(), flags | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) return Failure{lastError()};
        if (cache == CacheMode::direct && keepsFilesInMemory(fd)) {
            ::close(fd);
            return Failure{directIoRefused()};
        }
        return std::unique_ptr<FileHandle>(std::make_unique<PosixFileHandle>(fd));
    }

    Result<std::unique_ptr<QueuedFile>, FileError> openQueued(const std::string& name) override {
        if (!isPlainName(name)) return Failure{badName()};
        if (!exists(name)) return Failure{FileError{ENOENT, std::generic_category().message(ENOENT)}};
        if (keepsFilesInMemory(fd_)) return Failure{directIoRefused()};
        return openIoUringQueuedFileAt(fd_, name);
    }

    Result<std::string, FileError> writeNewFileAtomically(const std::string& baseName, const std::string& extension,
                                                          std::string_view data) override;

private:
    // Gives the hidden temporary file `temporary` the first free name without replacing anything.
    Result<std::string, FileError> publish(const std::string& temporary, const std::string& baseName,
                                           const std::string& extension);

    int fd_;
    std::string path_;
    dev_t device_;
    ino_t inode_;
};

Result<std::string, FileError> PosixDirectory::writeNewFileAtomically(const std::string& baseName,
                                                                      const std::string& extension,
                                                                      std::string_view data) {
    if (!isPlainName(baseName + extension)) return Failure{badName()};
    // The data goes to a hidden temporary file first, which is then given its name without
    // replacing anything: the file appears complete or not at all.
    std::string temporary;
    int fd = -1;
    for (int attempt = 0; fd < 0; ++attempt) {
        temporary = "." + baseName + "." + randomSuffix();
        fd = ::openat(fd_, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd < 0 && (errno != EEXIST || attempt == 100)) return Failure{lastError()};
    }
    if (::fchmod(fd, 0644) != 0 || !writeAllAndSync(fd, data)) {
        const FileError error = lastError();
        ::close(fd);
        ::unlinkat(fd_, temporary.c_str(), 0);
        return Failure{error};
    }
    if (::close(fd) != 0) {
        const FileError error = lastError();
        ::unlinkat(fd_, temporary.c_str(), 0);
        return Failure{error};
    }
    return publish(temporary, baseName, extension);
}

Result<std::string, FileError> PosixDirectory::publish(const std::string& temporary, const std::string& baseName,
                                                       const std::string& extension) {
    for (unsigned suffix = 0;; ++suffix) {
        const std::string target = suffix == 0 ? baseName + extension
                                               : fmt::format("{}-{}{}", baseName, suffix, extension);
        int status = ::renameat2(fd_, temporary.c_str(), fd_, target.c_str(), RENAME_NOREPLACE);
        if (status != 0 && errno == EINVAL) {
            // A file system without RENAME_NOREPLACE: a hard link never replaces either.
            status = ::linkat(fd_, temporary.c_str(), fd_, target.c_str(), 0);
            if (status == 0) ::unlinkat(fd_, temporary.c_str(), 0);
        }
        if (status == 0) return path_ == "/" ? path_ + target : path_ + "/" + target;
        if (errno != EEXIST) {
            const FileError error = lastError();
            ::unlinkat(fd_, temporary.c_str(), 0);
            return Failure{error};
        }
    }
}

}  // namespace

Result<std::shared_ptr<Directory>, FileError> PosixFileSystem::openDirectory(const std::string& path,
                                                                             const std::string& deviceName) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return Failure{lastError()};
    struct stat identity {};
    if (::fstat(fd, &identity) != 0) {
        const FileError error = lastError();
        ::close(fd);
        return Failure{error};
    }
    // A file system on a block device reports that device's number; one without (tmpfs, and
    // those that give their mounts numbers of their own, such as btrfs) has major number 0.
    if (::major(identity.st_dev) != 0) {
        const auto expected = blockDeviceNumber(deviceName);
        if (expected && *expected != std::pair{::major(identity.st_dev), ::minor(identity.st_dev)}) {
            ::close(fd);
            return Failure{FileError{ENODEV, "The folder is not on the volume's device"}};
        }
    }
    std::string folder = path;
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    return std::shared_ptr<Directory>(std::make_shared<PosixDirectory>(fd, std::move(folder), identity));
}

}  // namespace vantorix
