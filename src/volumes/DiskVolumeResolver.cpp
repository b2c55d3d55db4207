#include "volumes/DiskVolumeResolver.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <limits>

#include "text/Formats.h"
#include "text/Language.h"
#include "text/Trim.h"
#include "util/Saturating.h"

namespace vantorix {
namespace {

using text::localized;

std::string lower(std::string_view s) {
    std::string out(s);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); });
    return out;
}

std::string upper(std::string_view s) {
    std::string out(s);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c); });
    return out;
}

// A USB device's speed in Mb/s as sysfs writes it, with the name and nominal rate people know it by.
struct UsbSpeed {
    std::string_view megabits;
    std::string_view type;
    std::string_view speed;
    std::uint64_t bitsPerSecond;
};
constexpr std::array<UsbSpeed, 6> kUsbSpeeds{{{"1.5", "USB 1.0", "1.5Mbps", 1'500'000},
                                              {"12", "USB 1.1", "12Mbps", 12'000'000},
                                              {"480", "USB 2.0", "480Mbps", 480'000'000},
                                              {"5000", "USB 3.0", "5Gbps", 5'000'000'000},
                                              {"10000", "USB 3.1 Gen2", "10Gbps", 10'000'000'000},
                                              {"20000", "USB 3.2 Gen2x2", "20Gbps", 20'000'000'000}}};

const UsbSpeed* usbSpeedOf(const std::optional<LinkState>& link) {
    if (!link) return nullptr;
    const auto found = std::find_if(kUsbSpeeds.begin(), kUsbSpeeds.end(),
                                    [&](const UsbSpeed& row) { return row.megabits == link->speed; });
    return found == kUsbSpeeds.end() ? nullptr : &*found;
}

// "8.0 GT/s PCIe x4", "6.0 Gbps": the link as the kernel writes it, with the lanes when there are any.
std::optional<std::string> linkText(const std::optional<LinkState>& link) {
    if (!link) return std::nullopt;
    if (link->width && *link->width > 0) return fmt::format("{} x{}", link->speed, *link->width);
    return link->speed;
}

std::optional<std::string> thunderboltSpeed(unsigned generation) {
    switch (generation) {
        case 1: return "10Gbps";
        case 2: return "20Gbps";
        case 3:
        case 4: return "40Gbps";
        default: return std::nullopt;
    }
}

std::string hexIdentifier(std::uint16_t id) { return fmt::format("0x{:04X}", id); }

std::optional<std::uint64_t> rateOf(const std::optional<LinkState>& link) {
    if (!link) return std::nullopt;
    const auto parsed = parseLinkRateText(link->speed);
    if (!parsed) return std::nullopt;
    return parsed->perSecond;
}

std::optional<std::string> pathOfFileUrl(std::string_view url) {
    if (url.empty()) return std::nullopt;
    const auto scheme = url.find("://");
    if (scheme == std::string_view::npos) return std::string(url);
    if (lower(url.substr(0, scheme)) != "file") return std::nullopt;
    std::string_view rest = url.substr(scheme + 3);
    if (rest.rfind("localhost/", 0) == 0) rest.remove_prefix(9);
    if (rest.empty() || rest.front() != '/') return std::nullopt;
    std::string path;
    for (std::size_t i = 0; i < rest.size(); ++i) {
        if (rest[i] == '%' && i + 2 < rest.size() && std::isxdigit(static_cast<unsigned char>(rest[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(rest[i + 2]))) {
            path.push_back(static_cast<char>(std::stoi(std::string(rest.substr(i + 1, 2)), nullptr, 16)));
            i += 2;
        } else {
            path.push_back(rest[i]);
        }
    }
    return path;
}

std::string lastPathComponent(const std::string& path) {
    std::string_view view(path);
    while (view.size() > 1 && view.back() == '/') view.remove_suffix(1);
    if (view == "/") return "/";
    const auto slash = view.rfind('/');
    return std::string(slash == std::string_view::npos ? view : view.substr(slash + 1));
}

std::optional<std::uint64_t> product(std::uint64_t a, std::uint64_t b) {
    const std::uint64_t result = saturatingMultiply(a, b);
    return result == 0 ? std::nullopt : std::optional<std::uint64_t>(result);
}

std::optional<std::uint64_t> atLeastOne(const std::optional<std::uint64_t>& value) {
    return (value && *value >= 1) ? value : std::nullopt;
}

}  // namespace

DiskVolumeResolver::ConnectionMetadata DiskVolumeResolver::connectionMetadata(const BlockAttachment& attachment) {
    ConnectionMetadata result{localized("未知", "Unknown"), std::nullopt, std::nullopt, std::nullopt};
    result.vendor = attachment.vendor;
    if (!result.vendor && attachment.vendorId) result.vendor = hexIdentifier(*attachment.vendorId);
    result.product = attachment.model;
    if (!result.product && attachment.productId) result.product = hexIdentifier(*attachment.productId);
    switch (attachment.bus) {
        case BusKind::unknown: break;
        case BusKind::pciExpress:
        case BusKind::pci:
            result.type = "PCIe";
            result.speed = linkText(attachment.link);
            break;
        case BusKind::nvmeFabrics: result.type = "NVMe over " + upper(attachment.nvmeTransport); break;
        case BusKind::sata:
            result.type = "SATA";
            result.speed = linkText(attachment.link);
            break;
        case BusKind::usb:
            if (const UsbSpeed* speed = usbSpeedOf(attachment.link)) {
                result.type = std::string(speed->type);
                result.speed = std::string(speed->speed);
            } else {
                result.type = "USB";
            }
            break;
        case BusKind::thunderbolt:
            if (const auto generation = attachment.thunderboltGeneration) {
                result.type = localized(fmt::format("雷雳 {}", *generation),
                                        fmt::format("Thunderbolt {}", *generation));
                result.speed = thunderboltSpeed(*generation);
            } else {
                result.type = localized("雷雳", "Thunderbolt");
            }
            break;
        case BusKind::virtio: result.type = "Virtio"; break;
        case BusKind::mmc: result.type = "SD/MMC"; break;
        case BusKind::virtualDevice: result.type = localized("虚拟接口", "Virtual Interface"); break;
    }
    return result;
}

std::optional<LinkCeiling> DiskVolumeResolver::linkCeiling(const BlockAttachment& attachment) {
    switch (attachment.bus) {
        case BusKind::pciExpress:
        case BusKind::pci: {
            const auto rate = rateOf(attachment.link);
            if (!rate || !attachment.link->width) return std::nullopt;
            PcieLink link{*rate, *attachment.link->width, rateOf(attachment.maxLink), std::nullopt};
            if (link.maxTransfersPerSecond) link.maxWidth = attachment.maxLink->width;
            return LinkCeiling{link};
        }
        case BusKind::sata: {
            const auto rate = rateOf(attachment.link);
            if (!rate) return std::nullopt;
            return LinkCeiling{SataLink{*rate, rateOf(attachment.maxLink)}};
        }
        case BusKind::usb: {
            const UsbSpeed* speed = usbSpeedOf(attachment.link);
            if (speed == nullptr) return std::nullopt;
            const auto version = attachment.usbVersion ? parseUsbVersion(*attachment.usbVersion) : std::nullopt;
            return LinkCeiling{UsbLink{speed->bitsPerSecond, version}};
        }
        case BusKind::thunderbolt:
            if (!attachment.thunderboltGeneration) return std::nullopt;
            return LinkCeiling{ThunderboltLink{*attachment.thunderboltGeneration}};
        default: return std::nullopt;
    }
}

Result<DiskVolumeDescriptor, MonitorError> DiskVolumeResolver::resolve(std::string_view url, VolumeInfoSource& files,
                                                                       BlockDevices& devices) {
    auto path = pathOfFileUrl(url);
    if (!path) return Failure{MonitorError::invalidSelection()};

    std::filesystem::path absolute(*path);
    if (absolute.is_relative()) {
        std::error_code error;
        const auto cwd = std::filesystem::current_path(error);
        if (error) return Failure{MonitorError::blockDeviceNotFound(error.value())};
        absolute = cwd / absolute;
    }
    const std::string resolved =
        files.resolveSymlinks(absolute.string()).value_or(absolute.lexically_normal().string());

    // A path that is missing, too long, loops or passes through something that is not a folder:
    // the message names the cause.
    auto statistics = files.fileSystemStatistics(resolved);
    if (!statistics.ok()) return Failure{MonitorError::blockDeviceNotFound(statistics.error())};

    // The mount source's last component: "/dev/nvme0n1p2" → "nvme0n1p2".
    std::string deviceName;
    for (std::string_view rest(statistics->mountSource); !rest.empty();) {
        const auto slash = rest.find('/');
        const auto piece = rest.substr(0, slash);
        if (!piece.empty()) deviceName = std::string(piece);
        if (slash == std::string_view::npos) break;
        rest.remove_prefix(slash + 1);
    }
    if (deviceName.empty()) return Failure{MonitorError::blockDeviceNotFound()};

    auto resources = files.resourceValues(resolved);
    const VolumeResourceValues values = resources.ok() ? std::move(resources.value()) : VolumeResourceValues{};

    DiskVolumeDescriptor descriptor;
    descriptor.url = resolved;
    descriptor.mountPoint = statistics->mountPoint;
    descriptor.deviceName = deviceName;
    descriptor.displayName = (values.name && !values.name->empty()) ? *values.name : lastPathComponent(resolved);

    const std::string type(text::trimmed(statistics->typeName));
    if (!type.empty()) descriptor.fileSystemDescription = text::upperCasedForCurrentLocale(type);

    descriptor.totalCapacityBytes = atLeastOne(values.totalCapacity);
    if (!descriptor.totalCapacityBytes) {
        descriptor.totalCapacityBytes = product(statistics->totalBlocks, statistics->blockSize);
    }
    descriptor.availableCapacityBytes = atLeastOne(values.availableCapacity);
    if (!descriptor.availableCapacityBytes) {
        descriptor.availableCapacityBytes = product(statistics->availableBlocks, statistics->blockSize);
    }

    const auto device = devices.device(deviceName);
    const BlockAttachment attachment = device.ok() ? device->attachment : BlockAttachment{};
    auto connection = connectionMetadata(attachment);
    descriptor.connectionTypeDescription = std::move(connection.type);
    descriptor.connectionSpeedDescription = std::move(connection.speed);
    descriptor.hardwareVendor = std::move(connection.vendor);
    descriptor.hardwareModel = std::move(connection.product);
    descriptor.link = linkCeiling(attachment);
    if (device.ok()) descriptor.queue = device->queue;
    return descriptor;
}

}  // namespace vantorix
