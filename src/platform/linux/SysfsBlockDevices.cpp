#include "platform/linux/SysfsBlockDevices.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "platform/linux/SysfsAttributes.h"
#include "text/Trim.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using sysfs::readAttribute;

// Far more levels than any real device tree has; only a tree with a cycle of members gets there.
constexpr int kMaxLevels = 64;

// A `stat` file is one line of at most 17 numbers; a longer file is not one we understand.
constexpr std::size_t kStatBufferSize = 1024;

// The attribute's text without surrounding white space; nothing when it is missing or blank.
std::optional<std::string> textAttribute(const fs::path& dir, std::string_view name) {
    const auto text = readAttribute(dir, name);
    if (!text) return std::nullopt;
    const auto value = text::trimmed(*text);
    if (value.empty()) return std::nullopt;
    return std::string(value);
}

// An id written as "0x1af4" (PCI, virtio) or, with `bare`, as "1af4" (USB).
std::optional<std::uint16_t> idAttribute(const fs::path& dir, std::string_view name, bool bare) {
    const auto text = textAttribute(dir, name);
    if (!text) return std::nullopt;
    const auto value = bare ? sysfs::parseHex(*text) : sysfs::parseHexLiteral(*text);
    if (!value || *value > 0xFFFF) return std::nullopt;
    return static_cast<std::uint16_t>(*value);
}

