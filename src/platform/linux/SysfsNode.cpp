#include "platform/linux/SysfsNode.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace vantorix::sysfs {
namespace {

namespace fs = std::filesystem;

// Far more levels than any real device tree has; only a tree with a cycle of slaves gets there.
constexpr int kMaxAncestorSteps = 64;

constexpr std::size_t kSectorSize = 512;

// What a `stat` file holds when it is read in one piece; a longer file is not one we understand.
constexpr std::size_t kStatBufferSize = 1024;

std::string_view trimmed(std::string_view text) {
    const auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return text;
}

std::optional<std::string> trimmedAttribute(const fs::path& dir, std::string_view name) {
    auto text = readAttribute(dir, name);
    if (!text) return std::nullopt;
    return std::string(trimmed(*text));
}

bool isDirectory(const fs::path& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// A libata port ("ata1"): it has no subsystem link of its own but holds its ata_port class device.
bool isAtaPort(const fs::path& dir) {
    const std::string name = dir.filename().native();
    if (name.size() <= 3 || name.compare(0, 3, "ata") != 0) return false;
    if (!std::all_of(name.begin() + 3, name.end(), [](char c) { return c >= '0' && c <= '9'; })) return false;
    return isDirectory(dir / "ata_port");
}

std::vector<std::string> entriesStartingWith(const fs::path& dir, std::string_view prefix) {
    std::vector<std::string> names;
    DIR* stream = ::opendir(dir.c_str());
    if (stream == nullptr) return names;
    while (const dirent* entry = ::readdir(stream)) {
        const std::string_view name = entry->d_name;
        if (name.size() > prefix.size() && name.substr(0, prefix.size()) == prefix) names.emplace_back(name);
    }
    ::closedir(stream);
    std::sort(names.begin(), names.end());
    return names;
}

// "8.0 GT/s PCIe x4" from the link attributes of a PCI Express function: `prefix` "current" for the
// link as negotiated, "max" for the most the function can do.
std::optional<std::string> pciLinkDescription(const fs::path& dir, std::string_view prefix) {
    const std::string attribute(prefix);
    auto speed = trimmedAttribute(dir, attribute + "_link_speed");
    if (!speed || speed->empty() || speed->starts_with("Unknown")) return std::nullopt;
    const auto widthText = trimmedAttribute(dir, attribute + "_link_width");
    const auto width = widthText ? parseDecimal(*widthText) : std::nullopt;
    if (width && *width > 0) *speed += " x" + std::to_string(*width);
    return speed;
}

bool knownSataSpeed(const std::optional<std::string>& speed) {
    return speed && !speed->empty() && *speed != "<unknown>";
}

// The first link of a libata port that reports a negotiated speed, as its attribute directory.
std::optional<fs::path> activeSataLink(const fs::path& port) {
    for (const auto& link : entriesStartingWith(port, "link")) {
        fs::path dir = port / link / "ata_link" / link;
        if (knownSataSpeed(trimmedAttribute(dir, "sata_spd"))) return dir;
    }
    return std::nullopt;
}

// The negotiated speed of a libata port ("6.0 Gbps"), or with `attribute` "hw_sata_spd_limit" the
// hardware limit of the same link.
std::optional<std::string> sataLinkDescription(const fs::path& port, std::string_view attribute) {
    const auto link = activeSataLink(port);
    if (!link) return std::nullopt;
    auto speed = trimmedAttribute(*link, attribute);
    return knownSataSpeed(speed) ? speed : std::nullopt;
}

// The registry's USB speed code for a `speed` attribute in Mb/s.
std::optional<std::uint64_t> usbSpeedCode(std::string_view megabits) {
    static constexpr std::array<std::pair<std::string_view, std::uint64_t>, 6> kCodes = {{
        {"1.5", 0}, {"12", 1}, {"480", 2}, {"5000", 3}, {"10000", 4}, {"20000", 5},
    }};
    for (const auto& [text, code] : kCodes) {
        if (megabits == text) return code;
    }
    return std::nullopt;
}

class StatisticsDictionary final : public PropertyDictionary {
public:
    explicit StatisticsDictionary(const BlockStatCounters& counters)
        : values_{counters.sectorsRead * kSectorSize, counters.sectorsWritten * kSectorSize,
                  counters.readsCompleted, counters.writesCompleted} {}

    std::vector<std::string> keys() const override { return {kKeys.begin(), kKeys.end()}; }

    std::optional<PropertyValue> find(std::string_view key) const override {
        for (std::size_t i = 0; i < kKeys.size(); ++i) {
            if (key == kKeys[i]) return PropertyValue(values_[i]);
        }
        return std::nullopt;
    }

private:
    static constexpr std::array<std::string_view, 4> kKeys = {"Bytes (Read)", "Bytes (Write)", "Operations (Read)",
                                                              "Operations (Write)"};
    std::array<std::uint64_t, 4> values_;
};

constexpr std::array<std::string_view, 8> kAddedKeys = {
    kStatisticsKey,      kPhysicalInterconnectKey, kProtocolCharacteristicsKey, kDeviceSpeedKey,
    kLinkDescriptionKey, kMaxLinkDescriptionKey,   kVendorIdKey,                kThunderboltGenerationKey,
};

}  // namespace

std::optional<std::string> physicalInterconnect(const fs::path& dir, std::string_view subsystem) {
    if (subsystem == "usb") return "USB";
    if (subsystem == "thunderbolt") return "Thunderbolt";
    if (subsystem == "pci") return readAttribute(dir, "current_link_speed") ? "PCI-Express" : "PCI";
    if (subsystem == "nvme") {
        const auto transport = trimmedAttribute(dir, "transport");
        if (!transport || transport->empty() || *transport == "pcie") return "PCI-Express";
        std::string upper = *transport;
        std::transform(upper.begin(), upper.end(), upper.begin(),
                       [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
        return "NVMe over " + upper;
    }
    if (subsystem == "ata_port" || subsystem == "ata_link") return "SATA";
    if (subsystem == "virtio") return "Virtio";
    if (subsystem == "mmc") return "SD/MMC";
    if (subsystem.empty() && isAtaPort(dir)) return "SATA";
    return std::nullopt;
}

SysfsNode::SysfsNode(std::shared_ptr<const SysfsTree> tree, fs::path dir, std::string subsystem,
                     std::uint64_t inode)
    : tree_(std::move(tree)), dir_(std::move(dir)), subsystem_(std::move(subsystem)), inode_(inode) {}

SysfsNode::~SysfsNode() {
    const int fd = statFd_.load(std::memory_order_acquire);
    if (fd >= 0) ::close(fd);
}

bool SysfsNode::present() const {
    struct stat info {};
    // A block device whose counters are being read is checked through its kept descriptor, which
    // costs far less than a path lookup. A removed sysfs attribute keeps its link count, so there
    // the failed read is what tells (and costs nothing while the device is there); a removed file
    // of an ordinary file system has no links left.
    const int fd = statFd_.load(std::memory_order_acquire);
    if (fd >= 0) {
        if (statGone_.load(std::memory_order_relaxed)) return false;
        if (statOnSysfs_.load(std::memory_order_relaxed)) return true;
        return ::fstat(fd, &info) == 0 && info.st_nlink > 0;
    }
    return ::stat(dir_.c_str(), &info) == 0 && S_ISDIR(info.st_mode) &&
           static_cast<std::uint64_t>(info.st_ino) == inode_;
}

int SysfsNode::statDescriptor() const {
    const int kept = statFd_.load(std::memory_order_acquire);
    if (kept >= 0) return kept;
    const int opened = ::open((dir_ / "stat").c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (opened < 0) return -1;
    struct stat info {};
    if (::fstat(opened, &info) != 0 || !S_ISREG(info.st_mode) || (info.st_mode & (S_IRUSR | S_IRGRP | S_IROTH)) == 0) {
        ::close(opened);
        return -1;
    }
    struct statfs fileSystem {};
    if (::fstatfs(opened, &fileSystem) == 0 && fileSystem.f_type == SYSFS_MAGIC) {
        statOnSysfs_.store(true, std::memory_order_relaxed);
    }
    int expected = -1;
    if (statFd_.compare_exchange_strong(expected, opened, std::memory_order_acq_rel)) return opened;
    ::close(opened);  // another thread kept its descriptor first
    return expected;
}

std::optional<BlockStatCounters> SysfsNode::statistics() const {
    if (subsystem_ != "block") return std::nullopt;
    const int fd = statDescriptor();
    if (fd < 0) return std::nullopt;
    std::array<char, kStatBufferSize> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled by pread
    ssize_t n = 0;
    do {
        n = ::pread(fd, buffer.data(), buffer.size(), 0);
    } while (n < 0 && errno == EINTR);
    // sysfs answers ENODEV once the device has been removed (ENOENT for a removed attribute).
    if (n < 0 && (errno == ENODEV || errno == ENOENT)) statGone_.store(true, std::memory_order_relaxed);
    if (n <= 0 || static_cast<std::size_t>(n) >= buffer.size()) return std::nullopt;
    return parseBlockStat(std::string_view(buffer.data(), static_cast<std::size_t>(n)));
}

std::vector<std::string> SysfsNode::keys() const {
    std::vector<std::string> result;
    if (DIR* stream = ::opendir(dir_.c_str())) {
        while (const dirent* entry = ::readdir(stream)) {
            struct stat info {};
            if (::fstatat(::dirfd(stream), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
            if (S_ISREG(info.st_mode) && (info.st_mode & (S_IRUSR | S_IRGRP | S_IROTH)) != 0)
                result.emplace_back(entry->d_name);
        }
        ::closedir(stream);
    }
    std::sort(result.begin(), result.end());
    for (const auto key : kAddedKeys) {
        if (find(key)) result.emplace_back(key);
    }
    return result;
}

std::optional<PropertyValue> SysfsNode::find(std::string_view key) const {
    if (key == kStatisticsKey) {
        const auto counters = statistics();
        if (!counters) return std::nullopt;
        std::shared_ptr<const PropertyDictionary> dictionary = std::make_shared<const StatisticsDictionary>(*counters);
        return PropertyValue(std::move(dictionary));
    }
    if (key == kPhysicalInterconnectKey) {
        auto interconnect = physicalInterconnect(dir_, subsystem_);
        if (!interconnect) return std::nullopt;
        return PropertyValue(std::move(*interconnect));
    }
    if (key == kProtocolCharacteristicsKey) {
        if (subsystem_ != "block") return std::nullopt;
        // The interconnect of the nearest bus device beneath this block device; stacked devices
        // are followed down to what they sit on.
        fs::path current = dir_;
        std::string currentSubsystem = subsystem_;
        for (int step = 0; step < kMaxAncestorSteps; ++step) {
            auto parent = tree_->parentOf(current, currentSubsystem);
            if (!parent) break;
            current = std::move(*parent);
            currentSubsystem = subsystemOf(current);
            if (auto interconnect = physicalInterconnect(current, currentSubsystem)) {
                return PropertyValue(
                    makeDictionary({{std::string(kPhysicalInterconnectKey), std::move(*interconnect)}}));
            }
        }
        if (!tree_->isVirtual(current)) return std::nullopt;
        return PropertyValue(makeDictionary({{std::string(kPhysicalInterconnectKey), "Virtual Interface"}}));
    }
    if (key == kDeviceSpeedKey) {
        if (subsystem_ != "usb") return std::nullopt;
        const auto speed = trimmedAttribute(dir_, "speed");
        const auto code = speed ? usbSpeedCode(*speed) : std::nullopt;
        if (!code) return std::nullopt;
        return PropertyValue(*code);
    }
    if (key == kLinkDescriptionKey || key == kMaxLinkDescriptionKey) {
        const bool most = key == kMaxLinkDescriptionKey;
        std::optional<std::string> description;
        if (subsystem_ == "pci") {
            description = pciLinkDescription(dir_, most ? "max" : "current");
        } else if (subsystem_.empty() && isAtaPort(dir_)) {
            description = sataLinkDescription(dir_, most ? "hw_sata_spd_limit" : "sata_spd");
        }
        if (!description) return std::nullopt;
        return PropertyValue(std::move(*description));
    }
    if (key == kVendorIdKey) {
        if (subsystem_ != "pci" && subsystem_ != "virtio") return std::nullopt;
        const auto vendor = trimmedAttribute(dir_, "vendor");
        const auto id = vendor ? parseHexLiteral(*vendor) : std::nullopt;
        if (!id) return std::nullopt;
        return PropertyValue(*id);
    }
    if (key == kThunderboltGenerationKey) {
        if (subsystem_ != "thunderbolt") return std::nullopt;
        const auto generation = trimmedAttribute(dir_, "generation");
        const auto number = generation ? parseDecimal(*generation) : std::nullopt;
        if (!number) return std::nullopt;
        return PropertyValue(*number);
    }
    auto text = readAttribute(dir_, key);
    if (!text) return std::nullopt;
    return typedAttribute(key, *text);
}

}  // namespace vantorix::sysfs
