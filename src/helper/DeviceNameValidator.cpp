#include "helper/DeviceNameValidator.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <optional>

namespace vantorix::helper {
namespace {

using protocol::HelperFailure;

bool allowedCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '.' ||
           c == ':' || c == '-';
}

// Why the name is not a bare kernel device name; nothing when it is one.
std::optional<std::string> syntaxProblem(std::string_view name) {
    if (name.empty()) return "it is empty";
    if (name.size() > kMaximumDeviceNameLength) {
        return fmt::format("it is longer than {} characters", kMaximumDeviceNameLength);
    }
    if (name.front() == '-' || name.front() == '.') return R"(it starts with "-" or ".")";
    for (const char c : name) {
        if (!allowedCharacter(c)) return "only letters, digits and \"_.:-\" may appear in it";
    }
    return std::nullopt;
}

// The major:minor in a sysfs "dev" attribute ("8:0\n"); nothing when the file is not exactly that.
std::optional<dev_t> deviceNumber(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return std::nullopt;
    std::array<char, 64> buffer{};
    const ssize_t length = ::read(fd, buffer.data(), buffer.size());
    ::close(fd);
    if (length <= 0 || static_cast<std::size_t>(length) >= buffer.size()) return std::nullopt;
    std::string_view text(buffer.data(), static_cast<std::size_t>(length));
    if (text.back() == '\n') text.remove_suffix(1);
    const auto colon = text.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    unsigned int major = 0;
    unsigned int minor = 0;
    const auto parsedMajor = std::from_chars(text.data(), text.data() + colon, major);
    const auto parsedMinor = std::from_chars(text.data() + colon + 1, text.data() + text.size(), minor);
    if (parsedMajor.ec != std::errc() || parsedMajor.ptr != text.data() + colon || parsedMinor.ec != std::errc() ||
        parsedMinor.ptr != text.data() + text.size() || colon == 0 || colon + 1 == text.size()) {
        return std::nullopt;
    }
    return makedev(major, minor);
}

bool exists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

}  // namespace

std::string sanitizedName(std::string_view name) {
    std::string out;
    std::size_t count = 0;
    for (const char c : name) {
        if (count++ == kMaximumDeviceNameLength) {
            out += "...";
            break;
        }
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F && c != '"' && c != '\\') out += c;
        else out += fmt::format("\\x{:02X}", byte);
    }
    return out;
}

Result<std::string, protocol::HelperError> validatedDevicePath(std::string_view name, const DeviceRoots& roots) {
    if (const auto problem = syntaxProblem(name)) {
        return Failure{
            protocol::helperError(HelperFailure::invalidDeviceName,
                                  fmt::format("\"{}\" is not a device name: {}.", sanitizedName(name), *problem))};
    }
    const std::string bare(name);
    const auto notFound = [&bare](std::string_view why) {
        return Failure{protocol::helperError(HelperFailure::deviceNotFound,
                                             fmt::format("There is no device \"{}\": {}.", bare, why))};
    };
    const std::string blockNode = roots.sysfs + "/class/block/" + bare;
    const std::string nvmeNode = roots.sysfs + "/class/nvme/" + bare;
    bool isBlock = true;
    std::string sysfsNode;
    if (exists(blockNode)) {
        sysfsNode = blockNode;
    } else if (exists(nvmeNode)) {
        sysfsNode = nvmeNode;
        isBlock = false;
    } else {
        return notFound("it is neither a block device nor an NVMe controller");
    }
    const auto number = deviceNumber(sysfsNode + "/dev");
    if (!number) return notFound("its device number cannot be read");

    const std::string devicePath = roots.dev + "/" + bare;
    struct stat st {};
    if (::lstat(devicePath.c_str(), &st) != 0) return notFound(fmt::format("{} does not exist", devicePath));
    if (isBlock ? !S_ISBLK(st.st_mode) : !S_ISCHR(st.st_mode)) {
        return notFound(fmt::format("{} is not a {} device", devicePath, isBlock ? "block" : "character"));
    }
    if (st.st_rdev != *number) {
        return notFound(fmt::format("{} is device {}:{}, not {}:{}", devicePath, major(st.st_rdev), minor(st.st_rdev),
                                    major(*number), minor(*number)));
    }
    return devicePath;
}

}  // namespace vantorix::helper