std::vector<std::string> entries(const fs::path& dir) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator it(dir, error), end; !error && it != end; it.increment(error)) {
        names.push_back(it->path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
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

// The link of a PCI Express function: `prefix` "current" as negotiated, "max" for the most the
// function can do.
std::optional<LinkState> pciLink(const fs::path& dir, const std::string& prefix) {
    auto speed = textAttribute(dir, prefix + "_link_speed");
    if (!speed || speed->starts_with("Unknown")) return std::nullopt;
    LinkState link{std::move(*speed), std::nullopt};
    if (const auto width = textAttribute(dir, prefix + "_link_width")) {
        if (const auto lanes = sysfs::parseDecimal(*width); lanes && *lanes > 0 && *lanes < 1024) {
            link.width = static_cast<unsigned>(*lanes);
        }
    }
    return link;
}

std::optional<std::string> knownSataSpeed(const fs::path& link, std::string_view attribute) {
    auto speed = textAttribute(link, attribute);
    if (!speed || *speed == "<unknown>") return std::nullopt;
    return speed;
}

// The first link of a libata port that reports a negotiated speed, and the hardware limit of that link.
std::optional<std::pair<LinkState, std::optional<LinkState>>> sataLink(const fs::path& port) {
    for (const auto& name : entries(port)) {
        if (!name.starts_with("link")) continue;
        const fs::path dir = port / name / "ata_link" / name;
        auto speed = knownSataSpeed(dir, "sata_spd");
        if (!speed) continue;
        std::optional<LinkState> limit;
        if (auto most = knownSataSpeed(dir, "hw_sata_spd_limit")) limit = LinkState{std::move(*most), std::nullopt};
        return std::make_pair(LinkState{std::move(*speed), std::nullopt}, std::move(limit));
    }
    return std::nullopt;
}

// The speeds a USB device can enumerate at, in Mb/s as sysfs writes them.
bool isUsbSpeed(std::string_view megabits) {
    static constexpr std::array<std::string_view, 6> kSpeeds{"1.5", "12", "480", "5000", "10000", "20000"};
    return std::find(kSpeeds.begin(), kSpeeds.end(), megabits) != kSpeeds.end();
}

// What a walk up the device tree has found so far.
class AttachmentWalk {
public:
    void visit(const fs::path& dir, const std::string& subsystem) {
        if (!result_.wwn) result_.wwn = textAttribute(dir, "wwid");
        if (subsystem == "block" && !result_.backingFile)
            result_.backingFile = textAttribute(dir / "loop", "backing_file");
        if (subsystem == "block" || subsystem == "nvme" || subsystem == "usb" || subsystem == "mmc") {
            if (!result_.serial) result_.serial = textAttribute(dir, "serial");
        }
        if (subsystem == "scsi") {
            setOnce(result_.vendor, textAttribute(dir, "vendor"));
            setOnce(result_.model, textAttribute(dir, "model"));
        } else if (subsystem == "nvme") {
            setOnce(result_.model, textAttribute(dir, "model"));
        } else if (subsystem == "usb") {
            setOnce(result_.vendor, textAttribute(dir, "manufacturer"));
            setOnce(result_.model, textAttribute(dir, "product"));
            setOnce(result_.vendorId, idAttribute(dir, "idVendor", true));
            setOnce(result_.productId, idAttribute(dir, "idProduct", true));
            // The nearest USB device (interfaces have no speed) is the one the drive enumerated as.
            if (!usbDeviceSeen_) {
                if (auto speed = textAttribute(dir, "speed")) {
                    usbDeviceSeen_ = true;
                    if (isUsbSpeed(*speed)) usbLink_ = LinkState{std::move(*speed), std::nullopt};
                    usbVersion_ = readAttribute(dir, "version");
                }
            }
        } else if (subsystem == "pci") {
            setOnce(result_.vendorId, idAttribute(dir, "vendor", false));
            // A function that cannot tell its link speed leaves it to the port above, the other end
            // of the same link.
            if (!pciLink_) {
                pciLink_ = pciLink(dir, "current");
                if (pciLink_) pciMaxLink_ = pciLink(dir, "max");
            }
        } else if (subsystem == "virtio") {
            setOnce(result_.vendorId, idAttribute(dir, "vendor", false));
        } else if (subsystem == "mmc") {
            setOnce(result_.model, textAttribute(dir, "name"));
        } else if (subsystem == "thunderbolt") {
            if (!thunderboltGeneration_) {
                const auto generation = textAttribute(dir, "generation");
                const auto number = generation ? sysfs::parseDecimal(*generation) : std::nullopt;
                if (number && *number >= 1 && *number <= 4) thunderboltGeneration_ = static_cast<unsigned>(*number);
            }
        } else if (subsystem.empty() && isAtaPort(dir) && !sataLink_) {
            if (auto link = sataLink(dir)) {
                sataLink_ = std::move(link->first);
                sataLimit_ = std::move(link->second);
            }
        }
        if (result_.bus == BusKind::unknown) result_.bus = busOf(dir, subsystem);
    }

    BlockAttachment finish(bool virtualTop) {
        switch (result_.bus) {
            case BusKind::pciExpress:
            case BusKind::pci:
                result_.link = pciLink_;
                result_.maxLink = pciMaxLink_;
                break;
            case BusKind::sata:
                result_.link = sataLink_;
                result_.maxLink = sataLimit_;
                break;
            case BusKind::usb:
                result_.link = usbLink_;
                result_.usbVersion = usbVersion_;
                break;
            case BusKind::thunderbolt: result_.thunderboltGeneration = thunderboltGeneration_; break;
            case BusKind::unknown:
                if (virtualTop) result_.bus = BusKind::virtualDevice;
                break;
            default: break;
        }
        return result_;
    }

private:
    template <class T>
    static void setOnce(std::optional<T>& field, std::optional<T> value) {
        if (!field) field = std::move(value);
    }

    BusKind busOf(const fs::path& dir, const std::string& subsystem) {
        if (subsystem == "usb") return BusKind::usb;
        if (subsystem == "thunderbolt") return BusKind::thunderbolt;
        if (subsystem == "pci") return readAttribute(dir, "current_link_speed") ? BusKind::pciExpress : BusKind::pci;
        if (subsystem == "nvme") {
            auto transport = textAttribute(dir, "transport").value_or("pcie");
            if (transport == "pcie") return BusKind::pciExpress;
            result_.nvmeTransport = std::move(transport);
            return BusKind::nvmeFabrics;
        }
        if (subsystem == "ata_port" || subsystem == "ata_link" || (subsystem.empty() && isAtaPort(dir)))
            return BusKind::sata;
        if (subsystem == "virtio") return BusKind::virtio;
        if (subsystem == "mmc") return BusKind::mmc;
        return BusKind::unknown;
    }

    BlockAttachment result_;
    std::optional<LinkState> pciLink_;
    std::optional<LinkState> pciMaxLink_;
    std::optional<LinkState> sataLink_;
    std::optional<LinkState> sataLimit_;
    bool usbDeviceSeen_ = false;
    std::optional<LinkState> usbLink_;
    std::optional<std::string> usbVersion_;
    std::optional<unsigned> thunderboltGeneration_;
};

// "nvme" followed by digits: a controller's name.
bool looksLikeController(std::string_view name) {
    return name.size() > 4 && name.substr(0, 4) == "nvme" &&
           std::all_of(name.begin() + 4, name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

class SysfsStatisticsFile final : public BlockStatisticsFile {
public:
    SysfsStatisticsFile(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
    ~SysfsStatisticsFile() override { ::close(fd_); }
    SysfsStatisticsFile(const SysfsStatisticsFile&) = delete;
    SysfsStatisticsFile& operator=(const SysfsStatisticsFile&) = delete;

    Result<BlockStatistics, BlockDeviceError> read() override {
        std::array<char, kStatBufferSize> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled by pread
        ssize_t n = 0;
        do {
            n = ::pread(fd_, buffer.data(), buffer.size(), 0);
        } while (n < 0 && errno == EINTR);
        if (n < 0) {
            // sysfs answers ENODEV once the device has gone (ENOENT for a removed attribute).
            const auto kind = (errno == ENODEV || errno == ENOENT) ? BlockDeviceError::Kind::notFound
                                                                   : BlockDeviceError::Kind::unreadable;
            return Failure{BlockDeviceError{kind, path_, errno}};
        }
        const auto size = static_cast<std::size_t>(n);
        std::optional<BlockStatistics> statistics;
        if (size < buffer.size()) statistics = parseBlockStatistics(std::string_view(buffer.data(), size));
        if (!statistics) return Failure{BlockDeviceError{BlockDeviceError::Kind::malformed, path_, 0}};
        return *statistics;
    }

private:
    int fd_;
    std::string path_;
};

// The queue facts of a disk's sysfs entry; nothing when it has no `queue/` (zram, for one).
std::optional<BlockQueue> queueOf(const fs::path& disk) {
    const auto queue = disk / "queue";
    if (!isDirectory(queue)) return std::nullopt;
    BlockQueue facts;
    if (const auto requests = textAttribute(queue, "nr_requests")) facts.requests = sysfs::parseDecimal(*requests);
    if (const auto rotational = textAttribute(queue, "rotational")) {
        if (*rotational == "0" || *rotational == "1") facts.rotational = *rotational == "1";
    }
    if (isDirectory(disk / "mq")) {
        const auto queues = entries(disk / "mq");
        facts.hardwareQueues = static_cast<unsigned>(
            std::count_if(queues.begin(), queues.end(),
                          [](const std::string& name) { return sysfs::parseDecimal(name).has_value(); }));
    }
    return facts;
}

bool isPlainName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
           name.find('\0') == std::string_view::npos;
}

}  // namespace

fs::path SysfsBlockDevices::classPath(std::string_view name) const {
    return tree_.root() / "class" / "block" / fs::path(std::string(name));
}

Result<BlockDevice, BlockDeviceError> SysfsBlockDevices::device(std::string_view name) {
    const auto dir = tree_.blockDevice(name);
    if (!dir)
        return Failure{BlockDeviceError{BlockDeviceError::Kind::notFound, classPath(isPlainName(name) ? name : ""), 0}};
    BlockDevice device;
    device.name = std::string(name);
    if (const auto numbers = textAttribute(*dir, "dev")) {
        const auto colon = numbers->find(':');
        const auto major = sysfs::parseDecimal(std::string_view(*numbers).substr(0, colon));
        const auto minor = colon == std::string::npos
                               ? std::nullopt
                               : sysfs::parseDecimal(std::string_view(*numbers).substr(colon + 1));
        if (major && minor && *major <= 0xFFFFFFFF && *minor <= 0xFFFFFFFF) {
            device.major = static_cast<unsigned>(*major);
            device.minor = static_cast<unsigned>(*minor);
        }
    }
    std::error_code error;
    if (fs::exists(*dir / "partition", error)) {
        const auto disk = dir->parent_path();
        if (tree_.contains(disk) && fs::exists(disk / "dev", error)) device.wholeDisk = disk.filename().string();
        device.queue = queueOf(disk);
    } else {
        device.queue = queueOf(*dir);
    }
    for (auto& member : entries(*dir / "slaves")) {
        if (tree_.blockDevice(member)) device.members.push_back(std::move(member));
    }
    device.nvmeController = nvmeControllerOf(*dir, name);
    device.attachment = attachmentOf(*dir);
    return device;
}

BlockAttachment SysfsBlockDevices::attachmentOf(const fs::path& dir) const {
    AttachmentWalk walk;
    fs::path current = dir;
    std::string subsystem = "block";
    for (int level = 0; level < kMaxLevels; ++level) {
        walk.visit(current, subsystem);
        auto parent = tree_.parentOf(current, subsystem);
        if (!parent) break;
        current = std::move(*parent);
        subsystem = sysfs::subsystemOf(current);
    }
    return walk.finish(tree_.isVirtual(current));
}

std::optional<std::string> SysfsBlockDevices::nvmeControllerOf(const fs::path& dir, std::string_view name) const {
    if (!name.starts_with("nvme") || looksLikeController(name)) return std::nullopt;
    const auto isController = [this](const std::string& candidate) {
        std::error_code error;
        return looksLikeController(candidate) && fs::exists(tree_.root() / "class" / "nvme" / candidate, error);
    };
    const auto parent = dir.parent_path();
    std::string parentName = parent.filename().string();
    if (isController(parentName)) return parentName;
    // Native multipath: the namespace hangs below nvme-subsysN, which links to its controllers.
    for (auto& entry : entries(parent)) {
        if (isController(entry)) return entry;
    }
    return std::nullopt;
}

Result<std::unique_ptr<BlockStatisticsFile>, BlockDeviceError> SysfsBlockDevices::openStatistics(
    std::string_view name) {
    if (!isPlainName(name)) return Failure{BlockDeviceError{BlockDeviceError::Kind::notFound, classPath(""), 0}};
    const std::string path = (classPath(name) / "stat").native();
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        const int error = errno;
        const auto kind = (error == ENOENT || error == ENODEV || error == ENOTDIR) ? BlockDeviceError::Kind::notFound
                                                                                   : BlockDeviceError::Kind::unreadable;
        return Failure{BlockDeviceError{kind, path, error}};
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        return Failure{BlockDeviceError{BlockDeviceError::Kind::malformed, path, 0}};
    }
    return std::unique_ptr<BlockStatisticsFile>(std::make_unique<SysfsStatisticsFile>(fd, path));
}

}  // namespace vantorix
