#include "volumes/DiskVolumeResolver.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "text/Formats.h"
#include "text/Language.h"

namespace vantorix {
namespace {

constexpr std::array<std::string_view, 23> kLinkSpeedKeys{
    "link-speed", "LinkSpeed", "linkSpeed", "link-rate", "linkRate", "LinkRate", "physical-link-rate",
    "PhysicalLinkRate", "Physical Link Rate", "CurrentLinkSpeed", "current-link-speed", "NegotiatedLinkSpeed",
    "NegotiatedLinkRate", "MaxLinkSpeed", "MaxLinkRate", "maximum-link-speed", "IOPCIExpressLinkSpeed",
    "IOPCIExpressLinkRate", "IOPCIExpressLinkMaxLinkSpeed", "IOPCILinkSpeed", "IOPCILinkRate", "PCIeLinkSpeed",
    "PCIeLinkRate"};
constexpr std::array<std::string_view, 3> kLinkDescriptionKeys{"LinkDescription", "linkDescription",
                                                               "link_speed_description"};
constexpr std::array<std::string_view, 8> kNestedValueKeys{"value", "Value", "current", "Current",
                                                           "rate",  "Rate",  "speed",   "Speed"};
constexpr std::array<std::string_view, 3> kProtocolKeys{"Protocol Characteristics", "Protocol Characteristics",
                                                        "protocol characteristics"};
constexpr std::array<std::string_view, 5> kUsbSpeedKeys{"PortCurrentSpeed", "PortMaximumSpeed", "USBCurrentSpeed",
                                                        "kUSBCurrentSpeed", "CurrentSpeed"};
constexpr std::array<std::string_view, 9> kVendorKeys{"Vendor Name", "kUSBVendorString", "Vendor Name",
                                                      "vendor-name", "manufacturer",    "Manufacturer",
                                                      "vendor",      "Vendor",          "DeviceVendor"};
constexpr std::array<std::string_view, 11> kProductKeys{"Product Name", "model",   "kUSBProductString", "Product Name",
                                                        "product-name", "Product", "product",           "Model",
                                                        "model",        "DeviceModel", "Device Model"};

struct UsbSpeedRow {
    std::string_view type;
    std::string_view speed;
};
constexpr std::array<UsbSpeedRow, 6> kUsbSpeedTable{{{"USB 1.0", "1.5Mbps"},
                                                     {"USB 1.1", "12Mbps"},
                                                     {"USB 2.0", "480Mbps"},
                                                     {"USB 3.0", "5Gbps"},
                                                     {"USB 3.1 Gen2", "10Gbps"},
                                                     {"USB 3.2 Gen2x2", "20Gbps"}}};

struct UsbWords {
    std::vector<std::string_view> words;
    std::size_t row;
};
const std::vector<UsbWords>& usbSpeedWords() {
    static const std::vector<UsbWords> table{
        {{"superspeedplus", "superspeed+", "usb4", "usb 4", "usb4.0"}, 5},
        {{"superspeed", "usb3", "usb 3", "usb3.0", "usb 3.0"}, 3},
        {{"highspeed", "high-speed", "usb2", "usb 2", "usb2.0", "usb 2.0"}, 2},
        {{"fullspeed", "full-speed"}, 1},
        {{"lowspeed", "low-speed"}, 0},
    };
    return table;
}

constexpr std::string_view kWhitespace = " \t\n\r\v\f";

std::string trim(std::string_view s) {
    const auto begin = s.find_first_not_of(kWhitespace);
    if (begin == std::string_view::npos) return {};
    const auto end = s.find_last_not_of(kWhitespace);
    return std::string(s.substr(begin, end - begin + 1));
}

std::string lower(std::string_view s) {
    std::string out(s);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); });
    return out;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) { return lower(a) == lower(b); }

std::optional<double> finitePositive(const PropertyValue& value) {
    if (const PropertyNumber* number = value.number()) {
        const double v = number->asDouble();
        if (std::isfinite(v) && v > 0) return v;
    }
    return std::nullopt;
}

