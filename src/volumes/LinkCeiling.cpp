#include "volumes/LinkCeiling.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>

#include "text/Formats.h"
#include "text/Language.h"
#include "text/Trim.h"

namespace vantorix {
namespace {

using text::localized;

constexpr std::uint64_t kGiga = 1'000'000'000;
constexpr std::uint64_t kMega = 1'000'000;

// Payload bits of every `total` bits on the wire.
struct LineCode {
    std::uint64_t payload;
    std::uint64_t total;
};
constexpr LineCode kNone{1, 1};
constexpr LineCode k8b10b{8, 10};
constexpr LineCode k128b130b{128, 130};
constexpr LineCode k128b132b{128, 132};
constexpr LineCode k64b66b{64, 66};
constexpr LineCode kFlit{242, 256};

std::optional<std::uint64_t> bytesAfter(std::uint64_t bitsPerSecond, std::uint64_t lanes, LineCode code) {
    std::uint64_t product = 0;
    if (bitsPerSecond == 0 || lanes == 0 || __builtin_mul_overflow(bitsPerSecond, lanes, &product) ||
        __builtin_mul_overflow(product, code.payload, &product)) {
        return std::nullopt;
    }
    return product / (code.total * 8);
}

LineCode pcieCode(std::uint64_t transfersPerSecond) {
    if (transfersPerSecond < 8 * kGiga) return k8b10b;
    if (transfersPerSecond < 64 * kGiga) return k128b130b;
    return kFlit;
}

// The Thunderbolt 3 and 4 PCIe tunnel.
constexpr PcieLink kThunderboltTunnel{8 * kGiga, 4, std::nullopt, std::nullopt};

// "PCIe 3.0", or the rate itself for a speed that has no generation yet.
std::string pcieGeneration(std::uint64_t transfersPerSecond) {
    static constexpr std::array<std::pair<std::uint64_t, std::string_view>, 6> kGenerations{{
        {2'500'000'000, "1.0"},
        {5 * kGiga, "2.0"},
        {8 * kGiga, "3.0"},
        {16 * kGiga, "4.0"},
        {32 * kGiga, "5.0"},
        {64 * kGiga, "6.0"},
    }};
    for (const auto& [rate, name] : kGenerations) {
        if (rate == transfersPerSecond) return fmt::format("PCIe {}", name);
    }
    return fmt::format("PCIe {} GT/s", text::posixDecimalText(static_cast<double>(transfersPerSecond) / 1e9));
}

std::string pcieText(std::uint64_t transfersPerSecond, unsigned width) {
    std::string result = pcieGeneration(transfersPerSecond);
    if (width > 0) result += fmt::format(" x{}", width);
    return result;
}

// SATA speeds as the kernel writes them: "3.0 Gb/s".
std::string sataRateText(std::uint64_t bitsPerSecond) {
    return fmt::format("{:.1f} Gb/s", static_cast<double>(bitsPerSecond) / 1e9);
}

std::string bitRateText(std::uint64_t bitsPerSecond) {
    if (bitsPerSecond >= kGiga) return text::posixDecimalText(static_cast<double>(bitsPerSecond) / 1e9) + " Gb/s";
    return text::posixDecimalText(static_cast<double>(bitsPerSecond) / 1e6) + " Mb/s";
}

// The same names the connection line uses for each USB speed.
std::string usbName(std::uint64_t bitsPerSecond) {
    static constexpr std::array<std::pair<std::uint64_t, std::string_view>, 6> kNames{{
        {1'500'000, "USB 1.0"},
        {12 * kMega, "USB 1.1"},
        {480 * kMega, "USB 2.0"},
        {5 * kGiga, "USB 3.0"},
        {10 * kGiga, "USB 3.1 Gen2"},
        {20 * kGiga, "USB 3.2 Gen2x2"},
    }};
    for (const auto& [rate, name] : kNames) {
        if (rate == bitsPerSecond) return std::string(name);
    }
    return "USB " + bitRateText(bitsPerSecond);
}

std::string thunderboltName(unsigned generation) {
    return localized(fmt::format("雷雳 {}", generation), fmt::format("Thunderbolt {}", generation));
}

std::optional<std::string> pcieWarning(const PcieLink& link) {
    const std::uint64_t bestRate = std::max(link.transfersPerSecond, link.maxTransfersPerSecond.value_or(0));
    const unsigned bestWidth = std::max(link.width, link.maxWidth.value_or(0));
    if (link.transfersPerSecond == 0 || link.width == 0) return std::nullopt;
    if (bestRate == link.transfersPerSecond && bestWidth == link.width) return std::nullopt;
    const std::string now = pcieText(link.transfersPerSecond, link.width);
    const std::string best = pcieText(bestRate, bestWidth);
    return localized(fmt::format("该硬盘当前以 {} 运行，但它支持 {}。", now, best),
                     fmt::format("The drive runs at {}; it can use {}.", now, best));
}

std::optional<std::string> usbWarning(const UsbLink& link) {
    if (!link.bcdUsb || *link.bcdUsb < 0x0300 || link.bitsPerSecond == 0 || link.bitsPerSecond > 480 * kMega) {
        return std::nullopt;
    }
    const std::string rate = bitRateText(link.bitsPerSecond);
    return localized(
        fmt::format("USB 3 设备接在了 USB 2 端口上：当前只以 {} 运行，换用 USB 3 端口和数据线会更快。", rate),
        fmt::format("A USB 3 drive on a USB 2 port: it runs at {}. A USB 3 port and cable would be faster.", rate));
}

std::optional<std::string> sataWarning(const SataLink& link) {
    if (!link.portLimitBitsPerSecond || link.bitsPerSecond == 0 || link.bitsPerSecond >= *link.portLimitBitsPerSecond) {
        return std::nullopt;
    }
    const std::string now = sataRateText(link.bitsPerSecond);
    const std::string limit = sataRateText(*link.portLimitBitsPerSecond);
    return localized(
        fmt::format("SATA 链路以 {} 运行，低于端口支持的 {}：可能受数据线或硬盘限制。", now, limit),
        fmt::format("The SATA link runs at {}, below the port's {}: the cable or the drive is holding it back.", now,
                    limit));
}

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    if (text.size() < prefix.size()) return false;
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
        if (lower(text[i]) != lower(prefix[i])) return false;
    }
    return true;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

std::optional<unsigned> hexNumber(std::string_view digits) {
    if (digits.empty() || digits.size() > 2) return std::nullopt;
    unsigned value = 0;
    for (const char c : digits) {
        unsigned digit = 0;
        if (isDigit(c)) digit = static_cast<unsigned>(c - '0');
        else if (c >= 'a' && c <= 'f') digit = static_cast<unsigned>(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F') digit = static_cast<unsigned>(c - 'A' + 10);
        else return std::nullopt;
        value = value * 16 + digit;
    }
    return value;
}

}  // namespace

LinkKind LinkCeiling::kind() const {
    switch (facts.index()) {
        case 1: return LinkKind::pcie;
        case 2: return LinkKind::sata;
        case 3: return LinkKind::usb;
        case 4: return LinkKind::thunderbolt;
        default: return LinkKind::other;
    }
}

std::string_view linkKindName(LinkKind kind) {
    switch (kind) {
        case LinkKind::pcie: return "pcie";
        case LinkKind::sata: return "sata";
        case LinkKind::usb: return "usb";
        case LinkKind::thunderbolt: return "thunderbolt";
        case LinkKind::other: break;
    }
    return "other";
}

std::optional<std::uint64_t> ceilingBytesPerSecond(const LinkCeiling& link) {
    if (const auto* pcie = std::get_if<PcieLink>(&link.facts)) {
        return bytesAfter(pcie->transfersPerSecond, pcie->width, pcieCode(pcie->transfersPerSecond));
    }
    if (const auto* sata = std::get_if<SataLink>(&link.facts)) return bytesAfter(sata->bitsPerSecond, 1, k8b10b);
    if (const auto* usb = std::get_if<UsbLink>(&link.facts)) {
        const std::uint64_t rate = usb->bitsPerSecond;
        const LineCode code = rate <= 480 * kMega ? kNone : rate < 10 * kGiga ? k8b10b : k128b132b;
        return bytesAfter(rate, 1, code);
    }
    if (const auto* thunderbolt = std::get_if<ThunderboltLink>(&link.facts)) {
        switch (thunderbolt->generation) {
            case 1: return bytesAfter(10 * kGiga, 1, k64b66b);
            case 2: return bytesAfter(20 * kGiga, 1, k64b66b);
            case 3:
            case 4: return ceilingBytesPerSecond(LinkCeiling{kThunderboltTunnel});
            default: return std::nullopt;
        }
    }
    return std::nullopt;
}

std::string linkDescription(const LinkCeiling& link) {
    if (const auto* pcie = std::get_if<PcieLink>(&link.facts)) return pcieText(pcie->transfersPerSecond, pcie->width);
    if (const auto* sata = std::get_if<SataLink>(&link.facts)) return "SATA " + sataRateText(sata->bitsPerSecond);
    if (const auto* usb = std::get_if<UsbLink>(&link.facts)) return usbName(usb->bitsPerSecond);
    if (const auto* thunderbolt = std::get_if<ThunderboltLink>(&link.facts)) {
        return thunderboltName(thunderbolt->generation);
    }
    return localized("未知", "Unknown");
}

std::optional<std::string> slowLinkWarning(const LinkCeiling& link) {
    if (const auto* pcie = std::get_if<PcieLink>(&link.facts)) return pcieWarning(*pcie);
    if (const auto* sata = std::get_if<SataLink>(&link.facts)) return sataWarning(*sata);
    if (const auto* usb = std::get_if<UsbLink>(&link.facts)) return usbWarning(*usb);
    return std::nullopt;
}

std::optional<std::string> ceilingValueText(const LinkCeiling& link) {
    const auto ceiling = ceilingBytesPerSecond(link);
    if (!ceiling) return std::nullopt;
    const std::string speed = text::speedText(static_cast<double>(*ceiling));
    const std::string description = linkDescription(link);
    return localized(fmt::format("{}（{}）", speed, description), fmt::format("{} ({})", speed, description));
}

std::optional<std::string> linkCeilingText(const LinkCeiling& link) {
    auto value = ceilingValueText(link);
    if (!value) return std::nullopt;
    return localized("链路上限：", "Link ceiling: ") + *value;
}

std::optional<double> ceilingFraction(double bytesPerSecond, const LinkCeiling& link) {
    const auto ceiling = ceilingBytesPerSecond(link);
    if (!ceiling || !(bytesPerSecond > 0) || !std::isfinite(bytesPerSecond)) return std::nullopt;
    return bytesPerSecond / static_cast<double>(*ceiling);
}

std::optional<std::string> ceilingShareText(double bytesPerSecond, const LinkCeiling& link) {
    const auto fraction = ceilingFraction(bytesPerSecond, link);
    if (!fraction) return std::nullopt;
    const std::string percent = text::percentText(*fraction, 0);
    return localized(fmt::format("达到链路上限的 {}", percent), fmt::format("{} of the link ceiling", percent));
}

std::optional<LinkRateText> parseLinkRateText(std::string_view raw) {
    const std::string_view value = text::trimmed(raw);
    std::size_t end = 0;
    while (end < value.size() && (isDigit(value[end]) || value[end] == '.')) ++end;
    if (end == 0) return std::nullopt;
    const std::string number(value.substr(0, end));
    char* parsedEnd = nullptr;
    const double rate = std::strtod(number.c_str(), &parsedEnd);
    if (parsedEnd != number.c_str() + number.size() || !(rate > 0) || rate > 1e6) return std::nullopt;

    std::string_view rest = text::trimmed(value.substr(end));
    static constexpr std::array<std::pair<std::string_view, std::uint64_t>, 6> kUnits{{
        {"gt/s", kGiga},
        {"gb/s", kGiga},
        {"gbps", kGiga},
        {"mt/s", kMega},
        {"mb/s", kMega},
        {"mbps", kMega},
    }};
    const auto unit = std::find_if(kUnits.begin(), kUnits.end(),
                                   [&](const auto& entry) { return startsWithIgnoringCase(rest, entry.first); });
    if (unit == kUnits.end()) return std::nullopt;
    rest.remove_prefix(unit->first.size());

    LinkRateText result{static_cast<std::uint64_t>(std::llround(rate * static_cast<double>(unit->second))),
                        std::nullopt};
    for (auto at = rest.find('x'); at != std::string_view::npos; at = rest.find('x', at + 1)) {
        if (at > 0 && rest[at - 1] != ' ') continue;
        std::size_t digits = at + 1;
        unsigned width = 0;
        while (digits < rest.size() && isDigit(rest[digits]) && width < 1000) {
            width = width * 10 + static_cast<unsigned>(rest[digits] - '0');
            ++digits;
        }
        if (digits > at + 1 && (digits == rest.size() || rest[digits] == ' ')) {
            result.width = width;
            break;
        }
    }
    return result;
}

std::optional<std::uint16_t> parseUsbVersion(std::string_view raw) {
    const std::string_view version = text::trimmed(raw);
    const auto dot = version.find('.');
    if (dot == std::string_view::npos) return std::nullopt;
    const auto major = hexNumber(version.substr(0, dot));
    const auto minor = hexNumber(version.substr(dot + 1));
    if (!major || !minor) return std::nullopt;
    return static_cast<std::uint16_t>((*major << 8U) | *minor);
}

}  // namespace vantorix
