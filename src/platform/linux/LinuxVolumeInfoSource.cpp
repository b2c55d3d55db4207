#include "platform/linux/LinuxVolumeInfoSource.h"

#include <blkid/blkid.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "platform/linux/MountInfo.h"

namespace vantorix {
namespace {

std::optional<std::string> realPath(const std::string& path) {
    char buffer[PATH_MAX];
    if (::realpath(path.c_str(), buffer) == nullptr) return std::nullopt;
    return std::string(buffer);
}

std::optional<std::string> readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool isBlockDeviceNumbered(const std::string& path, std::uint32_t major, std::uint32_t minor) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISBLK(st.st_mode) && ::major(st.st_rdev) == major &&
           ::minor(st.st_rdev) == minor;
}

}  // namespace

std::optional<std::string> LinuxVolumeInfoSource::resolveSymlinks(const std::string& path) { return realPath(path); }

Result<FileSystemStatistics, int> LinuxVolumeInfoSource::mountOf(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return Failure{errno};
    const auto text = readFile(paths_.mountInfo);
    if (!text) return Failure{ENOENT};
    const auto major = ::major(st.st_dev);
    const auto minor = ::minor(st.st_dev);
    const auto mount = findMount(parseMountInfo(*text), major, minor, path);
    if (!mount) return Failure{ENOENT};

    FileSystemStatistics result;
    result.typeName = mount->fileSystemType;
    result.mountPoint = mount->mountPoint;
    result.mountSource = mount->source;
    if (!result.mountSource.empty() && result.mountSource.front() == '/') {
        // /dev/mapper/x and /dev/disk/by-*/... are links to the kernel's own node names.
        if (auto resolved = realPath(result.mountSource)) result.mountSource = std::move(*resolved);
        // Sources such as /dev/root name no real node: ask the kernel which device it is.
        if (mount->major != 0 && !isBlockDeviceNumbered(result.mountSource, mount->major, mount->minor)) {
            std::error_code error;
            const auto node = std::filesystem::read_symlink(
                paths_.sysDevBlock / (std::to_string(mount->major) + ":" + std::to_string(mount->minor)), error);
            if (!error && !node.filename().empty()) result.mountSource = "/dev/" + node.filename().string();
        }
    }
    return result;
}

Result<FileSystemStatistics, int> LinuxVolumeInfoSource::fileSystemStatistics(const std::string& path) {
    auto result = mountOf(path);
    if (!result.ok()) return result;
    struct statvfs vfs {};
    if (::statvfs(path.c_str(), &vfs) != 0) return Failure{errno};
    result->blockSize = vfs.f_frsize;
    result->totalBlocks = vfs.f_blocks;
    result->availableBlocks = vfs.f_bavail;
    return result;
}

std::optional<std::string> LinuxVolumeInfoSource::labelOf(const std::string& device) {
    std::error_code error;
    for (std::filesystem::directory_iterator it(paths_.byLabel, error), end; !error && it != end; it.increment(error)) {
        if (const auto target = realPath(it->path().string()); target && *target == device) {
            return decodeUdevLabel(it->path().filename().string());
        }
    }
    // Without udev, read the label from the file system's superblock (needs read access).
    blkid_probe probe = ::blkid_new_probe_from_filename(device.c_str());
    if (probe == nullptr) return std::nullopt;
    std::optional<std::string> label;
    ::blkid_probe_enable_superblocks(probe, 1);
    ::blkid_probe_set_superblocks_flags(probe, BLKID_SUBLKS_LABEL);
    if (::blkid_do_safeprobe(probe) == 0) {
        const char* value = nullptr;
        if (::blkid_probe_lookup_value(probe, "LABEL", &value, nullptr) == 0 && value != nullptr && *value != '\0') {
            label = value;
        }
    }
    ::blkid_free_probe(probe);
    return label;
}

Result<VolumeResourceValues, int> LinuxVolumeInfoSource::resourceValues(const std::string& path) {
    auto mount = mountOf(path);
    if (!mount.ok()) return Failure{mount.error()};
    struct statvfs vfs {};
    if (::statvfs(path.c_str(), &vfs) != 0) return Failure{errno};

    VolumeResourceValues values;
    struct stat st {};
    if (::stat(mount->mountSource.c_str(), &st) == 0 && S_ISBLK(st.st_mode)) values.name = labelOf(mount->mountSource);
    if (!values.name) {
        // An unlabelled file system is named after where it is mounted; the root file system is "/".
        const auto last = std::filesystem::path(mount->mountPoint).filename().string();
        values.name = last.empty() ? std::string("/") : last;
    }
    values.totalCapacity = static_cast<std::uint64_t>(vfs.f_blocks) * vfs.f_frsize;
    values.availableCapacity = static_cast<std::uint64_t>(vfs.f_bavail) * vfs.f_frsize;
    return values;
}

}  // namespace vantorix