std::optional<double> parseDecimal(const std::string& s) {
    if (s.empty()) return std::nullopt;
    const bool plainDecimal = std::all_of(s.begin(), s.end(), [](unsigned char c) {
        return (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '+' || c == 'e' || c == 'E';
    });
    if (!plainDecimal) return std::nullopt;
    char* end = nullptr;
    const double v = std::strtod(s.c_str(), &end);
    if (end != s.c_str() + s.size() || !std::isfinite(v)) return std::nullopt;
    return v;
}

std::string hexIdentifier(const PropertyNumber& number) { return fmt::format("0x{:04X}", number.asUInt64()); }

// Walks a property value (dictionaries and arrays) looking for a string under `key`.
std::optional<std::string> findStringDeep(const PropertyValue& value, std::string_view key, int levelsLeft) {
    if (levelsLeft <= 0) return std::nullopt;
    if (const PropertyDictionary* dictionary = value.dictionary()) {
        if (const auto found = dictionary->find(key)) {
            if (const std::string* s = found->string()) {
                auto trimmed = trim(*s);
                if (!trimmed.empty()) return trimmed;
            }
        }
        for (const auto& childKey : dictionary->keys()) {
            if (const auto child = dictionary->find(childKey)) {
                if (auto result = findStringDeep(*child, key, levelsLeft - 1)) return result;
            }
        }
    } else if (const PropertyArray* array = value.array()) {
        for (const auto& child : *array) {
            if (auto result = findStringDeep(child, key, levelsLeft - 1)) return result;
        }
    }
    return std::nullopt;
}

// Searches a dictionary and the dictionaries nested in it for a number under `key`.
std::optional<PropertyNumber> findNumberDeep(const PropertyDictionary& dictionary, std::string_view key,
                                             int levelsLeft) {
    if (levelsLeft <= 0) return std::nullopt;
    if (const auto found = dictionary.find(key)) {
        if (const PropertyNumber* number = found->number()) return *number;
    }
    for (const auto& childKey : dictionary.keys()) {
        const auto child = dictionary.find(childKey);
        if (!child) continue;
        if (const PropertyDictionary* nested = child->dictionary()) {
            if (auto result = findNumberDeep(*nested, key, levelsLeft - 1)) return result;
        }
    }
    return std::nullopt;
}

std::optional<std::string> linkSpeedAt(const PropertyDictionary& properties, int depth) {
    for (const auto key : kLinkSpeedKeys) {
        if (const auto value = properties.find(key)) {
            if (const auto v = finitePositive(*value)) return DiskVolumeResolver::speedText(*v);
        }
    }
    for (const auto key : kLinkDescriptionKeys) {
        if (const auto value = properties.find(key)) {
            if (const std::string* s = value->string()) {
                if (auto text = DiskVolumeResolver::describeLinkText(*s)) return text;
            }
        }
    }
    for (const auto key : kLinkSpeedKeys) {
        const auto value = properties.find(key);
        const PropertyDictionary* nested = value ? value->dictionary() : nullptr;
        if (nested == nullptr) continue;
        for (const auto nestedKey : kNestedValueKeys) {
            const auto inner = nested->find(nestedKey);
            if (!inner) continue;
            if (const auto v = finitePositive(*inner)) return DiskVolumeResolver::speedText(*v);
            if (const std::string* s = inner->string()) {
                if (auto text = DiskVolumeResolver::describeLinkText(*s)) return text;
            }
        }
    }
    if (depth < 2) {
        for (const auto& key : properties.keys()) {
            const auto value = properties.find(key);
            const PropertyDictionary* nested = value ? value->dictionary() : nullptr;
            if (nested == nullptr) continue;
            if (auto text = linkSpeedAt(*nested, depth + 1)) return text;
        }
    }
    return std::nullopt;
}

const PropertyDictionary* asDictionary(const Result<std::optional<PropertyValue>, KernReturn>& copied) {
    if (!copied.ok() || !copied.value()) return nullptr;
    return copied.value()->dictionary();
}

// Calls `visit` with the properties of each ancestor of `service` in turn, nearest first, until it
// returns true, there is no parent, or `limit` ancestors were visited.
template <class Visit>
void forEachAncestor(Registry& registry, RegistryObject service, int limit, Visit&& visit) {
    RegistryRef current;
    RegistryObject from = service;
    for (int level = 0; level < limit; ++level) {
        auto parent = registry.parentEntry(from, kServicePlane);
        if (!parent.ok()) return;
        current = RegistryRef(registry, parent.value());
        from = current.get();
        const auto copied = registry.copyProperties(from);
        if (const PropertyDictionary* properties = asDictionary(copied)) {
            if (visit(*properties)) return;
        }
    }
}

std::string thunderboltType(std::optional<std::int64_t> generation) {
    if (generation && *generation >= 1 && *generation <= 4) {
        return text::localized(fmt::format("雷雳 {}", *generation), fmt::format("Thunderbolt {}", *generation));
    }
    return text::localized("雷雳", "Thunderbolt");
}

std::optional<std::string> thunderboltSpeed(std::optional<std::int64_t> generation) {
    if (!generation) return std::nullopt;
    switch (*generation) {
        case 1: return "10Gbps";
        case 2: return "20Gbps";
        case 3:
        case 4: return "40Gbps";
        default: return std::nullopt;
    }
}

std::optional<std::string> interconnectOf(const PropertyDictionary& properties) {
    if (const auto value = properties.find("Physical Interconnect")) {
        if (const std::string* s = value->string()) {
            auto trimmed = trim(*s);
            if (!trimmed.empty()) return trimmed;
        }
    }
    for (const auto key : kProtocolKeys) {
        if (const auto value = properties.find(key)) {
            if (auto interconnect = findStringDeep(*value, "Physical Interconnect", 5)) return interconnect;
        }
    }
    return std::nullopt;
}

LinkKind linkKindOf(const std::string& interconnect) {
    const std::string name = lower(interconnect);
    if (name == "usb") return LinkKind::usb;
    if (name == "thunderbolt") return LinkKind::thunderbolt;
    if (name == "sata") return LinkKind::sata;
    if (name.find("pci") != std::string::npos) return LinkKind::pcie;
    return LinkKind::other;
}

std::optional<LinkRateText> rateUnder(const PropertyDictionary& properties, std::string_view key) {
    const auto value = properties.find(key);
    const std::string* s = value ? value->string() : nullptr;
    return s ? parseLinkRateText(*s) : std::nullopt;
}

// The bit rate of each "Device Speed" code.
constexpr std::array<std::uint64_t, 6> kUsbSpeedBits{1'500'000, 12'000'000, 480'000'000,
                                                     5'000'000'000, 10'000'000'000, 20'000'000'000};

std::optional<std::uint16_t> usbVersionOf(const PropertyDictionary& properties) {
    if (const auto value = properties.find("version")) {
        if (const std::string* s = value->string()) return parseUsbVersion(*s);
    }
    if (const auto value = properties.find("bcdUSB")) {
        const PropertyNumber* number = value->number();
        if (number != nullptr && number->asUInt64() <= 0xFFFF) return static_cast<std::uint16_t>(number->asUInt64());
    }
    return std::nullopt;
}

std::optional<DiskVolumeResolver::ConnectionMetadata> inspect(Registry& registry, RegistryObject service) {
    const auto copied = registry.copyProperties(service);
    const PropertyDictionary* properties = asDictionary(copied);
    if (properties == nullptr) return std::nullopt;

    auto speed = DiskVolumeResolver::linkSpeed(*properties);
    if (!speed) {
        forEachAncestor(registry, service, 8, [&](const PropertyDictionary& ancestor) {
            speed = DiskVolumeResolver::linkSpeed(ancestor);
            return speed.has_value();
        });
    }

    auto vendor = DiskVolumeResolver::vendor(*properties);
    auto model = DiskVolumeResolver::model(*properties);
    if (!vendor || !model) {
        forEachAncestor(registry, service, 10, [&](const PropertyDictionary& ancestor) {
            if (!vendor) vendor = DiskVolumeResolver::vendor(ancestor);
            if (!model) model = DiskVolumeResolver::model(ancestor);
            return vendor.has_value() && model.has_value();
        });
    }

    std::optional<std::string> interconnect;
    if (const auto value = properties->find("Physical Interconnect")) {
        if (const std::string* s = value->string()) {
            auto trimmed = trim(*s);
            if (!trimmed.empty()) interconnect = std::move(trimmed);
        }
    }
    if (!interconnect) {
        for (const auto key : kProtocolKeys) {
            if (const auto value = properties->find(key)) {
                interconnect = findStringDeep(*value, "Physical Interconnect", 5);
                if (interconnect) break;
            }
        }
    }

    if (!interconnect) {
        if (!speed && !vendor && !model) return std::nullopt;
        return DiskVolumeResolver::ConnectionMetadata{text::localized("未知", "Unknown"), speed, vendor, model};
    }

    DiskVolumeResolver::ConnectionMetadata result{*interconnect, speed, vendor, model};
    if (equalsIgnoringCase(*interconnect, "USB")) {
        auto row = DiskVolumeResolver::usbLookup(*properties);
        if (!row) {
            forEachAncestor(registry, service, std::numeric_limits<int>::max(), [&](const PropertyDictionary& ancestor) {
                row = DiskVolumeResolver::usbLookup(ancestor);
                return row.has_value();
            });
        }
        if (row) {
            result.type = row->type;
            result.speed = speed ? speed : std::optional<std::string>(row->speed);
        } else {
            result.type = "USB";
        }
    } else if (equalsIgnoringCase(*interconnect, "Thunderbolt")) {
        auto number = findNumberDeep(*properties, "ThunderboltGeneration", 7);
        if (!number) number = findNumberDeep(*properties, "thunderbolt_version", 7);
        if (number) {
            const auto generation = number->asExactInt64();
            result.type = thunderboltType(generation);
            result.speed = speed ? speed : thunderboltSpeed(generation);
        } else {
            result.type = text::localized("雷雳", "Thunderbolt");
        }
    } else if (lower(*interconnect).find("pci") != std::string::npos) {
        result.type = "PCIe";
    }
    return result;
}

// Takes a path or a file URL; nothing for anything else.
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
    std::uint64_t result = 0;
    if (__builtin_mul_overflow(a, b, &result)) result = std::numeric_limits<std::uint64_t>::max();
    return result == 0 ? std::nullopt : std::optional<std::uint64_t>(result);
}

std::optional<std::uint64_t> atLeastOne(const std::optional<std::uint64_t>& value) {
    return (value && *value >= 1) ? value : std::nullopt;
}

}  // namespace

std::optional<std::string> DiskVolumeResolver::speedText(double v) {
    if (!std::isfinite(v) || v <= 0) return std::nullopt;
    if (v >= 1'000'000) {
        static constexpr std::array<std::pair<double, std::string_view>, 4> units{
            {{1e12, "Tbps"}, {1e9, "Gbps"}, {1e6, "Mbps"}, {1e3, "Kbps"}}};
        for (const auto& [divisor, unit] : units) {
            if (divisor <= v) return text::posixDecimalText(v / divisor) + std::string(unit);
        }
    }
    if (v <= 128) return text::posixDecimalText(v) + "Gbps";
    if (v >= 1000) return text::posixDecimalText(v / 1000) + "Mbps";
    return text::posixDecimalText(v);
}

std::optional<std::string> DiskVolumeResolver::describeLinkText(std::string_view raw) {
    std::string trimmed = trim(raw);
    if (trimmed.empty()) return std::nullopt;
    const std::string lowered = lower(trimmed);
    if (lowered.find("bps") != std::string::npos || lowered.find("gt/s") != std::string::npos) return trimmed;
    if (const auto number = parseDecimal(trimmed)) return text::posixDecimalText(*number) + "Gbps";
    return trimmed;
}

std::optional<std::string> DiskVolumeResolver::linkSpeed(const PropertyDictionary& properties) {
    return linkSpeedAt(properties, 0);
}

std::optional<std::string> DiskVolumeResolver::vendor(const PropertyDictionary& properties) {
    for (const auto key : kVendorKeys) {
        if (const auto value = properties.find(key)) {
            if (const std::string* s = value->string()) {
                auto trimmed = trim(*s);
                if (!trimmed.empty()) return trimmed;
            }
        }
    }
    for (const std::string_view key : {"idVendor", "vendor-id"}) {
        if (const auto value = properties.find(key)) {
            if (const PropertyNumber* number = value->number()) return hexIdentifier(*number);
        }
    }
    return std::nullopt;
}

std::optional<std::string> DiskVolumeResolver::model(const PropertyDictionary& properties) {
    for (const auto key : kProductKeys) {
        if (const auto value = properties.find(key)) {
            if (const std::string* s = value->string()) {
                auto trimmed = trim(*s);
                if (!trimmed.empty()) return trimmed;
            }
        }
    }
    if (const auto value = properties.find("idProduct")) {
        if (const PropertyNumber* number = value->number()) return hexIdentifier(*number);
    }
    if (const auto value = properties.find("model")) {
        if (const PropertyBytes* bytes = value->bytes()) {
            std::string decoded(bytes->begin(), bytes->end());
            if (const auto nul = decoded.find('\0'); nul != std::string::npos) decoded.resize(nul);
            auto trimmed = trim(decoded);
            if (!trimmed.empty()) return trimmed;
        }
    }
    return std::nullopt;
}

std::optional<DiskVolumeResolver::UsbRow> DiskVolumeResolver::usbLookup(const PropertyDictionary& properties) {
    const auto rowOf = [](const PropertyValue& value) -> std::optional<UsbRow> {
        const PropertyNumber* number = value.number();
        if (number == nullptr) return std::nullopt;
        const auto code = number->asExactInt64();
        if (!code || *code < 0 || *code > 5) return std::nullopt;
        const auto& row = kUsbSpeedTable[static_cast<std::size_t>(*code)];
        return UsbRow{std::string(row.type), std::string(row.speed)};
    };
    if (const auto value = properties.find("Device Speed")) {
        if (auto row = rowOf(*value)) return row;
    }
    for (const auto key : kUsbSpeedKeys) {
        if (const auto value = properties.find(key)) {
            if (auto row = rowOf(*value)) return row;
        }
    }
    for (const std::string_view key : {"PortCurrentSpeed", "PortMaximumSpeed"}) {
        const auto value = properties.find(key);
        const std::string* s = value ? value->string() : nullptr;
        if (s == nullptr) continue;
        const std::string word = lower(trim(*s));
        for (const auto& entry : usbSpeedWords()) {
            if (std::find(entry.words.begin(), entry.words.end(), word) != entry.words.end()) {
                const auto& row = kUsbSpeedTable[entry.row];
                return UsbRow{std::string(row.type), std::string(row.speed)};
            }
        }
    }
    return std::nullopt;
}

std::optional<LinkCeiling> DiskVolumeResolver::linkFacts(LinkKind kind, const PropertyDictionary& properties) {
    switch (kind) {
        case LinkKind::pcie: {
            const auto current = rateUnder(properties, "LinkDescription");
            if (!current || !current->width || *current->width == 0) return std::nullopt;
            PcieLink link{current->perSecond, *current->width, std::nullopt, std::nullopt};
            if (const auto most = rateUnder(properties, "MaxLinkDescription")) {
                link.maxTransfersPerSecond = most->perSecond;
                link.maxWidth = most->width;
            }
            return LinkCeiling{link};
        }
        case LinkKind::sata: {
            const auto current = rateUnder(properties, "LinkDescription");
            if (!current) return std::nullopt;
            const auto limit = rateUnder(properties, "MaxLinkDescription");
            return LinkCeiling{SataLink{current->perSecond,
                                        limit ? std::optional<std::uint64_t>(limit->perSecond) : std::nullopt}};
        }
        case LinkKind::usb: {
            const auto value = properties.find("Device Speed");
            const PropertyNumber* number = value ? value->number() : nullptr;
            const auto code = number ? number->asExactInt64() : std::nullopt;
            if (!code || *code < 0 || *code >= static_cast<std::int64_t>(kUsbSpeedBits.size())) return std::nullopt;
            return LinkCeiling{UsbLink{kUsbSpeedBits[static_cast<std::size_t>(*code)], usbVersionOf(properties)}};
        }
        case LinkKind::thunderbolt: {
            for (const std::string_view key : {"ThunderboltGeneration", "thunderbolt_version"}) {
                const auto value = properties.find(key);
                const PropertyNumber* number = value ? value->number() : nullptr;
                const auto generation = number ? number->asExactInt64() : std::nullopt;
                if (generation && *generation >= 1 && *generation <= 4) {
                    return LinkCeiling{ThunderboltLink{static_cast<unsigned>(*generation)}};
                }
            }
            return std::nullopt;
        }
        case LinkKind::other: break;
    }
    return std::nullopt;
}

std::optional<LinkCeiling> DiskVolumeResolver::linkCeiling(Registry& registry, std::string_view deviceName) {
    const auto matching = registry.bsdNameMatching(deviceName);
    if (!matching) return std::nullopt;
    auto iterator = registry.getMatchingServices(*matching);
    if (!iterator.ok()) return std::nullopt;
    RegistryRef iteratorRef(registry, iterator.value());

    while (const RegistryObject matched = registry.iteratorNext(iteratorRef.get())) {
        RegistryRef matchedRef(registry, matched);
        // The first service that names its bus sets the kind; the figures are on that service or
        // on one of its ancestors (a block device says it is on USB, the USB device above it has
        // the speed).
        std::optional<LinkKind> kind;
        std::optional<LinkCeiling> found;
        const auto visit = [&](const PropertyDictionary& properties) {
            if (!kind) {
                if (const auto interconnect = interconnectOf(properties)) kind = linkKindOf(*interconnect);
                if (kind == LinkKind::other) return true;
            }
            if (kind) found = linkFacts(*kind, properties);
            return found.has_value();
        };
        const auto copied = registry.copyProperties(matched);
        const PropertyDictionary* properties = asDictionary(copied);
        if (properties == nullptr || !visit(*properties)) forEachAncestor(registry, matched, 12, visit);
        if (kind) return found;
    }
    return std::nullopt;
}

DiskVolumeResolver::ConnectionMetadata DiskVolumeResolver::connectionMetadata(Registry& registry,
                                                                              std::string_view deviceName) {
    const ConnectionMetadata unknown{text::localized("未知", "Unknown"), std::nullopt, std::nullopt, std::nullopt};
    const auto matching = registry.bsdNameMatching(deviceName);
    if (!matching) return unknown;
    auto iterator = registry.getMatchingServices(*matching);
    if (!iterator.ok()) return unknown;
    RegistryRef iteratorRef(registry, iterator.value());

    while (const RegistryObject matched = registry.iteratorNext(iteratorRef.get())) {
        RegistryRef matchedRef(registry, matched);
        if (auto result = inspect(registry, matched)) return *result;
        RegistryRef current;
        RegistryObject from = matched;
        for (int depth = 0; depth < 12; ++depth) {
            auto parent = registry.parentEntry(from, kServicePlane);
            if (!parent.ok()) break;
            current = RegistryRef(registry, parent.value());
            from = current.get();
            if (auto result = inspect(registry, from)) return *result;
        }
    }
    return unknown;
}

Result<DiskVolumeDescriptor, MonitorError> DiskVolumeResolver::resolve(std::string_view url, VolumeInfoSource& files,
                                                                       Registry& registry) {
    auto path = pathOfFileUrl(url);
    if (!path) return Failure{MonitorError::invalidSelection()};

    std::filesystem::path absolute(*path);
    if (absolute.is_relative()) {
        std::error_code error;
        const auto cwd = std::filesystem::current_path(error);
        if (error) return Failure{MonitorError::bsdNameResolutionFailed()};
        absolute = cwd / absolute;
    }
    const std::string resolved =
        files.resolveSymlinks(absolute.string()).value_or(absolute.lexically_normal().string());

    auto statistics = files.fileSystemStatistics(resolved);
    if (!statistics.ok()) return Failure{MonitorError::bsdNameResolutionFailed()};

    std::string deviceName;
    for (std::string_view rest(statistics->mountSource); !rest.empty();) {
        const auto slash = rest.find('/');
        const auto piece = rest.substr(0, slash);
        if (!piece.empty()) deviceName = std::string(piece);
        if (slash == std::string_view::npos) break;
        rest.remove_prefix(slash + 1);
    }
    if (deviceName.empty()) return Failure{MonitorError::bsdNameResolutionFailed()};

    auto resources = files.resourceValues(resolved);
    const VolumeResourceValues values = resources.ok() ? std::move(resources.value()) : VolumeResourceValues{};

    DiskVolumeDescriptor descriptor;
    descriptor.url = resolved;
    descriptor.mountPoint = statistics->mountPoint;
    descriptor.deviceName = deviceName;
    descriptor.displayName = (values.name && !values.name->empty()) ? *values.name : lastPathComponent(resolved);

    const std::string type = trim(statistics->typeName);
    if (!type.empty()) descriptor.fileSystemDescription = text::upperCasedForCurrentLocale(type);

    descriptor.totalCapacityBytes = atLeastOne(values.totalCapacity);
    if (!descriptor.totalCapacityBytes) {
        descriptor.totalCapacityBytes = product(statistics->totalBlocks, statistics->blockSize);
    }
    for (const auto& candidate : {values.availableCapacityForImportantUsage,
                                  values.availableCapacityForOpportunisticUsage, values.availableCapacity}) {
        if ((descriptor.availableCapacityBytes = atLeastOne(candidate))) break;
    }
    if (!descriptor.availableCapacityBytes) {
        descriptor.availableCapacityBytes = product(statistics->availableBlocks, statistics->blockSize);
    }

    auto connection = connectionMetadata(registry, deviceName);
    descriptor.connectionTypeDescription = std::move(connection.type);
    descriptor.connectionSpeedDescription = std::move(connection.speed);
    descriptor.hardwareVendor = std::move(connection.vendor);
    descriptor.hardwareModel = std::move(connection.product);
    descriptor.link = linkCeiling(registry, deviceName);
    return descriptor;
}

}  // namespace vantorix
